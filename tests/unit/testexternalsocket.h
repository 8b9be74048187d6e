/* SPDX-License-Identifier: MIT */
/* An external source socket with its callbacks, the producer that writes to it, and the fixture of the
 * socket's tests. */
#pragma once

#include "externalsourcesocket.h"

#include "faults.h"
#include "testhost.h"
#include "teststream.h"

#include <atomic>
#include <fcntl.h>
#include <functional>
#include <memory>
#include <sys/mman.h>
#include <syslog.h>
#include <tuple>
#include <unistd.h>

constexpr const char *NAME = "camera 1";

inline const testhost::Texts NOTHING;
inline const testhost::Texts ENDED = {"closed", "released"};

/* The frames of @payloads, and the events that follow them. */
inline testhost::Texts
frames(const testhost::Texts &payloads, const testhost::Texts &more = NOTHING)
{
  testhost::Texts result;

  for (const std::string &payload : payloads) {
    result.push_back(teststream::frame(NAME, payload));
  }
  result.insert(result.end(), more.begin(), more.end());
  return result;
}

/* What the socket logs when it cannot read a "length" or "data". */
inline testhost::SyslogLines
failure(const std::string &what, const std::string &text)
{
  return {{LOG_ERR, "Could not read request " + what + " from client socket: " + text + ": " + text}};
}

/* A length without its payload. */
inline std::string
length_only(guint32 length)
{
  return std::string(reinterpret_cast<const char *>(&length), sizeof length);
}

inline int
open_empty_file(off_t size = 0)
{
  const int fd = memfd_create("file", MFD_CLOEXEC);

  EXPECT_EQ(ftruncate(fd, size), 0);
  return fd;
}

/* The account of the client that receives the messages. All functions can be called on any thread. */
class Account
{
public:
  Account() : account(message_account_new())
  {
  }

  ~Account()
  {
    hold(0);
    message_account_unref(account);
  }

  Account(const Account &) = delete;
  Account &operator=(const Account &) = delete;

  /* Sets how many bytes are in the client's queue. */
  void hold(gsize bytes) const
  {
    message_account_set_queued(account, bytes);
  }

  /* Stops new messages. */
  void pause() const
  {
    hold(MESSAGE_ACCOUNT_CLIENT_LIMIT + 1);
  }

  void resume() const
  {
    hold(0);
  }

  MessageAccount *account;
};

/* A socket that records its callbacks in order: frames, "closed" and "released". */
class Reader
{
public:
  explicit Reader(int fd, const char *name = NAME)
      : socket(external_source_socket_new(fd, name, client.account, on_data, on_close, this, on_release)),
        observed(socket)
  {
  }

  ~Reader()
  {
    if (socket != nullptr) {
      external_source_socket_close(socket, FALSE);
    }
    g_clear_object(&socket);
    EXPECT_TRUE(testhost::spin_until([this] { return released.load(); }));
    EXPECT_FALSE(observed.alive());
  }

  Reader(const Reader &) = delete;
  Reader &operator=(const Reader &) = delete;

  static void on_data(ExternalSourceSocket *socket, guint8 *frame, gsize size, gpointer user_data)
  {
    auto *self = static_cast<Reader *>(user_data);
    g_autofree guint8 *taken = frame;

    EXPECT_EQ(socket, self->socket);
    EXPECT_FALSE(self->released);
    self->events.emplace_back(reinterpret_cast<const char *>(taken), size);
    if (self->during_data) {
      self->during_data();
    }
  }

  static void on_close(ExternalSourceSocket *socket, gpointer user_data)
  {
    auto *self = static_cast<Reader *>(user_data);

    EXPECT_EQ(socket, self->socket);
    EXPECT_FALSE(self->released);
    self->events.emplace_back("closed");
    external_source_socket_close(socket, TRUE);
  }

  static void on_release(gpointer user_data)
  {
    auto *self = static_cast<Reader *>(user_data);

    EXPECT_FALSE(self->released);
    self->events.emplace_back("released");
    self->released = true;
  }

  /* Dispatches what is ready, and takes the events since the last call. */
  testhost::Texts take_events()
  {
    testhost::dispatch_ready();
    return std::exchange(events, {});
  }

  testhost::Texts events;
  std::function<void()> during_data;
  std::atomic<bool> released = false;
  Account client;
  ExternalSourceSocket *socket;
  testhost::Observed observed;
};

/* A producer and the socket that reads from it. */
class Stream : public teststream::Producer, public Reader
{
public:
  Stream(teststream::Carrier carrier, teststream::Mode mode, const char *name = NAME)
      : Producer(carrier, mode), Reader(consumer_fd, name)
  {
  }

  explicit Stream(const std::tuple<teststream::Carrier, teststream::Mode> &kind, const char *name = NAME)
      : Stream(std::get<0>(kind), std::get<1>(kind), name)
  {
  }

  /* Sends @pieces one by one, each when a read has found no data. */
  void send_while_reading(testhost::Texts pieces)
  {
    auto left = std::make_shared<testhost::Texts>(std::move(pieces));

    faults::after_empty_reads([this, left] {
      if (!left->empty()) {
        send(left->front());
        left->erase(left->begin());
      }
    });
  }

  /* Pauses the socket while @bytes arrive. */
  void send_in_a_pause(const std::string &bytes)
  {
    client.pause();
    send(bytes);
    testhost::dispatch_ready();
    client.resume();
  }

  /* Expects that a non-blocking stream drops an incomplete message. */
  void expect_incomplete_messages_dropped()
  {
    send(teststream::message("dropped").substr(0, 7));
    EXPECT_EQ(take_events(), NOTHING);
    send(teststream::message("next"));
    EXPECT_EQ(take_events(), frames({"next"}));
  }
};

class ExternalSourceSocketTest : public testhost::Fixture
{
protected:
  void TearDown() override
  {
    faults::after_empty_reads(nullptr);
    Fixture::TearDown();
    EXPECT_EQ(message_account_get_total(), 0U);
  }

  /* How often the default main context polls while nothing else is ready. */
  static unsigned count_polls()
  {
    static unsigned polls;
    GPollFunc poll_func = g_main_context_get_poll_func(nullptr);
    bool over = false;
    auto end = [](gpointer user_data) { *static_cast<bool *>(user_data) = true; };

    polls = 0;
    g_main_context_set_poll_func(nullptr, [](GPollFD *fds, guint count, gint timeout) {
      polls++;
      return g_poll(fds, count, timeout);
    });
    g_timeout_add_once(POLLS_MS, end, &over);
    while (!over) {
      g_main_context_iteration(nullptr, TRUE);
    }
    g_main_context_set_poll_func(nullptr, poll_func);
    return polls;
  }

  static void expect_idle()
  {
    const gint64 used_before = testhost::processor_time_us();

    EXPECT_LE(count_polls(), 3U);
    EXPECT_LT(testhost::processor_time_us() - used_before, POLLS_MS * 1000 / 2);
  }

  static constexpr guint POLLS_MS = 100;
};

inline std::string
carrier_name(teststream::Carrier carrier)
{
  switch (carrier) {
  case teststream::Carrier::PIPE:
    return "Pipe";
  case teststream::Carrier::FIFO:
    return "Fifo";
  default:
    return "Socket";
  }
}
