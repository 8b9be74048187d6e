/* SPDX-License-Identifier: MIT */
#pragma once

#include <glib.h>
#include <string>

namespace benchmarks
{

std::string make_item(gsize size);
std::string make_producer_message(gsize size);
std::string make_mqtt_message(gsize size);
std::string make_mqtt_connect(guint number);
std::string make_mqtt_subscribe();

} // namespace benchmarks
