// A request in any bytes, read through the channel that the server reads it through, and compared with a
// plain model of what a request is: the reply text or the parameters, and what is left unread for the stream.
#include "fuzz.h"
#include "requestchannel.h"
#include "requestmodel.h"

#include <array>
#include <cstring>
#include <string>
#include <sys/socket.h>
#include <unistd.h>
#include <utility>

using requests::Expectation;
using requests::Outcome;

namespace
{

// Longer than one read of GLib's, and short enough that an input often goes beyond it.
constexpr gsize MAX_REQUEST_BYTES = 1500;
// Fits into a socket's buffer at once, so that nobody has to read while it is being written.
constexpr gsize MAX_INPUT_BYTES = 8 * 1024;
// Far less than the descriptors that may be on their way between two sockets.
constexpr gsize MAX_PIECES = 16;
constexpr guint TIMEOUT_MS = 10 * 1000;

// The client's end of a connection; the channel has the server's.
class Client
{
public:
  Client()
  {
    fuzz::require(socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends_.data()) == 0, "socketpair");
  }
  ~Client()
  {
    hang_up();
  }
  Client(const Client &) = delete;
  Client &operator=(const Client &) = delete;

  void hang_up()
  {
    if (ends_[0] >= 0)
      close(std::exchange(ends_[0], -1));
  }
  int fd() const
  {
    return ends_[0];
  }
  int server_fd() const
  {
    return ends_[1];
  }

private:
  std::array<int, 2> ends_;
};

// One read of a socket never goes beyond a message that carries a descriptor, so these pieces arrive one by
// one although all of them are written before the first is read.
void
send_piece(int fd, std::string_view piece)
{
  constexpr int CARRIED = STDERR_FILENO;
  alignas(cmsghdr) std::array<char, CMSG_SPACE(sizeof CARRIED)> control = {};
  iovec content = {const_cast<char *>(piece.data()), piece.size()};
  msghdr message = {};
  message.msg_iov = &content;
  message.msg_iovlen = 1;
  message.msg_control = control.data();
  message.msg_controllen = control.size();
  cmsghdr *header = CMSG_FIRSTHDR(&message);
  header->cmsg_level = SOL_SOCKET;
  header->cmsg_type = SCM_RIGHTS;
  header->cmsg_len = CMSG_LEN(sizeof CARRIED);
  memcpy(CMSG_DATA(header), &CARRIED, sizeof CARRIED);
  fuzz::require(sendmsg(fd, &message, MSG_DONTWAIT) == static_cast<ssize_t>(piece.size()), "sendmsg");
}

std::string
read_rest(int fd)
{
  std::array<char, 4096> data;
  std::string rest;
  ssize_t length = 0;
  while ((length = recv(fd, data.data(), data.size(), MSG_DONTWAIT)) > 0)
    rest.append(data.data(), length);
  fuzz::require(length == 0, "the input ends");
  return rest;
}

Outcome
read_request(GIOChannel *channel)
{
  Outcome outcome = requests::read_outcome(channel);
  fuzz::require(outcome.accepted == outcome.failure.empty(), "either parameters or a failure");
  fuzz::require(outcome.accepted || outcome.failure.starts_with("FAIL\n"), "a failure says so");
  for (const auto &[key, value] : outcome.params)
    fuzz::require(key.find('=') == key.npos, "no key has an equals sign");
  return outcome;
}

void
check_rest(std::string_view input, const std::string &rest, const Expectation &expected)
{
  fuzz::require(input.ends_with(rest), "what is left is the end of the input");
  gsize taken = input.size() - rest.size();
  fuzz::require(taken >= expected.min_taken, "the whole request has been read");
  fuzz::require(taken <= expected.max_taken, "nothing behind the request has been read");
}

enum class Ending {
  WAITS_FOR_REPLY,
  HANGS_UP,
};

void
check(std::string_view input, const std::vector<std::string_view> &pieces, Ending ending,
      const Expectation &expected)
{
  Client client;
  GIOChannel *channel = request_channel_new(client.server_fd(), MAX_REQUEST_BYTES, TIMEOUT_MS);
  g_io_channel_set_close_on_unref(channel, TRUE);
  for (std::string_view piece : pieces)
    send_piece(client.fd(), piece);
  shutdown(client.fd(), SHUT_WR);
  if (ending == Ending::HANGS_UP)
    client.hang_up();

  Outcome outcome = read_request(channel);
  fuzz::require(outcome == expected.outcome, "the outcome is the model's");
  check_rest(input, read_rest(client.server_fd()), expected);

  std::string reply = (outcome.accepted ? "OK" : outcome.failure) + '\0';
  g_io_channel_write_chars(channel, reply.data(), static_cast<gssize>(reply.size()), nullptr, nullptr);
  g_io_channel_flush(channel, nullptr);
  g_io_channel_unref(channel);
  if (ending == Ending::WAITS_FOR_REPLY)
    fuzz::require(read_rest(client.fd()) == reply, "the client gets the reply and the end");
}

} // namespace

int
LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
  std::string_view input = fuzz::as_text(data, size).substr(0, MAX_INPUT_BYTES);
  Expectation expected = requests::Model(input, MAX_REQUEST_BYTES).run();
  check(input, fuzz::cut_into_pieces(input, 1), Ending::WAITS_FOR_REPLY, expected);
  check(input, fuzz::cut_into_pieces(input, MAX_PIECES), Ending::HANGS_UP, expected);
  return 0;
}
