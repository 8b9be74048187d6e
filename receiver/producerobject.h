/* SPDX-License-Identifier: MIT */
#pragma once

#include "producer.h"

#include <gio/gio.h>

namespace receiver
{

GDBusInterfaceSkeleton *producer_object_new(const std::shared_ptr<Producer> &producer);
GUnixFDList *descriptor_list_new(int fd);

} // namespace receiver
