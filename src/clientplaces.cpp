/* Bounds how many clients stream at once, so that a program that connects without end cannot take all that
 * the machine has, and keeps some of that room for the users of other programs.
 *
 * A client's request takes a place before anything of a pipeline is made, and gives it back when the last of
 * the pipeline has gone. A user that holds no place takes any free one. A user that holds one takes another
 * only while more than CLIENT_PLACES_KEPT are free. So a single user holds all but these at most, and each of
 * as many others is still served once.
 *
 * The places of the process are one account, like the descriptors that they stand for.
 */
#include "clientplaces.h"

#include <algorithm>
#include <array>

struct ClientPlace {
  uid_t user;
};

namespace
{

GMutex places_lock;
std::array<uid_t, CLIENT_PLACES> holders; /* the first @taken */
gsize taken;

/* With the lock held. */
gboolean
may_take(uid_t user)
{
  const bool holds_one = std::find(holders.begin(), holders.begin() + taken, user) != holders.begin() + taken;

  return taken < (holds_one ? CLIENT_PLACES - CLIENT_PLACES_KEPT : CLIENT_PLACES);
}

gboolean
take(uid_t user)
{
  g_autoptr(GMutexLocker) locker = g_mutex_locker_new(&places_lock);

  if (!may_take(user)) {
    return FALSE;
  }
  holders[taken++] = user;
  return TRUE;
}

} // namespace

/**
 * client_place_new:
 * @user: whose client it is
 *
 * Takes a place. Any thread.
 *
 * Returns: (transfer full) (nullable): the place, to be freed when the client's pipeline has gone; %NULL when
 *   @user can have none
 */
ClientPlace *
client_place_new(uid_t user)
{
  if (!take(user)) {
    return nullptr;
  }
  auto *self = g_new0(ClientPlace, 1);

  self->user = user;
  return self;
}

/**
 * client_place_free:
 * @self: (transfer full): a place
 *
 * Gives the place back. Any thread.
 *
 * Warnings: "self != NULL" is a precondition.
 */
void
client_place_free(ClientPlace *self)
{
  g_return_if_fail(self != NULL);

  g_autoptr(GMutexLocker) locker = g_mutex_locker_new(&places_lock);
  *std::find(holders.begin(), holders.begin() + taken, self->user) = holders[taken - 1];
  taken--;
  g_free(self);
}
