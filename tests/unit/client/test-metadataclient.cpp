/* SPDX-License-Identifier: MIT */
#include "metadataclient.h"

#include "clienterror.h"
#include "fakedaemon.h"
#include "testhost.h"

#include <fcntl.h>
#include <future>
#include <sys/stat.h>
#include <unistd.h>

namespace
{

using namespace fakedaemon;
using std::string_literals::operator""s;

constexpr const char *REQUEST = "OPEN\nevent=1\n\n";
constexpr const char *CUT_REPLY = "The daemon closed the connection before its reply was complete.";
constexpr const char *ENDED = "The daemon ended the stream.";

constexpr gint64 SHORT_US = 50 * G_TIME_SPAN_MILLISECOND;

/* More than a socket holds. */
std::string
long_request()
{
  return "OPEN\nevent_topic=" + std::string(4 * 1024 * 1024, 'x') + "\n\n";
}

struct Failure {
  int code = -1;
  std::string message;

  bool operator==(const Failure &) const = default;
};

std::ostream &
operator<<(std::ostream &stream, const Failure &failure)
{
  return stream << failure.code << ": " << failure.message;
}

/* A call that blocks, on a thread of its own. */
template <typename Result> class Call
{
public:
  template <typename Function>
  explicit Call(Function function)
      : result_(std::async(std::launch::async, [this, function]() -> Result {
          tid_.set_value(gettid());
          return function();
        }))
  {
  }

  Result get()
  {
    return result_.get();
  }

  void wait_until_asleep()
  {
    EXPECT_TRUE(testhost::wait_until_asleep(tid_.get_future().get()));
  }

private:
  std::promise<pid_t> tid_;
  std::future<Result> result_;
};

class MetadataClientTest : public testhost::Fixture
{
protected:
  void SetUp() override
  {
    testhost::Fixture::SetUp();
    cancellable_ = g_cancellable_new();
    daemon_ = std::make_unique<FakeDaemon>(path("metadata"));
  }

  void TearDown() override
  {
    g_clear_pointer(&client_, metadata_client_free);
    daemon_.reset();
    g_clear_object(&cancellable_);
    testhost::Fixture::TearDown();
  }

  Failure open(const std::string &request = REQUEST, gint64 timeout_us = 0)
  {
    return open_at(path("metadata"), request, timeout_us);
  }

  Failure open_at(const std::string &socket_path, const std::string &request = REQUEST, gint64 timeout_us = 0)
  {
    g_autoptr(GError) error = nullptr;
    client_ = metadata_client_open(socket_path.c_str(), request.c_str(), timeout_us, cancellable_, &error);
    EXPECT_EQ(client_ == nullptr, error != nullptr);
    return to_failure(error);
  }

  Call<Failure> start_open(const std::string &request = REQUEST, gint64 timeout_us = 0)
  {
    return Call<Failure>([this, request, timeout_us] { return open(request, timeout_us); });
  }

  /* The next document, or the failure's message. */
  std::string read(Failure *failure = nullptr)
  {
    g_autoptr(GError) error = nullptr;
    g_autoptr(GBytes) document = metadata_client_read(client_, cancellable_, &error);
    EXPECT_EQ(document == nullptr, error != nullptr);
    if (failure != nullptr)
      *failure = to_failure(error);
    if (document == nullptr)
      return error->message;
    gsize size = 0;
    const auto *data = static_cast<const char *>(g_bytes_get_data(document, &size));
    return {data, size};
  }

  Connection *open_stream()
  {
    Call<Failure> opened = start_open();
    Connection *connection = daemon_->accept_stream();
    EXPECT_EQ(opened.get(), Failure());
    return connection;
  }

  void expect_cancelled(Call<Failure> &call)
  {
    call.wait_until_asleep();
    g_cancellable_cancel(cancellable_);
    EXPECT_EQ(call.get().code, G_IO_ERROR_CANCELLED);
    EXPECT_TRUE(was_cancelled_);
  }

  /* Sends the reply in two parts, so that it is read in any number of them. */
  Failure open_with_reply(const std::string &reply, bool close)
  {
    Call<Failure> opened = start_open();
    Connection *connection = daemon_->accept_request();
    connection->send(reply.substr(0, reply.size() / 2));
    connection->send(reply.substr(reply.size() / 2));
    if (close)
      connection->close();
    return opened.get();
  }

  Failure to_failure(const GError *error)
  {
    if (error == nullptr)
      return {};
    was_cancelled_ = g_error_matches(error, G_IO_ERROR, G_IO_ERROR_CANCELLED);
    EXPECT_TRUE(was_cancelled_ || error->domain == METADATA_CLIENT_ERROR);
    return {error->code, error->message};
  }

  GCancellable *cancellable_ = nullptr;
  std::unique_ptr<FakeDaemon> daemon_;
  MetadataClient *client_ = nullptr;
  bool was_cancelled_ = false;
};

} // namespace

TEST_F(MetadataClientTest, SendsTheRequestAndReadsDocuments)
{
  Call<Failure> opened = start_open("OPEN\nanalytics=2\n\n");
  Connection *connection = daemon_->accept();
  EXPECT_EQ(connection->read_request(), "OPEN\nanalytics=2\n\n");
  connection->send("OK\0"s);
  EXPECT_EQ(opened.get(), Failure());

  connection->send(stream_start("application/x-onvif-metadata, parsed=(boolean)true") + document("<a/>"));
  EXPECT_EQ(read(), "<a/>");
  EXPECT_STREQ(metadata_client_get_caps(client_), "application/x-onvif-metadata, parsed=(boolean)true");
  connection->send(document("<b/>") + document(std::string(100000, 'c')));
  EXPECT_EQ(read(), "<b/>");
  EXPECT_EQ(read(), std::string(100000, 'c'));
}

TEST_F(MetadataClientTest, ReadsDocumentsThatComeWithTheReply)
{
  EXPECT_EQ(open_with_reply("OK\0"s + stream_start() + document("<a/>") + document("<b/>"), false),
            Failure());
  EXPECT_EQ(read(), "<a/>");
  EXPECT_EQ(read(), "<b/>");
}

TEST_F(MetadataClientTest, SendsARequestThatIsLongerThanTheSocketHolds)
{
  Call<Failure> opened = start_open(long_request());
  Connection *connection = daemon_->accept();
  EXPECT_EQ(connection->read(long_request().size()), long_request());
  connection->send("OK\0"s);
  EXPECT_EQ(opened.get(), Failure());
}

TEST_F(MetadataClientTest, FailsWithoutASocket)
{
  const std::string nowhere = path("nowhere");
  EXPECT_EQ(open_at(nowhere),
            (Failure{METADATA_CLIENT_ERROR_NO_CONNECTION,
                     "Could not connect to '" + nowhere + "': No such file or directory."}));
}

TEST_F(MetadataClientTest, FailsWithoutAListener)
{
  daemon_.reset();
  const int fd = creat(path("metadata").c_str(), 0600);
  close(fd);
  EXPECT_EQ(open(), (Failure{METADATA_CLIENT_ERROR_NO_CONNECTION,
                             "Could not connect to '" + path("metadata") + "': Connection refused."}));
}

TEST_F(MetadataClientTest, FailsWithAPathThatIsTooLong)
{
  const std::string long_path(108, 'x');
  EXPECT_EQ(open_at(long_path), (Failure{METADATA_CLIENT_ERROR_NO_CONNECTION,
                                         "Could not connect to '" + long_path + "': File name too long."}));
}

TEST_F(MetadataClientTest, ReportsTheReasonOfARefusal)
{
  EXPECT_EQ(open_with_reply("FAIL\nBad request, no metadata can be produced.\0"s, true),
            (Failure{METADATA_CLIENT_ERROR_REFUSED, "Bad request, no metadata can be produced."}));
  EXPECT_EQ(open_with_reply("FAIL\n\0"s, true), (Failure{METADATA_CLIENT_ERROR_REFUSED, ""}));
}

TEST_F(MetadataClientTest, ReadsARefusalBeforeTheWholeRequestIsSent)
{
  Call<Failure> opened = start_open(long_request());
  Connection *connection = daemon_->accept();
  EXPECT_EQ(connection->read(5), "OPEN\n");
  connection->send("FAIL\nToo much.\0"s);
  EXPECT_EQ(opened.get(), (Failure{METADATA_CLIENT_ERROR_REFUSED, "Too much."}));
}

TEST_F(MetadataClientTest, ReadsARefusalOfADaemonThatHasHungUp)
{
  Call<Failure> opened = start_open(long_request());
  Connection *connection = daemon_->accept();
  connection->send("FAIL\nToo much.\0"s);
  connection->close();
  EXPECT_EQ(opened.get(), (Failure{METADATA_CLIENT_ERROR_REFUSED, "Too much."}));
}

TEST_F(MetadataClientTest, FailsWithoutAWholeReply)
{
  for (const std::string &reply : {""s, "O"s, "OK"s, "FAIL\nBad requ"s})
    EXPECT_EQ(open_with_reply(reply, true), (Failure{METADATA_CLIENT_ERROR_ENDED, CUT_REPLY})) << reply;

  Call<Failure> opened = start_open();
  daemon_->accept()->close();
  EXPECT_EQ(opened.get(), (Failure{METADATA_CLIENT_ERROR_ENDED, CUT_REPLY}));
}

TEST_F(MetadataClientTest, FailsWithAnotherReply)
{
  for (const std::string &reply : {"\0"s, "HELLO\0"s, "ok\0"s, "OK\n\0"s, "FAIL\0"s, "\xff\xff\0"s})
    EXPECT_EQ(open_with_reply(reply, false), (Failure{METADATA_CLIENT_ERROR_MALFORMED,
                                                      "The daemon's reply is neither \"OK\" nor \"FAIL\"."}));
}

TEST_F(MetadataClientTest, LimitsTheReply)
{
  const std::string reason(METADATA_CLIENT_MAX_REPLY_BYTES - 5, 'x');
  EXPECT_EQ(open_with_reply("FAIL\n" + reason + '\0', false),
            (Failure{METADATA_CLIENT_ERROR_REFUSED, reason}));
  EXPECT_EQ(open_with_reply("FAIL\n" + reason + "x", false),
            (Failure{METADATA_CLIENT_ERROR_MALFORMED, "The daemon's reply is longer than 66048 bytes."}));
}

/* Time and cancellation */

TEST_F(MetadataClientTest, TimesOutWithoutAReply)
{
  const Failure timed_out = {METADATA_CLIENT_ERROR_TIMED_OUT, "No reply within 0.05 seconds."};
  EXPECT_EQ(open(REQUEST, SHORT_US), timed_out);
  EXPECT_EQ(open(long_request(), SHORT_US), timed_out);

  Call<Failure> opened = start_open(REQUEST, SHORT_US);
  Connection *accepted = daemon_->accept();
  accepted = daemon_->accept();
  accepted = daemon_->accept_request();
  accepted->send("O");
  EXPECT_EQ(opened.get(), timed_out);
}

TEST_F(MetadataClientTest, WaitsForAPlaceInAFullQueue)
{
  FakeDaemon full(path("full"), 0);
  ASSERT_EQ(open_at(full.path(), REQUEST, SHORT_US).code, METADATA_CLIENT_ERROR_TIMED_OUT);
  EXPECT_EQ(open_at(full.path(), REQUEST, SHORT_US),
            (Failure{METADATA_CLIENT_ERROR_TIMED_OUT, "No reply within 0.05 seconds."}));

  Call<Failure> opened([this, &full] { return open_at(full.path()); });
  opened.wait_until_asleep();
  full.accept()->close();
  full.accept_request()->send("FAIL\nReached.\0"s);
  EXPECT_EQ(opened.get().message, "Reached.");
}

TEST_F(MetadataClientTest, HasNoTimeLimitBehindTheReply)
{
  Call<Failure> opened = start_open(REQUEST, 10 * G_TIME_SPAN_SECOND);
  Connection *connection = daemon_->accept_stream();
  EXPECT_EQ(opened.get(), Failure());
  Call<std::string> document_read([this] { return read(); });
  document_read.wait_until_asleep();
  connection->send(document("<a/>"));
  EXPECT_EQ(document_read.get(), "<a/>");
}

TEST_F(MetadataClientTest, CanBeCancelledInAFullQueue)
{
  FakeDaemon full(path("full"), 0);
  open_at(full.path(), REQUEST, SHORT_US);
  Call<Failure> opened([this, &full] { return open_at(full.path()); });
  expect_cancelled(opened);
}

TEST_F(MetadataClientTest, CanBeCancelledWhileSending)
{
  Call<Failure> opened = start_open(long_request());
  expect_cancelled(opened);
}

TEST_F(MetadataClientTest, CanBeCancelledBeforeTheReply)
{
  Call<Failure> opened = start_open();
  Connection *connection = daemon_->accept_request();
  connection->send("FAIL\nhalf");
  expect_cancelled(opened);
}

TEST_F(MetadataClientTest, CanBeCancelledInAdvance)
{
  g_cancellable_cancel(cancellable_);
  EXPECT_EQ(open().code, G_IO_ERROR_CANCELLED);
  EXPECT_TRUE(was_cancelled_);
}

TEST_F(MetadataClientTest, ContinuesAfterACancelledRead)
{
  Connection *connection = open_stream();
  const std::string packet = document("<whole/>");
  connection->send(packet.substr(0, HEADER_BYTES + 3));
  Call<Failure> cancelled([this] {
    Failure failure;
    read(&failure);
    return failure;
  });
  expect_cancelled(cancelled);

  g_cancellable_reset(cancellable_);
  connection->send(packet.substr(HEADER_BYTES + 3));
  EXPECT_EQ(read(), "<whole/>");
}

/* The end */

TEST_F(MetadataClientTest, ReportsTheEnd)
{
  Connection *connection = open_stream();
  connection->send(document("<a/>") + document("<cut/>").substr(0, 65));
  connection->close();
  Failure failure;
  EXPECT_EQ(read(), "<a/>");
  read(&failure);
  EXPECT_EQ(failure, (Failure{METADATA_CLIENT_ERROR_ENDED, ENDED}));
}

TEST_F(MetadataClientTest, ReportsAResetAsTheEnd)
{
  Connection *connection = open_stream();
  EXPECT_TRUE(metadata_client_request_sync_point(client_));
  connection->close();
  Failure failure;
  read(&failure);
  EXPECT_EQ(failure, (Failure{METADATA_CLIENT_ERROR_ENDED, ENDED}));
}

TEST_F(MetadataClientTest, ReportsAMalformedStream)
{
  Connection *connection = open_stream();
  connection->send(document("<a/>") + std::string(62, '\0'));
  Failure failure;
  EXPECT_EQ(read(), "<a/>");
  read(&failure);
  EXPECT_EQ(failure, (Failure{METADATA_CLIENT_ERROR_MALFORMED,
                              "The daemon's stream is malformed: a packet has an unknown version."}));
}

TEST_F(MetadataClientTest, ClosesTheConnectionWhenItIsFreed)
{
  Connection *connection = open_stream();
  g_clear_pointer(&client_, metadata_client_free);
  EXPECT_EQ(connection->read_to_end(), "");
}

/* Sync points */

TEST_F(MetadataClientTest, RequestsSyncPoints)
{
  Connection *connection = open_stream();
  EXPECT_TRUE(metadata_client_request_sync_point(client_));
  EXPECT_TRUE(metadata_client_request_sync_point(client_));
  EXPECT_EQ(connection->read(10), "SYNC\nSYNC\n");
}

TEST_F(MetadataClientTest, DropsSyncPointsThatTheDaemonDoesNotRead)
{
  Connection *connection = open_stream();
  gsize sent = 0;
  while (metadata_client_request_sync_point(client_))
    sent += 5;
  g_clear_pointer(&client_, metadata_client_free);
  EXPECT_EQ(connection->read_to_end().size(), sent);
}

TEST_F(MetadataClientTest, RequestsNoSyncPointFromADaemonThatHasGone)
{
  Connection *connection = open_stream();
  connection->close();
  EXPECT_FALSE(metadata_client_request_sync_point(client_));
}

/* The default socket */

TEST_F(MetadataClientTest, HasADefaultSocket)
{
  g_unsetenv("TESSARD_SOCKET");
  EXPECT_STREQ(metadata_client_get_default_socket(), "/run/tessard/metadata");
  g_setenv("TESSARD_SOCKET", "", TRUE);
  EXPECT_STREQ(metadata_client_get_default_socket(), "/run/tessard/metadata");
  g_setenv("TESSARD_SOCKET", "/tmp/other", TRUE);
  EXPECT_STREQ(metadata_client_get_default_socket(), "/tmp/other");
  g_unsetenv("TESSARD_SOCKET");
}
