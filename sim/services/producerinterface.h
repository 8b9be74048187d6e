#pragma once

#include <functional>
#include <gio/gio.h>

namespace sim
{

/* The interface com.quon.MetadataReceiver1.Producer on an object. It is written by hand because it tells
 * whatever properties it is given, those of a wrong type among them, where a generated one would have them
 * right. */

/* Returns: (transfer floating): the properties, a{sv} */
using ProducerProperties = std::function<GVariant *()>;

/* @invocation: (transfer full): a call of one of the interface's methods */
using ProducerCall =
    std::function<void(const char *method, GVariant *arguments, GDBusMethodInvocation *invocation)>;

GDBusInterfaceSkeleton *producer_interface_new(ProducerProperties properties, ProducerCall call);

} /* namespace sim */
