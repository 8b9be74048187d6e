/* SPDX-License-Identifier: MIT */
// Hand-overs to the main context that gets the reply to a D-Bus call: all that precedes the call happens
// before its callback. GDBus' thread and the library's tasks are in between.
#include "real.h"

#include <gio/gio.h>
#include <sanitizer/tsan_interface.h>

namespace
{

struct Call {
  GAsyncReadyCallback callback;
  gpointer user_data;
};

void
on_reply(GObject *source, GAsyncResult *result, gpointer user_data)
{
  auto *call = static_cast<Call *>(user_data);
  __tsan_acquire(call);
  call->callback(source, result, call->user_data);
  delete call;
}

} // namespace

// For calls with a callback only.
INTERPOSED void
g_dbus_connection_call_with_unix_fd_list(GDBusConnection *connection, const gchar *bus_name,
                                         const gchar *object_path, const gchar *interface_name,
                                         const gchar *method_name, GVariant *parameters,
                                         const GVariantType *reply_type, GDBusCallFlags flags,
                                         gint timeout_msec, GUnixFDList *fd_list, GCancellable *cancellable,
                                         GAsyncReadyCallback callback, gpointer user_data)
{
  FIND_REAL(g_dbus_connection_call_with_unix_fd_list);
  auto *call = new Call{callback, user_data};
  __tsan_release(call);
  real(connection, bus_name, object_path, interface_name, method_name, parameters, reply_type, flags,
       timeout_msec, fd_list, cancellable, on_reply, call);
}
