/* SPDX-License-Identifier: MIT */
#pragma once

#include "jsonscalar.h"

/* What ONVIF's schema says of the elements of metadata, as far as JSON shows it. */

namespace onvif
{

ScalarType metadata_attribute_type(std::string_view name);
ScalarType metadata_element_type(std::string_view name);
bool metadata_element_repeats(std::string_view parent, std::string_view name);

} // namespace onvif
