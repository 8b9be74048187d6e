// A request in any bytes, read through the channel that the server reads it through, and compared with a
// plain model of what a request is: the reply text or the parameters, and what is left unread for the stream.
#include "fuzz.h"
#include "requestchannel.h"
#include "requestoutcome.h"

#include <array>
#include <cstring>
#include <string>
#include <sys/socket.h>
#include <unistd.h>
#include <utility>

using requests::Outcome;
using requests::Params;

namespace
{

// Longer than one read of GLib's, and short enough that an input often goes beyond it.
constexpr gsize MAX_REQUEST_BYTES = 1500;
// Fits into a socket's buffer at once, so that nobody has to read while it is being written.
constexpr gsize MAX_INPUT_BYTES = 8 * 1024;
// Far less than the descriptors that may be on their way between two sockets.
constexpr gsize MAX_PIECES = 16;
constexpr guint TIMEOUT_MS = 10 * 1000;

constexpr std::string_view PARAGRAPH_SEPARATOR = "\xe2\x80\xa9";

struct Line {
  bool found = false;
  std::string_view text; // with its terminator
  gsize terminator_size = 0;
};

// What the reader has to make of the input, and how far it may read for that.
struct Expectation {
  Outcome outcome;
  gsize min_taken = 0;
  gsize max_taken = 0;
};

gsize
terminator_at(std::string_view rest)
{
  if (rest.starts_with("\r\n"))
    return 2;
  if (rest.starts_with(PARAGRAPH_SEPARATOR))
    return PARAGRAPH_SEPARATOR.size();
  return rest.front() == '\n' || rest.front() == '\r' || rest.front() == '\0' ? 1 : 0;
}

class Model
{
public:
  explicit Model(std::string_view input)
      : readable_(input.substr(0, MAX_REQUEST_BYTES)), bounded_(input.size() >= MAX_REQUEST_BYTES)
  {
  }

  Expectation run()
  {
    Outcome outcome = open();
    gsize max_taken = outcome.accepted ? position_ : end_of_input_line();
    return {std::move(outcome), position_, max_taken};
  }

private:
  Line next_line()
  {
    std::string_view rest = readable_.substr(position_);
    for (gsize i = 0; i < rest.size(); i++) {
      gsize terminator_size = terminator_at(rest.substr(i));
      bool open_end = rest[i] == '\r' && i + 1 == rest.size() && bounded_;
      if (terminator_size > 0 && !open_end)
        return take(rest.substr(0, i + terminator_size), terminator_size);
    }
    Line last = take(rest, 0);
    return rest.empty() || bounded_ ? Line() : last;
  }

  Line take(std::string_view text, gsize terminator_size)
  {
    position_ += text.size();
    return {true, text, terminator_size};
  }

  Outcome open()
  {
    Line line = next_line();
    if (!line.found)
      return fail("Could not read request from client socket: " + reason());
    if (line.text != "OPEN\n")
      return fail("Unknown: request: " + std::string(line.text.substr(0, line.text.find('\0'))) + " (" +
                  std::to_string(line.text.size()) + ")");
    return header();
  }

  Outcome header()
  {
    Params params;
    for (;;) {
      Line line = next_line();
      if (!line.found)
        return fail("Could not read request header from socket: " + reason());
      if (line.text == "\n")
        return {true, std::move(params), ""};
      std::string_view text = line.text.substr(0, line.text.size() - line.terminator_size);
      std::string_view stripped = text.substr(0, text.find_last_not_of(" \t\n\f\r") + 1);
      gsize equals = stripped.find('=');
      if (equals == stripped.npos)
        return fail("Unable to parse header line: " + std::string(text) + ".");
      params[std::string(stripped.substr(0, equals))] = stripped.substr(equals + 1);
    }
  }

  static Outcome fail(const std::string &reason)
  {
    return {false, {}, "FAIL\n" + reason};
  }

  std::string reason() const
  {
    return bounded_ ? "Request longer than " + std::to_string(MAX_REQUEST_BYTES) + " bytes" : "";
  }

  // A request that fails has been read no further than to the line feed behind what is wrong with it.
  gsize end_of_input_line() const
  {
    gsize last = position_ > 0 ? position_ - 1 : 0;
    gsize line_feed = readable_.find('\n', last);
    return line_feed == readable_.npos ? readable_.size() : line_feed + 1;
  }

  std::string_view readable_;
  bool bounded_; // behind what is readable comes the bound, not the end of the stream
  gsize position_ = 0;
};

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
  Expectation expected = Model(input).run();
  check(input, fuzz::cut_into_pieces(input, 1), Ending::WAITS_FOR_REPLY, expected);
  check(input, fuzz::cut_into_pieces(input, MAX_PIECES), Ending::HANGS_UP, expected);
  return 0;
}
