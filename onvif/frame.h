#pragma once

#include "geometry.h"
#include "xml.h"

#include <optional>
#include <vector>

/* The parts of a tt:Frame that everybody who tells of objects writes alike. */

namespace onvif
{

/* Decimals of likelihoods and whatever else is measured: as many as mean something. */
constexpr int MEASURE_DIGITS = 2;

void frame_write_shape(xmlTextWriter *writer, const Box &box, const Point &centre,
                       const std::vector<Point> &polygon);
void frame_write_class(xmlTextWriter *writer, const char *type, std::optional<double> likelihood);
void frame_write_deleted(xmlTextWriter *writer, const std::vector<gint64> &deleted);

} /* namespace onvif */
