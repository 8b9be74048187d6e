/* Counts the bytes that clients hold of their producers' messages, and says who may begin a further one.
 *
 * What counts. A client holds its messages that are being read, each with all that is allocated for it from
 * the moment its length is known, and what waits in its queue. MESSAGE_ACCOUNT_MESSAGE_OVERHEAD is added for
 * each message. What a pipeline keeps behind the queue does not count.
 *
 * Rules. A client that holds more than MESSAGE_ACCOUNT_CLIENT_LIMIT begins no message until it holds no more
 * than MESSAGE_ACCOUNT_CLIENT_RESUME. While all clients together hold more than MESSAGE_ACCOUNT_TOTAL_LIMIT,
 * no client begins one. A message that has begun is not paused.
 *
 * When a message that begins makes the sum exceed MESSAGE_ACCOUNT_TOTAL_LIMIT, messages that are being read
 * end until the sum is within the limit, each time the longest one of the client that holds most. Of equal
 * ones the one that began first ends. Only clients that hold more than MESSAGE_ACCOUNT_CLIENT_LIMIT lose
 * messages. When none of them has a message left, the message that began is no longer than that limit, and
 * is read. So the sum never exceeds both limits together.
 *
 * A reader whose length comes in pieces may begin before the sum exceeds the limit, and know its length only
 * afterwards. If no other message can end to make room, its own message ends.
 *
 * Waiting. A reader that may not begin waits. Any thread may lower a count. When that lets a waiting reader
 * go on, a source in the default main context is added, at most one at a time, which calls the readers on the
 * main thread: whoever lowers a count may hold locks that a reader needs. No wake-up is missed, because a
 * reader is told to wait and listed under the same lock under which counts change.
 *
 * Lock: one for all accounts. Under it no other lock is taken but those of GLib, and no function of an owner
 * is called.
 *
 * Lifetime: a reader keeps its account. The list of those that wait has a reference to each reader's owner,
 * which message_reader_stop() drops.
 */
#include "messageaccount.h"

#include <algorithm>
#include <utility>
#include <vector>

struct MessageAccount {
  gsize unfinished; /* the sum of its readers' messages */
  gsize queued;
  gboolean is_paused; /* was beyond its limit when a message was to begin, and has not come down since */
};

struct MessageReader {
  MessageAccount *account;
  GObject *owner; /* borrowed, but while the reader waits */
  MessageReaderResumeFunc resume;
  gsize unfinished; /* 0 while no message is being read */
  gboolean is_waiting;
};

namespace
{

GMutex accounts_lock;

/* All of it with the lock held. */
struct Totals {
  gsize bytes = 0;                         /* of all accounts */
  std::vector<MessageReader *> unfinished; /* those with a message, in the order in which these began */
  std::vector<MessageReader *> waiting;
  gboolean is_waking = FALSE;
};

Totals totals;

using Owners = std::vector<std::pair<MessageReaderResumeFunc, GObject *>>;

/* These with the lock held. */

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
take_those_that_may_begin()
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

} // namespace

static gboolean
on_wake(gpointer user_data)
{
  Owners owners;

  {
    g_autoptr(GMutexLocker) locker = g_mutex_locker_new(&accounts_lock);
    totals.is_waking = FALSE;
    owners = take_those_that_may_begin();
  }
  for (const auto &[resume, owner] : owners) {
    resume(owner);
    g_object_unref(owner);
  }
  return G_SOURCE_REMOVE;
}

namespace
{

/* These with the lock held. */

void
wake_waiting()
{
  if (totals.waiting.empty() || totals.is_waking) {
    return;
  }
  totals.is_waking = TRUE;
  g_idle_add_full(G_PRIORITY_DEFAULT, on_wake, nullptr, nullptr);
}

/* Sets one of an account's counts. */
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

/* NULL when no client that reads a message exceeds the limit of a client. */
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

/* Whose message has to end for that of @newest, which may have ended meanwhile. */
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
 * Makes the account of a client that holds nothing. Any thread.
 *
 * Returns: (transfer full): a new account
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
 * Any thread.
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
 * Frees the account with its last reference. Any thread.
 *
 * Warnings: "account->unfinished == 0" and "account->queued == 0" are to hold for an account that goes.
 */
void
message_account_unref(MessageAccount *account)
{
  g_atomic_rc_box_release_full(account, clear_account);
}

/**
 * message_account_set_queued:
 * @account: (transfer none): an account
 * @bytes: what waits in the client's queue now
 *
 * To be called after each change of the queue, in the order of the changes. Any thread, also with a lock held
 * that a resume function takes.
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
 * Any thread.
 *
 * Returns: what all clients together hold
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
 * @resume: called when @owner waited and may begin a message
 *
 * Any thread.
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
 * @reader: (transfer full): a reader that has been stopped, or has done nothing
 *
 * Any thread.
 */
void
message_reader_free(MessageReader *reader)
{
  message_account_unref(reader->account);
  g_free(reader);
}

/**
 * message_reader_may_begin:
 * @reader: (transfer none): a reader that reads no message
 *
 * To be asked before the first byte of a message is read. With %FALSE the reader waits from now on: its
 * resume function is called once, when it may ask again. Main thread.
 *
 * Returns: whether a message may begin
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
 * @reader: (transfer none): a reader that reads no message
 * @bytes: what is about to be allocated for the message, without MESSAGE_ACCOUNT_MESSAGE_OVERHEAD
 *
 * Charges a message whose length is known. Before its memory is allocated, message_reader_take_excess() says
 * whose has to go for it. Main thread.
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
 * The reader's message, if it has one, has been freed or is in the client's queue. Any thread.
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
 * Ends the reader's message, if it has one, and its waiting. A resume function may be under way. To be called
 * with a reference on the owner. Any thread.
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
 * @reader: (transfer none): a reader whose message has just begun
 *
 * To be called after message_reader_begin(), until there is nothing more or the message that began is the one
 * that ends. Each owner has to end its stream for lack of memory; its message counts no longer. When
 * @reader's message has ended meanwhile, nothing has to go for it. Main thread.
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
