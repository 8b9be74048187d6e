/* SPDX-License-Identifier: MIT */
/* The camera head: where it looks, and whether it moves. */

import { byId, setAttributes, setText } from './dom.js';

/* The pan and the tilt at the edges of the little picture. */
const SPACES = [
  { name: /degrees/i, pan: 180, tilt: 90 },
  { name: /radians/i, pan: Math.PI, tilt: Math.PI / 2 },
];
const GENERIC = { pan: 1, tilt: 1 };

const FRAME = { x: 85, y: 56, width: 156, height: 98 };
const ZOOM = { bottom: 108, height: 104 };

function limit(value, low, high) {
  return Math.min(Math.max(value, low), high);
}

function show(value) {
  return value === undefined ? '–' : value.toFixed(2);
}

export class Head {
  #status;

  clear() {
    this.#status = undefined;
  }

  /* Messages can have the position alone, or the movement. */
  update(status) {
    const known = Object.entries(status).filter(([, value]) => value !== undefined && value !== '');
    this.#status = { ...this.#status, ...Object.fromEntries(known) };
  }

  draw() {
    const status = this.#status ?? {};
    byId('head').hidden = this.#status === undefined;
    this.#drawDirection(status);
    this.#drawZoom(status);
    setText(byId('head-pan'), show(status.panTilt?.x));
    setText(byId('head-tilt'), show(status.panTilt?.y));
    setText(byId('head-zoom-value'), show(status.zoom));
    setText(byId('head-state'), status.moving === undefined ? '–' : status.moving ? 'moving' : 'idle');
    byId('head').dataset.moving = String(status.moving === true);
  }

  #drawDirection({ panTilt, panTiltSpace }) {
    const { pan, tilt } = SPACES.find(({ name }) => name.test(panTiltSpace ?? '')) ?? GENERIC;
    setAttributes(byId('head-direction'), {
      cx: FRAME.x + limit((panTilt?.x ?? 0) / pan, -1, 1) * FRAME.width / 2,
      cy: FRAME.y - limit((panTilt?.y ?? 0) / tilt, -1, 1) * FRAME.height / 2,
    });
  }

  /* Only the generic space has known ends. */
  #drawZoom({ zoom, zoomSpace }) {
    const isGeneric = !zoomSpace || zoomSpace.endsWith('/PositionGenericSpace');
    const height = isGeneric ? limit(zoom ?? 0, 0, 1) * ZOOM.height : 0;
    setAttributes(byId('head-zoom'), { y: ZOOM.bottom - height, height });
  }
}
