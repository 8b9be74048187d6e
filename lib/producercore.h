/* SPDX-License-Identifier: MIT */
#pragma once

#include "channelpipe.h"
#include "errorlist.h"
#include "listing.h"
#include "notifier.h"
#include "registration.h"

#include <functional>
#include <memory>
#include <vector>

/* What has changed for the application. Owns its errors. */
struct ProducerNews {
  ProducerNews() = default;
  ProducerNews(const ProducerNews &) = delete;
  ProducerNews &operator=(const ProducerNews &) = delete;
  ~ProducerNews();

  gboolean ready = FALSE;
  gboolean listed = FALSE;
  EnabledChannels enabled;
  guint64 dropped = 0;
  gboolean drained = FALSE;
  ErrorList interruptions; /* since the last news */
  GError *failure = nullptr;
};

/* The part of a producer that does the work, on the worker. */
class ProducerCore final : public std::enable_shared_from_this<ProducerCore>,
                           public Registration::Client,
                           public ChannelPipe::Client
{
public:
  /* Called on the worker with an error of TESSARD_ERROR, or NULL. */
  using Function = std::function<void(const GError *error)>;

  ProducerCore(std::string bus_address, ProducerDescription description, std::shared_ptr<Notifier> notifier);
  ProducerCore(const ProducerCore &) = delete;
  ProducerCore &operator=(const ProducerCore &) = delete;
  ~ProducerCore();

  /* For any thread. */
  void start();
  void call_when_connected(Function function);
  void set_sample_frame(const gchar *text);
  gboolean send(guint32 channel, const gchar *text, GError **error);
  void close(Function function);
  void take_news(ProducerNews *news);
  gboolean is_ready();
  gboolean is_listed();
  gboolean is_enabled(guint32 channel);
  guint64 get_dropped();
  guint get_pending();

private:
  struct Channel;

  void bus_connected(GDBusConnection *connection) override;
  void bus_failed(const GError *reason) override;
  void producer_registered() override;
  void channel_opened(guint32 channel, int fd) override;
  void receiver_lost() override;
  void interrupted(const GError *reason) override;
  void refused(const GError *reason) override;
  void ended() override;
  void items_passed(guint written, guint expired) override;
  void channel_closed(ChannelPipe *pipe, const LostMessages &lost) override;

  void begin();
  void wake();
  void write_queued();
  void pass_sample_frame();
  void take_listing(const std::optional<EnabledChannels> &enabled);
  void finish_connecting(const GError *error);
  gboolean check_open(GError **error);
  guint drop_queued();
  void count(guint gone, guint lost);
  void close_pipes(gboolean is_lost);
  void tell_dropped();
  void publish_dropped();
  void update_ready();
  void begin_close(Function function);
  void close_when_written();
  GError *make_outcome() const;
  void finish_close();

  const std::string address;
  const ProducerDescription description;
  const std::shared_ptr<Notifier> notifier;

  /* Of the worker. */
  std::vector<std::unique_ptr<Channel>> channels; /* the queues are for any thread */
  std::unique_ptr<Listing> listing;
  std::unique_ptr<Registration> registration;
  std::vector<Function> connect_functions;
  gboolean connected = FALSE;
  gboolean sample_frame_passed = FALSE; /* to the registration */
  gboolean receiver_takes = TRUE; /* whether the receiver can take what is queued; %TRUE until it is known */
  std::vector<Function> close_functions;
  std::shared_ptr<ProducerCore> kept; /* while it closes */
  gboolean closing = FALSE;
  gboolean unregistering = FALSE;
  gboolean finished = FALSE;
  WorkerSource close_timer;
  WorkerSource dropped_timer;
  guint not_taken = 0; /* items that were dropped because of the end */
  gint64 dropped_told_at = G_MININT64 / 2;

  gint waking = FALSE; /* atomic */

  /* With the lock. */
  GMutex lock = {};
  std::string sample_frame; /* empty once it is passed */
  gboolean has_sample_frame = FALSE;
  gboolean ready = FALSE;
  gboolean listed = FALSE;
  EnabledChannels enabled;
  guint64 dropped = 0;
  guint64 dropped_published = 0;
  guint pending = 0;
  gboolean drained = FALSE;
  gboolean closed = FALSE;
  ErrorList interruptions;
  GError *failure = nullptr;
  gboolean failure_is_new = FALSE;
};
