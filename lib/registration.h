/* SPDX-License-Identifier: MIT */
#pragma once

#include "buslink.h"
#include "ownercalls.h"

#include <optional>
#include <string>
#include <vector>

/* What is registered. The receiver checks it. */
struct ProducerDescription {
  std::string name;
  std::string nice_name;
  std::vector<guint32> channels;
};

/* Registers a producer at the receiver and opens its channels, whenever the receiver is on the bus. For the
 * worker. */
class Registration final : public BusLink::Client
{
public:
  /* Errors are of TESSARD_ERROR. */
  class Client
  {
  public:
    virtual void bus_connected(GDBusConnection *connection) = 0;
    /* There is no bus. It is tried again. */
    virtual void bus_failed(const GError *reason) = 0;
    /* The receiver has accepted the producer. */
    virtual void producer_registered() = 0;
    /* A channel is open. Takes the descriptor. */
    virtual void channel_opened(guint32 channel, int fd) = 0;
    /* The receiver is not there. All its channels are closed. */
    virtual void receiver_lost() = 0;
    /* Items are not taken for now, for this reason. It is tried again. Without a sample frame, only the end
     * of the bus is told. */
    virtual void interrupted(const GError *reason) = 0;
    /* The receiver has refused for good. Only another receiver is tried. */
    virtual void refused(const GError *reason) = 0;
    /* The end that end() has begun. */
    virtual void ended() = 0;

  protected:
    ~Client() = default;
  };

  Registration(std::string bus_address, ProducerDescription description, Client *client);
  Registration(const Registration &) = delete;
  Registration &operator=(const Registration &) = delete;
  ~Registration();

  void set_sample_frame(const std::string &text);
  void reopen(guint32 channel);
  gboolean end();

private:
  void bus_connected(GDBusConnection *connection) override;
  void receiver_appeared(GDBusConnection *connection, const gchar *owner) override;
  void receiver_vanished(const GError *reason) override;

  void forget_owner();
  void proceed();
  void call_register();
  void call_open(guint32 channel);
  void call_unregister();
  void take_registered(const GError *error);
  void take_opened(GVariant *reply, GUnixFDList *fds, const GError *error);
  void take_failure(const GError *cause);
  void retry_later();

  const ProducerDescription description;
  Client *const client;
  std::optional<std::string> sample_frame;
  GError *absence = nullptr; /* why the receiver is not there */

  OwnerCalls calls;
  gboolean registered = FALSE;
  gboolean gave_up = FALSE; /* until there is another owner */
  gboolean ending = FALSE;
  std::vector<guint32> closed; /* the channels to open */
  WorkerSource retry;
  RetryDelay delay;
  gint64 opened_at = 0; /* when the last channel was opened, in monotonic time */
  BusLink link;         /* the last one: it calls the functions above */
};
