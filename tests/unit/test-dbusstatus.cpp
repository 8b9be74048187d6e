/* SPDX-License-Identifier: MIT */
#include "dbusstatus.h"

#include "clientplaces.h"
#include "clientrecord.h"
#include "descriptorreserve.h"
#include "messageaccount.h"
#include "metadataserver1.h"
#include "producermeter.h"
#include "testbus.h"

#include <optional>

using testbus::Peer;
using testhost::Texts;

namespace
{

constexpr const char *PATH = "/com/quon/MetadataServer1/Status";
constexpr const char *INTERFACE = "com.quon.MetadataServer1.Status";

class DBusStatusTest : public testbus::Fixture
{
protected:
  void SetUp() override
  {
    Fixture::SetUp();
    service_.emplace();
    tool_.emplace();
    dbus_status_init();
  }

  void TearDown() override
  {
    dbus_status_teardown();
    tool_.reset();
    service_.reset();
    Fixture::TearDown();
  }

  std::string call(const char *path, const char *interface, const char *method) const
  {
    return tool_->call({service_->name(), path, interface, method});
  }

  /* The status, of the type a{sv}. NULL after a failure. */
  GVariant *get_status() const
  {
    g_autoptr(GAsyncResult) result = nullptr;
    const GAsyncReadyCallback keep = [](GObject *, GAsyncResult *ready, gpointer user_data) {
      *static_cast<GAsyncResult **>(user_data) = G_ASYNC_RESULT(g_object_ref(ready));
    };

    g_dbus_connection_call(tool_->connection(), service_->name().c_str(), PATH, INTERFACE, "GetStatus",
                           nullptr, G_VARIANT_TYPE("(a{sv})"), G_DBUS_CALL_FLAGS_NONE, -1, nullptr, keep,
                           &result);
    EXPECT_TRUE(testhost::spin_until([&result] { return result != nullptr; }));
    g_autoptr(GVariant) reply = g_dbus_connection_call_finish(tool_->connection(), result, nullptr);
    return reply != nullptr ? g_variant_get_child_value(reply, 0) : nullptr;
  }

  std::optional<Peer> service_;
  std::optional<Peer> tool_;
};

/* Keys and types, in their order. */
Texts
types_of(GVariant *dictionary)
{
  Texts types;

  for (gsize i = 0; i < g_variant_n_children(dictionary); i++) {
    const gchar *key = nullptr;
    g_autoptr(GVariant) value = nullptr;
    g_variant_get_child(dictionary, i, "{&sv}", &key, &value);
    types.push_back(std::string(key) + " " + g_variant_get_type_string(value));
  }
  return types;
}

/* The value of a key, in GVariant's text format without types. */
std::string
print(GVariant *dictionary, const char *key)
{
  g_autoptr(GVariant) value = g_variant_lookup_value(dictionary, key, nullptr);
  g_autofree gchar *text = value != nullptr ? g_variant_print(value, FALSE) : g_strdup("nothing");

  return text;
}

GVariant *
get_last(GVariant *dictionary, const char *key)
{
  g_autoptr(GVariant) list = g_variant_lookup_value(dictionary, key, G_VARIANT_TYPE("aa{sv}"));

  return g_variant_get_child_value(list, g_variant_n_children(list) - 1);
}

std::string
member(const GDBusMethodInfo *method)
{
  std::string text = method->name;

  for (GDBusArgInfo **arg = method->in_args; arg != nullptr && *arg != nullptr; arg++) {
    text += std::string(" in ") + (*arg)->name + " " + (*arg)->signature;
  }
  for (GDBusArgInfo **arg = method->out_args; arg != nullptr && *arg != nullptr; arg++) {
    text += std::string(" out ") + (*arg)->name + " " + (*arg)->signature;
  }
  return text;
}

} // namespace

TEST_F(DBusStatusTest, HasOneMethod)
{
  const GDBusInterfaceInfo *info = metadata_server1_status_interface_info();

  EXPECT_STREQ(info->name, INTERFACE);
  ASSERT_NE(info->methods[0], nullptr);
  EXPECT_EQ(member(info->methods[0]), "GetStatus out status a{sv}");
  EXPECT_EQ(info->methods[1], nullptr);
  EXPECT_EQ(info->signals, nullptr);
  EXPECT_EQ(info->properties, nullptr);
}

TEST_F(DBusStatusTest, IsDescribedAtItsPath)
{
  dbus_status_on_bus_acquired(service_->connection());
  const std::string text = call(PATH, "org.freedesktop.DBus.Introspectable", "Introspect");

  EXPECT_NE(text.find("  <interface name=\"com.quon.MetadataServer1.Status\">\\n"
                      "    <method name=\"GetStatus\">\\n"
                      "      <arg type=\"a{sv}\" name=\"status\" direction=\"out\"/>\\n"
                      "    </method>\\n"
                      "  </interface>\\n"),
            std::string::npos)
      << text;
}

TEST_F(DBusStatusTest, ReturnsAllKeysWithTheirTypes)
{
  g_autoptr(GHashTable) params = g_hash_table_new(g_str_hash, g_str_equal);
  ClientRecord *client = client_record_new(12, 34, params);
  ProducerMeter *meter = producer_meter_new("gate");

  dbus_status_on_bus_acquired(service_->connection());
  g_autoptr(GVariant) status = get_status();
  g_autoptr(GVariant) shown = get_last(status, "Clients");
  g_autoptr(GVariant) source = get_last(status, "Producers");
  g_autoptr(GVariant) limits = g_variant_lookup_value(status, "Limits", nullptr);

  EXPECT_EQ(types_of(status),
            (Texts{"Version s", "StartTime x", "Uptime t", "Clients aa{sv}", "ClientsTotal t",
                   "DocumentsTotal t", "BytesTotal t", "Producers aa{sv}", "MessagesTotal t",
                   "MessageBytesTotal t", "DroppedTotal t", "HeldBytes t", "Descriptors u", "Limits a{sv}"}));
  EXPECT_EQ(types_of(shown),
            (Texts{"Id t", "Pid u", "Uid u", "Streaming b", "Request a{ss}", "Documents t", "Bytes t",
                   "QueueItems u", "QueueBytes u", "Age t", "LastDocumentAge x"}));
  EXPECT_EQ(types_of(source), (Texts{"Source s", "Streams u", "Messages t", "Bytes t", "Dropped t"}));
  EXPECT_EQ(types_of(limits), (Texts{"Clients u", "ClientsKept u", "Descriptors u", "DescriptorsKept u",
                                     "ClientHeldBytes t", "HeldBytes t"}));
  producer_meter_free(meter);
  client_record_close(client);
}

TEST_F(DBusStatusTest, ReturnsWhatIsCounted)
{
  g_autoptr(GHashTable) params = g_hash_table_new(g_str_hash, g_str_equal);
  g_hash_table_insert(params, const_cast<char *>("ptz"), const_cast<char *>("1"));
  g_hash_table_insert(params, const_cast<char *>("event"), const_cast<char *>("1"));
  ClientRecord *client = client_record_new(12, 34, params);
  ProducerMeter *meter = producer_meter_new("yard");
  client_record_set_streaming(client);
  client_record_add_documents(client, 2, 99);
  producer_meter_add_message(meter, 5);
  producer_meter_add_dropped(meter);

  dbus_status_on_bus_acquired(service_->connection());
  g_autoptr(GVariant) status = get_status();
  g_autoptr(GVariant) shown = get_last(status, "Clients");
  g_autoptr(GVariant) source = get_last(status, "Producers");
  EXPECT_EQ(print(shown, "Pid") + print(shown, "Uid") + print(shown, "Streaming"), "1234true");
  EXPECT_EQ(print(shown, "Request"), "{'event': '1', 'ptz': '1'}");
  EXPECT_EQ(print(shown, "Documents"), "2");
  EXPECT_EQ(print(shown, "Bytes"), "99");
  EXPECT_EQ(print(source, "Source"), "'yard'");
  EXPECT_EQ(print(source, "Streams") + print(source, "Messages") + print(source, "Bytes") +
                print(source, "Dropped"),
            "1151");
  EXPECT_TRUE(g_regex_match_simple("^'\\d+\\.\\d+\\.\\d+'$", print(status, "Version").c_str(),
                                   static_cast<GRegexCompileFlags>(0), static_cast<GRegexMatchFlags>(0)));
  EXPECT_EQ(print(status, "Descriptors"), std::to_string(testhost::open_descriptors().size()));

  client_record_close(client);
  g_autoptr(GVariant) later = get_status();
  EXPECT_EQ(print(later, "Clients"), "[]");
  EXPECT_EQ(print(later, "DocumentsTotal"), print(status, "DocumentsTotal"));
  producer_meter_free(meter);
}

TEST_F(DBusStatusTest, ReturnsTheLimits)
{
  dbus_status_on_bus_acquired(service_->connection());
  g_autoptr(GVariant) status = get_status();
  g_autoptr(GVariant) limits = g_variant_lookup_value(status, "Limits", nullptr);
  struct rlimit descriptors = {};
  getrlimit(RLIMIT_NOFILE, &descriptors);

  EXPECT_EQ(print(limits, "Clients"), std::to_string(CLIENT_PLACES));
  EXPECT_EQ(print(limits, "ClientsKept"), std::to_string(CLIENT_PLACES_KEPT));
  EXPECT_EQ(print(limits, "Descriptors"), std::to_string(descriptors.rlim_cur));
  EXPECT_EQ(print(limits, "DescriptorsKept"), std::to_string(DESCRIPTOR_RESERVE_SIZE));
  EXPECT_EQ(print(limits, "ClientHeldBytes"), std::to_string(MESSAGE_ACCOUNT_CLIENT_LIMIT));
  EXPECT_EQ(print(limits, "HeldBytes"), std::to_string(MESSAGE_ACCOUNT_TOTAL_LIMIT));
}

TEST_F(DBusStatusTest, CutsTextsBetweenCharacters)
{
  struct {
    std::string text;
    std::string shown;
  } const cases[] = {
      {std::string(256, 'x'), std::string(256, 'x')},
      {std::string(257, 'x'), std::string(256, 'x') + "…"},
      {std::string(255, 'x') + "é", std::string(255, 'x') + "…"},
      {std::string(254, 'x') + "éy", std::string(254, 'x') + "é…"},
      {std::string(255, 'x') + "\xff", std::string(255, 'x') + "\ufffd"},
      {std::string(300, '\xbf'), "…"},
      {"\x1b\n'\"\\", "\x1b\n'\"\\"},
  };
  g_autoptr(GHashTable) params = g_hash_table_new(g_str_hash, g_str_equal);
  dbus_status_on_bus_acquired(service_->connection());

  for (const auto &[text, shown] : cases) {
    g_hash_table_insert(params, const_cast<char *>("event_topic"), const_cast<char *>(text.c_str()));
    ClientRecord *record = client_record_new(1, 1, params);
    ProducerMeter *meter = producer_meter_new(text.c_str());
    g_autoptr(GVariant) status = get_status();
    g_autoptr(GVariant) client = get_last(status, "Clients");
    g_autoptr(GVariant) source = get_last(status, "Producers");
    g_autoptr(GVariant) request = g_variant_lookup_value(client, "Request", nullptr);
    const gchar *topic = nullptr;
    const gchar *name = nullptr;
    EXPECT_TRUE(g_variant_lookup(request, "event_topic", "&s", &topic));
    EXPECT_TRUE(g_variant_lookup(source, "Source", "&s", &name));
    EXPECT_EQ(topic, shown);
    EXPECT_EQ(name, shown);
    producer_meter_free(meter);
    client_record_close(record);
  }
}

TEST_F(DBusStatusTest, IsGoneAfterTheTearDown)
{
  dbus_status_on_bus_acquired(service_->connection());
  dbus_status_teardown();

  EXPECT_TRUE(call(PATH, INTERFACE, "GetStatus").starts_with("org.freedesktop.DBus.Error.UnknownMethod: "));
  dbus_status_on_bus_acquired(service_->connection());
  g_autoptr(GVariant) status = get_status();
  EXPECT_NE(status, nullptr);
}

TEST_F(DBusStatusTest, DropsAClosedConnection)
{
  const testhost::Observed observed(service_->connection());

  dbus_status_on_bus_acquired(service_->connection());
  service_->close();
  service_.reset();
  EXPECT_TRUE(testhost::spin_until([&observed] { return !observed.alive(); }));
  service_.emplace();
  service_->close();
  dbus_status_on_bus_acquired(service_->connection());
}

TEST_F(DBusStatusTest, ChecksItsArguments)
{
  dbus_status_on_bus_acquired(nullptr);
  dbus_status_on_bus_acquired(service_->connection());
  dbus_status_on_bus_acquired(service_->connection());
  EXPECT_EQ(testhost::take_failed_preconditions(),
            (Texts{"G_IS_DBUS_CONNECTION(connection)", "status_skeleton == NULL"}));
}
