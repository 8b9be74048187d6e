/* Limits how many clients stream at once, and keeps part of the places for users who have none. A program
 * that connects without end cannot use up the machine or shut the users of other programs out.
 *
 * A client's request takes a place before any part of its pipeline is made, and the place is free again when
 * the pipeline has gone. A user without a place can take any free one. A user with a place can take another
 * only while more than CLIENT_PLACES_KEPT are free. So one user can hold all places but these, and as many
 * other users still get one each.
 *
 * The process has one account of places, as it has one of descriptors.
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
std::array<uid_t, CLIENT_PLACES> holders; /* the first @taken entries are in use */
gsize taken;

/* Called with the lock held. */
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
 * @user: the client's user
 *
 * Takes a place.
 *
 * Returns: (transfer full) (nullable): the place, to be freed when the client's pipeline has gone; %NULL when
 *   no place is left for @user
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
 * Gives the place back.
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
