/* SPDX-License-Identifier: MIT */
#include "lib/buscall.h"

#include "testlibrary.h"
#include "testpipes.h"

#include <thread>

using testbus::Peer;
using testbus::reply;
using testbus::Service;
using testlibrary::describe;
using testlibrary::on_worker;

namespace
{

constexpr const char *NAME = "com.quon.Test";
constexpr BusMethod ASK = {"/path", "com.quon.Interface", "Ask", "(s)"};
constexpr BusMethod OPEN = {"/path", "com.quon.Interface", "Open", "(h)"};

class LibraryBusCallTest : public testlibrary::BusFixture
{
protected:
  void SetUp() override
  {
    BusFixture::SetUp();
    peer_.emplace();
    cancellable_ = g_cancellable_new();
  }

  void TearDown() override
  {
    told_.expect({});
    service_.reset();
    EXPECT_TRUE(testhost::spin_until([this] {
      return g_atomic_int_get(&G_OBJECT(cancellable_)->ref_count) == 1;
    })) << "the call has released it";
    g_clear_object(&cancellable_);
    peer_.reset();
    BusFixture::TearDown();
  }

  void call(const BusMethod &method, BusReplyFunction function)
  {
    on_worker([&] {
      worker_ = std::this_thread::get_id();
      bus_call(peer_->connection(), NAME, &method, g_variant_new("(s)", "question"), cancellable_,
               std::move(function));
    });
  }

  void ask()
  {
    call(ASK, [this](GVariant *answer, GUnixFDList *fds, const GError *error) {
      EXPECT_EQ(std::this_thread::get_id(), worker_);
      EXPECT_EQ(fds, nullptr);
      EXPECT_EQ(answer == nullptr, error != nullptr);
      g_autofree gchar *text = answer != nullptr ? g_variant_print(answer, FALSE) : nullptr;
      told_.add(text != nullptr ? text : describe(error));
    });
  }

  std::optional<Peer> peer_;
  std::optional<Service> service_;
  std::thread::id worker_;
  GCancellable *cancellable_ = nullptr;
  testlibrary::Told told_;
};

} // namespace

TEST_F(LibraryBusCallTest, BringsTheReply)
{
  service_.emplace(NAME, reply("('answer',)"));
  ask();
  told_.expect({"('answer',)"});
  EXPECT_EQ(service_->take_calls(), (std::vector<std::string>{"/path com.quon.Interface.Ask ('question',)"}));
}

TEST_F(LibraryBusCallTest, BringsTheError)
{
  service_.emplace(NAME, testbus::refuse());
  ask();
  told_.expect({"g-io-error-quark 36 GDBus.Error:com.quon.Test.Error: No."});
}

/* It does not start the service. */
TEST_F(LibraryBusCallTest, FailsWithoutTheService)
{
  ask();
  told_.expect({"g-dbus-error-quark 3 GDBus.Error:org.freedesktop.DBus.Error.NameHasNoOwner: Name "
                "\"com.quon.Test\" does not exist"});
}

TEST_F(LibraryBusCallTest, RefusesAReplyOfAWrongType)
{
  service_.emplace(NAME, reply("(uint32 1,)"));
  ask();
  told_.expect({"g-io-error-quark 13 Method “com.quon.Interface.Ask” returned type “(u)”, but expected "
                "“(s)”"});
}

TEST_F(LibraryBusCallTest, EndsWhenTheServiceLeaves)
{
  testbus::HeldCalls held;
  service_.emplace(NAME, held.hold());
  ask();
  EXPECT_TRUE(testhost::spin_until([&] { return held.size() == 1; }));
  service_.reset();
  told_.expect({"g-dbus-error-quark 4 GDBus.Error:org.freedesktop.DBus.Error.NoReply: Message recipient "
                "disconnected from message bus without replying"});
}

TEST_F(LibraryBusCallTest, BringsDescriptorsAndClosesThoseThatAreNotTaken)
{
  const testpipes::Pipe pipe = testpipes::open_pipe();
  service_.emplace(NAME, testbus::reply_with_fds("(handle 1,)", {pipe.read_end.fd(), pipe.write_end.fd()}));

  call(OPEN, [this](GVariant *answer, GUnixFDList *fds, const GError *) {
    g_autofree gchar *text = g_variant_print(answer, FALSE);
    told_.add(text);
    ASSERT_NE(fds, nullptr);
    EXPECT_EQ(g_unix_fd_list_get_length(fds), 2);
    const testpipes::Descriptor taken(g_unix_fd_list_get(fds, 1, nullptr));
    taken.write("written");
  });
  told_.expect({"(1,)"});
  EXPECT_EQ(pipe.read_end.read(7), "written");
}

TEST_F(LibraryBusCallTest, CancelledCallBringsNothing)
{
  testbus::HeldCalls held;
  service_.emplace(NAME, held.hold());
  ask();
  EXPECT_TRUE(testhost::spin_until([&] { return held.size() == 1; }));
  on_worker([&] { g_cancellable_cancel(cancellable_); });
  held.release(&*service_, reply("('late',)"));
}

/* The worker cancels a call whose reply is there, but not dispatched. */
TEST_F(LibraryBusCallTest, CancellationWinsOverAReplyThatWaits)
{
  const testpipes::Pipe pipe = testpipes::open_pipe();
  testbus::HeldCalls held;
  service_.emplace(NAME, held.hold());

  call(OPEN, [this](GVariant *, GUnixFDList *, const GError *) { told_.add("called"); });
  EXPECT_TRUE(testhost::spin_until([&] { return held.size() == 1; }));
  on_worker([&] {
    held.release(&*service_, testbus::reply_with_fds("(handle 0,)", {pipe.read_end.fd()}));
    EXPECT_TRUE(testhost::spin_until(
        [] { return g_main_context_pending(g_main_context_get_thread_default()) != FALSE; }));
    g_cancellable_cancel(cancellable_);
  });
}

TEST_F(LibraryBusCallTest, ReleasesItsFunction)
{
  const auto owned = std::make_shared<int>(0);

  service_.emplace(NAME, reply("('answer',)"));
  call(ASK, [this, owned](GVariant *, GUnixFDList *, const GError *) { told_.add("called"); });
  told_.expect({"called"});
  EXPECT_TRUE(testhost::spin_until([&] { return owned.use_count() == 1; }));
}
