/* SPDX-License-Identifier: MIT */
/* A producer on the worker: its registration, its channels and its place in the daemon's list.
 *
 * Items go into the queue of their channel from any thread, and from there into the channel's pipe on the
 * worker. Every item is either written or counted as dropped, once.
 *
 * The lock is held only to read or change the members below it, never during a call of another component.
 */
#include "producercore.h"
#include "tessardproducer.h"

#include <algorithm>
#include <cstring>
#include <string_view>
#include <unistd.h>
#include <utility>

struct ProducerCore::Channel {
  Channel(guint32 channel, ChannelPipe::Client *client) : number(channel), pipe(channel, &queue, client)
  {
  }

  const guint32 number;
  MessageQueue queue;
  ChannelPipe pipe;
};

namespace
{

constexpr std::string_view JSON_BLANKS = " \t\r\n";

/* Whether the receiver and the daemon accept the text. They pass it on without parsing it. */
gboolean
check_text(const gchar *text, GError **error)
{
  const std::string_view bytes(text);
  const gsize first = bytes.find_first_not_of(JSON_BLANKS);
  const gchar *flaw = nullptr;

  if (bytes.size() > TESSARD_PRODUCER_MAX_TEXT_BYTES) {
    flaw = "is too long for a message";
  } else if (first == std::string_view::npos || bytes[first] != '{' ||
             bytes[bytes.find_last_not_of(JSON_BLANKS)] != '}') {
    flaw = "is no JSON object";
  } else if (!g_utf8_validate(text, static_cast<gssize>(bytes.size()), nullptr)) {
    flaw = "is not UTF-8";
  }
  if (flaw != nullptr) {
    g_set_error(error, TESSARD_ERROR, TESSARD_ERROR_INVALID_ITEM, "The text of the item %s.", flaw);
  }
  return flaw == nullptr;
}

} // namespace

ProducerNews::~ProducerNews()
{
  g_clear_error(&failure);
}

/**
 * ProducerCore::ProducerCore:
 * @bus_address: the bus, empty for the system bus
 * @producer: what to register
 * @news_notifier: called when there are news
 *
 * Does nothing before start().
 */
ProducerCore::ProducerCore(std::string bus_address, ProducerDescription producer,
                           std::shared_ptr<Notifier> news_notifier)
    : address(std::move(bus_address)), description(std::move(producer)), notifier(std::move(news_notifier))
{
  for (const guint32 channel : description.channels) {
    channels.push_back(std::make_unique<Channel>(channel, this));
  }
}

ProducerCore::~ProducerCore()
{
  g_clear_error(&failure);
  g_mutex_clear(&lock);
}

/**
 * ProducerCore::start:
 *
 * Starts the work. close() must follow, which ends it.
 */
void
ProducerCore::start()
{
  worker_invoke([self = shared_from_this()] { self->begin(); });
}

/**
 * ProducerCore::call_when_connected:
 * @function: called once there is a connection to the bus, or with an error if there is none
 */
void
ProducerCore::call_when_connected(Function function)
{
  worker_invoke([self = shared_from_this(), function] {
    self->connect_functions.push_back(function);
    if (self->connected) {
      self->finish_connecting(nullptr);
    }
  });
}

/**
 * ProducerCore::set_sample_frame:
 * @text: (transfer none): the sample frame; the first one counts
 */
void
ProducerCore::set_sample_frame(const gchar *text)
{
  {
    g_autoptr(GMutexLocker) locker = g_mutex_locker_new(&lock);
    if (has_sample_frame) {
      return;
    }
    has_sample_frame = TRUE;
    sample_frame = text;
  }
  wake();
}

/* Also counts the item, if it cannot be sent any more. */
gboolean
ProducerCore::check_open(GError **error)
{
  g_autoptr(GMutexLocker) locker = g_mutex_locker_new(&lock);

  if (closed) {
    g_set_error_literal(error, TESSARD_ERROR, TESSARD_ERROR_CLOSED, "The producer is closed.");
  } else if (failure != nullptr) {
    g_propagate_error(error, g_error_copy(failure));
  } else {
    pending++;
    return TRUE;
  }
  dropped++;
  return FALSE;
}

/**
 * ProducerCore::send:
 * @channel: a channel of the producer
 * @text: (transfer none): the JSON of an item
 * @error: return location for an error of %TESSARD_ERROR
 *
 * Returns: whether the item is queued
 */
gboolean
ProducerCore::send(guint32 channel, const gchar *text, GError **error)
{
  const auto found = std::find_if(channels.begin(), channels.end(),
                                  [channel](const auto &one) { return one->number == channel; });

  if (found == channels.end()) {
    g_set_error(error, TESSARD_ERROR, TESSARD_ERROR_UNKNOWN_CHANNEL, "The producer has no channel %u.",
                channel);
    return FALSE;
  }
  if (!check_text(text, error)) {
    return FALSE;
  }
  if (!check_open(error)) {
    wake();
    return FALSE;
  }
  set_sample_frame(text);
  guint expired = 0;
  const gboolean fits = (*found)->queue.push(text, &expired);
  if (!fits) {
    g_set_error(error, TESSARD_ERROR, TESSARD_ERROR_QUEUE_FULL,
                "Too much waits for the receiver on channel %u: the item is dropped.", channel);
  }
  const guint gone = expired + (fits ? 0 : 1);
  if (gone > 0) {
    count(gone, gone);
  }
  wake();
  return fits;
}

/**
 * ProducerCore::close:
 * @function: (nullable): called when the producer is unregistered
 *
 * Ends the work when everything is written, but at the latest after %TESSARD_PRODUCER_CLOSE_MS.
 */
void
ProducerCore::close(Function function)
{
  {
    g_autoptr(GMutexLocker) locker = g_mutex_locker_new(&lock);
    closed = TRUE;
  }
  worker_invoke([self = shared_from_this(), function] { self->begin_close(function); });
}

/**
 * ProducerCore::take_news:
 * @news: (out): the present state, and what has happened since the last call
 */
void
ProducerCore::take_news(ProducerNews *news)
{
  g_autoptr(GMutexLocker) locker = g_mutex_locker_new(&lock);

  news->ready = ready;
  news->listed = listed;
  news->enabled = enabled;
  news->dropped = dropped_published;
  news->drained = std::exchange(drained, FALSE);
  news->interruptions = std::exchange(interruptions, {});
  if (std::exchange(failure_is_new, FALSE)) {
    news->failure = g_error_copy(failure);
  }
}

gboolean
ProducerCore::is_ready()
{
  g_autoptr(GMutexLocker) locker = g_mutex_locker_new(&lock);

  return ready;
}

gboolean
ProducerCore::is_listed()
{
  g_autoptr(GMutexLocker) locker = g_mutex_locker_new(&lock);

  return listed;
}

gboolean
ProducerCore::is_enabled(guint32 channel)
{
  g_autoptr(GMutexLocker) locker = g_mutex_locker_new(&lock);

  return enabled.count(channel) > 0;
}

guint64
ProducerCore::get_dropped()
{
  g_autoptr(GMutexLocker) locker = g_mutex_locker_new(&lock);

  return dropped;
}

guint
ProducerCore::get_pending()
{
  g_autoptr(GMutexLocker) locker = g_mutex_locker_new(&lock);

  return pending;
}

/* On the worker */

void
ProducerCore::begin()
{
  registration = std::make_unique<Registration>(address, description, this);
  write_queued();
}

void
ProducerCore::wake()
{
  if (g_atomic_int_compare_and_exchange(&waking, FALSE, TRUE)) {
    worker_invoke([self = shared_from_this()] {
      g_atomic_int_set(&self->waking, FALSE);
      self->write_queued();
    });
  }
}

void
ProducerCore::write_queued()
{
  if (registration == nullptr) {
    return;
  }
  if (!sample_frame_passed) {
    pass_sample_frame();
  }
  for (const auto &channel : channels) {
    channel->pipe.write_queued();
  }
  tell_dropped();
}

void
ProducerCore::pass_sample_frame()
{
  std::string sample;
  {
    g_autoptr(GMutexLocker) locker = g_mutex_locker_new(&lock);
    if (!has_sample_frame) {
      return;
    }
    sample.swap(sample_frame);
  }
  sample_frame_passed = TRUE;
  registration->set_sample_frame(sample);
}

void
ProducerCore::bus_connected(GDBusConnection *connection)
{
  connected = TRUE;
  listing = std::make_unique<Listing>(
      connection, description.name, [this](const auto &channels_enabled) { take_listing(channels_enabled); });
  finish_connecting(nullptr);
}

void
ProducerCore::bus_failed(const GError *reason)
{
  connected = FALSE;
  finish_connecting(reason);
}

void
ProducerCore::finish_connecting(const GError *error)
{
  for (const Function &function : std::exchange(connect_functions, {})) {
    function(error);
  }
}

void
ProducerCore::take_listing(const std::optional<EnabledChannels> &channels_enabled)
{
  {
    g_autoptr(GMutexLocker) locker = g_mutex_locker_new(&lock);
    listed = channels_enabled.has_value();
    enabled = channels_enabled.value_or(EnabledChannels());
  }
  notifier->schedule();
}

void
ProducerCore::producer_registered()
{
  receiver_takes = TRUE;
}

void
ProducerCore::channel_opened(guint32 number, int fd)
{
  for (const auto &channel : channels) {
    if (channel->number == number && !channel->pipe.is_open()) {
      channel->pipe.open(fd);
      receiver_takes = TRUE;
      update_ready();
      channel->pipe.write_queued();
      return;
    }
  }
  ::close(fd);
}

void
ProducerCore::receiver_lost()
{
  close_pipes(TRUE);
  {
    g_autoptr(GMutexLocker) locker = g_mutex_locker_new(&lock);
    g_clear_error(&failure);
    failure_is_new = FALSE;
  }
  update_ready();
  tell_dropped();
  if (unregistering) {
    finish_close();
  }
}

void
ProducerCore::interrupted(const GError *reason)
{
  receiver_takes = FALSE;
  {
    g_autoptr(GMutexLocker) locker = g_mutex_locker_new(&lock);
    interruptions.add(reason);
  }
  notifier->schedule();
  close_when_written();
}

void
ProducerCore::refused(const GError *reason)
{
  {
    g_autoptr(GMutexLocker) locker = g_mutex_locker_new(&lock);
    g_clear_error(&failure);
    failure = g_error_copy(reason);
    failure_is_new = TRUE;
  }
  drop_queued();
  notifier->schedule();
  close_when_written();
}

void
ProducerCore::ended()
{
  finish_close();
}

/* Closing the pipes is not for functions that the pipes call. */
void
ProducerCore::items_passed(guint written, guint expired)
{
  count(written + expired, expired);
  if (expired > 0) {
    tell_dropped();
  }
  if (closing) {
    worker_invoke([self = shared_from_this()] { self->close_when_written(); });
  }
}

void
ProducerCore::channel_closed(ChannelPipe *pipe, const LostMessages &lost)
{
  g_autoptr(GError) reason =
      g_error_new_literal(TESSARD_ERROR, TESSARD_ERROR_CHANNEL_CLOSED, "The receiver has closed a channel.");

  count(lost.unwritten, lost.unwritten + lost.unread);
  tell_dropped();
  update_ready();
  registration->reopen(pipe->channel());
  interrupted(reason);
}

/* @is_lost: whether what is in the pipes has no reader */
void
ProducerCore::close_pipes(gboolean is_lost)
{
  for (const auto &channel : channels) {
    const LostMessages lost = channel->pipe.close();
    count(lost.unwritten, lost.unwritten + (is_lost ? lost.unread : 0));
    not_taken += lost.unwritten;
  }
}

/* Returns: how many items are dropped */
guint
ProducerCore::drop_queued()
{
  guint sum = 0;

  for (const auto &channel : channels) {
    sum += channel->queue.clear();
  }
  count(sum, sum);
  tell_dropped();
  return sum;
}

/* @gone: how many items do not wait any more; @lost: how many are dropped */
void
ProducerCore::count(guint gone, guint lost)
{
  {
    g_autoptr(GMutexLocker) locker = g_mutex_locker_new(&lock);
    dropped += lost;
    pending -= gone;
    if (gone == 0 || pending > 0) {
      return;
    }
    drained = TRUE;
  }
  notifier->schedule();
}

void
ProducerCore::tell_dropped()
{
  {
    g_autoptr(GMutexLocker) locker = g_mutex_locker_new(&lock);
    if (dropped == dropped_published) {
      return;
    }
  }
  const gint64 wait = dropped_told_at / G_TIME_SPAN_MILLISECOND + TESSARD_PRODUCER_DROPPED_INTERVAL_MS -
                      g_get_monotonic_time() / G_TIME_SPAN_MILLISECOND;
  if (wait <= 0) {
    publish_dropped();
  } else if (!dropped_timer.is_set()) {
    dropped_timer.start_timer(static_cast<guint>(wait), [this] { publish_dropped(); });
  }
}

void
ProducerCore::publish_dropped()
{
  {
    g_autoptr(GMutexLocker) locker = g_mutex_locker_new(&lock);
    dropped_published = dropped;
  }
  dropped_told_at = g_get_monotonic_time();
  notifier->schedule();
}

void
ProducerCore::update_ready()
{
  const gboolean now = std::all_of(channels.begin(), channels.end(),
                                   [](const auto &channel) { return channel->pipe.is_open(); });
  {
    g_autoptr(GMutexLocker) locker = g_mutex_locker_new(&lock);
    if (ready == now) {
      return;
    }
    ready = now;
  }
  notifier->schedule();
}

/* The end */

void
ProducerCore::begin_close(Function function)
{
  if (function != nullptr && finished) {
    g_autoptr(GError) outcome = make_outcome();
    function(outcome);
    return;
  }
  if (function != nullptr) {
    close_functions.push_back(std::move(function));
  }
  if (closing) {
    return;
  }
  closing = TRUE;
  kept = shared_from_this();
  close_timer.start_timer(TESSARD_PRODUCER_CLOSE_MS, [this] { finish_close(); });
  close_when_written();
}

void
ProducerCore::close_when_written()
{
  if (!closing || unregistering || finished) {
    return;
  }
  {
    g_autoptr(GMutexLocker) locker = g_mutex_locker_new(&lock);
    if (pending > 0 && receiver_takes && failure == nullptr) {
      return;
    }
  }
  unregistering = TRUE;
  not_taken += drop_queued();
  close_pipes(FALSE);
  update_ready();
  if (!registration->end()) {
    finish_close();
  }
}

/* Returns: (nullable): that items are lost */
GError *
ProducerCore::make_outcome() const
{
  return not_taken == 0 ? nullptr
                        : g_error_new(TESSARD_ERROR, TESSARD_ERROR_NOT_TAKEN,
                                      "The receiver has not taken %u items.", not_taken);
}

/* What calls this can be a part of what is released. */
void
ProducerCore::finish_close()
{
  if (finished) {
    return;
  }
  finished = TRUE;
  not_taken += drop_queued();
  close_pipes(FALSE);
  g_autoptr(GError) outcome = make_outcome();
  for (const Function &function : std::exchange(close_functions, {})) {
    function(outcome);
  }
  g_autoptr(GError) no_connection =
      g_error_new_literal(TESSARD_ERROR, TESSARD_ERROR_CLOSED, "The producer is closed.");
  finish_connecting(no_connection);
  worker_invoke([self = shared_from_this()] {
    self->close_timer.clear();
    self->dropped_timer.clear();
    self->listing.reset();
    self->registration.reset();
    self->kept.reset();
  });
}
