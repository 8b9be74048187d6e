/* SPDX-License-Identifier: MIT */
#pragma once

#include <functional>
#include <gio/gio.h>
#include <string>

namespace sim
{

/* The interface com.quon.MetadataReceiver1.Producer of an object, or the same interface under another name.
 * It is not generated, because it returns any properties that it is given, including those of a wrong type.
 */

/* Returns: (transfer floating): the properties, a{sv} */
using ProducerProperties = std::function<GVariant *()>;

/* @invocation: (transfer full): a call of one of the interface's methods */
using ProducerCall =
    std::function<void(const char *method, GVariant *arguments, GDBusMethodInvocation *invocation)>;

GDBusInterfaceSkeleton *producer_interface_new(const std::string &name, ProducerProperties properties,
                                               ProducerCall call);

} // namespace sim
