/* SPDX-License-Identifier: MIT */
#pragma once

#include "geometry.h"
#include "xml.h"

#include <optional>
#include <span>

/* The parts of a tt:Frame that are the same for all sources of objects. */

namespace onvif
{

/* Decimals of likelihoods and of measurements. */
constexpr int MEASURE_DIGITS = 2;

void frame_write_shape(XmlWriter *writer, const Box &box, const Point &centre,
                       std::span<const Point> polygon);
void frame_write_class(XmlWriter *writer, std::string_view type, std::optional<double> likelihood);
void frame_write_deleted(XmlWriter *writer, std::span<const gint64> deleted);

} // namespace onvif
