/* SPDX-License-Identifier: MIT */
#include "eventhub.h"

#include "eventlink.h"

/* The hub's thread starts with the first reader and ends with the last one. Its only wait outside the main
 * loop, for the connection to the bus, ends when the cancellable is cancelled; so the end of the last reader
 * does not wait for the bus or the receiver.
 *
 * Locks: the hub's lock guards the table and all queues. A reader's wake function is called with it held, and
 * must not use the reader. */

namespace plugins
{

namespace
{

GMutex current_lock; /* guards current_hub */
std::weak_ptr<EventHub> current_hub;

} // namespace

/**
 * EventHub::get:
 *
 * Returns: the hub, which lives as long as it has a holder
 */
std::shared_ptr<EventHub>
EventHub::get()
{
  g_autoptr(GMutexLocker) locker = g_mutex_locker_new(&current_lock);
  std::shared_ptr<EventHub> hub = current_hub.lock();
  if (hub == nullptr) {
    hub = std::make_shared<EventHub>();
    current_hub = hub;
  }
  return hub;
}

EventHub::EventHub()
    : context_(g_main_context_new()), loop_(g_main_loop_new(context_, FALSE)),
      cancellable_(g_cancellable_new()), table_([this](const SharedEvent &event) { publish(event); })
{
  g_mutex_init(&lock_);
  thread_ = g_thread_new("tessard-events", run, this);
}

/* The source quits the loop even if the thread has not entered it yet. */
EventHub::~EventHub()
{
  g_cancellable_cancel(cancellable_);
  GSource *quit = g_idle_source_new();
  g_source_set_callback(
      quit,
      [](gpointer loop) -> gboolean {
        g_main_loop_quit(static_cast<GMainLoop *>(loop));
        return G_SOURCE_REMOVE;
      },
      loop_, nullptr);
  g_source_attach(quit, context_);
  g_source_unref(quit);
  g_thread_join(thread_);
  g_mutex_clear(&lock_);
  g_object_unref(cancellable_);
  g_main_loop_unref(loop_);
  g_main_context_unref(context_);
}

gpointer
EventHub::run(gpointer user_data)
{
  auto *self = static_cast<EventHub *>(user_data);
  g_main_context_push_thread_default(self->context_);
  {
    EventLink link(
        self->context_, self->cancellable_, [self] { self->begin(); },
        [self](std::string_view text) { return self->deliver(text); }, [self] { self->clear(); });
    link.start();
    g_main_loop_run(self->loop_);
  }
  g_main_context_pop_thread_default(self->context_);
  return nullptr;
}

bool
EventHub::deliver(std::string_view text)
{
  const std::optional<ReceiverMessage> message = receiver_message_parse(&parser_, text);
  if (!message.has_value()) {
    return false;
  }
  g_autoptr(GMutexLocker) locker = g_mutex_locker_new(&lock_);
  const bool applied = table_.apply(*message);
  if (table_.is_current()) {
    settle();
  }
  return applied;
}

/* The states follow. */
void
EventHub::begin()
{
  g_autoptr(GMutexLocker) locker = g_mutex_locker_new(&lock_);
  table_.clear();
  is_settled_ = false;
}

/* There is no receiver. */
void
EventHub::clear()
{
  g_autoptr(GMutexLocker) locker = g_mutex_locker_new(&lock_);
  table_.clear();
  settle();
}

/* Called with the lock held. */
void
EventHub::settle()
{
  if (is_settled_) {
    return;
  }
  is_settled_ = true;
  for (EventReader *reader : readers_) {
    reader->wake_();
  }
}

/* Called with the lock held, by the table. */
void
EventHub::publish(const SharedEvent &event)
{
  for (EventReader *reader : readers_) {
    reader->queue_.add(event);
    reader->wake_();
  }
}

/**
 * EventReader:
 * @wake: called on any thread when there is something to take
 */
EventReader::EventReader(Wake wake) : wake_(std::move(wake)), hub_(EventHub::get())
{
  g_autoptr(GMutexLocker) locker = g_mutex_locker_new(&hub_->lock_);
  hub_->readers_.insert(this);
}

EventReader::~EventReader()
{
  g_autoptr(GMutexLocker) locker = g_mutex_locker_new(&hub_->lock_);
  hub_->readers_.erase(this);
}

/**
 * EventReader::is_settled:
 *
 * Returns: whether the present states are known, or there is no receiver
 */
bool
EventReader::is_settled() const
{
  g_autoptr(GMutexLocker) locker = g_mutex_locker_new(&hub_->lock_);
  return hub_->is_settled_;
}

/**
 * EventReader::begin:
 *
 * Drops all events so far. The next ones are the present states.
 */
void
EventReader::begin()
{
  g_autoptr(GMutexLocker) locker = g_mutex_locker_new(&hub_->lock_);
  queue_.clear();
  queue_.add_states(hub_->table_.states());
}

/**
 * EventReader::add_states:
 *
 * The present states follow the events so far.
 */
void
EventReader::add_states()
{
  g_autoptr(GMutexLocker) locker = g_mutex_locker_new(&hub_->lock_);
  queue_.add_states(hub_->table_.states());
}

/**
 * EventReader::take_batch:
 * @has_more: (out): whether there are more
 *
 * Returns: the next events
 */
std::vector<SharedEvent>
EventReader::take_batch(bool *has_more)
{
  g_autoptr(GMutexLocker) locker = g_mutex_locker_new(&hub_->lock_);
  if (queue_.needs_states()) {
    queue_.add_states(hub_->table_.states());
  }
  std::vector<SharedEvent> batch = queue_.take_batch();
  *has_more = !queue_.is_empty();
  return batch;
}

} // namespace plugins
