/* SPDX-License-Identifier: MIT */
// Messages of arbitrary bytes pass the filter that keeps descriptors out. A simple model predicts whether a
// message passes, is dropped or becomes an error, and which reply the sender gets. Some messages are parsed
// as GDBus parses received ones, others are built from the parts that the filter checks; the latter include
// messages that no bus delivers.
#include "descriptorfilter.h"
#include "fuzz.h"

#include <algorithm>
#include <array>
#include <cstring>
#include <gio/gunixfdlist.h>
#include <memory>
#include <optional>
#include <string>
#include <unistd.h>

namespace
{

// The first byte of a message.
constexpr guint8 IS_INCOMING = 0x01;
constexpr guint8 IS_BLOB = 0x02;
constexpr guint8 HAS_LIST = 0x04;
constexpr guint8 DESCRIPTOR_SHIFT = 3;
constexpr guint8 DESCRIPTOR_MASK = 0x03;

// Types that the enumeration can hold; a parsed message can also have others.
constexpr guint8 TYPE_MASK = 0x07;

constexpr const char *REFUSED = "org.freedesktop.DBus.Error.NotSupported";

// The texts that the filter checks, for any header field.
constexpr std::array TEXTS = {
    "com.quon.MetadataReceiver1",
    "com.quon.MetadataReceiver1.Producer",
    "GetStreamFd",
    "/com/quon/MetadataReceiver1/Producers/Persons",
    "GetSampleFrame",
    "com.quon.Capt1",
    ":1.7",
    "org.freedesktop.DBus",
    "com.quon.Test.Error",
    "no name",
};
constexpr guint8 CUSTOM_TEXT = 254;
constexpr guint8 WRONG_TYPE = 255;

constexpr std::array TEXT_FIELDS = {
    G_DBUS_MESSAGE_HEADER_FIELD_DESTINATION, G_DBUS_MESSAGE_HEADER_FIELD_PATH,
    G_DBUS_MESSAGE_HEADER_FIELD_INTERFACE,   G_DBUS_MESSAGE_HEADER_FIELD_MEMBER,
    G_DBUS_MESSAGE_HEADER_FIELD_SENDER,      G_DBUS_MESSAGE_HEADER_FIELD_ERROR_NAME,
};

bool in_filter;

// A failed precondition of the filter is a finding. GLib may warn while it parses arbitrary bytes.
void
on_glib_message(const gchar *, GLogLevelFlags, const gchar *text, gpointer)
{
  fuzz::require(!in_filter, text);
}

using Message = std::unique_ptr<GDBusMessage, decltype(&g_object_unref)>;

Message
own(GDBusMessage *message)
{
  return {message, g_object_unref};
}

class Reader
{
public:
  explicit Reader(std::string_view data) : rest_(data)
  {
  }

  bool at_end() const
  {
    return rest_.empty();
  }

  guint8 byte()
  {
    std::string_view taken = text(1);
    return taken.empty() ? 0 : static_cast<guint8>(taken.front());
  }

  // Fewer at the end of the input.
  std::string_view text(gsize size)
  {
    std::string_view taken = rest_.substr(0, size);
    rest_.remove_prefix(taken.size());
    return taken;
  }

private:
  std::string_view rest_;
};

// Small numbers, so that a reply often matches a call; parsed messages also have high ones.
std::optional<guint32>
read_number(Reader *reader)
{
  guint8 byte = reader->byte();
  return byte == 0 ? std::nullopt : std::optional<guint32>(byte - 1U);
}

GVariant *
read_text(Reader *reader)
{
  guint8 choice = reader->byte();
  if (choice == WRONG_TYPE)
    return g_variant_new_uint32(7);
  if (choice == CUSTOM_TEXT) {
    std::string text(reader->text(reader->byte()));
    text = text.substr(0, text.find('\0'));
    return g_utf8_validate(text.c_str(), -1, nullptr) ? g_variant_new_string(text.c_str()) : nullptr;
  }
  return choice > 0 && choice <= TEXTS.size() ? g_variant_new_string(TEXTS[choice - 1U]) : nullptr;
}

void
set_number(GDBusMessage *message, GDBusMessageHeaderField field, std::optional<guint32> number)
{
  if (number.has_value())
    g_dbus_message_set_header(message, field, g_variant_new_uint32(*number));
}

GUnixFDList *
make_list(guint count)
{
  GUnixFDList *list = g_unix_fd_list_new();
  for (guint i = 0; i < count; i++)
    fuzz::require(g_unix_fd_list_append(list, STDERR_FILENO, nullptr) >= 0, "append");
  return list;
}

Message
make_message(Reader *reader)
{
  Message message = own(g_dbus_message_new());
  g_dbus_message_set_message_type(message.get(), static_cast<GDBusMessageType>(reader->byte() & TYPE_MASK));
  g_dbus_message_set_flags(message.get(), static_cast<GDBusMessageFlags>(reader->byte()));
  g_dbus_message_set_serial(message.get(), reader->byte());
  set_number(message.get(), G_DBUS_MESSAGE_HEADER_FIELD_REPLY_SERIAL, read_number(reader));
  for (GDBusMessageHeaderField field : TEXT_FIELDS)
    g_dbus_message_set_header(message.get(), field, read_text(reader));
  // The announced number may differ from the number of descriptors.
  set_number(message.get(), G_DBUS_MESSAGE_HEADER_FIELD_NUM_UNIX_FDS, read_number(reader));
  return message;
}

Message
read_blob(Reader *reader)
{
  gsize size = reader->byte();
  std::string blob(reader->text(size | static_cast<gsize>(reader->byte()) << 8U));
  // GDBus reads this many bytes before it knows the length of a message.
  if (blob.size() < 16)
    return own(nullptr);
  return own(g_dbus_message_new_from_blob(reinterpret_cast<guchar *>(blob.data()), blob.size(),
                                          G_DBUS_CAPABILITY_FLAGS_UNIX_FD_PASSING, nullptr));
}

enum class Fate {
  PASSES,
  DROPPED,
  REPLACED,
};

struct Expectation {
  Fate fate;
  bool answered;
};

std::string
text_of(const gchar *text)
{
  return text != nullptr ? text : "";
}

bool
is_unique_name(const std::string &name)
{
  return !name.empty() && g_dbus_is_unique_name(name.c_str());
}

// One list has every serial that a call for a stream used. The last ones without a reply, up to the limit,
// are the calls that wait.
class Model
{
public:
  Expectation sent(GDBusMessage *message)
  {
    std::array parts = {text_of(g_dbus_message_get_destination(message)),
                        text_of(g_dbus_message_get_interface(message)),
                        text_of(g_dbus_message_get_member(message))};
    std::array stream_parts = {std::string("com.quon.MetadataReceiver1"),
                               std::string("com.quon.MetadataReceiver1.Producer"),
                               std::string("GetStreamFd")};
    if (type_of(message) == G_DBUS_MESSAGE_TYPE_METHOD_CALL && parts == stream_parts)
      waiting_.push_back(g_dbus_message_get_serial(message));
    if (waiting_.size() > DESCRIPTOR_FILTER_MAX_CALLS)
      waiting_.erase(waiting_.begin(), waiting_.end() - DESCRIPTOR_FILTER_MAX_CALLS);
    return {Fate::PASSES, false};
  }

  Expectation received(GDBusMessage *message)
  {
    int type = type_of(message);
    bool result = type == G_DBUS_MESSAGE_TYPE_METHOD_RETURN;
    bool reply = result || type == G_DBUS_MESSAGE_TYPE_ERROR;
    bool awaited = reply && settle(g_dbus_message_get_reply_serial(message));

    if (!carries(message) || (result && awaited))
      return {Fate::PASSES, false};
    if (reply)
      return {Fate::REPLACED, false};
    bool quiet = (g_dbus_message_get_flags(message) & G_DBUS_MESSAGE_FLAGS_NO_REPLY_EXPECTED) != 0;
    bool named = is_unique_name(text_of(g_dbus_message_get_sender(message)));
    return {Fate::DROPPED, type == G_DBUS_MESSAGE_TYPE_METHOD_CALL && !quiet && named &&
                               g_dbus_message_get_serial(message) != 0};
  }

private:
  // A peer may send types that the enumeration cannot hold.
  static int type_of(GDBusMessage *message)
  {
    return g_dbus_message_get_message_type(message);
  }

  static bool carries(GDBusMessage *message)
  {
    GUnixFDList *list = g_dbus_message_get_unix_fd_list(message);
    gint count = list != nullptr ? g_unix_fd_list_get_length(list) : 0;
    return count > 0 || g_dbus_message_get_num_unix_fds(message) != 0;
  }

  bool settle(guint32 serial)
  {
    for (gsize i = 0; i < waiting_.size(); i++) {
      if (waiting_[i] == serial) {
        waiting_.erase(waiting_.begin() + static_cast<gssize>(i));
        return true;
      }
    }
    return false;
  }

  std::vector<guint32> waiting_;
};

// Another GDBus must be able to read what GDBus writes.
void
check_encoding(GDBusMessage *message)
{
  gsize size = 0;
  guchar *blob = g_dbus_message_to_blob(message, &size, G_DBUS_CAPABILITY_FLAGS_NONE, nullptr);
  fuzz::require(blob != nullptr, "the filter's message can be serialised");
  Message read = own(g_dbus_message_new_from_blob(blob, size, G_DBUS_CAPABILITY_FLAGS_NONE, nullptr));
  fuzz::require(read != nullptr, "the filter's message can be parsed");
  g_free(blob);
}

void
check_error(GDBusMessage *error, guint32 reply_serial)
{
  fuzz::require(g_dbus_message_get_message_type(error) == G_DBUS_MESSAGE_TYPE_ERROR, "it is an error");
  fuzz::require(g_dbus_message_get_reply_serial(error) == reply_serial, "it replies to the call");
  fuzz::require(text_of(g_dbus_message_get_error_name(error)) == REFUSED, "it has the error's name");
  fuzz::require(g_dbus_message_get_unix_fd_list(error) == nullptr, "it has no descriptors");
  fuzz::require(g_dbus_message_get_num_unix_fds(error) == 0, "it announces no descriptors");
  check_encoding(error);
}

// The properties of a message that are checked after it has been released.
struct Header {
  explicit Header(GDBusMessage *message)
      : serial(g_dbus_message_get_serial(message)), reply_serial(g_dbus_message_get_reply_serial(message)),
        sender(text_of(g_dbus_message_get_sender(message)))
  {
  }

  guint32 serial;
  guint32 reply_serial;
  std::string sender;
};

void
check(GDBusMessage *passed, GDBusMessage *answer, const Header &header, const Expectation &expected)
{
  fuzz::require((answer != nullptr) == expected.answered, "it gets a reply if the model says so");
  if (answer != nullptr) {
    check_error(answer, header.serial);
    fuzz::require(text_of(g_dbus_message_get_destination(answer)) == header.sender,
                  "the caller gets the reply");
    fuzz::require(!g_dbus_message_get_locked(answer), "the reply can be sent");
  }
  fuzz::require((passed == nullptr) == (expected.fate == Fate::DROPPED),
                "it is dropped if the model says so");
  if (expected.fate == Fate::REPLACED) {
    check_error(passed, header.reply_serial);
    fuzz::require(g_dbus_message_get_serial(passed) == header.serial, "it keeps the serial");
    fuzz::require(text_of(g_dbus_message_get_sender(passed)) == header.sender, "it keeps the sender");
  }
}

void
pass(DescriptorFilter *filter, Model *model, Message message, bool incoming)
{
  g_dbus_message_lock(message.get());
  Expectation expected = incoming ? model->received(message.get()) : model->sent(message.get());
  Header header(message.get());
  gpointer original = message.get();
  gpointer alive = original;
  g_object_add_weak_pointer(G_OBJECT(original), &alive);

  GDBusMessage *made = nullptr;
  in_filter = true;
  Message passed = own(descriptor_filter_pass(filter, message.release(), incoming, &made));
  in_filter = false;
  Message answer = own(made);

  fuzz::require((alive != nullptr) == (expected.fate == Fate::PASSES),
                "a refused message is released at once");
  fuzz::require((passed.get() == original) == (expected.fate == Fate::PASSES),
                "it passes if the model says so");
  check(passed.get(), answer.get(), header, expected);
  if (alive != nullptr)
    g_object_remove_weak_pointer(G_OBJECT(original), &alive);
}

} // namespace

int
LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
  g_log_set_default_handler(on_glib_message, nullptr);
  Reader reader(fuzz::as_text(data, size));
  std::unique_ptr<DescriptorFilter, decltype(&descriptor_filter_free)> filter(descriptor_filter_new(),
                                                                              descriptor_filter_free);
  Model model;
  while (!reader.at_end()) {
    guint8 kind = reader.byte();
    Message message = (kind & IS_BLOB) != 0 ? read_blob(&reader) : make_message(&reader);
    if (message == nullptr)
      continue;
    if ((kind & HAS_LIST) != 0) {
      GUnixFDList *list = make_list((kind >> DESCRIPTOR_SHIFT) & DESCRIPTOR_MASK);
      guint32 announced = g_dbus_message_get_num_unix_fds(message.get());
      g_dbus_message_set_unix_fd_list(message.get(), list);
      if ((kind & IS_BLOB) == 0 && announced != 0)
        g_dbus_message_set_num_unix_fds(message.get(), announced);
      g_object_unref(list);
    }
    pass(filter.get(), &model, std::move(message), (kind & IS_INCOMING) != 0);
  }
  return 0;
}
