/* SPDX-License-Identifier: MIT */
#include "producer.h"

#include "bus.h"

#include <algorithm>
#include <fcntl.h>
#include <sys/socket.h>
#include <unistd.h>

namespace sim
{

namespace
{

struct MethodKind {
  Method method;
  const char *name;
  std::span<const WrongReply> wrong_replies;
};

constexpr std::array SAMPLE_FRAME_WRONG_REPLIES = {
    WrongReply{"wrong-type", "(1,)"},
    WrongReply{"variant", "(<'{}'>,)"},
    WrongReply{"nested", "(('{}',),)"},
    WrongReply{"empty", "()"},
};

constexpr std::array STREAM_FD_WRONG_REPLIES = {
    WrongReply{"wrong-type", "('wrong',)"},
    WrongReply{"no-descriptor", "(handle 0,)"},
    WrongReply{"wrong-index", "(handle 1,)", true},
    WrongReply{"empty", "()"},
};

constexpr std::array METHODS = {
    MethodKind{Method::GET_SAMPLE_FRAME, "GetSampleFrame", SAMPLE_FRAME_WRONG_REPLIES},
    MethodKind{Method::GET_STREAM_FD, "GetStreamFd", STREAM_FD_WRONG_REPLIES},
};

constexpr const char *NAME = "Name";
constexpr const char *NICE_NAME = "NiceName";
constexpr const char *SUPPORTED_CHANNELS = "SupportedChannels";
constexpr std::array PROPERTIES = {NAME, NICE_NAME, SUPPORTED_CHANNELS};

std::shared_ptr<GVariant>
share(GVariant *variant)
{
  return {g_variant_ref_sink(variant), g_variant_unref};
}

GVariant *
channels_variant(guint count)
{
  GVariantBuilder channels;

  g_variant_builder_init(&channels, G_VARIANT_TYPE("au"));
  for (guint channel = 1; channel <= count; channel++) {
    g_variant_builder_add(&channels, "u", channel);
  }
  return g_variant_builder_end(&channels);
}

/* @fds: (out): the read end and the non-blocking write end */
bool
open_pair(const Descriptors &descriptors, int fds[2], GError **error)
{
  const int result =
      descriptors.socket ? socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, fds) : pipe2(fds, O_CLOEXEC);

  if (result != 0) {
    g_set_error(error, G_IO_ERROR, g_io_error_from_errno(errno), "no stream: %s", g_strerror(errno));
    return false;
  }
  fcntl(fds[1], F_SETFL, fcntl(fds[1], F_GETFL) | O_NONBLOCK);
  if (!descriptors.blocking) {
    fcntl(fds[0], F_SETFL, fcntl(fds[0], F_GETFL) | O_NONBLOCK);
  }
  return true;
}

} // namespace

/**
 * Producer:
 * @name: its name on the bus
 * @nice_name: its name for display
 * @camera: has the channels; outlives the producer
 * @feed: the messages of its streams
 */
Producer::Producer(std::string name, std::string nice_name, const Camera &camera, std::unique_ptr<Feed> feed)
    : name_(std::move(name)), nice_name_(std::move(nice_name)), camera_(camera), feed_(std::move(feed))
{
}

const std::string &
Producer::name() const
{
  return name_;
}

/**
 * Producer::properties:
 *
 * Returns: (transfer floating): the current properties, a{sv}
 */
GVariant *
Producer::properties() const
{
  GVariantBuilder dictionary;

  g_variant_builder_init(&dictionary, G_VARIANT_TYPE_VARDICT);
  for (const char *property : PROPERTIES) {
    g_autoptr(GVariant) value = property_value(property);
    if (value != nullptr) {
      g_variant_builder_add(&dictionary, "{sv}", property, value);
    }
  }
  return g_variant_builder_end(&dictionary);
}

/* Returns: (transfer full) (nullable): the current value of the property; %NULL if it is omitted */
GVariant *
Producer::property_value(const char *property) const
{
  const auto overridden = overridden_.find(property);

  if (overridden != overridden_.end()) {
    return overridden->second != nullptr ? g_variant_ref(overridden->second.get()) : nullptr;
  }
  if (g_str_equal(property, NAME)) {
    return g_variant_ref_sink(g_variant_new_string(name_.c_str()));
  }
  if (g_str_equal(property, NICE_NAME)) {
    return g_variant_ref_sink(g_variant_new_string(nice_name_.c_str()));
  }
  return g_variant_ref_sink(channels_variant(camera_.channels));
}

/**
 * Producer::sample_frame:
 *
 * Returns: the sample frame, as valid UTF-8
 */
std::string
Producer::sample_frame() const
{
  const std::string text = sample_frame_.has_value() ? *sample_frame_ : feed_->sample_frame();
  g_autofree gchar *valid = g_utf8_make_valid(text.data(), static_cast<gssize>(text.size()));

  return valid;
}

/* If the property is overridden by another type, every channel is supported. */
bool
Producer::check_channel(gint32 channel, GError **error) const
{
  g_autoptr(GVariant) channels = property_value(SUPPORTED_CHANNELS);

  if (channels == nullptr || !g_variant_is_of_type(channels, G_VARIANT_TYPE("au"))) {
    return true;
  }
  gsize count = 0;
  auto numbers = static_cast<const guint32 *>(g_variant_get_fixed_array(channels, &count, sizeof(guint32)));
  if (channel < 0 || std::find(numbers, numbers + count, static_cast<guint32>(channel)) == numbers + count) {
    g_set_error(error, G_DBUS_ERROR, G_DBUS_ERROR_INVALID_ARGS, "%s does not support channel %d",
                name_.c_str(), channel);
    return false;
  }
  return true;
}

/**
 * Producer::open_stream:
 * @channel: a video channel
 * @error: set if the channel is not supported or there are %MAX_STREAMS streams
 *
 * Opens a stream. It ends when its reader closes the descriptor, when there are no more messages, or with
 * hang_up().
 *
 * Returns: (transfer full): the descriptor of the read end, or -1
 */
int
Producer::open_stream(gint32 channel, GError **error)
{
  int fds[2] = {-1, -1};

  if (!check_channel(channel, error)) {
    return -1;
  }
  if (streams_.size() == MAX_STREAMS) {
    g_set_error(error, G_DBUS_ERROR, G_DBUS_ERROR_LIMITS_EXCEEDED, "%s has too many streams", name_.c_str());
    return -1;
  }
  if (!open_pair(descriptors, fds, error)) {
    return -1;
  }
  streams_.push_back(std::make_unique<Stream>(fds[1], feed_.get(), pieces, [this](Stream *ended) {
    std::erase_if(streams_, [ended](const auto &stream) { return stream.get() == ended; });
  }));
  return fds[0];
}

/**
 * Producer::hang_up:
 *
 * Closes all streams immediately, even within a message.
 */
void
Producer::hang_up()
{
  streams_.clear();
}

/**
 * Producer::stream_count:
 *
 * Returns: the number of open streams
 */
gsize
Producer::stream_count() const
{
  return streams_.size();
}

/**
 * Producer::set_sample_frame:
 * @text: the new sample frame; not checked
 */
void
Producer::set_sample_frame(const std::string &text)
{
  sample_frame_ = text;
}

/**
 * Producer::set_property:
 * @property: a property of the interface
 * @value: its value in GVariant's text format, or "none" to omit it
 * @error: set if the property is unknown or the bus carries no such value
 *
 * Overrides the value in properties().
 *
 * Returns: whether the value is overridden
 */
bool
Producer::set_property(const std::string &property, const std::string &value, GError **error)
{
  if (std::find(PROPERTIES.begin(), PROPERTIES.end(), property) == PROPERTIES.end()) {
    return refuse(error, "unknown property '%s'; there are: %s, %s, %s", property.c_str(), NAME, NICE_NAME,
                  SUPPORTED_CHANNELS);
  }
  if (value == "none") {
    overridden_[property] = nullptr;
    return true;
  }
  g_autoptr(GError) found = nullptr;
  g_autoptr(GVariant) parsed = g_variant_parse(nullptr, value.c_str(), nullptr, nullptr, &found);
  if (parsed == nullptr) {
    return refuse(error, "the value is not in GVariant's text format: %s", found->message);
  }
  g_autoptr(GVariant) body = g_variant_ref_sink(g_variant_new("(v)", parsed));
  if (!bus_can_carry(body)) {
    return refuse(error, "the bus carries no such value: '%s'", value.c_str());
  }
  overridden_[property] = share(parsed);
  return true;
}

/**
 * Producer::inject_fault:
 * @method: a method of the interface
 * @arguments: the fault and its argument, see fault_parse()
 * @error: set if the method or the fault is unknown; the current fault then stays
 *
 * Injects a fault into the replies to all later calls of the method.
 *
 * Returns: whether the fault is injected
 */
bool
Producer::inject_fault(const std::string &method, const Arguments &arguments, GError **error)
{
  const auto *kind = std::find_if(METHODS.begin(), METHODS.end(),
                                  [&method](const MethodKind &entry) { return method == entry.name; });
  Fault fault;

  if (kind == METHODS.end()) {
    return refuse(error, "unknown method '%s'; there are: %s, %s", method.c_str(), METHODS[0].name,
                  METHODS[1].name);
  }
  if (!fault_parse(arguments, kind->wrong_replies, &fault, error)) {
    return false;
  }
  faults_[static_cast<gsize>(kind->method)] = std::move(fault);
  return true;
}

/**
 * Producer::clear_faults:
 *
 * Sends correct replies to all later calls of both methods.
 */
void
Producer::clear_faults()
{
  faults_ = {};
}

const Fault &
Producer::fault_of(Method method) const
{
  return faults_[static_cast<gsize>(method)];
}

} // namespace sim
