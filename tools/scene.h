/* SPDX-License-Identifier: MIT */
#pragma once

#include <glib.h>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

/* The scene of one metadata document. All functions can be called on any thread. */

/**
 * SCENE_MAX_DOCUMENT_BYTES:
 *
 * The length of a document in bytes; a longer one is refused.
 */
#define SCENE_MAX_DOCUMENT_BYTES (8 * 1024 * 1024)

/**
 * SCENE_MAX_FRAMES:
 *
 * Frames of a document; the others are left out.
 */
#define SCENE_MAX_FRAMES 64

/**
 * SCENE_MAX_OBJECTS:
 *
 * Objects of all frames; the others are counted and left out.
 */
#define SCENE_MAX_OBJECTS 1024

/**
 * SCENE_MAX_POINTS:
 *
 * Points of all polygons of an object; the others are left out.
 */
#define SCENE_MAX_POINTS 1024

/**
 * SCENE_MAX_TEXT_CHARACTERS:
 *
 * Characters of an id, a class or a source; the rest is cut off.
 */
#define SCENE_MAX_TEXT_CHARACTERS 64

/**
 * SCENE_MAX_COORDINATE:
 *
 * The largest coordinate; larger ones are reduced to it. The picture ends at 1.
 */
#define SCENE_MAX_COORDINATE 100

/**
 * SCENE_MAX_METRES:
 *
 * The largest distance on the radar's map, in metres; larger ones are reduced to it.
 */
#define SCENE_MAX_METRES 100000

/* In the picture: x from -1 (left) to 1 (right), y from -1 (bottom) to 1 (top). On the ground: metres to the
 * right of the radar, and ahead of it. */
struct ScenePoint {
  double x;
  double y;
};

struct SceneBox {
  ScenePoint left_top;
  ScenePoint right_bottom;
};

struct SceneObject {
  std::string id;
  std::string type; /* the most likely class; empty if it has none */
  std::optional<double> likelihood;
  std::optional<SceneBox> box;
  std::optional<ScenePoint> centre;
  std::vector<std::vector<ScenePoint>> polygons;
  std::optional<ScenePoint> ground; /* of an object of a radar */
};

struct SceneFrame {
  std::string source; /* empty if it names none */
  std::string time;
  std::vector<SceneObject> objects;
};

struct Scene {
  std::vector<SceneFrame> frames;
  gsize objects = 0;  /* of all frames */
  gsize left_out = 0; /* objects beyond the limit */
};

std::optional<Scene> scene_read(std::string_view document, GError **error);
