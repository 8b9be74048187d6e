/* SPDX-License-Identifier: MIT */
#pragma once

#include "geometry.h"

#include <glib.h>
#include <optional>
#include <span>
#include <vector>

/* The identities of objects: which box of a frame is the same object as a box of an earlier frame. */

namespace plugins
{

/* Objects that are followed, seen or not. Those that have not been seen for longest are forgotten for new
 * ones. */
constexpr gsize OBJECT_TRACKER_OBJECTS_MAX = 2048;

/* The common area of two boxes as a part of all their area, from which on they can be one object. */
constexpr double OBJECT_TRACKER_OVERLAP_MIN = 0.3;

/* Frames in a row in which an object is not seen before it is gone. */
constexpr guint OBJECT_TRACKER_PATIENCE_FRAMES = 15;

/* The first id that the tracker gives. Smaller ids are those of other trackers. */
constexpr gint64 OBJECT_TRACKER_FIRST_ID = 1'000'000'000;

enum class Tracking {
  OFF,     /* A box without an id is a new object in each frame. */
  MISSING, /* A box without an id is followed by its overlap. */
  ALL,     /* Every box is followed by its overlap, and ids of other trackers are ignored. */
};

struct TrackedBox {
  onvif::Box box;
  std::optional<guint64> id; /* of another tracker */
  GQuark type;
};

/* Follows the boxes of one stream, on one thread at a time. */
class ObjectTracker
{
public:
  explicit ObjectTracker(Tracking tracking);

  std::vector<gint64> follow(std::span<const TrackedBox> boxes);
  std::vector<gint64> report(gsize max);
  void forget_all();

private:
  struct Object {
    gint64 id;
    std::optional<guint64> given; /* the id of another tracker */
    onvif::Box box;
    GQuark type;
    guint missed;     /* frames since it was seen */
    bool is_reported; /* whether receivers know it */
  };

  struct Match {
    float overlap;
    guint object;
    guint box;
  };

  std::optional<guint64> given_id(const TrackedBox &box) const;
  void see(gsize index, const TrackedBox &box);
  void follow_given(std::span<const TrackedBox> boxes, std::vector<gint64> *ids);
  std::vector<Match> find_matches(std::span<const TrackedBox> boxes, std::span<const gint64> ids) const;
  void follow_overlaps(std::span<const TrackedBox> boxes, std::vector<gint64> *ids);
  void add(const TrackedBox &box, std::optional<guint64> given);
  void add_new(std::span<const TrackedBox> boxes, std::vector<gint64> *ids);
  bool is_gone(const Object &object) const;
  void forget(const Object &object);
  void forget_gone();
  void forget_excess();

  Tracking tracking_;
  gint64 next_id_ = OBJECT_TRACKER_FIRST_ID;
  std::vector<Object> objects_;
  std::vector<gint64> deleted_; /* reported objects that are gone, and not reported as such */
};

} // namespace plugins
