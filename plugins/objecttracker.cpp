/* SPDX-License-Identifier: MIT */
#include "objecttracker.h"

#include <algorithm>
#include <unordered_map>

/* A frame in three steps: boxes with the id of another tracker are found by this id; the others are compared
 * with the objects that have none and are of the same type, and those that overlap most become pairs first;
 * what is left is new.
 *
 * Ids never collide: another tracker's id is kept below OBJECT_TRACKER_FIRST_ID, and the own ids, each used
 * once, begin there. A higher id of another tracker is replaced by one of the own ids for as long as its
 * object is there.
 *
 * Frames and reports are independent, because not every frame is reported. An object that comes and goes
 * between two reports is in none of them. */

namespace plugins
{

namespace
{

/* Boxes that are not matched yet. */
constexpr gint64 NO_ID = -1;

double
area(const onvif::Box &box)
{
  return std::max(box.right - box.left, 0.0) * std::max(box.top - box.bottom, 0.0);
}

/* The common area of two boxes as a part of all their area. */
double
overlap(const onvif::Box &one, const onvif::Box &other)
{
  double common = area({.left = std::max(one.left, other.left),
                        .top = std::min(one.top, other.top),
                        .right = std::min(one.right, other.right),
                        .bottom = std::max(one.bottom, other.bottom)});
  return common > 0 ? common / (area(one) + area(other) - common) : 0;
}

} // namespace

/**
 * ObjectTracker:
 * @tracking: which boxes are followed by their overlap
 */
ObjectTracker::ObjectTracker(Tracking tracking) : tracking_(tracking)
{
}

std::optional<guint64>
ObjectTracker::given_id(const TrackedBox &box) const
{
  return tracking_ == Tracking::ALL ? std::nullopt : box.id;
}

void
ObjectTracker::see(gsize index, const TrackedBox &box)
{
  objects_[index].box = box.box;
  objects_[index].type = box.type;
  objects_[index].missed = 0;
}

/* Of two boxes with the same id, the second is as one without. */
void
ObjectTracker::follow_given(std::span<const TrackedBox> boxes, std::vector<gint64> *ids)
{
  std::unordered_map<guint64, gsize> known;
  for (gsize i = 0; i < objects_.size(); i++) {
    if (objects_[i].given.has_value()) {
      known.emplace(*objects_[i].given, i);
    }
  }
  for (gsize i = 0; i < boxes.size(); i++) {
    std::optional<guint64> given = given_id(boxes[i]);
    if (!given.has_value()) {
      continue;
    }
    auto [object, is_new] = known.emplace(*given, objects_.size());
    if (is_new) {
      add(boxes[i], given);
    } else if (objects_[object->second].missed > 0) {
      see(object->second, boxes[i]);
    } else {
      continue;
    }
    (*ids)[i] = objects_[object->second].id;
  }
}

/* Returns: all pairs that can be the same object, the best first */
std::vector<ObjectTracker::Match>
ObjectTracker::find_matches(std::span<const TrackedBox> boxes, std::span<const gint64> ids) const
{
  std::vector<Match> matches;
  for (guint i = 0; i < boxes.size(); i++) {
    for (guint k = 0; ids[i] == NO_ID && k < objects_.size(); k++) {
      if (objects_[k].given.has_value() || objects_[k].type != boxes[i].type) {
        continue;
      }
      double common = overlap(objects_[k].box, boxes[i].box);
      if (common >= OBJECT_TRACKER_OVERLAP_MIN) {
        matches.push_back({.overlap = static_cast<float>(common), .object = k, .box = i});
      }
    }
  }
  std::stable_sort(matches.begin(), matches.end(),
                   [](const Match &one, const Match &other) { return one.overlap > other.overlap; });
  return matches;
}

void
ObjectTracker::follow_overlaps(std::span<const TrackedBox> boxes, std::vector<gint64> *ids)
{
  for (const Match &match : find_matches(boxes, *ids)) {
    gint64 &id = (*ids)[match.box];
    if (id == NO_ID && objects_[match.object].missed > 0) {
      see(match.object, boxes[match.box]);
      id = objects_[match.object].id;
    }
  }
}

/* An id of another tracker that comes back before it was reported as deleted is still known. */
void
ObjectTracker::add(const TrackedBox &box, std::optional<guint64> given)
{
  bool is_kept = given.has_value() && *given < static_cast<guint64>(OBJECT_TRACKER_FIRST_ID);
  gint64 id = is_kept ? static_cast<gint64>(*given) : next_id_++;
  bool is_reported = std::erase(deleted_, id) > 0;
  objects_.push_back(
      {.id = id, .given = given, .box = box.box, .type = box.type, .missed = 0, .is_reported = is_reported});
}

void
ObjectTracker::add_new(std::span<const TrackedBox> boxes, std::vector<gint64> *ids)
{
  for (gsize i = 0; i < boxes.size(); i++) {
    if ((*ids)[i] == NO_ID) {
      add(boxes[i], std::nullopt);
      (*ids)[i] = objects_.back().id;
    }
  }
}

bool
ObjectTracker::is_gone(const Object &object) const
{
  bool is_followed = object.given.has_value() || tracking_ != Tracking::OFF;
  return object.missed > (is_followed ? OBJECT_TRACKER_PATIENCE_FRAMES : 0);
}

void
ObjectTracker::forget(const Object &object)
{
  if (object.is_reported) {
    deleted_.push_back(object.id);
  }
}

void
ObjectTracker::forget_gone()
{
  std::erase_if(objects_, [this](const Object &object) {
    bool gone = is_gone(object);
    if (gone) {
      forget(object);
    }
    return gone;
  });
}

void
ObjectTracker::forget_excess()
{
  if (objects_.size() <= OBJECT_TRACKER_OBJECTS_MAX) {
    return;
  }
  std::stable_sort(objects_.begin(), objects_.end(),
                   [](const Object &one, const Object &other) { return one.missed < other.missed; });
  for (gsize i = OBJECT_TRACKER_OBJECTS_MAX; i < objects_.size(); i++) {
    forget(objects_[i]);
  }
  objects_.resize(OBJECT_TRACKER_OBJECTS_MAX);
}

/**
 * ObjectTracker::follow:
 * @boxes: the boxes of the next frame, at most %OBJECT_TRACKER_OBJECTS_MAX
 *
 * Returns: the id of each box, all different
 */
std::vector<gint64>
ObjectTracker::follow(std::span<const TrackedBox> boxes)
{
  std::vector<gint64> ids(boxes.size(), NO_ID);
  for (Object &object : objects_) {
    object.missed++;
  }
  follow_given(boxes, &ids);
  if (tracking_ != Tracking::OFF) {
    follow_overlaps(boxes, &ids);
  }
  add_new(boxes, &ids);
  forget_gone();
  forget_excess();
  return ids;
}

/**
 * ObjectTracker::report:
 * @max: the largest number of deleted objects
 *
 * Called for a frame that is sent, after follow(): from now on receivers know its objects.
 *
 * Returns: the ids of known objects that have gone, each of them once; what exceeds @max is in the next
 * report
 */
std::vector<gint64>
ObjectTracker::report(gsize max)
{
  for (Object &object : objects_) {
    object.is_reported = object.is_reported || object.missed == 0;
  }
  auto end = deleted_.begin() + static_cast<gssize>(std::min(max, deleted_.size()));
  std::vector<gint64> reported(deleted_.begin(), end);
  deleted_.erase(deleted_.begin(), end);
  return reported;
}

/**
 * ObjectTracker::forget_all:
 *
 * All objects are gone: the stream has ended.
 */
void
ObjectTracker::forget_all()
{
  for (const Object &object : objects_) {
    forget(object);
  }
  objects_.clear();
}

} // namespace plugins
