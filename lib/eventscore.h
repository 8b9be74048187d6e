/* SPDX-License-Identifier: MIT */
#pragma once

#include "buslink.h"
#include "errorlist.h"
#include "eventqueue.h"
#include "notifier.h"
#include "ownercalls.h"

#include <functional>
#include <memory>
#include <optional>
#include <vector>

/* What an application declares. */
struct EventTopic {
  /* Names with their types, in the order of the event. */
  using Items = std::vector<std::pair<std::string, std::string>>;

  std::string name;
  gboolean is_property = FALSE;
  Items source;
  Items data;
  EventItems namespaces; /* URIs by prefix */

  bool operator==(const EventTopic &other) const = default;
};

/* What has changed for the application. Owns its errors. */
struct EventsNews {
  EventsNews() = default;
  EventsNews(const EventsNews &) = delete;
  EventsNews &operator=(const EventsNews &) = delete;
  ~EventsNews();

  guint64 dropped = 0;
  gboolean drained = FALSE;
  ErrorList interruptions; /* since the last news */
  std::string refused_topic;
  GError *refusal = nullptr;
};

/* The part of an object with events that does the work, on the worker. */
class EventsCore final : public std::enable_shared_from_this<EventsCore>, public BusLink::Client
{
public:
  /* Called on the worker with a reply of the type "(a(sba(ss)a(ss)a{ss}))", or an error of TESSARD_ERROR. */
  using TopicsFunction = std::function<void(GVariant *topics, const GError *error)>;

  EventsCore(std::string bus_address, std::shared_ptr<Notifier> notifier);
  EventsCore(const EventsCore &) = delete;
  EventsCore &operator=(const EventsCore &) = delete;
  ~EventsCore();

  /* For any thread. */
  void start();
  void declare(EventTopic topic);
  gboolean emit(Event event, GError **error);
  void get_topics(TopicsFunction function);
  void close(Event::Function function);
  void take_news(EventsNews *news);
  guint64 get_dropped();

private:
  enum class Declaration {
    NEEDED,
    MADE,
    REFUSED,
  };

  struct DeclaredTopic {
    EventTopic topic;
    Declaration declaration = Declaration::NEEDED;
    GError *refusal = nullptr;
  };

  void receiver_appeared(GDBusConnection *connection, const gchar *owner) override;
  void receiver_vanished(const GError *reason) override;

  void wake();
  void proceed();
  void forget_owner();
  gboolean call_declare();
  gboolean call_emit();
  void call(const BusMethod *method, GVariant *arguments, BusReplyFunction function);
  void take_declared(const std::string &name, const GError *error);
  void take_emitted(const GError *error);
  void finish_current(const GError *error);
  void drop(const std::vector<Event> &events, const GError *error);
  void refuse(const std::string &topic, const GError *error);
  void interrupt(const GError *reason);
  void retry_later();
  void call_topics();
  void begin_close(Event::Function function);
  void close_when_sent();
  GError *make_outcome() const;
  void finish_close();

  const std::string address;
  const std::shared_ptr<Notifier> notifier;

  /* Of the worker. */
  std::unique_ptr<BusLink> link;
  OwnerCalls calls;
  GError *absence = nullptr;    /* why the receiver is not there, once that is known */
  std::optional<Event> current; /* the event of the pending call */
  WorkerSource retry;
  RetryDelay delay;
  std::vector<TopicsFunction> topics_functions;
  std::vector<Event::Function> close_functions;
  gsize not_taken = 0;              /* events that were dropped because of the end */
  std::shared_ptr<EventsCore> kept; /* while it closes */
  gboolean closing = FALSE;
  gboolean finished = FALSE;
  WorkerSource close_timer;

  gint waking = FALSE; /* atomic */

  /* With the lock. */
  GMutex lock = {};
  gboolean is_away = FALSE; /* also while that is not known yet */
  std::map<std::string, DeclaredTopic> topics;
  EventQueue queue;
  std::map<std::string, Event> states; /* the present one of each property */
  guint64 serial = 0;
  guint64 dropped = 0;
  gboolean drained = FALSE;
  gboolean closed = FALSE;
  ErrorList interruptions;
  std::string refused_topic;
  GError *refusal = nullptr;
};
