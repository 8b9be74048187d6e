/* SPDX-License-Identifier: MIT */
/* Reads one producer's stream into messages (messagecutter.h) and delivers each as a JSON frame.
 *
 * Modes: the descriptor's O_NONBLOCK at its arrival selects how messages are read (docs/compatibility.md,
 * "partial messages"). Set: a message must be complete when its length is read, otherwise it is discarded.
 * Clear: the pieces are collected until the message is complete. A producer may be able to write only the
 * first part of a message during a pause. Therefore a stream that was paused collects pieces in both modes
 * until it has caught up, that is, until there is no data to read between two messages. This file selects the
 * mode, the cutter implements it.
 *
 * Reads: no read blocks, and none changes or trusts the flags of the open file, which other processes and
 * other sockets can share. A socket is read with MSG_DONTWAIT, a pipe with RWF_NOWAIT. FIFOs, and in older
 * kernels all pipes, do not support RWF_NOWAIT; they are read by vmsplice() or splice() with
 * SPLICE_F_NONBLOCK. A file is read when poll() reports it as readable; such a read can block only in a file
 * system that waits for a peer.
 *
 * Read-ahead: one read stores the missing bytes of a message where they belong, in its frame, and what comes
 * after them in a buffer, from which the next messages are copied. The buffer is small, so that a short
 * message needs few reads, and most of a long one is not copied.
 *
 * Turns: one dispatch reads at most EXTERNAL_SOURCE_TURN_MESSAGES messages, and of their payloads at most
 * this socket's share of EXTERNAL_SOURCE_TURN_BYTES. If the first message begins in this turn, all open
 * sockets have an equal share, which limits a turn of the main loop, and no socket waits for another. If it
 * is an unfinished one, only the sockets that have one share the limit, so idle sockets do not slow it down.
 * The end of a turn does not end a piece. A further message begins only if its first bytes are read already,
 * and within this socket's share of EXTERNAL_SOURCE_TURN_US.
 *
 * Memory: a message's frame is allocated when its length is known, and the payload is read into it. The
 * account (messageaccount.h) counts it from then until it is delivered. Between two messages the account
 * decides whether the next one can begin; if not, the socket is paused until the account resumes it. When
 * there is no room for a message, the account selects the sockets whose streams end, possibly this one. An
 * unfinished message is never paused, and must be complete within EXTERNAL_SOURCE_MESSAGE_TIMEOUT_MS.
 *
 * Threads: the main thread reads, delivers, pauses and resumes. Any thread can close.
 *
 * Lock: protects the channel, the read-ahead, the cutter with the current message, its deadline, the turn's
 * limits, the id of the watch, and whether the stream is catching up. The reader holds it for one message.
 * Close holds it while it shuts the channel down, so no read uses a descriptor number that already belongs to
 * another file. The account's lock is taken under it. While it is held, no callback is called, no other
 * socket is closed, and no watch is removed, because that can release the user data. The owner can hold its
 * own lock while it closes a socket without notification, and can take that lock in the callbacks.
 *
 * Lifetime: the open socket and each of its watches count as holders. The holders share one reference to the
 * object and one to the user data. The last holder to go releases both, on its own thread. A paused socket
 * has no watch, because poll() would report a hang-up continuously; the account then has a reference.
 */
#include "externalsourcesocket.h"

#include "logtext.h"
#include "messagecutter.h"
#include "producermeter.h"
#include "ratelimitedlog.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <fcntl.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/uio.h>
#include <syslog.h>
#include <unistd.h>
#include <utility>

/* What is left of a turn's limits. */
struct Turn {
  gsize bytes; /* of payloads */
  guint messages;
  gint64 end_us; /* monotonic; no message begins after it, except the first */
};

/* Two places, one behind the other, for the bytes that a read returns. */
constexpr int READ_PLACES = 2;
using ReadSpace = std::array<iovec, READ_PLACES>;

/* Reads from a descriptor like readv(), but fails with EAGAIN instead of blocking. */
using ReadFunc = gssize (*)(gint fd, ReadSpace *space);

/* Bytes that were read beyond a message. */
struct ReadAhead {
  gsize size;
  guint8 *bytes;
  gsize begin; /* of those that are not copied yet */
  gsize end;
};

struct _ExternalSourceSocket {
  GObject parent_instance;

  gchar *source_name;
  MessageReader *reader;
  ProducerMeter *meter;
  gint closed;             /* atomic */
  gint holders;            /* atomic */
  gboolean is_blocking;    /* the mode in which the descriptor arrived */
  gboolean is_catching_up; /* was paused, and the stream has not been empty between two messages since */
  GMutex lock;
  guint watch_id;
  GIOChannel *channel; /* NULL once closed */
  ReadFunc read;       /* constant */
  ReadAhead read_ahead;
  MessageCutter *cutter;
  gint64 deadline_us; /* of the unfinished message; monotonic, 0 without one */
  Turn turn;          /* the current or last one */
  ExternalSourceSocketDataFunc on_data;
  ExternalSourceSocketCloseFunc on_close;
  GDestroyNotify user_data_free;
  gpointer user_data;
};

typedef enum {
  PROP_SOURCE_NAME = 1,
  N_EXTERNAL_SOURCE_SOCKET_PROPERTIES,
} ExternalSourceSocketProperty;

static std::array<GParamSpec *, N_EXTERNAL_SOURCE_SOCKET_PROPERTIES> external_source_socket_properties;

G_DEFINE_FINAL_TYPE(ExternalSourceSocket, external_source_socket, G_TYPE_OBJECT)

namespace
{

/* The sizes of the read-ahead. A socket can have datagrams, of which a read drops what does not fit. */
constexpr gsize READ_AHEAD_SIZE = 16 * 1024;
constexpr gsize SOCKET_READ_AHEAD_SIZE = 64 * 1024;

/* The numbers of open sockets and of unfinished messages. Atomic. */
gint open_sockets;
gint unfinished_messages;

/* Each client that requests a producer's stream can cause such a line. */
RateLimitedLog refusals = RATE_LIMITED_LOG_INIT_BURST(RATE_LIMITED_LOG_INTERVAL_US, RATE_LIMITED_LOG_BURST);

constexpr auto CONDITIONS = static_cast<GIOCondition>(G_IO_IN | G_IO_ERR | G_IO_HUP | G_IO_NVAL);

/* Whether poll() reports data, the end of the stream or a failure. */
gboolean
is_readable(gint fd)
{
  pollfd descriptor = {fd, POLLIN, 0};

  return poll(&descriptor, 1, 0) > 0;
}

gssize
read_socket(gint fd, ReadSpace *space)
{
  msghdr message = {};

  message.msg_iov = space->data();
  message.msg_iovlen = READ_PLACES;
  return recvmsg(fd, &message, MSG_DONTWAIT);
}

/* Moves the bytes into a temporary pipe and reads them from there. */
gssize
read_spliced(gint fd, ReadSpace *space)
{
  std::array<gint, 2> ends = {-1, -1};

  if (pipe2(ends.data(), O_CLOEXEC) != 0) {
    return -1;
  }
  const gsize count = space->front().iov_len + space->back().iov_len;
  gssize size = splice(fd, nullptr, ends[1], nullptr, count, SPLICE_F_NONBLOCK);
  if (size > 0) {
    size = readv(ends[0], space->data(), READ_PLACES);
  }
  const int error_number = errno;
  close(ends[0]);
  close(ends[1]);
  errno = error_number;
  return size;
}

gssize
read_pipe(gint fd, ReadSpace *space)
{
  const gssize size = preadv2(fd, space->data(), READ_PLACES, -1, RWF_NOWAIT);

  if (size >= 0 || (errno != EOPNOTSUPP && errno != ENOSYS)) {
    return size;
  }
  /* vmsplice() would write to a FIFO that is open for reading and writing. */
  return (fcntl(fd, F_GETFL) & O_ACCMODE) == O_RDONLY
             ? vmsplice(fd, space->data(), READ_PLACES, SPLICE_F_NONBLOCK)
             : read_spliced(fd, space);
}

gssize
read_file(gint fd, ReadSpace *space)
{
  if (!is_readable(fd)) {
    errno = EAGAIN;
    return -1;
  }
  return readv(fd, space->data(), READ_PLACES);
}

/* Selects how the descriptor is read. */
void
set_reader(ExternalSourceSocket *self, gint fd)
{
  struct stat status = {};

  fstat(fd, &status);
  self->read = S_ISSOCK(status.st_mode) ? read_socket : S_ISFIFO(status.st_mode) ? read_pipe : read_file;
  self->read_ahead.size = S_ISSOCK(status.st_mode) ? SOCKET_READ_AHEAD_SIZE : READ_AHEAD_SIZE;
  self->read_ahead.bytes = static_cast<guint8 *>(g_malloc(self->read_ahead.size));
}

ExternalSourceSocket *
hold(ExternalSourceSocket *self)
{
  g_atomic_int_inc(&self->holders);
  return self;
}

void
release_hold(gpointer user_data)
{
  auto *self = static_cast<ExternalSourceSocket *>(user_data);

  if (!g_atomic_int_dec_and_test(&self->holders)) {
    return;
  }
  if (self->user_data_free != nullptr) {
    self->user_data_free(self->user_data);
  }
  g_object_unref(self);
}

void
log_read_failure(const char *what, int error_number)
{
  const char *text = g_strerror(error_number);

  syslog(LOG_ERR, "Could not read request %s from client socket: %s: %s", what, text, text);
}

gboolean
has_read_ahead(const ExternalSourceSocket *self)
{
  return self->read_ahead.begin < self->read_ahead.end;
}

/* Returns the number of copied bytes. */
gsize
copy_read_ahead(ReadAhead *ahead, guint8 *space, gsize size)
{
  const gsize count = std::min(size, ahead->end - ahead->begin);

  std::copy_n(ahead->bytes + ahead->begin, count, space);
  ahead->begin += count;
  return count;
}

/* Reads once, into the space and up to @ahead_size bytes into the read-ahead, which is empty. Sets errno on
 * failure. */
GIOStatus
read_descriptor(ExternalSourceSocket *self, guint8 *space, gsize size, gsize ahead_size, gsize *count)
{
  ReadAhead *ahead = &self->read_ahead;
  ReadSpace places = {{{space, size}, {ahead->bytes, ahead_size}}};
  const gssize read = TEMP_FAILURE_RETRY(self->read(g_io_channel_unix_get_fd(self->channel), &places));

  if (read > 0) {
    *count = std::min<gsize>(read, size);
    ahead->begin = 0;
    ahead->end = read - *count;
    return G_IO_STATUS_NORMAL;
  }
  if (read == 0) {
    return G_IO_STATUS_EOF;
  }
  return errno == EAGAIN ? G_IO_STATUS_AGAIN : G_IO_STATUS_ERROR;
}

/* Reads until the space is full or a read fails. The failure of a read after others is not reported; the next
 * one repeats it. */
GIOStatus
read_stream(ExternalSourceSocket *self, guint8 *space, gsize size, gsize ahead_size, gsize *bytes_read)
{
  GIOStatus status = G_IO_STATUS_NORMAL;

  *bytes_read = copy_read_ahead(&self->read_ahead, space, size);
  while (*bytes_read < size && status == G_IO_STATUS_NORMAL) {
    gsize count = 0;
    status = read_descriptor(self, space + *bytes_read, size - *bytes_read, ahead_size, &count);
    *bytes_read += count;
  }
  return *bytes_read > 0 ? G_IO_STATUS_NORMAL : status;
}

/* Reads into the message, at most @limit bytes of its payload. A read that can reach the limit reads nothing
 * ahead, because that would be for the next turn; except from a socket, which drops the rest of a datagram.
 * Logs a failure, in which @what names the part of the message. Called with the lock held. */
GIOStatus
read_piece(ExternalSourceSocket *self, const char *what, gsize limit, gsize *count)
{
  gsize size = 0;
  guint8 *space = message_cutter_get_space(self->cutter, limit, &size);
  const gsize ahead_size = size < limit || self->read == read_socket ? self->read_ahead.size : 0;
  const GIOStatus status = read_stream(self, space, size, ahead_size, count);

  if (status == G_IO_STATUS_NORMAL) {
    message_cutter_add(self->cutter, *count);
  }
  if (status == G_IO_STATUS_ERROR) {
    log_read_failure(what, errno);
  }
  return status;
}

/* Reads while the cutter is in @state. Returns G_IO_STATUS_NORMAL when it is in another one, or when @limit
 * bytes have been read, which are subtracted from it. Called with the lock held. */
GIOStatus
read_in_state(ExternalSourceSocket *self, MessageCutterState state, const char *what, gsize *limit)
{
  GIOStatus status = G_IO_STATUS_NORMAL;

  while (status == G_IO_STATUS_NORMAL && *limit > 0 && message_cutter_get_state(self->cutter) == state) {
    gsize count = 0;
    status = read_piece(self, what, *limit, &count);
    *limit -= count;
  }
  return status;
}

/* Called between two messages, with the lock held. */
void
set_is_catching_up(ExternalSourceSocket *self, gboolean is_catching_up)
{
  self->is_catching_up = is_catching_up;
  message_cutter_set_keeps_pieces(self->cutter, self->is_blocking || is_catching_up);
}

/* Ends the catching up when there is no data to read between two messages. Called with the lock held, while
 * the socket is open. */
void
check_caught_up(ExternalSourceSocket *self)
{
  if (self->is_catching_up && !message_cutter_has_begun(self->cutter) && !has_read_ahead(self) &&
      !is_readable(g_io_channel_unix_get_fd(self->channel))) {
    set_is_catching_up(self, FALSE);
  }
}

/* Whether an earlier turn has begun the current message. Called with the lock held. */
gboolean
is_unfinished(ExternalSourceSocket *self)
{
  return self->deadline_us != 0;
}

void
begin_turn(ExternalSourceSocket *self)
{
  g_autoptr(GMutexLocker) locker = g_mutex_locker_new(&self->lock);
  const gsize sockets = std::max(g_atomic_int_get(&open_sockets), 1);
  const gsize readers = is_unfinished(self) ? std::max(g_atomic_int_get(&unfinished_messages), 1) : sockets;

  self->turn = {std::max<gsize>(EXTERNAL_SOURCE_TURN_BYTES / readers, EXTERNAL_SOURCE_MIN_READ_BYTES),
                EXTERNAL_SOURCE_TURN_MESSAGES,
                g_get_monotonic_time() + static_cast<gint64>(EXTERNAL_SOURCE_TURN_US / sockets)};
}

/* Whether the turn's limits allow a further message, of which there is data. Called after each message. */
gboolean
continues_turn(ExternalSourceSocket *self)
{
  g_autoptr(GMutexLocker) locker = g_mutex_locker_new(&self->lock);

  self->turn.messages--;
  return self->channel != nullptr && self->turn.messages > 0 && self->turn.bytes > 0 &&
         has_read_ahead(self) && g_get_monotonic_time() < self->turn.end_us;
}

/* Called with the lock held. */
void
clear_deadline(ExternalSourceSocket *self)
{
  if (is_unfinished(self)) {
    g_atomic_int_add(&unfinished_messages, -1);
  }
  self->deadline_us = 0;
}

/* Counts a message that begins and is discarded. Called with the lock held, before it is discarded. */
void
count_dropped(ExternalSourceSocket *self)
{
  if (message_cutter_has_begun(self->cutter)) {
    producer_meter_add_dropped(self->meter);
  }
}

/* Called with the lock held. */
void
drop_message(ExternalSourceSocket *self)
{
  count_dropped(self);
  message_cutter_discard(self->cutter);
  clear_deadline(self);
  message_reader_end(self->reader);
}

/* Ends a piece, and counts the message if that discards it. Called with the lock held. */
void
end_piece(ExternalSourceSocket *self)
{
  const gboolean has_begun = message_cutter_has_begun(self->cutter);

  message_cutter_end_piece(self->cutter);
  if (has_begun && !message_cutter_has_begun(self->cutter)) {
    producer_meter_add_dropped(self->meter);
  }
}

/* Ends the reading of a message, after a last read with this @status. Called with the lock held. */
void
end_reading(ExternalSourceSocket *self, GIOStatus status)
{
  if (status == G_IO_STATUS_AGAIN) {
    end_piece(self);
  }
  if (status == G_IO_STATUS_NORMAL) {
    clear_deadline(self);
  } else if (status != G_IO_STATUS_AGAIN || !message_cutter_has_begun(self->cutter)) {
    drop_message(self);
  }
  check_caught_up(self);
}

/* Reads the length, and counts a message with a payload in the account. Called with the lock held. */
GIOStatus
begin_message(ExternalSourceSocket *self)
{
  gsize limit = G_MAXSIZE;
  const GIOStatus status = read_in_state(self, MESSAGE_CUTTER_LENGTH, "length", &limit);

  if (status != G_IO_STATUS_NORMAL || message_cutter_get_state(self->cutter) != MESSAGE_CUTTER_NEEDS_FRAME) {
    return status;
  }
  if (message_cutter_get_length(self->cutter) > EXTERNAL_SOURCE_MAX_PAYLOAD) {
    log_read_failure("data", EMSGSIZE);
    return G_IO_STATUS_ERROR;
  }
  message_reader_begin(self->reader, message_cutter_get_frame_size(self->cutter));
  return G_IO_STATUS_NORMAL;
}

/* Reads the length of the next message, unless it is known. Returns G_IO_STATUS_NORMAL when the payload can
 * be read; sets @needs_room when the frame must be allocated first. */
GIOStatus
start_message(ExternalSourceSocket *self, gboolean *needs_room)
{
  g_autoptr(GMutexLocker) locker = g_mutex_locker_new(&self->lock);

  if (self->channel == nullptr) {
    return G_IO_STATUS_AGAIN;
  }
  if (message_cutter_get_state(self->cutter) != MESSAGE_CUTTER_LENGTH) {
    return G_IO_STATUS_NORMAL;
  }
  const GIOStatus status = begin_message(self);
  if (status != G_IO_STATUS_NORMAL) {
    end_reading(self, status);
  }
  *needs_room =
      status == G_IO_STATUS_NORMAL && message_cutter_get_state(self->cutter) == MESSAGE_CUTTER_NEEDS_FRAME;
  return status;
}

void
end_for_lack_of_memory(ExternalSourceSocket *self)
{
  if (g_atomic_int_get(&self->closed) == 0) {
    log_read_failure("data", ENOMEM);
  }
  external_source_socket_close(self, TRUE);
}

/* Ends the streams that the account selects, until there is room for this socket's message or its own stream
 * has ended. Called without the lock. */
void
make_room(ExternalSourceSocket *self)
{
  gboolean is_over = FALSE;

  while (!is_over) {
    g_autoptr(GObject) owner = message_reader_take_excess(self->reader);
    is_over = owner == nullptr || owner == G_OBJECT(self);
    if (owner != nullptr) {
      end_for_lack_of_memory(EXTERNAL_SOURCE_SOCKET(owner));
    }
  }
}

/* Allocates the frame. A producer chooses its length, so a lack of memory must not end the process; it is
 * logged. Called with the lock held. */
gboolean
make_frame(ExternalSourceSocket *self)
{
  const gboolean is_made = message_cutter_make_frame(self->cutter);

  if (!is_made) {
    log_read_failure("data", ENOMEM);
  }
  return is_made;
}

/* Makes the frame if necessary, and reads of the payload what the turn allows. Called with the lock held. */
GIOStatus
read_payload(ExternalSourceSocket *self)
{
  if (message_cutter_get_state(self->cutter) == MESSAGE_CUTTER_NEEDS_FRAME && !make_frame(self)) {
    return G_IO_STATUS_ERROR;
  }
  return read_in_state(self, MESSAGE_CUTTER_PAYLOAD, "data", &self->turn.bytes);
}

/* @frame stays NULL after a message without a payload. */
GIOStatus
continue_message(ExternalSourceSocket *self, guint8 **frame, gsize *size)
{
  g_autoptr(GMutexLocker) locker = g_mutex_locker_new(&self->lock);

  if (self->channel == nullptr) {
    return G_IO_STATUS_AGAIN;
  }
  const GIOStatus status = read_payload(self);
  if (status == G_IO_STATUS_NORMAL && message_cutter_get_state(self->cutter) != MESSAGE_CUTTER_COMPLETE) {
    return G_IO_STATUS_AGAIN;
  }
  if (status == G_IO_STATUS_NORMAL) {
    *frame = message_cutter_take_frame(self->cutter, size);
  }
  end_reading(self, status);
  return status;
}

/* Reads one message within the turn's limits, as far as it is available. Returns G_IO_STATUS_AGAIN when the
 * message is incomplete or the socket was closed meanwhile. */
GIOStatus
read_message(ExternalSourceSocket *self, guint8 **frame, gsize *size)
{
  gboolean needs_room = FALSE;
  const GIOStatus status = start_message(self, &needs_room);

  if (needs_room) {
    make_room(self);
  }
  return status == G_IO_STATUS_NORMAL ? continue_message(self, frame, size) : status;
}

/* Takes ownership of @frame. */
void
deliver(ExternalSourceSocket *self, guint8 *frame, gsize size)
{
  if (frame == nullptr) {
    return;
  }
  if (g_atomic_int_get(&self->closed) == 0) {
    self->on_data(self, frame, size, self->user_data);
    producer_meter_add_message(self->meter, size);
  } else {
    g_free(frame);
    producer_meter_add_dropped(self->meter);
  }
  message_reader_end(self->reader);
}

} // namespace

static void
external_source_socket_init(ExternalSourceSocket *self)
{
  g_mutex_init(&self->lock);
}

/* Does not chain up, and therefore clears the object's associated data itself. The close has released channel
 * and watch. */
static void
external_source_socket_finalize(GObject *object)
{
  ExternalSourceSocket *self = EXTERNAL_SOURCE_SOCKET(object);

  g_free(self->source_name);
  g_free(self->read_ahead.bytes);
  g_clear_pointer(&self->cutter, message_cutter_free);
  g_clear_pointer(&self->reader, message_reader_free);
  g_clear_pointer(&self->meter, producer_meter_free);
  g_mutex_clear(&self->lock);
  g_datalist_clear(&object->qdata);
}

static void
external_source_socket_get_property(GObject *object, guint id, GValue *value, GParamSpec *pspec)
{
  ExternalSourceSocket *self = EXTERNAL_SOURCE_SOCKET(object);

  switch (id) {
  case PROP_SOURCE_NAME:
    g_value_set_string(value, self->source_name);
    break;
  default:
    G_OBJECT_WARN_INVALID_PROPERTY_ID(object, id, pspec);
  }
}

static void
external_source_socket_class_init(ExternalSourceSocketClass *klass)
{
  GObjectClass *object_class = G_OBJECT_CLASS(klass);

  object_class->finalize = external_source_socket_finalize;
  object_class->get_property = external_source_socket_get_property;

  external_source_socket_properties[PROP_SOURCE_NAME] =
      g_param_spec_string("source-name", "Name of source", "Name of source connected to this socket", nullptr,
                          static_cast<GParamFlags>(G_PARAM_READABLE | G_PARAM_STATIC_STRINGS));
  g_object_class_install_properties(object_class, external_source_socket_properties.size(),
                                    external_source_socket_properties.data());
}

namespace
{

/* The watch is ready immediately while there is read-ahead, and at the deadline of an unfinished message or
 * earlier. Each change of the time wakes the main loop, so an earlier time of a message before stays: it
 * causes one read without data. Called with the lock held. */
void
set_ready_time(ExternalSourceSocket *self, GSource *watch)
{
  const gint64 time_us = has_read_ahead(self) ? 0 : is_unfinished(self) ? self->deadline_us : -1;
  const gint64 last_us = g_source_get_ready_time(watch);
  const gboolean is_needed =
      time_us == 0 || last_us <= g_get_monotonic_time() || (time_us > 0 && time_us < last_us);

  if (is_needed) {
    g_source_set_ready_time(watch, time_us);
  }
}

/* Prepares the next turn. Returns the log's name for the missing part of a message whose deadline has passed,
 * or NULL. */
const char *
find_overdue(ExternalSourceSocket *self)
{
  g_autoptr(GMutexLocker) locker = g_mutex_locker_new(&self->lock);
  const gboolean has_begun = message_cutter_has_begun(self->cutter);
  const gint64 now_us = has_begun ? g_get_monotonic_time() : 0;

  if (self->channel == nullptr) {
    return nullptr;
  }
  if (has_begun && !is_unfinished(self)) {
    self->deadline_us = now_us + G_TIME_SPAN_MILLISECOND * EXTERNAL_SOURCE_MESSAGE_TIMEOUT_MS;
    g_atomic_int_inc(&unfinished_messages);
  }
  if (has_begun && now_us >= self->deadline_us) {
    return message_cutter_get_state(self->cutter) == MESSAGE_CUTTER_LENGTH ? "length" : "data";
  }
  set_ready_time(self, g_main_current_source());
  return nullptr;
}

/* Pauses the socket if it is between two messages and the account does not let the next one begin. If TRUE,
 * the caller removes the watch, and the account resumes the socket. Called before each turn, and also after
 * it: data after the message that has filled the queue can come in pieces. */
gboolean
pause_if_necessary(ExternalSourceSocket *self)
{
  g_autoptr(GMutexLocker) locker = g_mutex_locker_new(&self->lock);

  if (self->channel == nullptr || message_cutter_has_begun(self->cutter) ||
      message_reader_may_begin(self->reader)) {
    return FALSE;
  }
  self->watch_id = 0;
  set_is_catching_up(self, TRUE);
  return TRUE;
}

/* Reads one message, as far as it is available, and delivers it when it is complete. */
void
relay_message(ExternalSourceSocket *self)
{
  guint8 *frame = nullptr;
  gsize size = 0;

  switch (read_message(self, &frame, &size)) {
  case G_IO_STATUS_NORMAL:
    deliver(self, frame, size);
    break;
  case G_IO_STATUS_AGAIN:
    break;
  default:
    external_source_socket_close(self, TRUE);
  }
}

/* Relays the messages of one turn. Read-ahead makes the watch ready again. */
gboolean
on_ready(GIOChannel *channel, GIOCondition condition, gpointer user_data)
{
  auto *self = static_cast<ExternalSourceSocket *>(user_data);

  if ((condition & G_IO_IN) == 0 && (condition & (G_IO_ERR | G_IO_HUP | G_IO_NVAL)) != 0) {
    external_source_socket_close(self, TRUE);
    return G_SOURCE_CONTINUE;
  }
  begin_turn(self);
  do {
    if (pause_if_necessary(self)) {
      return G_SOURCE_REMOVE;
    }
    relay_message(self);
  } while (continues_turn(self));

  const char *overdue = find_overdue(self);
  if (overdue != nullptr) {
    log_read_failure(overdue, ETIMEDOUT);
    external_source_socket_close(self, TRUE);
  }
  return pause_if_necessary(self) ? G_SOURCE_REMOVE : G_SOURCE_CONTINUE;
}

/* GLib takes the descriptor of a source that cannot recurse out of poll() during each dispatch, which costs
 * two wake-ups of the main loop. This watch could recurse, but does not: its callbacks do not iterate the
 * main context. Called with the lock held. */
void
add_watch(ExternalSourceSocket *self)
{
  self->watch_id =
      g_io_add_watch_full(self->channel, G_PRIORITY_DEFAULT, CONDITIONS, on_ready, hold(self), release_hold);
  if (self->watch_id == 0) {
    /* The open socket still is a holder. */
    release_hold(self);
    return;
  }
  /* The watch exists: other threads need the lock to read its id and remove it. */
  GSource *watch = g_main_context_find_source_by_id(nullptr, self->watch_id);
  g_source_set_can_recurse(watch, TRUE);
  set_ready_time(self, watch);
}

void
on_resume(GObject *owner)
{
  ExternalSourceSocket *self = EXTERNAL_SOURCE_SOCKET(owner);
  g_autoptr(GMutexLocker) locker = g_mutex_locker_new(&self->lock);

  if (self->channel != nullptr) {
    add_watch(self);
    check_caught_up(self);
  }
}

/* Returns why a descriptor cannot be a stream. Returns NULL when it can, and for a folder, whose read fails.
 *
 * A watch on any other kind would always be ready: poll() always reports a device or an event counter as
 * readable, and an O_PATH descriptor as invalid. */
const gchar *
find_refusal(gint fd)
{
  const int flags = fcntl(fd, F_GETFL);
  const int access_mode = flags & O_ACCMODE;
  struct stat status = {};

  if (flags < 0 || fstat(fd, &status) != 0) {
    return g_strerror(errno);
  }
  if ((flags & O_PATH) != 0 || (access_mode != O_RDONLY && access_mode != O_RDWR)) {
    return "it is not open for reading";
  }
  switch (status.st_mode & S_IFMT) {
  case S_IFIFO:
  case S_IFSOCK:
  case S_IFREG:
  case S_IFDIR:
    return nullptr;
  case S_IFCHR:
  case S_IFBLK:
    return "it is a device";
  default:
    return "it is neither a pipe nor a socket nor a file";
  }
}

/* Logs a refusal. The receiver can cause a negative descriptor, which is therefore checked without a
 * precondition macro: that can be compiled out. */
gboolean
accept_descriptor(gint fd, const gchar *source_name)
{
  if (fd < 0) {
    g_return_if_fail_warning(G_LOG_DOMAIN, "external_source_socket_new", "consumer_fd > -1");
    return FALSE;
  }
  const gchar *reason = find_refusal(fd);

  if (reason != nullptr) {
    g_autofree gchar *name = log_text_clip(source_name);
    rate_limited_log(&refusals, LOG_WARNING, "closed the stream of producer \"%s\": %s", name, reason);
    close(fd);
  }
  return reason == nullptr;
}

MessageCutter *
make_cutter(const gchar *source_name)
{
  g_autofree gchar *frame_start = g_strdup_printf(EXTERNAL_SOURCE_FRAME_START, source_name);

  return message_cutter_new(frame_start, EXTERNAL_SOURCE_FRAME_END);
}

/* Logs a failure. */
gboolean
start_reading(ExternalSourceSocket *self)
{
  g_autoptr(GError) error = nullptr;
  g_autoptr(GMutexLocker) locker = g_mutex_locker_new(&self->lock);

  if (g_io_channel_set_encoding(self->channel, nullptr, &error) != G_IO_STATUS_NORMAL) {
    syslog(LOG_WARNING, "Failed to set encoding on channel: %s", error->message);
    return FALSE;
  }

  self->is_blocking = (fcntl(g_io_channel_unix_get_fd(self->channel), F_GETFL) & O_NONBLOCK) == 0;
  set_is_catching_up(self, FALSE);

  add_watch(self);
  if (self->watch_id == 0) {
    syslog(LOG_WARNING, "Failed to add gio watch of externalsourcesocket fd");
    return FALSE;
  }
  return TRUE;
}

/* Closes the descriptor. Called with the lock held. */
void
shut_down(ExternalSourceSocket *self)
{
  g_autoptr(GError) error = nullptr;

  if (g_io_channel_shutdown(self->channel, TRUE, &error) != G_IO_STATUS_NORMAL) {
    const int error_number = errno;
    syslog(LOG_ERR, "Failed to close channel: %s: %s", error->message, g_strerror(error_number));
  }
  g_clear_pointer(&self->channel, g_io_channel_unref);
  drop_message(self);
  message_reader_stop(self->reader);
}

} // namespace

/**
 * external_source_socket_new:
 * @consumer_fd: (transfer full): the descriptor of a producer's stream; its O_NONBLOCK decides whether a
 *   message can come in pieces
 * @source_name: the configuration name in every frame
 * @account: (transfer none): the client's account, which decides when a message can begin
 * @on_data: called with each frame
 * @on_close: called when the stream ends
 * @user_data: (transfer full): for both
 * @user_data_free: (nullable): releases @user_data, on any thread, when the socket is closed and no callback
 *   is in progress
 *
 * Reads a producer's stream in the default main context until it ends, fails or is closed. The socket then
 * closes the descriptor; until then it keeps itself alive.
 *
 * Between two messages the stream is read only while @account lets one begin. During such a pause the
 * producer can write only until the descriptor's buffer is full, and its hang-up is not detected. No message
 * is lost: after a pause, messages can come in pieces in both modes until there is no data to read between
 * two messages. A message that takes longer than EXTERNAL_SOURCE_MESSAGE_TIMEOUT_MS, and one for which there
 * is no room, end the stream, which is logged at error priority.
 *
 * A descriptor that is not open for reading, or is neither a pipe nor a socket nor a file, is closed and
 * @user_data is released, with a warning that names @source_name. The same happens, with a warning that does
 * not name it, if the descriptor cannot be watched. A folder is accepted; its first read fails, which is
 * logged at error priority. A negative descriptor releases @user_data too.
 *
 * Warnings: "source_name != NULL", "account != NULL", "on_data != NULL" and "on_close != NULL" are
 * preconditions; if one fails, the caller keeps descriptor and @user_data. A negative descriptor raises
 * "consumer_fd > -1", also where preconditions are not checked.
 *
 * Returns: (transfer full) (nullable): a new socket, or %NULL when @consumer_fd is refused
 */
ExternalSourceSocket *
external_source_socket_new(gint consumer_fd, const gchar *source_name, MessageAccount *account,
                           ExternalSourceSocketDataFunc on_data, ExternalSourceSocketCloseFunc on_close,
                           gpointer user_data, GDestroyNotify user_data_free)
{
  g_return_val_if_fail(source_name != NULL, nullptr);
  g_return_val_if_fail(account != NULL, nullptr);
  g_return_val_if_fail(on_data != NULL, nullptr);
  g_return_val_if_fail(on_close != NULL, nullptr);

  if (!accept_descriptor(consumer_fd, source_name)) {
    if (user_data_free != nullptr) {
      user_data_free(user_data);
    }
    return nullptr;
  }
  auto *self = EXTERNAL_SOURCE_SOCKET(g_object_new(EXTERNAL_TYPE_SOURCE_SOCKET, nullptr));
  self->source_name = g_strdup(source_name);
  self->cutter = make_cutter(source_name);
  self->reader = message_reader_new(account, G_OBJECT(self), on_resume);
  self->meter = producer_meter_new(source_name);
  self->channel = g_io_channel_unix_new(consumer_fd);
  set_reader(self, consumer_fd);
  self->on_data = on_data;
  self->on_close = on_close;
  self->user_data = user_data;
  self->user_data_free = user_data_free;
  hold(static_cast<ExternalSourceSocket *>(g_object_ref(self)));
  g_atomic_int_inc(&open_sockets);

  if (!start_reading(self)) {
    external_source_socket_close(self, FALSE);
    g_clear_object(&self);
  }
  return self;
}

/**
 * external_source_socket_close:
 * @self: (transfer none): a socket
 * @notify: whether to call the #ExternalSourceSocketCloseFunc
 *
 * Closes the socket and its descriptor. Only the first call has an effect; a later one returns immediately
 * and does not wait for the first. The main thread can still deliver one last frame; the user data are
 * released after that. A failure is logged at error priority.
 *
 * Warnings: "self != NULL" is a precondition.
 */
void
external_source_socket_close(ExternalSourceSocket *self, gboolean notify)
{
  g_return_if_fail(self != NULL);

  guint watch_id = 0;

  if (!g_atomic_int_compare_and_exchange(&self->closed, 0, 1)) {
    return;
  }
  if (notify) {
    self->on_close(self, self->user_data);
  }
  {
    g_autoptr(GMutexLocker) locker = g_mutex_locker_new(&self->lock);
    shut_down(self);
    watch_id = std::exchange(self->watch_id, 0);
  }
  if (watch_id != 0) {
    g_source_remove(watch_id);
  }
  g_atomic_int_add(&open_sockets, -1);
  release_hold(self);
}
