/* SPDX-License-Identifier: MIT */
/* The calls of a producer at the metadata receiver.
 *
 * Calls go to the unique name of the receiver, one at a time: the registration, and then a call for each
 * channel that is not open. When the receiver comes back, everything begins anew.
 *
 * A refusal that can pass is followed by the same call after a time. Every other one is final for this
 * receiver.
 */
#include "registration.h"
#include "tessarderror.h"

#include <algorithm>
#include <array>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace
{

#define REGISTRY TESSARD_RECEIVER_BUS_NAME ".Registry"
#define RECEIVER_ERROR(name) TESSARD_RECEIVER_BUS_NAME ".Error." name

/* The group whose members the bus policy lets register producers, beside root. */
constexpr gchar NOT_ALLOWED[] = "The bus policy refused the call: only root and members of the "
                                "group 'tessard-producer' can register producers.";

constexpr BusMethod REGISTER = {TESSARD_RECEIVER_PATH, REGISTRY, "RegisterProducer", "()"};
constexpr BusMethod OPEN = {TESSARD_RECEIVER_PATH, REGISTRY, "OpenChannel", "(h)"};
constexpr BusMethod UNREGISTER = {TESSARD_RECEIVER_PATH, REGISTRY, "UnregisterProducer", "()"};

/* What follows an error. */
enum class Remedy {
  NONE,
  REPEAT,         /* the same call */
  REGISTER_AGAIN, /* the receiver does not know the producer any more */
};

struct KnownError {
  const gchar *name;
  Remedy remedy;
  TessardError code;
};

/* Errors that can pass: of the receiver, and of the bus when the receiver leaves. */
constexpr std::array KNOWN_ERRORS = {
    KnownError{RECEIVER_ERROR("LimitExceeded"), Remedy::REPEAT, TESSARD_ERROR_BUSY},
    KnownError{RECEIVER_ERROR("NoDescriptor"), Remedy::REPEAT, TESSARD_ERROR_BUSY},
    KnownError{RECEIVER_ERROR("ChannelOpen"), Remedy::REPEAT, TESSARD_ERROR_BUSY},
    KnownError{RECEIVER_ERROR("NameTaken"), Remedy::REPEAT, TESSARD_ERROR_NAME_TAKEN},
    KnownError{"org.freedesktop.DBus.Error.ServiceUnknown", Remedy::REPEAT, TESSARD_ERROR_BUSY},
    KnownError{"org.freedesktop.DBus.Error.NameHasNoOwner", Remedy::REPEAT, TESSARD_ERROR_BUSY},
    KnownError{"org.freedesktop.DBus.Error.NoReply", Remedy::REPEAT, TESSARD_ERROR_BUSY},
    KnownError{RECEIVER_ERROR("UnknownProducer"), Remedy::REGISTER_AGAIN, TESSARD_ERROR_BUSY},
    KnownError{RECEIVER_ERROR("NotOwner"), Remedy::REGISTER_AGAIN, TESSARD_ERROR_BUSY},
};

constexpr KnownError UNKNOWN_ERROR = {nullptr, Remedy::NONE, TESSARD_ERROR_REFUSED};

const KnownError &
look_up(const gchar *name)
{
  const auto found = std::find_if(KNOWN_ERRORS.begin(), KNOWN_ERRORS.end(), [name](const KnownError &known) {
    return g_strcmp0(known.name, name) == 0;
  });

  return found != KNOWN_ERRORS.end() ? *found : UNKNOWN_ERROR;
}

GError *
convert_remote_error(const GError *cause, const gchar *name)
{
  g_autoptr(GError) stripped = g_error_copy(cause);
  const TessardError code = look_up(name).code;

  g_dbus_error_strip_remote_error(stripped);
  const gchar *text = *stripped->message != '\0' ? stripped->message : name;
  if (code != TESSARD_ERROR_BUSY) {
    return g_error_new_literal(TESSARD_ERROR, code, text);
  }
  if (g_str_has_prefix(name, "org.freedesktop.DBus.")) {
    text = "It left without a reply";
  }
  return g_error_new(TESSARD_ERROR, code, "The receiver refuses for now: %.500s.", text);
}

GError *
convert_error(const GError *cause)
{
  g_autofree gchar *name = g_dbus_error_get_remote_error(cause);

  if (g_error_matches(cause, G_DBUS_ERROR, G_DBUS_ERROR_ACCESS_DENIED)) {
    return g_error_new_literal(TESSARD_ERROR, TESSARD_ERROR_NOT_ALLOWED, NOT_ALLOWED);
  }
  if (name != nullptr) {
    return convert_remote_error(cause, name);
  }
  return g_error_new(TESSARD_ERROR, TESSARD_ERROR_MALFORMED_REPLY, "The receiver sent a malformed reply: %s.",
                     cause->message);
}

gboolean
is_write_end_of_pipe(int fd)
{
  struct stat status;

  return fstat(fd, &status) == 0 && S_ISFIFO(status.st_mode) && (fcntl(fd, F_GETFL) & O_ACCMODE) == O_WRONLY;
}

/* Returns: the descriptor, -1 with an error if the reply has no valid one */
int
take_descriptor(GVariant *reply, GUnixFDList *fds, GError **error)
{
  gint32 index = -1;

  g_variant_get(reply, "(h)", &index);
  if (fds == nullptr || index < 0 || index >= g_unix_fd_list_get_length(fds)) {
    g_set_error_literal(error, G_IO_ERROR, G_IO_ERROR_INVALID_ARGUMENT, "it has no descriptor");
    return -1;
  }
  const int fd = g_unix_fd_list_get(fds, index, error);
  if (fd >= 0 && !is_write_end_of_pipe(fd)) {
    g_set_error_literal(error, G_IO_ERROR, G_IO_ERROR_INVALID_ARGUMENT,
                        "its descriptor is not the write end of a pipe");
    close(fd);
    return -1;
  }
  return fd;
}

gboolean
is_text(const std::string &text)
{
  return g_utf8_validate(text.data(), static_cast<gssize>(text.size()), nullptr);
}

} // namespace

/**
 * Registration::Registration:
 * @bus_address: the bus, empty for the system bus
 * @producer: what to register
 * @registration_client: outlives the registration; called on the worker
 *
 * Registers the producer when it has a sample frame and the receiver is on the bus.
 */
Registration::Registration(std::string bus_address, ProducerDescription producer, Client *registration_client)
    : description(std::move(producer)), client(registration_client), link(std::move(bus_address), this)
{
}

Registration::~Registration()
{
  forget_owner();
  g_clear_error(&absence);
}

/**
 * Registration::set_sample_frame:
 * @text: the sample frame
 *
 * Allows the registration, which waits for it. Only the first call counts.
 */
void
Registration::set_sample_frame(const std::string &text)
{
  if (sample_frame.has_value()) {
    return;
  }
  sample_frame = text;
  if (absence != nullptr) {
    client->interrupted(absence);
  }
  proceed();
}

/**
 * Registration::reopen:
 * @channel: a channel that was open and that the receiver has closed
 *
 * Opens the channel again, after a time.
 */
void
Registration::reopen(guint32 channel)
{
  if (g_get_monotonic_time() - opened_at > TESSARD_LAST_RETRY_MS * G_TIME_SPAN_MILLISECOND) {
    delay.reset();
  }
  closed.push_back(channel);
  retry_later();
}

/**
 * Registration::end:
 *
 * Ends the registration. Every channel must be closed.
 *
 * Returns: whether ended() or receiver_lost() follows; %FALSE if nothing is registered
 */
gboolean
Registration::end()
{
  ending = TRUE;
  retry.clear();
  if (registered) {
    call_unregister();
  }
  return registered || calls.is_calling();
}

void
Registration::bus_connected(GDBusConnection *bus)
{
  client->bus_connected(bus);
}

void
Registration::receiver_appeared(GDBusConnection *bus, const gchar *new_owner)
{
  forget_owner();
  g_clear_error(&absence);
  client->receiver_lost();
  calls.begin(bus, new_owner);
  closed = description.channels;
  delay.reset();
  proceed();
}

void
Registration::receiver_vanished(const GError *reason)
{
  forget_owner();
  g_clear_error(&absence);
  absence = g_error_copy(reason);
  client->receiver_lost();
  if (g_error_matches(reason, TESSARD_ERROR, TESSARD_ERROR_NO_BUS)) {
    client->bus_failed(reason);
  }
  const gboolean is_end_of_bus = g_error_matches(reason, TESSARD_ERROR, TESSARD_ERROR_BUS_CLOSED);
  if ((sample_frame.has_value() || is_end_of_bus) && !ending) {
    client->interrupted(reason);
  }
}

void
Registration::forget_owner()
{
  retry.clear();
  calls.end();
  registered = FALSE;
  gave_up = FALSE;
}

/* Makes the next call, if there is one to make. */
void
Registration::proceed()
{
  if (!calls.has_owner() || calls.is_calling() || ending || gave_up || retry.is_set() ||
      !sample_frame.has_value()) {
    return;
  }
  if (!registered) {
    call_register();
  } else if (!closed.empty()) {
    call_open(closed.front());
  }
}

/* What the bus cannot carry is refused here. */
void
Registration::call_register()
{
  if (!is_text(description.name) || !is_text(description.nice_name) || !is_text(*sample_frame)) {
    g_autoptr(GError) error = g_error_new_literal(TESSARD_ERROR, TESSARD_ERROR_REFUSED,
                                                  "A name or the sample frame of the producer is not UTF-8");
    gave_up = TRUE;
    client->refused(error);
    return;
  }
  GVariant *channels = g_variant_new_fixed_array(G_VARIANT_TYPE_UINT32, description.channels.data(),
                                                 description.channels.size(), sizeof(guint32));
  calls.call(&REGISTER,
             g_variant_new("(ss@aus@a{sv})", description.name.c_str(), description.nice_name.c_str(),
                           channels, sample_frame->c_str(), g_variant_new("a{sv}", nullptr)),
             [this](GVariant *reply, GUnixFDList *fds, const GError *error) { take_registered(error); });
}

void
Registration::call_open(guint32 channel)
{
  calls.call(
      &OPEN, g_variant_new("(su)", description.name.c_str(), channel),
      [this](GVariant *reply, GUnixFDList *fds, const GError *error) { take_opened(reply, fds, error); });
}

/* An error is the end, too. */
void
Registration::call_unregister()
{
  calls.call(&UNREGISTER, g_variant_new("(s)", description.name.c_str()),
             [this](GVariant *reply, GUnixFDList *fds, const GError *error) { client->ended(); });
}

void
Registration::take_registered(const GError *error)
{
  if (error != nullptr) {
    take_failure(error);
    return;
  }
  registered = TRUE;
  if (ending) {
    call_unregister();
    return;
  }
  client->producer_registered();
  proceed();
}

void
Registration::take_opened(GVariant *reply, GUnixFDList *fds, const GError *error)
{
  g_autoptr(GError) cause = error != nullptr ? g_error_copy(error) : nullptr;
  const int fd = error == nullptr ? take_descriptor(reply, fds, &cause) : -1;

  if (fd < 0) {
    take_failure(cause);
    return;
  }
  if (ending) {
    close(fd);
    return;
  }
  const guint32 channel = closed.front();
  closed.erase(closed.begin());
  opened_at = g_get_monotonic_time();
  client->channel_opened(channel, fd);
  proceed();
}

void
Registration::take_failure(const GError *cause)
{
  g_autofree gchar *name = g_dbus_error_get_remote_error(cause);
  const Remedy remedy = look_up(name).remedy;
  g_autoptr(GError) error = convert_error(cause);

  if (ending) {
    if (!registered) {
      client->ended();
    }
    return;
  }
  if (remedy == Remedy::NONE) {
    gave_up = TRUE;
    client->refused(error);
    return;
  }
  if (remedy == Remedy::REGISTER_AGAIN) {
    registered = FALSE;
  }
  retry_later();
  client->interrupted(error);
}

void
Registration::retry_later()
{
  if (!retry.is_set() && calls.has_owner() && !ending) {
    retry.start_timer(delay.next(), [this] { proceed(); });
  }
}
