/* SPDX-License-Identifier: MIT */
/* The scene of one channel: sources, their objects and trails. A frame has all objects of its source; an object
 * vanishes when a frame lacks or deletes it, and when its source has been silent. */

import { OBJECT_MS, SOURCES_MAX, SOURCE_MS, TRAIL_MS, TRAIL_POINTS_MAX } from './limits.js';
import { toGround } from './metadata.js';

const COLOURS = 8;
const METRES_PER_DEGREE = 40075017 / 360;

export class Scene {
  constructor() {
    this.sources = new Map();
    this.hidden = new Set();
  }

  clear() {
    this.sources.clear();
  }

  /* @now is a monotonic time in milliseconds. A stream begins with an empty frame of no source. */
  addFrame(frame, now) {
    if (frame.source === '' && frame.objects.length === 0 && !this.sources.has('')) {
      return;
    }
    const source = this.sources.get(frame.source) ?? this.#addSource(frame.source);
    const before = source.objects;
    source.seen = now;
    source.time = frame.time;
    source.objects = new Map();
    for (const { from, to } of frame.renamed) {
      if (before.has(from)) {
        before.set(to, before.get(from));
      }
    }
    for (const object of frame.objects) {
      if (!frame.deleted.includes(object.id)) {
        source.objects.set(object.id, Scene.#follow(source, object, before.get(object.id), now));
      }
    }
    source.isRadar ||= frame.objects.some((object) => object.ground !== undefined);
  }

  /* Removes what is too old. Returns whether anything was. */
  age(now) {
    let changed = false;
    for (const [name, source] of this.sources) {
      if (now - source.seen > SOURCE_MS) {
        this.sources.delete(name);
        changed = true;
      } else if (source.objects.size > 0 && now - source.seen > OBJECT_MS) {
        source.objects.clear();
        changed = true;
      }
    }
    return changed;
  }

  shownSources() {
    return [...this.sources.values()].filter((source) => !this.hidden.has(source.name));
  }

  /* The silent source that has been so for the longest time makes room. */
  #addSource(name) {
    if (this.sources.size >= SOURCES_MAX) {
      const oldest = [...this.sources.values()].reduce((a, b) => (a.seen <= b.seen ? a : b));
      this.sources.delete(oldest.name);
      this.hidden.delete(oldest.name);
    }
    const used = new Set([...this.sources.values()].map((source) => source.colour));
    const free = [...Array(COLOURS).keys()].find((colour) => !used.has(colour));
    const source = {
      name,
      label: name || 'no name',
      colour: free ?? this.sources.size % COLOURS,
      objects: new Map(),
      seen: 0,
      time: '',
      isRadar: false,
    };
    this.sources.set(name, source);
    return source;
  }

  /* The place of an object that has only a location is that from the first location of its source, east and north. */
  static #follow(source, object, before, now) {
    if (object.location !== undefined) {
      source.origin ??= object.location;
      const metresPerLon = METRES_PER_DEGREE * Math.cos(source.origin.y * Math.PI / 180);
      object.ground = toGround((object.location.x - source.origin.x) * metresPerLon,
        (object.location.y - source.origin.y) * METRES_PER_DEGREE);
    }
    const place = object.ground ?? object.centre;
    const trail = (before?.trail ?? []).filter((point) => now - point.time <= TRAIL_MS);
    if (place !== undefined) {
      trail.push({ ...place, time: now });
    }
    object.trail = trail.slice(-TRAIL_POINTS_MAX);
    return object;
  }
}

/* An object's id, class and likelihood as one text. */
export function describe(object) {
  const likelihood = object.class?.likelihood;
  const percent = likelihood === undefined ? '' : ` ${Math.round(Math.min(Math.max(likelihood, 0), 1) * 100)} %`;
  return `${object.id}${object.class ? ` ${object.class.type}` : ''}${percent}`;
}
