/* SPDX-License-Identifier: MIT */
/* Counts the bytes of producers' messages that clients hold, and decides which client can begin a message.
 *
 * Count: a client holds its unfinished messages, each with its whole allocation from the moment when its
 * length is known, and its queue. MESSAGE_ACCOUNT_MESSAGE_OVERHEAD is added for each message. Data behind the
 * queue does not count.
 *
 * Rules: a client that holds more than MESSAGE_ACCOUNT_CLIENT_LIMIT begins no message until it holds at most
 * MESSAGE_ACCOUNT_CLIENT_RESUME. While all clients together hold more than MESSAGE_ACCOUNT_TOTAL_LIMIT, no
 * client begins a message. An unfinished message is never paused.
 *
 * When a message that begins makes the sum exceed MESSAGE_ACCOUNT_TOTAL_LIMIT, unfinished messages end until
 * the sum is within the limit: each time the longest one of the client that holds most, and of equal ones the
 * one that began first. Only clients that hold more than MESSAGE_ACCOUNT_CLIENT_LIMIT lose messages. If none
 * of them has an unfinished message, the new message is not longer than that limit, and is read. So the sum
 * never exceeds both limits together.
 *
 * If only a part of a message's length has arrived, the sum can exceed the limit before the length is known.
 * If no other message can then end, this message ends.
 *
 * Waiting: a reader that cannot begin waits. When a count decreases, on any thread, and a waiting reader can
 * begin, one idle source of the default main context calls the readers on the main thread: the thread that
 * changes the count can hold locks that a reader needs. The decision to wait and the entry in the list of
 * waiting readers are one step under the lock, so no wake-up is missed.
 *
 * Lock: one for all accounts. Only locks of GLib are taken under it, and no function of an owner is called.
 *
 * Lifetime: a reader has a reference to its account. The list of waiting readers has one to each owner,
 * which message_reader_stop() drops.
 */
#include "messageaccount.h"

#include <algorithm>
#include <utility>
#include <vector>

struct MessageAccount {
  gsize unfinished; /* the sum of its readers' messages */
  gsize queued;
  gboolean is_paused; /* exceeded the client limit, and has not reached the resume limit since */
};

struct MessageReader {
  MessageAccount *account;
  GObject *owner; /* borrowed, except while the reader waits */
  MessageReaderResumeFunc resume;
  gsize unfinished; /* 0 without an unfinished message */
  gboolean is_waiting;
};

namespace
{

GMutex accounts_lock;

/* Protected by the lock. */
struct Totals {
  gsize bytes = 0;                         /* of all accounts */
  std::vector<MessageReader *> unfinished; /* readers with a message, in the order in which these began */
  std::vector<MessageReader *> waiting;
  gboolean is_waking = FALSE;
};

Totals totals;

using Owners = std::vector<std::pair<MessageReaderResumeFunc, GObject *>>;

/* The next four functions are called with the lock held. */

gsize
get_held(const MessageAccount *account)
{
  return account->unfinished + account->queued;
}

gboolean
may_begin(const MessageAccount *account)
{
  return !account->is_paused && totals.bytes <= MESSAGE_ACCOUNT_TOTAL_LIMIT;
}

void
remove_from(std::vector<MessageReader *> *readers, MessageReader *reader)
{
  readers->erase(std::find(readers->begin(), readers->end(), reader));
}

Owners
take_owners_to_resume()
{
  Owners owners;

  std::erase_if(totals.waiting, [&owners](MessageReader *reader) {
    if (!may_begin(reader->account)) {
      return false;
    }
    reader->is_waiting = FALSE;
    owners.emplace_back(reader->resume, reader->owner);
    return true;
  });
  return owners;
}

gboolean
on_wake(gpointer user_data)
{
  Owners owners;

  {
    g_autoptr(GMutexLocker) locker = g_mutex_locker_new(&accounts_lock);
    totals.is_waking = FALSE;
    owners = take_owners_to_resume();
  }
  for (const auto &[resume, owner] : owners) {
    resume(owner);
    g_object_unref(owner);
  }
  return G_SOURCE_REMOVE;
}

/* All functions below are called with the lock held. */

void
wake_waiting()
{
  if (totals.waiting.empty() || totals.is_waking) {
    return;
  }
  totals.is_waking = TRUE;
  g_idle_add_full(G_PRIORITY_DEFAULT, on_wake, nullptr, nullptr);
}

void
set_count(MessageAccount *account, gsize *count, gsize bytes)
{
  const gboolean was_beyond = totals.bytes > MESSAGE_ACCOUNT_TOTAL_LIMIT;
  const gboolean was_paused = account->is_paused;

  totals.bytes = totals.bytes - *count + bytes;
  *count = bytes;
  if (get_held(account) <= MESSAGE_ACCOUNT_CLIENT_RESUME) {
    account->is_paused = FALSE;
  }
  if (totals.bytes <= MESSAGE_ACCOUNT_TOTAL_LIMIT && (was_beyond || was_paused > account->is_paused)) {
    wake_waiting();
  }
}

void
set_unfinished(MessageReader *reader, gsize bytes)
{
  const gsize others = reader->account->unfinished - reader->unfinished;

  if (reader->unfinished == bytes) {
    return;
  }
  if (bytes == 0) {
    remove_from(&totals.unfinished, reader);
  } else {
    totals.unfinished.push_back(reader);
  }
  reader->unfinished = bytes;
  set_count(reader->account, &reader->account->unfinished, others + bytes);
}

/* NULL when no client with an unfinished message exceeds the client limit. */
MessageReader *
find_biggest()
{
  MessageReader *biggest = nullptr;
  const auto size_of = [](const MessageReader *reader) {
    return std::pair(get_held(reader->account), reader->unfinished);
  };

  for (MessageReader *reader : totals.unfinished) {
    if (get_held(reader->account) > MESSAGE_ACCOUNT_CLIENT_LIMIT &&
        (biggest == nullptr || size_of(reader) > size_of(biggest))) {
      biggest = reader;
    }
  }
  return biggest;
}

/* Finds the reader whose message has to end for the message of @newest, which may have ended already. */
MessageReader *
find_excess(MessageReader *newest)
{
  if (totals.bytes <= MESSAGE_ACCOUNT_TOTAL_LIMIT || newest->unfinished == 0) {
    return nullptr;
  }
  MessageReader *biggest = find_biggest();
  const gboolean was_beyond = totals.bytes - newest->unfinished > MESSAGE_ACCOUNT_TOTAL_LIMIT;

  return biggest == nullptr && was_beyond ? newest : biggest;
}

void
clear_account(gpointer data)
{
  const auto *account = static_cast<MessageAccount *>(data);

  g_warn_if_fail(account->unfinished == 0);
  g_warn_if_fail(account->queued == 0);
}

} // namespace

/**
 * message_account_new:
 *
 * Returns: (transfer full): the account of a client that holds nothing
 */
MessageAccount *
message_account_new(void)
{
  return g_atomic_rc_box_new0(MessageAccount);
}

/**
 * message_account_ref:
 * @account: (transfer none): an account
 *
 * Returns: (transfer full): the account
 */
MessageAccount *
message_account_ref(MessageAccount *account)
{
  return static_cast<MessageAccount *>(g_atomic_rc_box_acquire(account));
}

/**
 * message_account_unref:
 * @account: (transfer full): an account
 *
 * Frees the account with its last reference.
 *
 * Warnings: "account->unfinished == 0" and "account->queued == 0" are preconditions of the last one.
 */
void
message_account_unref(MessageAccount *account)
{
  g_atomic_rc_box_release_full(account, clear_account);
}

/**
 * message_account_set_queued:
 * @account: (transfer none): an account
 * @bytes: the bytes in the client's queue
 *
 * Must be called after each change of the queue, in the order of the changes. The caller can hold a lock that
 * a resume function takes.
 *
 * Warnings: "account != NULL" is a precondition.
 */
void
message_account_set_queued(MessageAccount *account, gsize bytes)
{
  g_return_if_fail(account != NULL);

  g_autoptr(GMutexLocker) locker = g_mutex_locker_new(&accounts_lock);
  set_count(account, &account->queued, bytes);
}

/**
 * message_account_get_total:
 *
 * Returns: the bytes that all clients together hold
 */
gsize
message_account_get_total(void)
{
  g_autoptr(GMutexLocker) locker = g_mutex_locker_new(&accounts_lock);

  return totals.bytes;
}

/**
 * message_reader_new:
 * @account: (transfer none): the client's account
 * @owner: (transfer none): the object that reads; it stops and frees the reader
 * @resume: called when @owner waited and can begin a message
 *
 * Returns: (transfer full): a new reader
 */
MessageReader *
message_reader_new(MessageAccount *account, GObject *owner, MessageReaderResumeFunc resume)
{
  auto *reader = g_new0(MessageReader, 1);

  reader->account = message_account_ref(account);
  reader->owner = owner;
  reader->resume = resume;
  return reader;
}

/**
 * message_reader_free:
 * @reader: (transfer full): a reader that was stopped, or never used
 */
void
message_reader_free(MessageReader *reader)
{
  message_account_unref(reader->account);
  g_free(reader);
}

/**
 * message_reader_may_begin:
 * @reader: (transfer none): a reader without an unfinished message
 *
 * Must be called before the first byte of a message is read. After %FALSE the reader waits: its resume
 * function is called once, when a message can begin.
 *
 * Returns: whether a message can begin
 */
gboolean
message_reader_may_begin(MessageReader *reader)
{
  g_autoptr(GMutexLocker) locker = g_mutex_locker_new(&accounts_lock);

  if (get_held(reader->account) > MESSAGE_ACCOUNT_CLIENT_LIMIT) {
    reader->account->is_paused = TRUE;
  }
  if (may_begin(reader->account)) {
    return TRUE;
  }
  if (!reader->is_waiting) {
    reader->is_waiting = TRUE;
    g_object_ref(reader->owner);
    totals.waiting.push_back(reader);
  }
  return FALSE;
}

/**
 * message_reader_begin:
 * @reader: (transfer none): a reader without an unfinished message
 * @bytes: the bytes that the message's memory will have, without MESSAGE_ACCOUNT_MESSAGE_OVERHEAD
 *
 * Counts a message whose length is known. Before its memory is allocated, the caller ends the messages that
 * message_reader_take_excess() returns.
 */
void
message_reader_begin(MessageReader *reader, gsize bytes)
{
  g_autoptr(GMutexLocker) locker = g_mutex_locker_new(&accounts_lock);

  set_unfinished(reader, bytes + MESSAGE_ACCOUNT_MESSAGE_OVERHEAD);
}

/**
 * message_reader_end:
 * @reader: (transfer none): a reader
 *
 * Uncounts the reader's message, if it has one: it was freed, or is in the client's queue.
 */
void
message_reader_end(MessageReader *reader)
{
  g_autoptr(GMutexLocker) locker = g_mutex_locker_new(&accounts_lock);

  set_unfinished(reader, 0);
}

/**
 * message_reader_stop:
 * @reader: (transfer none): a reader whose stream has ended
 *
 * Uncounts the reader's message, if it has one, and ends its wait. The resume function can be running. The
 * caller must hold a reference to the owner.
 */
void
message_reader_stop(MessageReader *reader)
{
  GObject *owner = nullptr;

  {
    g_autoptr(GMutexLocker) locker = g_mutex_locker_new(&accounts_lock);
    set_unfinished(reader, 0);
    if (std::exchange(reader->is_waiting, FALSE)) {
      remove_from(&totals.waiting, reader);
      owner = reader->owner;
    }
  }
  g_clear_object(&owner);
}

/**
 * message_reader_take_excess:
 * @reader: (transfer none): a reader that began a message
 *
 * Must be called repeatedly after message_reader_begin(), until it returns %NULL or the owner of @reader.
 * Each returned owner has to end its stream for lack of memory; its message is already uncounted. If the
 * message of @reader has ended meanwhile, no other has to end.
 *
 * Returns: (transfer full) (nullable): the owner of a reader whose message has to end
 */
GObject *
message_reader_take_excess(MessageReader *reader)
{
  g_autoptr(GMutexLocker) locker = g_mutex_locker_new(&accounts_lock);
  MessageReader *excess = find_excess(reader);

  if (excess == nullptr) {
    return nullptr;
  }
  set_unfinished(excess, 0);
  return static_cast<GObject *>(g_object_ref(excess->owner));
}
