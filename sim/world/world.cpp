#include "world.h"

#include <algorithm>
#include <array>
#include <cmath>

/* Time is cut into laps, one after the other, and every chance is a hash of the seed, the lap's number and
 * what the chance is about. So any moment can be looked at without having lived through those before it.
 *
 * Objects: each lane has one pass a lap. An object enters wholly outside one edge of the picture, moves on a
 * straight line and leaves wholly outside the other; then the lane is empty until the next lap's pass.
 * Inputs: each input toggles exactly once a lap, so its state is the parity of the laps behind it.
 * Head: each of its two drives, that of pan and tilt and that of the zoom, moves once a lap, from where the
 * lap before left it. It aims at one half of its range in even laps and at the other in odd ones, so that
 * every move leads somewhere. */

namespace sim
{

namespace
{

constexpr gint64 SECOND = G_USEC_PER_SEC;

/* Lengths without a common rhythm, so that the lanes and inputs keep drifting against each other. */
constexpr std::array<gint64, 3> LANE_LAPS = {7 * SECOND, 9 * SECOND, 11 * SECOND};
constexpr std::array<gint64, World::INPUT_COUNT> INPUT_LAPS = {SECOND * 23 / 10, SECOND * 37 / 10};
constexpr gint64 PAN_TILT_LAP = 13 * SECOND;
constexpr gint64 ZOOM_LAP = 17 * SECOND;

/* One toggle a lap means two laps at most between two toggles. */
constexpr gint64 LONGEST_QUIET = 2 * *std::min_element(INPUT_LAPS.begin(), INPUT_LAPS.end());

struct Body {
  ObjectType type;
  double width;
  double height;
  gint64 fastest; /* time for one pass */
  gint64 slowest;
};

constexpr std::array<Body, 2> BODIES = {{
    {ObjectType::HUMAN, 0.12, 0.42, SECOND * 7 / 2, SECOND * 5},
    {ObjectType::VEHICLE, 0.44, 0.28, SECOND * 3 / 2, SECOND * 5 / 2},
}};

/* What a chance is about; part of the hash, so that the chances of one lap are independent. */
enum class About : guint64 {
  LINE_PLACE = 1,
  LINE_SLANT,
  BODY,
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

/* A straight way at an even speed. */
struct Move {
  WorldTime start;
  WorldTime end; /* the first moment at which it is over */
  Point from;
  Point to;
};

struct Pass {
  gint64 id;
  const Body *body;
  Direction direction;
  Move move;
};

/* A part of the head that moves on its own. A zoom has one axis only and leaves the other alone. */
struct Drive {
  ChangeType change;
  gint64 lap;
  double speed;
  About start;
  Point (*aim)(guint64 seed, gint64 lap);
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
chance(guint64 seed, About about, guint64 who = 0, gint64 lap = 0)
{
  guint64 hash = mix(seed);
  for (guint64 part : {static_cast<guint64>(about), who, static_cast<guint64>(lap)}) {
    hash = mix(hash ^ part);
  }
  return hash;
}

/* A number from `low` up to but not including `high`. */
gint64
pick(guint64 hash, gint64 low, gint64 high)
{
  return low + static_cast<gint64>(hash % static_cast<guint64>(high - low));
}

double
pick(guint64 hash, double low, double high)
{
  constexpr double STEPS = 1 << 24;
  return low + (high - low) * static_cast<double>(hash >> 40) / STEPS;
}

gint64
lap_at(WorldTime time, gint64 length)
{
  gint64 lap = time / length;
  return time % length < 0 ? lap - 1 : lap;
}

bool
is_under_way(const Move &move, WorldTime time)
{
  return time >= move.start && time < move.end;
}

/* Before its start and after its end, whoever moves stays where they are. */
Point
position_at(const Move &move, WorldTime time)
{
  double part = static_cast<double>(std::clamp(time, move.start, move.end) - move.start) /
                static_cast<double>(move.end - move.start);
  return {std::lerp(move.from.x, move.to.x, part), std::lerp(move.from.y, move.to.y, part)};
}

Pass
pass_of(guint64 seed, guint64 lane, gint64 lap)
{
  const Body &body = BODIES[chance(seed, About::BODY, lane, lap) % BODIES.size()];
  gint64 duration = pick(chance(seed, About::DURATION, lane, lap), body.fastest, body.slowest);
  gint64 latest_start = LANE_LAPS[lane] - duration;
  WorldTime start =
      lap * LANE_LAPS[lane] + pick(chance(seed, About::START, lane, lap), gint64{0}, latest_start);
  bool rightwards = chance(seed, About::DIRECTION, lane, lap) % 2 == 0;
  double edge = 1 + body.width / 2;
  double highest = 1 - body.height / 2;

  return {
      .id = lap * static_cast<gint64>(LANE_LAPS.size()) + static_cast<gint64>(lane) + 1,
      .body = &body,
      .direction = rightwards ? Direction::LEFT_TO_RIGHT : Direction::RIGHT_TO_LEFT,
      .move =
          {
              .start = start,
              .end = start + duration,
              .from = {rightwards ? -edge : edge,
                       pick(chance(seed, About::START_LEVEL, lane, lap), -highest, highest)},
              .to = {rightwards ? edge : -edge,
                     pick(chance(seed, About::END_LEVEL, lane, lap), -highest, highest)},
          },
  };
}

/* Every pass whose lap touches the time from `first` to `last`. */
std::vector<Pass>
passes_during(guint64 seed, WorldTime first, WorldTime last)
{
  std::vector<Pass> passes;
  for (guint64 lane = 0; lane < LANE_LAPS.size(); lane++) {
    gint64 last_lap = lap_at(last, LANE_LAPS[lane]);
    for (gint64 lap = lap_at(first, LANE_LAPS[lane]); lap <= last_lap; lap++) {
      passes.push_back(pass_of(seed, lane, lap));
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
      .type = pass.body->type,
      .centre = position_at(move, time),
      .width = pass.body->width,
      .height = pass.body->height,
      .velocity = {(move.to.x - move.from.x) / seconds, (move.to.y - move.from.y) / seconds},
  };
}

/* Both the move and the line are straight and the line runs through the whole picture, far from its sides, so
 * the object's centre meets it exactly once. */
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
toggle_time(guint64 seed, unsigned input, gint64 lap)
{
  return lap * INPUT_LAPS[input] +
         pick(chance(seed, About::TOGGLE_TIME, input, lap), gint64{0}, INPUT_LAPS[input]);
}

bool
is_odd(gint64 lap)
{
  return lap % 2 != 0;
}

Point
pan_tilt_aim(guint64 seed, gint64 lap)
{
  double sideways = pick(chance(seed, About::PAN, 0, lap), 0.1, 1.0);
  return {is_odd(lap) ? sideways : -sideways, pick(chance(seed, About::TILT, 0, lap), -1.0, 1.0)};
}

Point
zoom_aim(guint64 seed, gint64 lap)
{
  double lowest = is_odd(lap) ? 0.6 : 0.0;
  return {pick(chance(seed, About::ZOOM, 0, lap), lowest, lowest + 0.4), 0};
}

constexpr Drive PAN_TILT_DRIVE = {ChangeType::PAN_TILT, PAN_TILT_LAP, World::PAN_TILT_SPEED,
                                  About::PAN_TILT_START, pan_tilt_aim};
constexpr Drive ZOOM_DRIVE = {ChangeType::ZOOM, ZOOM_LAP, World::ZOOM_SPEED, About::ZOOM_START, zoom_aim};

/* The axis with the longer way moves as fast as it can, and the other arrives with it. */
Move
move_of(guint64 seed, const Drive &drive, gint64 lap)
{
  Point from = drive.aim(seed, lap - 1);
  Point to = drive.aim(seed, lap);
  double way = std::max(std::abs(to.x - from.x), std::abs(to.y - from.y));
  auto duration = static_cast<gint64>(std::ceil(way / drive.speed * SECOND));
  gint64 start = pick(chance(seed, drive.start, 0, lap), gint64{0}, drive.lap - duration);
  return {
      .start = lap * drive.lap + start, .end = lap * drive.lap + start + duration, .from = from, .to = to};
}

void
add_input_changes(const World &world, guint64 seed, WorldTime after, WorldTime until,
                  std::vector<Change> &changes)
{
  for (unsigned input = 0; input < World::INPUT_COUNT; input++) {
    gint64 last_lap = lap_at(until, INPUT_LAPS[input]);
    for (gint64 lap = lap_at(after, INPUT_LAPS[input]); lap <= last_lap; lap++) {
      WorldTime time = toggle_time(seed, input, lap);
      if (time > after && time <= until) {
        changes.push_back(
            {.time = time, .type = ChangeType::INPUT, .input = input, .state = world.input_at(input, time)});
      }
    }
  }
}

/* The alarm can only change where a pass starts or ends, but need not: another object may be under way. */
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

/* No move touches the end of its lap, so one has ended before the next starts. */
void
add_drive_changes(guint64 seed, const Drive &drive, WorldTime after, WorldTime until,
                  std::vector<Change> &changes)
{
  gint64 last_lap = lap_at(until, drive.lap);
  for (gint64 lap = lap_at(after, drive.lap); lap <= last_lap; lap++) {
    Move move = move_of(seed, drive, lap);
    for (WorldTime edge : {move.start, move.end}) {
      if (edge > after && edge <= until) {
        changes.push_back({.time = edge, .type = drive.change, .state = is_under_way(move, edge)});
      }
    }
  }
}

} /* namespace */

/**
 * World:
 * @seed: chooses the story
 *
 * A value without state of its own: copies and objects made with the same seed show the same world, and every
 * function may be called from any thread.
 */
World::World(guint64 seed) : seed_(seed)
{
}

/**
 * World::line:
 *
 * Returns: the line that is watched; it runs from the upper to the lower edge of the picture and never moves
 */
Line
World::line() const
{
  double place = pick(chance(seed_, About::LINE_PLACE), -0.3, 0.3);
  double slant = pick(chance(seed_, About::LINE_SLANT), -0.2, 0.2);
  return {.top = {place + slant / 2, 1}, .bottom = {place - slant / 2, -1}};
}

/**
 * World::objects_at:
 * @time: the moment to look at
 *
 * Returns: every object of which a part is in the picture. An object keeps its id from entering to leaving,
 *   and no other object ever has it.
 */
std::vector<Object>
World::objects_at(WorldTime time) const
{
  std::vector<Object> objects;
  for (const Pass &pass : passes_during(seed_, time, time)) {
    if (is_under_way(pass.move, time)) {
      objects.push_back(object_at(pass, time));
    }
  }
  return objects;
}

/**
 * World::motion_at:
 * @time: the moment to look at
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
 * @time: the moment to look at
 *
 * Returns: the input's logical state
 */
bool
World::input_at(unsigned input, WorldTime time) const
{
  gint64 lap = lap_at(time, INPUT_LAPS[input]);
  bool toggled = time >= toggle_time(seed_, input, lap);
  bool first = chance(seed_, About::FIRST_STATE, input) % 2 != 0;
  return first ^ is_odd(lap) ^ toggled;
}

/**
 * World::ptz_at:
 * @time: the moment to look at
 *
 * Returns: where the PTZ head looks and which of its drives run. A drive runs from the start of a move until
 *   the moment at which its end is reached, and what it drives changes exactly as long.
 */
Ptz
World::ptz_at(WorldTime time) const
{
  Move pan_tilt = move_of(seed_, PAN_TILT_DRIVE, lap_at(time, PAN_TILT_LAP));
  Move zoom = move_of(seed_, ZOOM_DRIVE, lap_at(time, ZOOM_LAP));
  Point direction = position_at(pan_tilt, time);
  return {
      .pan = direction.x,
      .tilt = direction.y,
      .zoom = position_at(zoom, time).x,
      .pan_tilt_moving = is_under_way(pan_tilt, time),
      .zoom_moving = is_under_way(zoom, time),
  };
}

/**
 * World::changes_between:
 * @after: end of what is known already
 * @until: last moment to look at
 *
 * What happens later than @after and no later than @until, so consecutive calls miss and repeat nothing. A
 * change of state is in force at its own time. The work grows with the length of the span.
 *
 * Returns: the changes in the order of their times
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
 * @time: end of what is known already
 *
 * Returns: the time of the first change after @time; there is always one within a few seconds
 */
WorldTime
World::next_change_after(WorldTime time) const
{
  return changes_between(time, time + LONGEST_QUIET).front().time;
}

/**
 * World::first_arrival_between:
 * @after: end of what is known already
 * @until: last moment to look at
 * @only: the one type of objects that counts; all if unset
 *
 * Returns: when an object first enters the picture, later than @after and no later than @until, if one does
 */
std::optional<WorldTime>
World::first_arrival_between(WorldTime after, WorldTime until, std::optional<ObjectType> only) const
{
  std::optional<WorldTime> first;
  for (const Pass &pass : passes_during(seed_, after, until)) {
    WorldTime start = pass.move.start;
    bool counts = start > after && start <= until && (!only.has_value() || pass.body->type == *only);
    if (counts && (!first.has_value() || start < *first)) {
      first = start;
    }
  }
  return first;
}

} /* namespace sim */
