/* SPDX-License-Identifier: MIT */
/* Limits the number of streaming clients, and keeps some places for users without one. A program that
 * connects repeatedly can neither exhaust the machine nor lock out other users.
 *
 * A request takes a place before its pipeline is built; the place becomes free when the pipeline is released.
 * A user without a place can take any free one. A user with a place can take another one only while more than
 * CLIENT_PLACES_KEPT are free. So one user can hold all places except these, and that many other users still
 * get one each.
 *
 * The places are shared by the whole process.
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
  const gboolean holds_one =
      std::find(holders.begin(), holders.begin() + taken, user) != holders.begin() + taken;

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
 * Returns: (transfer full) (nullable): the place, to be freed when the client's pipeline is released; %NULL
 *   when no place is left for @user
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
 * Returns the place.
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
