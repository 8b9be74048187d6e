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

void
set_nonblocking(int fd, bool nonblocking)
{
  const int flags = fcntl(fd, F_GETFL);

  fcntl(fd, F_SETFL, nonblocking ? flags | O_NONBLOCK : flags & ~O_NONBLOCK);
}

} // namespace

/**
 * Producer:
 * @name: its name on the bus
 * @nice_name: its name for display
 * @camera: has the channels; outlives the producer
 * @feed: the messages of its streams
 * @budget: (transfer none): the resources that all producers share; outlives the producer
 */
Producer::Producer(std::string name, std::string nice_name, const Camera &camera, std::unique_ptr<Feed> feed,
                   receiver::Budget *budget)
    : receiver::Producer({.name = std::move(name), .nice_name = std::move(nice_name)}, budget),
      camera_(camera), feed_(std::move(feed))
{
  feed_->start([this](const SharedText &text) { send(text); });
}

/* The streams use the feed. */
Producer::~Producer()
{
  hang_up();
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
    return g_variant_ref_sink(g_variant_new_string(name().c_str()));
  }
  if (g_str_equal(property, NICE_NAME)) {
    return g_variant_ref_sink(g_variant_new_string(description().nice_name.c_str()));
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
Producer::supports(gint64 channel) const
{
  g_autoptr(GVariant) channels = property_value(SUPPORTED_CHANNELS);

  if (channels == nullptr || !g_variant_is_of_type(channels, G_VARIANT_TYPE("au"))) {
    return true;
  }
  gsize count = 0;
  auto numbers = static_cast<const guint32 *>(g_variant_get_fixed_array(channels, &count, sizeof(guint32)));
  return std::find(numbers, numbers + count, channel) != numbers + count;
}

bool
Producer::open_pair(int fds[2], GError **error) const
{
  if (!descriptors.socket) {
    if (!receiver::Producer::open_pair(fds, error)) {
      return false;
    }
  } else if (socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, fds) != 0) {
    g_set_error(error, G_IO_ERROR, g_io_error_from_errno(errno), "no stream: %s", g_strerror(errno));
    return false;
  }
  set_nonblocking(fds[0], !descriptors.blocking);
  set_nonblocking(fds[1], true);
  return true;
}

std::unique_ptr<receiver::Stream>
Producer::make_stream(int fd, std::string label, receiver::Stream::Ended ended)
{
  return std::make_unique<FeedStream>(fd, std::move(label), feed_.get(), pieces, std::move(ended));
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
