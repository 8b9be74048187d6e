/* SPDX-License-Identifier: MIT */
#pragma once

#include "geometry.h"
#include "xml.h"

#include <optional>
#include <vector>

/* The parts of a tt:Frame that are the same for all sources of objects. */

namespace onvif
{

/* Decimals of likelihoods and of measurements. */
constexpr int MEASURE_DIGITS = 2;

void frame_write_shape(xmlTextWriter *writer, const Box &box, const Point &centre,
                       const std::vector<Point> &polygon);
void frame_write_class(xmlTextWriter *writer, const char *type, std::optional<double> likelihood);
void frame_write_deleted(xmlTextWriter *writer, const std::vector<gint64> &deleted);

} // namespace onvif
