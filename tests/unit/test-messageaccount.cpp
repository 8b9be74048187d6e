/* SPDX-License-Identifier: MIT */
#include "messageaccount.h"

#include "testhost.h"

#include <atomic>
#include <memory>
#include <thread>
#include <vector>

using testhost::Observed;
using testhost::Texts;

namespace
{

constexpr gsize MIB = 1024 * 1024;
constexpr gsize OVERHEAD = MESSAGE_ACCOUNT_MESSAGE_OVERHEAD;

/* The owner of a reader. Its number of resumes is its qdata. */
class Owner
{
public:
  explicit Owner(MessageAccount *account)
      : object(G_OBJECT(g_object_new(G_TYPE_OBJECT, nullptr))),
        reader(message_reader_new(account, object, on_resume)), observed_(object)
  {
    g_object_set_data(object, "owner", this);
  }

  ~Owner()
  {
    message_reader_stop(reader);
    message_reader_free(reader);
    g_object_unref(object);
    EXPECT_FALSE(observed_.alive());
  }

  Owner(const Owner &) = delete;
  Owner &operator=(const Owner &) = delete;

  static void on_resume(GObject *object)
  {
    auto *self = static_cast<Owner *>(g_object_get_data(object, "owner"));

    self->resumes++;
    if (self->during_resume) {
      self->during_resume();
    }
  }

  bool may_begin() const
  {
    return message_reader_may_begin(reader);
  }

  void begin(gsize bytes) const
  {
    message_reader_begin(reader, bytes);
  }

  void end() const
  {
    message_reader_end(reader);
  }

  /* Dispatches everything that is ready. Returns the number of resumes since the last call. */
  unsigned take_resumes()
  {
    testhost::dispatch_ready();
    return resumes.exchange(0);
  }

  GObject *object;
  MessageReader *reader;
  std::atomic<unsigned> resumes = 0;
  std::function<void()> during_resume;

private:
  Observed observed_;
};

/* A client with two readers. */
class Client
{
public:
  Client() = default;

  ~Client()
  {
    queue(0);
    message_account_unref(account);
  }

  Client(const Client &) = delete;
  Client &operator=(const Client &) = delete;

  void queue(gsize bytes) const
  {
    message_account_set_queued(account, bytes);
  }

  MessageAccount *account = message_account_new();
  Owner one{account};
  Owner other{account};
};

/* The readers whose messages end for that of @newest, in order. */
std::vector<GObject *>
take_excess(const Owner &newest)
{
  std::vector<GObject *> owners;

  while (GObject *owner = message_reader_take_excess(newest.reader)) {
    owners.push_back(owner);
    g_object_unref(owner);
  }
  return owners;
}

using Objects = std::vector<GObject *>;

class MessageAccountTest : public testhost::Fixture
{
protected:
  void TearDown() override
  {
    EXPECT_EQ(message_account_get_total(), 0U);
    Fixture::TearDown();
  }
};

} // namespace

TEST_F(MessageAccountTest, CountsUnfinishedMessagesAndQueues)
{
  Client client;
  Client other;

  client.one.begin(100);
  client.other.begin(1);
  other.one.begin(0);
  EXPECT_EQ(message_account_get_total(), 101 + 3 * OVERHEAD);
  client.queue(1000);
  other.queue(7);
  EXPECT_EQ(message_account_get_total(), 1108 + 3 * OVERHEAD);
  client.queue(10);
  client.one.end();
  client.one.end();
  other.one.end();
  EXPECT_EQ(message_account_get_total(), 18 + OVERHEAD);
  client.other.end();
  client.queue(0);
  EXPECT_EQ(message_account_get_total(), 7U);
}

TEST_F(MessageAccountTest, EndsTheMessageOfAReaderThatStops)
{
  Client client;

  client.one.begin(100);
  message_reader_stop(client.one.reader);
  EXPECT_EQ(message_account_get_total(), 0U);
}

TEST_F(MessageAccountTest, WarnsOfAnAccountThatIsReleasedWhileNotEmpty)
{
  MessageAccount *account = message_account_new();

  message_account_set_queued(account, 5);
  message_account_unref(message_account_ref(account));
  EXPECT_EQ(testhost::glib_messages_size(), 0U);
  message_account_unref(account);
  const Texts messages = testhost::take_glib_messages();
  ASSERT_EQ(messages.size(), 1U);
  EXPECT_NE(messages[0].find("account->queued == 0"), std::string::npos) << messages[0];

  /* The total still includes it. */
  MessageAccount *rest = message_account_new();
  message_account_set_queued(rest, G_MAXSIZE - 4);
  message_account_unref(rest);
  EXPECT_EQ(testhost::take_glib_messages().size(), 1U);
}

TEST_F(MessageAccountTest, ChecksForAnAccount)
{
  message_account_set_queued(nullptr, 1);
  EXPECT_EQ(testhost::take_failed_preconditions(), (Texts{"account != NULL"}));
}

TEST_F(MessageAccountTest, AllowsMessagesUpToTheLimitOfTheClient)
{
  Client client;

  client.queue(MESSAGE_ACCOUNT_CLIENT_LIMIT / 2);
  client.one.begin(MESSAGE_ACCOUNT_CLIENT_LIMIT / 2 - OVERHEAD);
  EXPECT_TRUE(client.other.may_begin());
  client.queue(MESSAGE_ACCOUNT_CLIENT_LIMIT / 2 + 1);
  EXPECT_FALSE(client.other.may_begin());
}

TEST_F(MessageAccountTest, ResumesAClientAtTheLowerLimit)
{
  Client client;
  Client busy;

  client.queue(MESSAGE_ACCOUNT_CLIENT_LIMIT + 1);
  EXPECT_FALSE(client.one.may_begin());
  EXPECT_FALSE(client.other.may_begin());
  EXPECT_FALSE(client.one.may_begin());
  EXPECT_TRUE(busy.one.may_begin());

  client.queue(MESSAGE_ACCOUNT_CLIENT_RESUME + 1);
  EXPECT_FALSE(client.one.may_begin());
  EXPECT_EQ(client.one.take_resumes(), 0U);
  client.queue(MESSAGE_ACCOUNT_CLIENT_RESUME);
  EXPECT_EQ(client.one.resumes, 0U);
  EXPECT_EQ(client.one.take_resumes(), 1U);
  EXPECT_EQ(client.other.take_resumes(), 1U);
  EXPECT_EQ(busy.one.take_resumes(), 0U);
  EXPECT_TRUE(client.one.may_begin());
  client.queue(MESSAGE_ACCOUNT_CLIENT_RESUME + 1);
  EXPECT_TRUE(client.one.may_begin());
}

TEST_F(MessageAccountTest, ResumesAClientWhoseMessageHasEnded)
{
  Client client;

  client.one.begin(MESSAGE_ACCOUNT_CLIENT_LIMIT);
  EXPECT_FALSE(client.other.may_begin());
  client.one.end();
  EXPECT_EQ(client.other.take_resumes(), 1U);
  EXPECT_EQ(client.one.take_resumes(), 0U);
}

TEST_F(MessageAccountTest, RefusesAllMessagesBeyondTheTotalLimit)
{
  Client full;
  Client client;
  Client paused;

  full.queue(MESSAGE_ACCOUNT_TOTAL_LIMIT);
  EXPECT_TRUE(client.one.may_begin());
  client.queue(1);
  EXPECT_FALSE(client.one.may_begin());
  EXPECT_FALSE(full.one.may_begin());
  paused.queue(MESSAGE_ACCOUNT_CLIENT_LIMIT + 1);
  EXPECT_FALSE(paused.one.may_begin());

  full.queue(MESSAGE_ACCOUNT_TOTAL_LIMIT - MESSAGE_ACCOUNT_CLIENT_LIMIT - 1);
  EXPECT_EQ(client.one.take_resumes(), 0U);
  full.queue(MESSAGE_ACCOUNT_TOTAL_LIMIT - MESSAGE_ACCOUNT_CLIENT_LIMIT - 2);
  EXPECT_EQ(client.one.take_resumes(), 1U);
  EXPECT_EQ(full.one.take_resumes(), 0U);
  EXPECT_EQ(paused.one.take_resumes(), 0U);

  /* A reader that waits for both limits resumes after both, in either order. */
  paused.queue(0);
  EXPECT_EQ(paused.one.take_resumes(), 1U);
  client.queue(2 * MESSAGE_ACCOUNT_CLIENT_LIMIT);
  EXPECT_FALSE(full.one.may_begin());
  full.queue(0);
  EXPECT_EQ(full.one.take_resumes(), 1U);
}

TEST_F(MessageAccountTest, ResumesAReaderThatWaitsAgain)
{
  Client client;
  unsigned rounds = 0;

  client.one.during_resume = [&] {
    client.queue(MESSAGE_ACCOUNT_CLIENT_LIMIT + 1);
    EXPECT_FALSE(client.one.may_begin());
    if (++rounds < 10) {
      client.queue(0);
    }
  };
  client.queue(MESSAGE_ACCOUNT_CLIENT_LIMIT + 1);
  EXPECT_FALSE(client.one.may_begin());
  client.queue(0);
  EXPECT_EQ(client.one.take_resumes(), 10U);
}

TEST_F(MessageAccountTest, DoesNotResumeAReaderThatHasStopped)
{
  Client client;

  client.queue(MESSAGE_ACCOUNT_CLIENT_LIMIT + 1);
  EXPECT_FALSE(client.one.may_begin());
  client.queue(0);
  message_reader_stop(client.one.reader);
  message_reader_stop(client.one.reader);
  EXPECT_EQ(client.one.take_resumes(), 0U);
}

TEST_F(MessageAccountTest, HasNoExcessWithinTheLimit)
{
  Client client;

  client.one.begin(MESSAGE_ACCOUNT_TOTAL_LIMIT - OVERHEAD);
  EXPECT_EQ(take_excess(client.one), Objects());
  client.one.end();
}

TEST_F(MessageAccountTest, EndsTheLongestMessageOfTheClientThatHoldsMost)
{
  Client queueing;
  Client reading;
  Client longest;

  queueing.queue(40 * MIB);
  queueing.one.begin(10 * MIB);
  queueing.other.begin(10 * MIB + 1);
  reading.one.begin(20 * MIB);
  longest.one.begin(30 * MIB);
  EXPECT_EQ(take_excess(longest.one), Objects());
  reading.other.begin(20 * MIB);
  EXPECT_EQ(take_excess(reading.other), (Objects{queueing.other.object}));
  EXPECT_EQ(message_account_get_total(), 120 * MIB + 4 * OVERHEAD);
  reading.other.end();
  reading.other.begin(29 * MIB);
  EXPECT_EQ(take_excess(reading.other), (Objects{queueing.one.object}));
}

TEST_F(MessageAccountTest, EndsAsManyMessagesAsNecessary)
{
  Client first;
  Client second;
  Client third;

  first.one.begin(30 * MIB);
  first.other.begin(30 * MIB);
  second.one.begin(30 * MIB);
  second.other.begin(30 * MIB);
  third.one.begin(64 * MIB);
  EXPECT_EQ(take_excess(third.one), (Objects{third.one.object}));
  third.queue(60 * MIB);
  third.other.begin(1);
  EXPECT_EQ(take_excess(third.other), (Objects{first.one.object, second.one.object}));
}

TEST_F(MessageAccountTest, EndsTheFirstOfEqualMessages)
{
  Client first;
  Client second;

  first.one.begin(40 * MIB);
  second.one.begin(40 * MIB);
  second.other.begin(40 * MIB);
  first.other.begin(40 * MIB);
  EXPECT_EQ(take_excess(first.other), (Objects{first.one.object}));
}

TEST_F(MessageAccountTest, EndsNoMessageOfClientsWithinTheirLimit)
{
  Client full;
  Client client;
  Client other;

  full.queue(MESSAGE_ACCOUNT_TOTAL_LIMIT - MIB);
  client.one.begin(1000);
  other.one.begin(2 * MIB);
  EXPECT_EQ(take_excess(other.one), Objects());
  EXPECT_FALSE(client.other.may_begin());

  /* Of the clients with an unfinished message, the one that holds most. */
  client.other.begin(MESSAGE_ACCOUNT_CLIENT_LIMIT);
  EXPECT_EQ(take_excess(client.other), (Objects{client.other.object}));
}

TEST_F(MessageAccountTest, EndsAMessageThatBeginsBeyondTheTotalLimit)
{
  Client full;
  Client client;

  full.queue(MESSAGE_ACCOUNT_TOTAL_LIMIT + 1);
  client.one.begin(1000);
  EXPECT_EQ(take_excess(client.one), (Objects{client.one.object}));
}

TEST_F(MessageAccountTest, EndsNoMessageForOneThatHasEnded)
{
  Client full;
  Client first;
  Client last;

  first.one.begin(1000);
  full.queue(MESSAGE_ACCOUNT_TOTAL_LIMIT + 1);
  last.one.begin(1000);
  last.one.end();
  EXPECT_EQ(take_excess(last.one), Objects());
}

TEST_F(MessageAccountTest, ResumesWhicheverThreadLowersACount)
{
  constexpr unsigned ROUNDS = 20 * 1000;
  Client client;
  Client full;
  std::atomic<unsigned> checked = 0;
  std::atomic<bool> over = false;

  std::thread lowering([&] {
    for (unsigned round = 1; round <= ROUNDS; round++) {
      while (checked < round && !over) {
        g_thread_yield();
      }
      for (unsigned waited = 0; waited < round % 97; waited++) {
      }
      client.queue(0);
      full.queue(0);
    }
  });
  for (unsigned round = 1; round <= ROUNDS && !HasFailure(); round++) {
    /* One of the counts stops the reader. Another thread lowers it before or after this call. */
    if (round % 2 == 0) {
      client.queue(MESSAGE_ACCOUNT_CLIENT_LIMIT + 1);
    } else {
      full.queue(MESSAGE_ACCOUNT_TOTAL_LIMIT + 1);
    }
    checked = round;
    if (!client.one.may_begin()) {
      EXPECT_TRUE(testhost::spin_until([&] { return client.one.resumes.exchange(0) == 1; })) << round;
    }
  }
  over = true;
  lowering.join();
}

TEST_F(MessageAccountTest, CanBeUsedByManyThreads)
{
  constexpr int ROUNDS = 2000;

  for (int round = 0; round < ROUNDS / 100; round++) {
    Client client;
    std::thread queueing([&] {
      for (int i = 0; i < 100; i++) {
        client.queue(i % 3 == 0 ? 0 : MESSAGE_ACCOUNT_TOTAL_LIMIT + i);
      }
      client.queue(0);
    });
    std::thread stopping([&] {
      for (int i = 0; i < 100; i++) {
        message_reader_stop(client.other.reader);
      }
    });
    for (int i = 0; i < 100; i++) {
      client.one.may_begin();
      client.other.may_begin();
      client.one.begin(i);
      g_main_context_iteration(nullptr, FALSE);
      client.one.end();
    }
    queueing.join();
    stopping.join();
  }
}
