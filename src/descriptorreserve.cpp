/* SPDX-License-Identifier: MIT */
/* Keeps file descriptors free for operations that must not fail.
 *
 * GLib ends the process when it cannot make a main context, which takes a descriptor, and clients and
 * producers decide how many descriptors the daemon needs. Code that opens descriptors for them, or makes a
 * main context, therefore reserves descriptors first. A reservation succeeds only if DESCRIPTOR_RESERVE_SIZE
 * descriptors stay free beyond all reserved ones.
 *
 * A reservation lasts while its holder opens descriptors. Then the descriptors count as used, and the holder
 * frees the reservation. In between an open descriptor counts twice, so the sum is never too low.
 *
 * Platform elements open descriptors without a reservation, so the kernel is queried for open descriptors.
 * The query needs no descriptor. It begins at the highest number, where the descriptors are free as long as
 * there are many.
 */
#include "descriptorreserve.h"

#include <fcntl.h>
#include <sys/resource.h>

struct DescriptorReservation {
  guint count;
};

namespace
{

GMutex reserve_lock;
guint64 reserved; /* the sum of all reservations */

int
get_limit()
{
  struct rlimit limit = {};

  getrlimit(RLIMIT_NOFILE, &limit);
  return static_cast<int>(MIN(limit.rlim_cur, static_cast<rlim_t>(G_MAXINT)));
}

/* F_GETFD succeeds for all open descriptors, including those that cannot be read or polled. */
gboolean
are_free(guint64 count)
{
  for (int fd = get_limit() - 1; fd >= 0 && count > 0; fd--) {
    count -= fcntl(fd, F_GETFD) < 0 ? 1 : 0;
  }
  return count == 0;
}

gboolean
reserve(guint count)
{
  g_autoptr(GMutexLocker) locker = g_mutex_locker_new(&reserve_lock);

  if (!are_free(reserved + count + DESCRIPTOR_RESERVE_SIZE)) {
    return FALSE;
  }
  reserved += count;
  return TRUE;
}

} // namespace

/**
 * descriptor_reservation_new:
 * @count: the largest number of descriptors that the caller opens; 0 only checks the reserve
 * @error: (out) (optional): where to put the failure
 *
 * Reserves descriptors if the reserve stays untouched. Takes microseconds while many are free.
 *
 * Returns: (transfer full) (nullable): the reservation, to be freed once the descriptors are open or not
 *   needed; %NULL with @error set to %G_IO_ERROR_TOO_MANY_OPEN_FILES when too few are free
 */
DescriptorReservation *
descriptor_reservation_new(guint count, GError **error)
{
  if (!reserve(count)) {
    g_set_error_literal(error, G_IO_ERROR, G_IO_ERROR_TOO_MANY_OPEN_FILES, "Too few free file descriptors");
    return nullptr;
  }
  auto *self = g_new0(DescriptorReservation, 1);

  self->count = count;
  return self;
}

/**
 * descriptor_reserve_count_open:
 * @limit: (out): the number of descriptors that can be open
 *
 * Counts the open descriptors with numbers below DESCRIPTOR_RESERVE_MAX_NUMBER. Takes less than 0.1
 * microseconds for each number up to that or to the limit. Any thread.
 *
 * Returns: the number of open descriptors
 */
guint
descriptor_reserve_count_open(guint *limit)
{
  guint count = 0;

  *limit = static_cast<guint>(get_limit());
  for (guint fd = 0; fd < MIN(*limit, static_cast<guint>(DESCRIPTOR_RESERVE_MAX_NUMBER)); fd++) {
    count += fcntl(static_cast<int>(fd), F_GETFD) >= 0 ? 1 : 0;
  }
  return count;
}

/**
 * descriptor_reservation_free:
 * @self: (transfer full): a reservation
 *
 * Ends the reservation.
 */
void
descriptor_reservation_free(DescriptorReservation *self)
{
  g_return_if_fail(self != NULL);

  g_autoptr(GMutexLocker) locker = g_mutex_locker_new(&reserve_lock);
  reserved -= self->count;
  g_free(self);
}
