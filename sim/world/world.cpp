/* SPDX-License-Identifier: MIT */
#include "world.h"

#include <algorithm>
#include <array>
#include <cmath>

/* Time is divided into consecutive cycles. Every random value is a hash of the seed, the cycle's number and
 * the value's purpose, so the state at any time is computed without simulating the time before it.
 *
 * Objects: each lane has one pass per cycle. An object starts completely outside one side of the picture,
 * moves in a straight line and ends completely outside the other. The lane is then empty until the next
 * cycle's pass. Inputs: each input toggles once per cycle, so its state is the parity of the number of
 * cycles. Head: each of its two drives, pan-tilt and zoom, moves once per cycle and starts where the previous
 * cycle ended. Even and odd cycles have targets in opposite halves of the range, so that no move has length
 * 0. */

namespace sim
{

namespace
{

constexpr gint64 SECOND = G_USEC_PER_SEC;

/* The lengths have no small common multiple, so that lanes and inputs do not repeat in step. */
constexpr std::array<gint64, 3> LANE_CYCLES = {7 * SECOND, 9 * SECOND, 11 * SECOND};
constexpr std::array<gint64, World::INPUT_COUNT> INPUT_CYCLES = {SECOND * 23 / 10, SECOND * 37 / 10};
constexpr gint64 PAN_TILT_CYCLE = 13 * SECOND;
constexpr gint64 ZOOM_CYCLE = 17 * SECOND;

/* An input toggles once per cycle, so two toggles are at most two cycles apart. */
constexpr gint64 MAX_TIME_WITHOUT_CHANGE = 2 * *std::min_element(INPUT_CYCLES.begin(), INPUT_CYCLES.end());

struct ObjectModel {
  ObjectType type;
  double width;
  double height;
  gint64 min_duration; /* of one pass */
  gint64 max_duration;
};

constexpr std::array<ObjectModel, 2> OBJECT_MODELS = {{
    {ObjectType::HUMAN, 0.12, 0.42, SECOND * 7 / 2, SECOND * 5},
    {ObjectType::VEHICLE, 0.44, 0.28, SECOND * 3 / 2, SECOND * 5 / 2},
}};

/* The purpose of a random value; part of the hash, so that the values of one cycle are independent. */
enum class Purpose : guint64 {
  LINE_PLACE = 1,
  LINE_SLANT,
  MODEL,
  DURATION,
  START,
  DIRECTION,
  START_LEVEL,
  END_LEVEL,
  TOGGLE_TIME,
  FIRST_STATE,
  PAN,
  TILT,
  ZOOM,
  PAN_TILT_START,
  ZOOM_START,
};

/* A straight move at constant speed. */
struct Move {
  WorldTime start;
  WorldTime end; /* the first time at which it is complete */
  Point from;
  Point to;
};

struct Pass {
  gint64 id;
  const ObjectModel *model;
  Direction direction;
  Move move;
};

/* A part of the head that moves independently. The zoom uses the x axis only. */
struct Drive {
  ChangeType change;
  gint64 cycle;
  double speed;
  Purpose start;
  Point (*target)(guint64 seed, gint64 cycle);
};

/* The finaliser of SplitMix64. */
guint64
mix(guint64 value)
{
  value += 0x9e3779b97f4a7c15;
  value = (value ^ (value >> 30)) * 0xbf58476d1ce4e5b9;
  value = (value ^ (value >> 27)) * 0x94d049bb133111eb;
  return value ^ (value >> 31);
}

guint64
random_hash(guint64 seed, Purpose purpose, guint64 subject = 0, gint64 cycle = 0)
{
  guint64 hash = mix(seed);
  for (guint64 part : {static_cast<guint64>(purpose), subject, static_cast<guint64>(cycle)}) {
    hash = mix(hash ^ part);
  }
  return hash;
}

/* A uniformly distributed number from `low` up to but not including `high`. */
gint64
uniform(guint64 hash, gint64 low, gint64 high)
{
  return low + static_cast<gint64>(hash % static_cast<guint64>(high - low));
}

double
uniform(guint64 hash, double low, double high)
{
  constexpr double STEPS = 1 << 24;
  return low + (high - low) * static_cast<double>(hash >> 40) / STEPS;
}

gint64
cycle_at(WorldTime time, gint64 length)
{
  gint64 cycle = time / length;
  return time % length < 0 ? cycle - 1 : cycle;
}

bool
is_active(const Move &move, WorldTime time)
{
  return time >= move.start && time < move.end;
}

/* Before the start of the move the position is its start, after the end its end. */
Point
position_at(const Move &move, WorldTime time)
{
  double part = static_cast<double>(std::clamp(time, move.start, move.end) - move.start) /
                static_cast<double>(move.end - move.start);
  return {std::lerp(move.from.x, move.to.x, part), std::lerp(move.from.y, move.to.y, part)};
}

Pass
pass_of(guint64 seed, guint64 lane, gint64 cycle)
{
  const ObjectModel &model =
      OBJECT_MODELS[random_hash(seed, Purpose::MODEL, lane, cycle) % OBJECT_MODELS.size()];
  gint64 duration =
      uniform(random_hash(seed, Purpose::DURATION, lane, cycle), model.min_duration, model.max_duration);
  gint64 latest_start = LANE_CYCLES[lane] - duration;
  WorldTime start = cycle * LANE_CYCLES[lane] +
                    uniform(random_hash(seed, Purpose::START, lane, cycle), gint64{0}, latest_start);
  bool rightwards = random_hash(seed, Purpose::DIRECTION, lane, cycle) % 2 == 0;
  double edge = 1 + model.width / 2;
  double highest = 1 - model.height / 2;

  return {
      .id = cycle * static_cast<gint64>(LANE_CYCLES.size()) + static_cast<gint64>(lane) + 1,
      .model = &model,
      .direction = rightwards ? Direction::LEFT_TO_RIGHT : Direction::RIGHT_TO_LEFT,
      .move =
          {
              .start = start,
              .end = start + duration,
              .from = {rightwards ? -edge : edge,
                       uniform(random_hash(seed, Purpose::START_LEVEL, lane, cycle), -highest, highest)},
              .to = {rightwards ? edge : -edge,
                     uniform(random_hash(seed, Purpose::END_LEVEL, lane, cycle), -highest, highest)},
          },
  };
}

/* Every pass whose cycle overlaps the time from `first` to `last`. */
std::vector<Pass>
passes_during(guint64 seed, WorldTime first, WorldTime last)
{
  std::vector<Pass> passes;
  for (guint64 lane = 0; lane < LANE_CYCLES.size(); lane++) {
    gint64 last_cycle = cycle_at(last, LANE_CYCLES[lane]);
    for (gint64 cycle = cycle_at(first, LANE_CYCLES[lane]); cycle <= last_cycle; cycle++) {
      passes.push_back(pass_of(seed, lane, cycle));
    }
  }
  return passes;
}

Object
object_at(const Pass &pass, WorldTime time)
{
  const Move &move = pass.move;
  double seconds = static_cast<double>(move.end - move.start) / SECOND;
  return {
      .id = pass.id,
      .type = pass.model->type,
      .centre = position_at(move, time),
      .width = pass.model->width,
      .height = pass.model->height,
      .velocity = {(move.to.x - move.from.x) / seconds, (move.to.y - move.from.y) / seconds},
  };
}

/* Move and line are straight, and the line runs from the top to the bottom of the picture, away from its
 * sides: the object's centre crosses it exactly once. */
WorldTime
crossing_time(const Move &move, const Line &line)
{
  double slant = (line.top.x - line.bottom.x) / (line.top.y - line.bottom.y);
  double line_at_start = line.bottom.x + slant * (move.from.y - line.bottom.y);
  double closing = (move.to.x - move.from.x) - slant * (move.to.y - move.from.y);
  double part = (line_at_start - move.from.x) / closing;
  return move.start + std::llround(part * static_cast<double>(move.end - move.start));
}

WorldTime
toggle_time(guint64 seed, unsigned input, gint64 cycle)
{
  return cycle * INPUT_CYCLES[input] +
         uniform(random_hash(seed, Purpose::TOGGLE_TIME, input, cycle), gint64{0}, INPUT_CYCLES[input]);
}

bool
is_odd(gint64 cycle)
{
  return cycle % 2 != 0;
}

Point
pan_tilt_target(guint64 seed, gint64 cycle)
{
  double sideways = uniform(random_hash(seed, Purpose::PAN, 0, cycle), 0.1, 1.0);
  return {is_odd(cycle) ? sideways : -sideways,
          uniform(random_hash(seed, Purpose::TILT, 0, cycle), -1.0, 1.0)};
}

Point
zoom_target(guint64 seed, gint64 cycle)
{
  double lowest = is_odd(cycle) ? 0.6 : 0.0;
  return {uniform(random_hash(seed, Purpose::ZOOM, 0, cycle), lowest, lowest + 0.4), 0};
}

constexpr Drive PAN_TILT_DRIVE = {ChangeType::PAN_TILT, PAN_TILT_CYCLE, World::PAN_TILT_SPEED,
                                  Purpose::PAN_TILT_START, pan_tilt_target};
constexpr Drive ZOOM_DRIVE = {ChangeType::ZOOM, ZOOM_CYCLE, World::ZOOM_SPEED, Purpose::ZOOM_START,
                              zoom_target};

/* The axis with the longer distance moves at full speed; both arrive at the same time. */
Move
move_of(guint64 seed, const Drive &drive, gint64 cycle)
{
  Point from = drive.target(seed, cycle - 1);
  Point to = drive.target(seed, cycle);
  double distance = std::max(std::abs(to.x - from.x), std::abs(to.y - from.y));
  auto duration = static_cast<gint64>(std::ceil(distance / drive.speed * SECOND));
  gint64 start = uniform(random_hash(seed, drive.start, 0, cycle), gint64{0}, drive.cycle - duration);
  return {.start = cycle * drive.cycle + start,
          .end = cycle * drive.cycle + start + duration,
          .from = from,
          .to = to};
}

void
add_input_changes(const World &world, guint64 seed, WorldTime after, WorldTime until,
                  std::vector<Change> &changes)
{
  for (unsigned input = 0; input < World::INPUT_COUNT; input++) {
    gint64 last_cycle = cycle_at(until, INPUT_CYCLES[input]);
    for (gint64 cycle = cycle_at(after, INPUT_CYCLES[input]); cycle <= last_cycle; cycle++) {
      WorldTime time = toggle_time(seed, input, cycle);
      if (time > after && time <= until) {
        changes.push_back(
            {.time = time, .type = ChangeType::INPUT, .input = input, .state = world.input_at(input, time)});
      }
    }
  }
}

/* The alarm changes only where a pass starts or ends, and not while another object is in the picture. */
void
add_motion_changes(const World &world, const std::vector<Pass> &passes, WorldTime after, WorldTime until,
                   std::vector<Change> &changes)
{
  std::vector<WorldTime> edges;
  for (const Pass &pass : passes) {
    for (WorldTime edge : {pass.move.start, pass.move.end}) {
      if (edge > after && edge <= until) {
        edges.push_back(edge);
      }
    }
  }
  std::sort(edges.begin(), edges.end());
  edges.erase(std::unique(edges.begin(), edges.end()), edges.end());

  for (WorldTime edge : edges) {
    bool state = world.motion_at(edge);
    if (state != world.motion_at(edge - 1)) {
      changes.push_back({.time = edge, .type = ChangeType::MOTION, .state = state});
    }
  }
}

void
add_crossings(const Line &line, const std::vector<Pass> &passes, WorldTime after, WorldTime until,
              std::vector<Change> &changes)
{
  for (const Pass &pass : passes) {
    WorldTime time = crossing_time(pass.move, line);
    if (time > after && time <= until) {
      changes.push_back(
          {.time = time, .type = ChangeType::CROSSING, .object_id = pass.id, .direction = pass.direction});
    }
  }
}

/* A move ends before its cycle does, so moves never overlap. */
void
add_drive_changes(guint64 seed, const Drive &drive, WorldTime after, WorldTime until,
                  std::vector<Change> &changes)
{
  gint64 last_cycle = cycle_at(until, drive.cycle);
  for (gint64 cycle = cycle_at(after, drive.cycle); cycle <= last_cycle; cycle++) {
    Move move = move_of(seed, drive, cycle);
    for (WorldTime edge : {move.start, move.end}) {
      if (edge > after && edge <= until) {
        changes.push_back({.time = edge, .type = drive.change, .state = is_active(move, edge)});
      }
    }
  }
}

} // namespace

/**
 * World:
 * @seed: selects the simulation
 *
 * The world has no state but its seed: all worlds with the same seed are equal. All functions: any thread.
 */
World::World(guint64 seed) : seed_(seed)
{
}

/**
 * World::line:
 *
 * Returns: the line of the line detector, from the upper to the lower edge of the picture; constant
 */
Line
World::line() const
{
  double place = uniform(random_hash(seed_, Purpose::LINE_PLACE), -0.3, 0.3);
  double slant = uniform(random_hash(seed_, Purpose::LINE_SLANT), -0.2, 0.2);
  return {.top = {place + slant / 2, 1}, .bottom = {place - slant / 2, -1}};
}

/**
 * World::objects_at:
 * @time: the time
 *
 * Returns: the objects that are at least partly in the picture. An object keeps its id from entering to
 * leaving; ids are never reused.
 */
std::vector<Object>
World::objects_at(WorldTime time) const
{
  std::vector<Object> objects;
  for (const Pass &pass : passes_during(seed_, time, time)) {
    if (is_active(pass.move, time)) {
      objects.push_back(object_at(pass, time));
    }
  }
  return objects;
}

/**
 * World::motion_at:
 * @time: the time
 *
 * Returns: whether an object moves in the picture
 */
bool
World::motion_at(WorldTime time) const
{
  return !objects_at(time).empty();
}

/**
 * World::input_at:
 * @input: a digital input, below %INPUT_COUNT
 * @time: the time
 *
 * Returns: the input's logical state
 */
bool
World::input_at(unsigned input, WorldTime time) const
{
  gint64 cycle = cycle_at(time, INPUT_CYCLES[input]);
  bool toggled = time >= toggle_time(seed_, input, cycle);
  bool first = random_hash(seed_, Purpose::FIRST_STATE, input) % 2 != 0;
  return first ^ is_odd(cycle) ^ toggled;
}

/**
 * World::ptz_at:
 * @time: the time
 *
 * Returns: the position of the PTZ head and which of its drives run. A drive runs from the start of a move
 * until its end is reached; the position changes only while it runs.
 */
Ptz
World::ptz_at(WorldTime time) const
{
  Move pan_tilt = move_of(seed_, PAN_TILT_DRIVE, cycle_at(time, PAN_TILT_CYCLE));
  Move zoom = move_of(seed_, ZOOM_DRIVE, cycle_at(time, ZOOM_CYCLE));
  Point direction = position_at(pan_tilt, time);
  return {
      .pan = direction.x,
      .tilt = direction.y,
      .zoom = position_at(zoom, time).x,
      .pan_tilt_moving = is_active(pan_tilt, time),
      .zoom_moving = is_active(zoom, time),
  };
}

/**
 * World::changes_between:
 * @after: start of the interval, exclusive
 * @until: end of the interval, inclusive
 *
 * Consecutive intervals neither miss nor repeat a change. A new state applies at the time of its change. The
 * cost is proportional to the length of the interval.
 *
 * Returns: the changes in the interval, in the order of their times
 */
std::vector<Change>
World::changes_between(WorldTime after, WorldTime until) const
{
  std::vector<Change> changes;
  if (until <= after) {
    return changes;
  }

  std::vector<Pass> passes = passes_during(seed_, after, until);
  add_input_changes(*this, seed_, after, until, changes);
  add_motion_changes(*this, passes, after, until, changes);
  add_crossings(line(), passes, after, until, changes);
  add_drive_changes(seed_, PAN_TILT_DRIVE, after, until, changes);
  add_drive_changes(seed_, ZOOM_DRIVE, after, until, changes);
  std::stable_sort(changes.begin(), changes.end(),
                   [](const Change &a, const Change &b) { return a.time < b.time; });
  return changes;
}

/**
 * World::next_change_after:
 * @time: the time
 *
 * Returns: the time of the first change after @time, at most a few seconds later
 */
WorldTime
World::next_change_after(WorldTime time) const
{
  return changes_between(time, time + MAX_TIME_WITHOUT_CHANGE).front().time;
}

/**
 * World::first_arrival_between:
 * @after: start of the interval, exclusive
 * @until: end of the interval, inclusive
 * @only: the only type of objects to consider; all types if unset
 *
 * Returns: the time at which the first object enters the picture in the interval, if one does
 */
std::optional<WorldTime>
World::first_arrival_between(WorldTime after, WorldTime until, std::optional<ObjectType> only) const
{
  std::optional<WorldTime> first;
  for (const Pass &pass : passes_during(seed_, after, until)) {
    WorldTime start = pass.move.start;
    bool counts = start > after && start <= until && (!only.has_value() || pass.model->type == *only);
    if (counts && (!first.has_value() || start < *first)) {
      first = start;
    }
  }
  return first;
}

} // namespace sim
