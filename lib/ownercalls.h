/* SPDX-License-Identifier: MIT */
#pragma once

#include "buscall.h"

#include <string>

/* The calls to one owner of the receiver's name. They end with it. On the worker. */
class OwnerCalls
{
public:
  OwnerCalls() = default;
  OwnerCalls(const OwnerCalls &) = delete;
  OwnerCalls &operator=(const OwnerCalls &) = delete;
  ~OwnerCalls();

  void begin(GDBusConnection *connection, const gchar *owner);
  void end();
  gboolean has_owner() const;
  gboolean is_calling() const;
  void call(const BusMethod *method, GVariant *arguments, BusReplyFunction function);
  void call_beside(const BusMethod *method, GVariant *arguments, BusReplyFunction function);

private:
  GDBusConnection *connection = nullptr; /* NULL while there is no owner */
  std::string owner;                     /* its unique name */
  GCancellable *cancellable = nullptr;
  gboolean calling = FALSE;
};
