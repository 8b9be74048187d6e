/* SPDX-License-Identifier: MIT */
#include "listing.h"

#include "testlibrary.h"

using testbus::Peer;
using testbus::reply;
using testbus::Service;

namespace
{

constexpr const char *DAEMON = "com.quon.MetadataServer1";
constexpr const char *PRODUCERS = "/com/quon/MetadataServer1/Producers";
constexpr const char *MINE = "/com/quon/MetadataServer1/Producers/Mine";
constexpr const char *OTHER = "/com/quon/MetadataServer1/Producers/Other";
constexpr const char *OBJECT_MANAGER = "org.freedesktop.DBus.ObjectManager";
constexpr const char *PROPERTIES = "org.freedesktop.DBus.Properties";

const std::string ASKED =
    " org.freedesktop.DBus.Properties.Get ('com.quon.MetadataServer1.Producer', 'ChannelsEnabled')";

/* A reply whose value is written in GVariant's text format. */
testbus::Answer
reply_with(const std::string &value)
{
  return reply("(<" + value + ">,)");
}

class ListingTest : public testlibrary::BusFixture
{
protected:
  void SetUp() override
  {
    BusFixture::SetUp();
    peer_.emplace();
  }

  void TearDown() override
  {
    listing_.reset();
    told_.expect({});
    daemon_.reset();
    peer_.reset();
    BusFixture::TearDown();
  }

  /* The connection is for the main context of the worker, as the library's own one. */
  void watch(const char *name = "Mine")
  {
    listing_.emplace<GDBusConnection *, const char *, Listing::Function>(
        peer_->connection(), name, [this](const std::optional<EnabledChannels> &enabled) { tell(enabled); });
  }

  void tell(const std::optional<EnabledChannels> &enabled)
  {
    std::string text = enabled.has_value() ? "listed" : "not listed";

    for (const auto &[channel, configuration] : enabled.value_or(EnabledChannels())) {
      text += " " + std::to_string(channel) + "=" + configuration;
    }
    told_.add(text);
  }

  void start_daemon(testbus::Answer answer)
  {
    daemon_.emplace(DAEMON, std::move(answer));
  }

  /* Has the daemon, or another service, send a signal with a body in GVariant's text format. */
  static void send(Service *service, const char *object, const char *interface, const char *name,
                   const std::string &body)
  {
    g_autoptr(GDBusMessage) message = g_dbus_message_new_signal(object, interface, name);

    g_dbus_message_set_body(message, g_variant_new_parsed(body.c_str()));
    service->send(message);
  }

  void add(const std::string &object, const std::string &interfaces)
  {
    send(&*daemon_, PRODUCERS, OBJECT_MANAGER, "InterfacesAdded",
         "(objectpath '" + object + "', @a{sa{sv}} " + interfaces + ")");
  }

  void remove(const std::string &object)
  {
    send(&*daemon_, PRODUCERS, OBJECT_MANAGER, "InterfacesRemoved",
         "(objectpath '" + object + "', ['com.quon.MetadataServer1.Producer'])");
  }

  void change(const char *object, const std::string &properties)
  {
    send(&*daemon_, object, PROPERTIES, "PropertiesChanged",
         "('com.quon.MetadataServer1.Producer', @a{sv} " + properties + ", @as [])");
  }

  static std::string enabled(const std::string &value)
  {
    return "{'ChannelsEnabled': <" + value + ">}";
  }

  static std::string producer(const std::string &value)
  {
    return "{'com.quon.MetadataServer1.Producer': " + enabled(value) + "}";
  }

  std::optional<Peer> peer_;
  std::optional<Service> daemon_;
  testlibrary::Told told_;
  testlibrary::OnWorker<Listing> listing_;
};

} // namespace

TEST_F(ListingTest, TellsWhereTheProducerIsEnabled)
{
  start_daemon(reply_with("[(1, true, 'front door'), (2, false, 'hall'), (7, true, '')]"));
  watch();
  told_.expect({"listed 1=front door 7="});
  EXPECT_EQ(daemon_->take_calls(), (std::vector<std::string>{MINE + ASKED}));
}

TEST_F(ListingTest, ProducerWithoutTheDaemonIsNotListed)
{
  watch();
  told_.expect({"not listed"});
}

TEST_F(ListingTest, ProducerThatTheDaemonDoesNotKnowIsNotListed)
{
  start_daemon(testbus::refuse());
  watch();
  told_.expect({"not listed"});
}

TEST_F(ListingTest, FollowsTheSignalsOfTheDaemon)
{
  start_daemon(testbus::refuse());
  watch();
  told_.expect({"not listed"});
  add(MINE, producer("@a(ibs) []"));
  told_.expect({"listed"});
  change(MINE, enabled("[(2, true, 'front door')]"));
  told_.expect({"listed 2=front door"});
  change(MINE, enabled("[(2, true, 'back door')]"));
  told_.expect({"listed 2=back door"});
  remove(MINE);
  told_.expect({"not listed"});
}

TEST_F(ListingTest, FollowsTheDaemon)
{
  watch();
  told_.expect({"not listed"});
  start_daemon(reply_with("[(1, true, 'a')]"));
  told_.expect({"listed 1=a"});
  daemon_.reset();
  told_.expect({"not listed"});
  start_daemon(reply_with("[(1, true, 'b')]"));
  told_.expect({"listed 1=b"});
  daemon_->take_name_again(DAEMON);
  told_.expect({"not listed", "listed 1=b"});
}

TEST_F(ListingTest, IgnoresOtherObjects)
{
  start_daemon(reply_with("@a(ibs) []"));
  watch();
  told_.expect({"listed"});
  add(OTHER, producer("[(1, true, 'a')]"));
  change(OTHER, enabled("[(1, true, 'a')]"));
  remove(OTHER);
  add(MINE, "{'org.freedesktop.DBus.Peer': {}}");
  change(MINE, "{'NiceName': <'Nice'>}");
  send(&*daemon_, MINE, PROPERTIES, "PropertiesChanged",
       "('com.quon.Other', {'ChannelsEnabled': <[(1, true, 'a')]>}, @as [])");
  change(MINE, enabled("[(3, true, 'last')]"));
  told_.expect({"listed 3=last"});
}

TEST_F(ListingTest, IgnoresOtherSenders)
{
  start_daemon(reply_with("@a(ibs) []"));
  watch();
  told_.expect({"listed"});
  Service other("com.quon.Other", reply("()"));
  send(&other, MINE, PROPERTIES, "PropertiesChanged",
       "('com.quon.MetadataServer1.Producer', {'ChannelsEnabled': <[(1, true, 'a')]>}, @as [])");
  send(&other, PRODUCERS, OBJECT_MANAGER, "InterfacesRemoved",
       std::string("(objectpath '") + MINE + "', ['com.quon.MetadataServer1.Producer'])");
  change(MINE, enabled("[(3, true, 'last')]"));
  told_.expect({"listed 3=last"});
}

TEST_F(ListingTest, ValuesOfAWrongTypeEnableNothing)
{
  start_daemon(reply_with("'text'"));
  watch();
  told_.expect({"listed"});
  change(MINE, enabled("[(1, true)]"));
  told_.expect({"listed"});
  add(MINE, producer("[(uint32 1, true, 'a')]"));
  told_.expect({"listed"});
  add(MINE, "{'com.quon.MetadataServer1.Producer': {}}");
  told_.expect({"listed"});
}

TEST_F(ListingTest, IgnoresSignalsOfAWrongType)
{
  start_daemon(reply_with("@a(ibs) []"));
  watch();
  told_.expect({"listed"});
  for (const char *name : {"InterfacesAdded", "InterfacesRemoved"}) {
    send(&*daemon_, PRODUCERS, OBJECT_MANAGER, name, "('x',)");
    send(&*daemon_, PRODUCERS, OBJECT_MANAGER, name, "(objectpath '/', uint32 1)");
  }
  send(&*daemon_, MINE, PROPERTIES, "PropertiesChanged", "('com.quon.MetadataServer1.Producer',)");
  change(MINE, enabled("[(3, true, 'last')]"));
  told_.expect({"listed 3=last"});
}

TEST_F(ListingTest, ReplyOfAWrongTypeMeansThatItIsNotListed)
{
  start_daemon(reply("(uint32 1,)"));
  watch();
  told_.expect({"not listed"});
}

/* The daemon sends a signal before it replies: GDBus delivers both in this order, and the reply counts. */
TEST_F(ListingTest, LastOfReplyAndSignalCounts)
{
  testbus::HeldCalls held;
  start_daemon(held.hold());
  watch();
  EXPECT_TRUE(testhost::spin_until([&] { return held.size() == 1; }));
  change(MINE, enabled("[(1, true, 'signal')]"));
  held.release(&*daemon_, reply_with("[(1, true, 'reply')]"));
  told_.expect({"listed 1=signal", "listed 1=reply"});
}

TEST_F(ListingTest, ReplyOfADaemonThatHasLeftTheNameDoesNotCount)
{
  testbus::HeldCalls held;
  start_daemon(held.hold());
  watch();
  EXPECT_TRUE(testhost::spin_until([&] { return held.size() == 1; }));
  daemon_->set_answer(reply_with("[(1, true, 'new')]"));
  daemon_->take_name_again(DAEMON);
  told_.expect({"not listed", "listed 1=new"});
  held.release(&*daemon_, reply_with("[(1, true, 'old')]"));
  change(MINE, enabled("[(3, true, 'last')]"));
  told_.expect({"listed 3=last"});
}

TEST_F(ListingTest, EndsDuringItsCall)
{
  testbus::HeldCalls held;
  start_daemon(held.hold());
  watch();
  EXPECT_TRUE(testhost::spin_until([&] { return held.size() == 1; }));
  listing_.reset();
  held.release(&*daemon_, reply_with("[(1, true, 'late')]"));
  change(MINE, enabled("[(3, true, 'late')]"));
}

TEST_F(ListingTest, ReleasesItsConnection)
{
  GObject *connection = G_OBJECT(peer_->connection());

  start_daemon(reply_with("@a(ibs) []"));
  watch();
  told_.expect({"listed"});
  listing_.reset();
  EXPECT_TRUE(testhost::spin_until([&] { return g_atomic_int_get(&connection->ref_count) == 1; }));
}

/* Such a name has no object; the receiver refuses it. */
TEST_F(ListingTest, NameThatIsNoPathIsNotListed)
{
  start_daemon(testbus::refuse());
  watch("not a name");
  told_.expect({"not listed"});
  EXPECT_EQ(daemon_->take_calls(), (std::vector<std::string>{PRODUCERS + ASKED}));
}
