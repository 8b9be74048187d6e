/* SPDX-License-Identifier: MIT */
#include "registration.h"

#include "fakereceiver.h"
#include "testclock.h"
#include "testlibrary.h"
#include "timers.h"

#include <fcntl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

using testbus::refuse;
using testbus::reply;
using testbus::reply_with_fds;
using testlibrary::describe;
using testlibrary::failure;
using testlibrary::FakeReceiver;
using Lengths = std::vector<guint>;

namespace
{

#define RECEIVER_ERROR(name) "com.quon.MetadataReceiver1.Error." name

const std::string REGISTER =
    R"(Registry.RegisterProducer ('Mine', 'My detector', [1, 2], '{"Objects": []}', {}))";
const std::string OPEN_1 = "Registry.OpenChannel ('Mine', 1)";
const std::string OPEN_2 = "Registry.OpenChannel ('Mine', 2)";
const std::string UNREGISTER = "Registry.UnregisterProducer ('Mine',)";

const std::string ABSENT = failure(
    TESSARD_ERROR_NO_RECEIVER, "The receiver is not on the bus: 'com.quon.MetadataReceiver1' has no owner.");

std::string
malformed(const std::string &cause)
{
  return "refused: " +
         failure(TESSARD_ERROR_MALFORMED_REPLY, "The receiver sent a malformed reply: " + cause + ".");
}

class Client : public Registration::Client
{
public:
  explicit Client(testlibrary::Told *told) : told_(told)
  {
  }

  virtual ~Client() = default;

  void bus_connected(GDBusConnection *) override
  {
    told_->add("connected");
  }

  void bus_failed(const GError *reason) override
  {
    told_->add("no bus: " + describe(reason));
  }

  void producer_registered() override
  {
    told_->add("registered");
  }

  void channel_opened(guint32 channel, int fd) override
  {
    EXPECT_EQ(fcntl(fd, F_GETFL) & O_ACCMODE, O_WRONLY);
    close(fd);
    told_->add("opened " + std::to_string(channel));
  }

  void receiver_lost() override
  {
    told_->add("lost");
  }

  void interrupted(const GError *reason) override
  {
    told_->add("interrupted: " + describe(reason));
  }

  void refused(const GError *reason) override
  {
    told_->add("refused: " + describe(reason));
  }

  void ended() override
  {
    told_->add("ended");
  }

private:
  testlibrary::Told *told_;
};

class RegistrationTest : public testlibrary::BusFixture
{
protected:
  void SetUp() override
  {
    BusFixture::SetUp();
    testclock::reset();
    timers::take_begun();
    receiver_.emplace();
  }

  void TearDown() override
  {
    registration_.reset();
    told_.expect({});
    receiver_->expect_calls({});
    receiver_.reset();
    EXPECT_EQ(timers::count_set(), 0U);
    BusFixture::TearDown();
  }

  void start(const ProducerDescription &description = {"Mine", "My detector", {1, 2}})
  {
    registration_.emplace<std::string, ProducerDescription, Registration::Client *>("", description,
                                                                                    &client_);
  }

  void set_sample_frame(const std::string &text = R"({"Objects": []})")
  {
    registration_.with([&](Registration &registration) { registration.set_sample_frame(text); });
  }

  void register_and_open()
  {
    start();
    set_sample_frame();
    told_.expect({"connected", "lost", "registered", "opened 1", "opened 2"});
    receiver_->expect_calls({REGISTER, OPEN_1, OPEN_2});
    timers::take_begun();
  }

  void reopen(guint32 channel)
  {
    registration_.with([&](Registration &registration) { registration.reopen(channel); });
  }

  bool end()
  {
    bool follows = false;

    registration_.with([&](Registration &registration) { follows = registration.end() != FALSE; });
    return follows;
  }

  std::optional<FakeReceiver> receiver_;
  testlibrary::Told told_;
  Client client_{&told_};
  testlibrary::OnWorker<Registration> registration_;
};

struct Refusal {
  const char *name;
  const char *text;
  TessardError code;
  std::string told;
};

/* The name of the test's parameter. */
void
PrintTo(const Refusal &refusal, std::ostream *stream)
{
  *stream << refusal.name;
}

class PassingRefusalTest : public RegistrationTest, public testing::WithParamInterface<Refusal>
{
};

class FinalRefusalTest : public RegistrationTest, public testing::WithParamInterface<Refusal>
{
};

const std::string BUSY = "The receiver refuses for now: ";
const std::string LEFT = BUSY + "It left without a reply.";

const Refusal PASSING_REFUSALS[] = {
    {RECEIVER_ERROR("LimitExceeded"), "Too many", TESSARD_ERROR_BUSY, BUSY + "Too many."},
    {RECEIVER_ERROR("NoDescriptor"), "None left", TESSARD_ERROR_BUSY, BUSY + "None left."},
    {RECEIVER_ERROR("NoDescriptor"), "", TESSARD_ERROR_BUSY,
     BUSY + "com.quon.MetadataReceiver1.Error.NoDescriptor."},
    {RECEIVER_ERROR("NameTaken"), "Another has it", TESSARD_ERROR_NAME_TAKEN, "Another has it"},
    {RECEIVER_ERROR("ChannelOpen"), "It is open", TESSARD_ERROR_BUSY, BUSY + "It is open."},
    {"org.freedesktop.DBus.Error.ServiceUnknown", "Gone", TESSARD_ERROR_BUSY, LEFT},
    {"org.freedesktop.DBus.Error.NameHasNoOwner", "Gone", TESSARD_ERROR_BUSY, LEFT},
    {"org.freedesktop.DBus.Error.NoReply", "Gone", TESSARD_ERROR_BUSY, LEFT},
    {RECEIVER_ERROR("UnknownProducer"), "Not known", TESSARD_ERROR_BUSY, BUSY + "Not known."},
    {RECEIVER_ERROR("NotOwner"), "Not yours", TESSARD_ERROR_BUSY, BUSY + "Not yours."},
};

const Refusal FINAL_REFUSALS[] = {
    {"org.freedesktop.DBus.Error.AccessDenied", "Rejected", TESSARD_ERROR_NOT_ALLOWED,
     "The bus policy refused the call: only root and members of the group 'tessard-producer' can register "
     "producers."},
    {RECEIVER_ERROR("InvalidName"), "A name must be", TESSARD_ERROR_REFUSED, "A name must be"},
    {RECEIVER_ERROR("InvalidName"), "", TESSARD_ERROR_REFUSED,
     "com.quon.MetadataReceiver1.Error.InvalidName"},
    {"org.freedesktop.DBus.Error.UnknownMethod", "No such method", TESSARD_ERROR_REFUSED, "No such method"},
    {"a.b", "Not even an error of the bus", TESSARD_ERROR_REFUSED, "Not even an error of the bus"},
};

} // namespace

TEST_F(RegistrationTest, RegistersAndOpensTheChannelsInTheirOrder)
{
  register_and_open();
  EXPECT_EQ(timers::count_set(), 0U);
}

TEST_F(RegistrationTest, WaitsForTheSampleFrame)
{
  start();
  told_.expect({"connected", "lost"});
  receiver_->expect_calls({});
  set_sample_frame();
  told_.expect({"registered", "opened 1", "opened 2"});
  set_sample_frame("{}");
  receiver_->expect_calls({REGISTER, OPEN_1, OPEN_2});
}

TEST_F(RegistrationTest, TellsWithTheSampleFrameThatTheReceiverIsNotThere)
{
  receiver_->leave();
  start();
  told_.expect({"connected", "lost"});
  set_sample_frame();
  told_.expect({"interrupted: " + ABSENT});
  receiver_->come_back();
  told_.expect({"lost", "registered", "opened 1", "opened 2"});
  receiver_->expect_calls({REGISTER, OPEN_1, OPEN_2});
}

TEST_F(RegistrationTest, RegistersAgainAtEachReceiver)
{
  register_and_open();
  receiver_->leave();
  told_.expect({"lost", "interrupted: " + ABSENT});
  receiver_->come_back();
  told_.expect({"lost", "registered", "opened 1", "opened 2"});
  receiver_->come_back_at_once();
  told_.expect({"lost", "interrupted: " + ABSENT, "lost", "registered", "opened 1", "opened 2"});
  receiver_->expect_calls({REGISTER, OPEN_1, OPEN_2, REGISTER, OPEN_1, OPEN_2});
}

TEST_F(RegistrationTest, TellsThatThereIsNoBus)
{
  const std::string no_bus = failure(
      TESSARD_ERROR_NO_BUS, "Could not connect to the bus: Could not connect: No such file or directory.");

  receiver_->leave();
  bus_.reset();
  start();
  told_.expect({"lost", "no bus: " + no_bus});
  set_sample_frame();
  told_.expect({"interrupted: " + no_bus});
  EXPECT_TRUE(timers::fire(TESSARD_FIRST_RETRY_MS));
  told_.expect({"lost", "no bus: " + no_bus, "interrupted: " + no_bus});
}

TEST_F(RegistrationTest, ClosedBusIsNotAMissingBus)
{
  register_and_open();
  bus_.reset();
  told_.expect(
      {"lost", "interrupted: " + failure(TESSARD_ERROR_BUS_CLOSED, "The bus closed the connection.")});
}

/* A pending call fails before the end of the connection is told. */
TEST_F(RegistrationTest, BusThatEndsDuringACallIsNoRefusal)
{
  const std::string closed =
      "interrupted: " + failure(TESSARD_ERROR_BUS_CLOSED, "The bus closed the connection.");

  receiver_->hold("RegisterProducer");
  start();
  set_sample_frame();
  receiver_->wait_for_held(1);
  receiver_->expect_calls({REGISTER});
  bus_.reset();
  told_.expect({"connected", "lost", "lost", closed});
}

TEST_P(PassingRefusalTest, IsFollowedByAnotherAttempt)
{
  const Refusal &refusal = GetParam();
  receiver_->set_answer("RegisterProducer", refuse(refusal.name, refusal.text));
  start();
  set_sample_frame();
  told_.expect({"connected", "lost", "interrupted: " + failure(refusal.code, refusal.told)});
  receiver_->set_answer("RegisterProducer", reply("()"));
  EXPECT_TRUE(timers::fire(TESSARD_FIRST_RETRY_MS));
  told_.expect({"registered", "opened 1", "opened 2"});
  receiver_->expect_calls({REGISTER, REGISTER, OPEN_1, OPEN_2});
}

INSTANTIATE_TEST_SUITE_P(Errors, PassingRefusalTest, testing::ValuesIn(PASSING_REFUSALS));

TEST_P(FinalRefusalTest, IsOverWithTheNextReceiver)
{
  const Refusal &refusal = GetParam();
  receiver_->set_answer("RegisterProducer", refuse(refusal.name, refusal.text));
  start();
  set_sample_frame();
  told_.expect({"connected", "lost", "refused: " + failure(refusal.code, refusal.told)});
  EXPECT_EQ(timers::count_set(), 0U);
  receiver_->set_answer("RegisterProducer", reply("()"));
  receiver_->come_back_at_once();
  told_.expect({"lost", "interrupted: " + ABSENT, "lost", "registered", "opened 1", "opened 2"});
  receiver_->expect_calls({REGISTER, REGISTER, OPEN_1, OPEN_2});
}

INSTANTIATE_TEST_SUITE_P(Errors, FinalRefusalTest, testing::ValuesIn(FINAL_REFUSALS));

TEST_F(RegistrationTest, ShortensLongTextsOfRefusalsThatPass)
{
  receiver_->set_answer("RegisterProducer", refuse(RECEIVER_ERROR("LimitExceeded"), std::string(501, 'x')));
  start();
  set_sample_frame();
  told_.expect({"connected", "lost",
                "interrupted: " + failure(TESSARD_ERROR_BUSY, BUSY + std::string(500, 'x') + ".")});
  receiver_->expect_calls({REGISTER});
}

TEST_F(RegistrationTest, TriesAgainAfterLongerAndLongerTimes)
{
  const std::string refusal = "interrupted: " + failure(TESSARD_ERROR_NAME_TAKEN, "Taken");
  std::vector<std::string> calls = {REGISTER};
  guint wait = TESSARD_FIRST_RETRY_MS;

  receiver_->set_answer("RegisterProducer", refuse(RECEIVER_ERROR("NameTaken"), "Taken"));
  start();
  set_sample_frame();
  told_.expect({"connected", "lost", refusal});
  timers::take_begun();
  for (guint round = 0; round < 7; round++) {
    EXPECT_TRUE(timers::fire(wait));
    told_.expect({refusal});
    wait = std::min<guint>(wait * 2, TESSARD_LAST_RETRY_MS);
    EXPECT_EQ(timers::take_begun(), Lengths{wait});
    calls.push_back(REGISTER);
  }
  EXPECT_EQ(wait, guint{TESSARD_LAST_RETRY_MS});
  receiver_->come_back_at_once();
  told_.expect({"lost", "interrupted: " + ABSENT, "lost", refusal});
  EXPECT_EQ(timers::take_begun(), Lengths{TESSARD_FIRST_RETRY_MS});
  calls.push_back(REGISTER);
  receiver_->expect_calls(calls);
}

TEST_F(RegistrationTest, RepeatsOnlyTheOpeningOfAChannel)
{
  receiver_->set_answer("OpenChannel", refuse(RECEIVER_ERROR("ChannelOpen"), "It is open"));
  start();
  set_sample_frame();
  told_.expect({"connected", "lost", "registered",
                "interrupted: " + failure(TESSARD_ERROR_BUSY, BUSY + "It is open.")});
  EXPECT_TRUE(timers::fire(TESSARD_FIRST_RETRY_MS));
  told_.expect({"interrupted: " + failure(TESSARD_ERROR_BUSY, BUSY + "It is open.")});
  receiver_->expect_calls({REGISTER, OPEN_1, OPEN_1});
}

TEST_F(RegistrationTest, RegistersAgainWhenTheReceiverHasForgottenTheProducer)
{
  for (const char *name : {RECEIVER_ERROR("UnknownProducer"), RECEIVER_ERROR("NotOwner")}) {
    receiver_->hold("OpenChannel");
    start();
    set_sample_frame();
    receiver_->wait_for_held(1);
    receiver_->accept("OpenChannel");
    receiver_->release(1, refuse(name, "No"));
    told_.expect(
        {"connected", "lost", "registered", "interrupted: " + failure(TESSARD_ERROR_BUSY, BUSY + "No.")});
    EXPECT_TRUE(timers::fire(TESSARD_FIRST_RETRY_MS));
    told_.expect({"registered", "opened 1", "opened 2"});
    receiver_->expect_calls({REGISTER, OPEN_1, REGISTER, OPEN_1, OPEN_2});
    registration_.reset();
  }
}

TEST_F(RegistrationTest, RefusesRepliesOfAWrongType)
{
  receiver_->set_answer("RegisterProducer", reply("(uint32 1,)"));
  start();
  set_sample_frame();
  told_.expect(
      {"connected", "lost",
       malformed("Method “com.quon.MetadataReceiver1.Registry.RegisterProducer” returned type “(u)”, "
                 "but expected “()”")});
  receiver_->expect_calls({REGISTER});
}

TEST_F(RegistrationTest, RefusesRepliesWithoutADescriptor)
{
  const testpipes::Pipe pipe = testpipes::open_pipe();
  const testbus::Answer answers[] = {reply("(handle 0,)"),
                                     reply_with_fds("(handle 1,)", {pipe.write_end.fd()}),
                                     reply_with_fds("(handle -1,)", {pipe.write_end.fd()})};

  for (const testbus::Answer &answer : answers) {
    receiver_->set_answer("OpenChannel", answer);
    start();
    set_sample_frame();
    told_.expect({"connected", "lost", "registered", malformed("it has no descriptor")});
    receiver_->expect_calls({REGISTER, OPEN_1});
    registration_.reset();
  }
}

TEST_F(RegistrationTest, RefusesDescriptorsOfAnotherKind)
{
  const testpipes::Pipe pipe = testpipes::open_pipe();
  int sockets[2] = {-1, -1};
  ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, sockets), 0);
  const testpipes::Descriptor file(open(path("file").c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0600));
  const testpipes::Descriptor first(sockets[0]);
  const testpipes::Descriptor second(sockets[1]);
  const std::string fifo_path = path("fifo");
  ASSERT_EQ(mkfifo(fifo_path.c_str(), 0600), 0);
  const testpipes::Descriptor both_ways(open(fifo_path.c_str(), O_RDWR | O_CLOEXEC));

  for (const int fd : {pipe.read_end.fd(), first.fd(), file.fd(), both_ways.fd()}) {
    receiver_->set_answer("OpenChannel", reply_with_fds("(handle 0,)", {fd}));
    start();
    set_sample_frame();
    told_.expect(
        {"connected", "lost", "registered", malformed("its descriptor is not the write end of a pipe")});
    receiver_->expect_calls({REGISTER, OPEN_1});
    registration_.reset();
  }
}

/* Descriptors that a reply should not have are closed; the fixture counts them. */
TEST_F(RegistrationTest, TakesTheDescriptorThatTheReplyNames)
{
  const testpipes::Pipe pipe = testpipes::open_pipe();

  receiver_->set_answer("OpenChannel",
                        reply_with_fds("(handle 1,)", {pipe.read_end.fd(), pipe.write_end.fd()}));
  register_and_open();
}

TEST_F(RegistrationTest, RefusesTextsThatAreNotUtf8)
{
  const std::string refusal =
      "refused: " + failure(TESSARD_ERROR_REFUSED, "A name or the sample frame of the producer is not UTF-8");

  start({"\xff", "My detector", {1}});
  set_sample_frame();
  told_.expect({"connected", "lost", refusal});
  registration_.reset();
  start({"Mine", "\xff", {1}});
  set_sample_frame();
  told_.expect({"connected", "lost", refusal});
  registration_.reset();
  start();
  set_sample_frame("{\xff}");
  told_.expect({"connected", "lost", refusal});
}

TEST_F(RegistrationTest, OpensAChannelAgain)
{
  register_and_open();
  reopen(2);
  told_.expect({});
  EXPECT_TRUE(timers::fire(TESSARD_FIRST_RETRY_MS));
  told_.expect({"opened 2"});
  receiver_->expect_calls({OPEN_2});
}

TEST_F(RegistrationTest, ReopensEverMoreSlowlyAReceiverThatClosesItsChannelsAtOnce)
{
  register_and_open();
  reopen(1);
  reopen(2);
  EXPECT_EQ(timers::take_begun(), Lengths{TESSARD_FIRST_RETRY_MS});
  EXPECT_TRUE(timers::fire(TESSARD_FIRST_RETRY_MS));
  told_.expect({"opened 1", "opened 2"});
  reopen(1);
  EXPECT_EQ(timers::take_begun(), Lengths{2 * TESSARD_FIRST_RETRY_MS});
  EXPECT_TRUE(timers::fire(2 * TESSARD_FIRST_RETRY_MS));
  told_.expect({"opened 1"});
  testclock::advance_ms(TESSARD_LAST_RETRY_MS + 1);
  reopen(1);
  EXPECT_EQ(timers::take_begun(), Lengths{TESSARD_FIRST_RETRY_MS});
  receiver_->expect_calls({OPEN_1, OPEN_2, OPEN_1});
}

TEST_F(RegistrationTest, ForgetsTheCallsOfAReceiverThatLeaves)
{
  receiver_->hold("RegisterProducer");
  start();
  set_sample_frame();
  receiver_->wait_for_held(1);
  receiver_->leave();
  told_.expect({"connected", "lost", "lost", "interrupted: " + ABSENT});
  EXPECT_EQ(timers::count_set(), 0U);
  receiver_->expect_calls({REGISTER});
}

TEST_F(RegistrationTest, ReplyOfAReceiverThatHasLeftTheNameDoesNotCount)
{
  receiver_->hold("OpenChannel");
  start();
  set_sample_frame();
  told_.expect({"connected", "lost", "registered"});
  receiver_->wait_for_held(1);
  receiver_->accept("OpenChannel");
  receiver_->come_back_at_once();
  told_.expect({"lost", "interrupted: " + ABSENT, "lost", "registered", "opened 1", "opened 2"});
  const testpipes::Pipe pipe = testpipes::open_pipe();
  receiver_->release(1, reply_with_fds("(handle 0,)", {pipe.write_end.fd()}));
  receiver_->expect_calls({REGISTER, OPEN_1, REGISTER, OPEN_1, OPEN_2});
}

TEST_F(RegistrationTest, ReceiverThatLeavesBetweenTwoReplies)
{
  receiver_->hold("OpenChannel");
  start();
  set_sample_frame();
  receiver_->wait_for_held(1);
  told_.expect({"connected", "lost", "registered"});
  receiver_->leave();
  told_.expect({"lost", "interrupted: " + ABSENT});
  EXPECT_EQ(timers::count_set(), 0U);
  receiver_->expect_calls({REGISTER, OPEN_1});
}

TEST_F(RegistrationTest, EndUnregisters)
{
  register_and_open();
  EXPECT_TRUE(end());
  told_.expect({"ended"});
  receiver_->expect_calls({UNREGISTER});
}

TEST_F(RegistrationTest, EndIsTheEndAlsoWithAnError)
{
  receiver_->set_answer("UnregisterProducer", refuse(RECEIVER_ERROR("UnknownProducer"), "Not known"));
  register_and_open();
  EXPECT_TRUE(end());
  told_.expect({"ended"});
  receiver_->expect_calls({UNREGISTER});
}

TEST_F(RegistrationTest, EndOfNothingIsImmediate)
{
  start();
  told_.expect({"connected", "lost"});
  EXPECT_FALSE(end());
  set_sample_frame();
}

TEST_F(RegistrationTest, EndAfterARefusalIsImmediate)
{
  receiver_->set_answer("RegisterProducer", refuse(RECEIVER_ERROR("NameTaken"), "Taken"));
  start();
  set_sample_frame();
  told_.expect({"connected", "lost", "interrupted: " + failure(TESSARD_ERROR_NAME_TAKEN, "Taken")});
  EXPECT_FALSE(end());
  EXPECT_EQ(timers::count_set(), 0U);
  receiver_->expect_calls({REGISTER});
}

TEST_F(RegistrationTest, EndWaitsForTheRegistrationAndUndoesIt)
{
  receiver_->hold("RegisterProducer");
  start();
  set_sample_frame();
  receiver_->wait_for_held(1);
  EXPECT_TRUE(end());
  receiver_->release(1, reply("()"));
  told_.expect({"connected", "lost", "ended"});
  receiver_->expect_calls({REGISTER, UNREGISTER});
}

TEST_F(RegistrationTest, EndWaitsForARegistrationThatFails)
{
  receiver_->hold("RegisterProducer");
  start();
  set_sample_frame();
  receiver_->wait_for_held(1);
  EXPECT_TRUE(end());
  receiver_->release(1, refuse(RECEIVER_ERROR("InvalidName"), "No"));
  told_.expect({"connected", "lost", "ended"});
  receiver_->expect_calls({REGISTER});
}

TEST_F(RegistrationTest, EndClosesAChannelThatOpensMeanwhile)
{
  const testpipes::Pipe pipe = testpipes::open_pipe();

  receiver_->hold("OpenChannel");
  start();
  set_sample_frame();
  receiver_->wait_for_held(1);
  EXPECT_TRUE(end());
  receiver_->release(1, reply_with_fds("(handle 0,)", {pipe.write_end.fd()}));
  told_.expect({"connected", "lost", "registered", "ended"});
  receiver_->expect_calls({REGISTER, OPEN_1, UNREGISTER});
}

TEST_F(RegistrationTest, EndIsOverWhenTheReceiverLeaves)
{
  receiver_->hold("UnregisterProducer");
  register_and_open();
  EXPECT_TRUE(end());
  receiver_->wait_for_held(1);
  receiver_->leave();
  told_.expect({"lost"});
  receiver_->come_back();
  told_.expect({"lost"});
  receiver_->expect_calls({UNREGISTER});
}

TEST_F(RegistrationTest, IsReleasedDuringACall)
{
  const testpipes::Pipe pipe = testpipes::open_pipe();

  receiver_->hold("OpenChannel");
  start();
  set_sample_frame();
  receiver_->wait_for_held(1);
  registration_.reset();
  receiver_->release(1, reply_with_fds("(handle 0,)", {pipe.write_end.fd()}));
  told_.expect({"connected", "lost", "registered"});
  receiver_->expect_calls({REGISTER, OPEN_1});
}
