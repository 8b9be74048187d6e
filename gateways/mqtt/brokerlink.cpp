/* SPDX-License-Identifier: MIT */
#include "brokerlink.h"

#include "mqttlimits.h"

#include <poll.h>
#include <sys/eventfd.h>
#include <syslog.h>
#include <unistd.h>

namespace mqtt
{

namespace
{

/* Of the time to stop, the last part is for the thread to end, and the one before for the broker to learn of
 * it. */
constexpr gint64 GOODBYE_US = G_TIME_SPAN_SECOND;
constexpr gint64 STOP_US = MQTT_STOP_SECONDS * G_TIME_SPAN_SECOND - GOODBYE_US;

} // namespace

/**
 * BrokerLink:
 * @config: the broker; it must outlive the link
 * @status_topic: the topic that says whether the program is connected
 * @outbox: what to publish; it must outlive the link
 */
BrokerLink::BrokerLink(const BrokerConfig *config, std::string status_topic, Outbox *outbox)
    : config_(config), status_topic_(std::move(status_topic)), outbox_(outbox),
      wake_fd_(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK))
{
  g_mutex_init(&lock_);
  g_cond_init(&ended_);
}

/* The thread must have ended, see stop(). */
BrokerLink::~BrokerLink()
{
  g_clear_pointer(&thread_, g_thread_join);
  close(wake_fd_);
  g_cond_clear(&ended_);
  g_mutex_clear(&lock_);
}

/**
 * BrokerLink::check:
 * @error: return location for an error of %G_KEY_FILE_ERROR, whose message is for the user
 *
 * Returns: false if the library refuses what the key file says of the broker
 */
bool
BrokerLink::check(GError **error) const
{
  BrokerSession session(config_, status_topic_, outbox_);
  if (session.set_up()) {
    return true;
  }
  g_set_error_literal(error, G_KEY_FILE_ERROR, G_KEY_FILE_ERROR_INVALID_VALUE, session.failure().c_str());
  return false;
}

/**
 * BrokerLink::start:
 *
 * Starts the thread.
 */
void
BrokerLink::start()
{
  thread_ = g_thread_new("broker", on_thread, this);
}

/**
 * BrokerLink::wake:
 *
 * The outbox has more to publish. Can be called on any thread.
 */
void
BrokerLink::wake()
{
  eventfd_write(wake_fd_, 1);
}

/**
 * BrokerLink::stop:
 *
 * Publishes the events that wait, and that the program ends, if the broker takes them in time.
 *
 * Returns: false if the thread still waits for the network; then the link must not be deleted
 */
bool
BrokerLink::stop()
{
  g_autoptr(GMutexLocker) locker = g_mutex_locker_new(&lock_);
  stop_us_ = g_get_monotonic_time() + STOP_US;
  wake();
  while (!has_ended_ && g_cond_wait_until(&ended_, &lock_, stop_us_ + GOODBYE_US)) {
  }
  return has_ended_;
}

gpointer
BrokerLink::on_thread(gpointer user_data)
{
  auto *self = static_cast<BrokerLink *>(user_data);
  self->run();
  g_autoptr(GMutexLocker) locker = g_mutex_locker_new(&self->lock_);
  self->has_ended_ = true;
  g_cond_signal(&self->ended_);
  return nullptr;
}

void
BrokerLink::run()
{
  while (!must_stop()) {
    run_session();
    wait_for_retry();
  }
}

void
BrokerLink::run_session()
{
  BrokerSession session(config_, status_topic_, outbox_);
  if (session.set_up() && session.connect()) {
    run_turns(&session);
  }
  if (session.has_said_goodbye()) {
    session.disconnect();
  }
  outbox_->disconnect();
  if (!session.failure().empty()) {
    log_lost(session.failure());
  }
}

void
BrokerLink::run_turns(BrokerSession *session)
{
  gint64 connected_us = G_MAXINT64;
  while (!session->has_said_goodbye() && turn(session)) {
    const gint64 now_us = g_get_monotonic_time();
    if (session->is_connected() && connected_us == G_MAXINT64) {
      connected_us = now_us;
      log_connected();
    }
    if (connected_us != G_MAXINT64 && now_us - connected_us > MQTT_STABLE_SECONDS * G_TIME_SPAN_SECOND) {
      backoff_.reset();
    }
    log_dropped_later();
  }
}

/* Returns: false if the connection is over, or must be */
bool
BrokerLink::turn(BrokerSession *session)
{
  gint64 stop_us;
  {
    g_autoptr(GMutexLocker) locker = g_mutex_locker_new(&lock_);
    stop_us = stop_us_;
  }
  const gint64 now_us = g_get_monotonic_time();
  if (stop_us != G_MAXINT64 && (!session->is_connected() || now_us >= stop_us)) {
    return false;
  }
  if (stop_us != G_MAXINT64 && (!outbox_->has_events() || now_us >= stop_us - GOODBYE_US)) {
    session->say_goodbye();
  }
  if (!session->turn(wake_fd_, stop_us)) {
    return false;
  }
  eventfd_t count;
  eventfd_read(wake_fd_, &count);
  return true;
}

void
BrokerLink::wait_for_retry()
{
  const gint64 until_us = g_get_monotonic_time() + backoff_.next_us();
  gint64 now_us;
  while (!must_stop() && (now_us = g_get_monotonic_time()) < until_us) {
    pollfd fd = {wake_fd_, POLLIN, 0};
    poll(&fd, 1, static_cast<int>((until_us - now_us) / G_TIME_SPAN_MILLISECOND + 1));
    eventfd_t count;
    eventfd_read(wake_fd_, &count);
    log_dropped_later();
  }
}

void
BrokerLink::log_connected()
{
  syslog(LOG_INFO, "Connected to %s.", config_->address.c_str());
  log_dropped();
  failure_.clear();
}

/* Logs what was dropped since the last time. */
void
BrokerLink::log_dropped()
{
  const Dropped dropped = outbox_->dropped();
  if (dropped.events == dropped_.events && dropped.frames == dropped_.frames) {
    return;
  }
  syslog(LOG_WARNING, "%" G_GUINT64_FORMAT " events and %" G_GUINT64_FORMAT " frames were dropped.",
         dropped.events - dropped_.events, dropped.frames - dropped_.frames);
  dropped_ = dropped;
  dropped_us_ = g_get_monotonic_time();
}

void
BrokerLink::log_dropped_later()
{
  if (g_get_monotonic_time() - dropped_us_ >= MQTT_LOG_SECONDS * G_TIME_SPAN_SECOND) {
    log_dropped();
  }
}

void
BrokerLink::log_lost(const std::string &failure)
{
  const gint64 now_us = g_get_monotonic_time();
  if (failure != failure_ || now_us - failure_us_ >= MQTT_LOG_SECONDS * G_TIME_SPAN_SECOND) {
    failure_ = failure;
    failure_us_ = now_us;
    syslog(LOG_WARNING, "%s: %s", config_->address.c_str(), failure.c_str());
  }
}

bool
BrokerLink::must_stop() const
{
  g_autoptr(GMutexLocker) locker = g_mutex_locker_new(&lock_);
  return stop_us_ != G_MAXINT64;
}

} // namespace mqtt
