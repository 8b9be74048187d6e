/* SPDX-License-Identifier: MIT */
#pragma once

#include "eventmessage.h"
#include "settings.h"
#include "world.h"

#include <optional>

/* The changes and states of the world as ONVIF events. */

namespace sim
{

/* The namespace of topics that only this camera has. */
constexpr onvif::XmlNamespace TNSIMCAM = {"tnsimcam", "urn:tessard:simulated-camera:topics"};

std::optional<onvif::EventMessage> world_event_from_change(const Change &change, const Settings &settings);
std::vector<onvif::EventMessage> world_events_of_state(const World &world, WorldTime time,
                                                       const Settings &settings);
std::vector<onvif::EventMessage> world_event_examples();

} // namespace sim
