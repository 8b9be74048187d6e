/* SPDX-License-Identifier: MIT */
#pragma once

#include <functional>
#include <gio/gio.h>
#include <gio/gunixfdlist.h>

/* Where a call goes. Texts outlive the call. */
struct BusMethod {
  const gchar *path;
  const gchar *interface;
  const gchar *name;
  const gchar *reply_type;
};

/* The reply with its descriptors, or the error. The reply has the method's type. */
using BusReplyFunction = std::function<void(GVariant *reply, GUnixFDList *fds, const GError *error)>;

void bus_call(GDBusConnection *connection, const gchar *destination, const BusMethod *method,
              GVariant *arguments, GCancellable *cancellable, BusReplyFunction function);
