/* SPDX-License-Identifier: MIT */
// A request of arbitrary bytes, collected and parsed as the server does it. A simple model predicts the reply
// text or the parameters, and which bytes remain unread for the stream.
#include "fuzz.h"
#include "requestchannel.h"
#include "requestmodel.h"
#include "requestreader.h"

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

// Longer than one read by GLib, and short enough that inputs often exceed it.
constexpr gsize MAX_REQUEST_BYTES = 1500;
// Fits into a socket's buffer, so all of it can be written before the first read.
constexpr gsize MAX_INPUT_BYTES = 8 * 1024;
// Far fewer than the descriptors that can be in transit between two sockets.
constexpr gsize MAX_PIECES = 16;
constexpr guint TIMEOUT_MS = 10 * 1000;

// The client's end of a connection; the server's end has the same lifetime.
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
    close_server_end();
  }
  Client(const Client &) = delete;
  Client &operator=(const Client &) = delete;

  void hang_up()
  {
    if (ends_[0] >= 0)
      close(std::exchange(ends_[0], -1));
  }
  void close_server_end()
  {
    if (ends_[1] >= 0)
      close(std::exchange(ends_[1], -1));
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

// A read of a socket ends at a message that carries a descriptor, so these pieces arrive one by one although
// all are written before the first read.
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

void
on_end(RequestReader *, gpointer ended)
{
  fuzz::require(!*static_cast<bool *>(ended), "a request ends once");
  *static_cast<bool *>(ended) = true;
}

// Runs the main loop for as many turns as the request needs. The client sends nothing more, so each turn ends
// the request or reads more of it.
void
collect(RequestReader *reader, const bool &ended)
{
  while (!ended)
    fuzz::require(g_main_context_iteration(nullptr, FALSE), "no more input is expected");
  gsize length = 0;
  request_reader_get_text(reader, &length);
  fuzz::require(length <= MAX_REQUEST_BYTES, "the bound holds");
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
  fuzz::require(input.ends_with(rest), "the unread bytes are the end of the input");
  gsize taken = input.size() - rest.size();
  fuzz::require(taken >= expected.min_taken, "the whole request has been read");
  fuzz::require(taken <= expected.max_taken, "no byte after the request has been read");
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
  bool ended = false;
  g_autoptr(RequestReader) reader =
      request_reader_new(client.server_fd(), MAX_REQUEST_BYTES, TIMEOUT_MS, on_end, &ended);
  for (std::string_view piece : pieces)
    send_piece(client.fd(), piece);
  shutdown(client.fd(), SHUT_WR);
  if (ending == Ending::HANGS_UP)
    client.hang_up();

  collect(reader, ended);
  gsize length = 0;
  const gchar *text = request_reader_get_text(reader, &length);
  g_autoptr(GIOChannel) channel =
      request_channel_new(client.server_fd(), text, length, request_reader_get_failure(reader));
  Outcome outcome = read_request(channel);
  fuzz::require(outcome == expected.outcome, "the outcome is the model's");
  std::string rest = read_rest(client.server_fd());
  check_rest(input, rest, expected);
  fuzz::require(length + rest.size() == input.size(), "nothing is lost");

  std::string reply = (outcome.accepted ? "OK" : outcome.failure) + '\0';
  g_io_channel_write_chars(channel, reply.data(), static_cast<gssize>(reply.size()), nullptr, nullptr);
  g_io_channel_flush(channel, nullptr);
  client.close_server_end();
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
