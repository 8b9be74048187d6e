/* SPDX-License-Identifier: MIT */
#include "ownercalls.h"

#include <utility>

OwnerCalls::~OwnerCalls()
{
  end();
}

/**
 * OwnerCalls::begin:
 * @new_connection: (transfer none): the connection
 * @new_owner: the unique name of the owner
 *
 * Ends the calls to the previous owner.
 */
void
OwnerCalls::begin(GDBusConnection *new_connection, const gchar *new_owner)
{
  end();
  connection = G_DBUS_CONNECTION(g_object_ref(new_connection));
  owner = new_owner;
  cancellable = g_cancellable_new();
}

/**
 * OwnerCalls::end:
 *
 * Forgets the owner. No function of call() is called after this.
 */
void
OwnerCalls::end()
{
  if (cancellable != nullptr) {
    g_cancellable_cancel(cancellable);
  }
  g_clear_object(&cancellable);
  g_clear_object(&connection);
  calling = FALSE;
}

gboolean
OwnerCalls::has_owner() const
{
  return connection != nullptr;
}

/**
 * OwnerCalls::is_calling:
 *
 * Returns: whether a call() has no reply yet
 */
gboolean
OwnerCalls::is_calling() const
{
  return calling;
}

/**
 * OwnerCalls::call:
 * @method: (transfer none): a method of the owner
 * @arguments: (transfer floating): its arguments
 * @function: called with the reply, unless the connection closes before, or end() is called
 *
 * There must be an owner.
 */
void
OwnerCalls::call(const BusMethod *method, GVariant *arguments, BusReplyFunction function)
{
  calling = TRUE;
  bus_call(
      connection, owner.c_str(), method, arguments, cancellable,
      [this, reply_function = std::move(function)](GVariant *reply, GUnixFDList *fds, const GError *error) {
        if (g_error_matches(error, G_IO_ERROR, G_IO_ERROR_CLOSED)) {
          return; /* The link reports the end of the bus. */
        }
        calling = FALSE;
        reply_function(reply, fds, error);
      });
}

/**
 * OwnerCalls::call_beside:
 * @method: (transfer none): a method of the owner
 * @arguments: (transfer floating): its arguments
 * @function: called with the reply, in every case: the bus replies when the owner leaves
 *
 * Like call(), but end() does not end it, and it does not count for is_calling().
 */
void
OwnerCalls::call_beside(const BusMethod *method, GVariant *arguments, BusReplyFunction function)
{
  g_autoptr(GCancellable) none = g_cancellable_new();

  bus_call(connection, owner.c_str(), method, arguments, none, std::move(function));
}
