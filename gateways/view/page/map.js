/* SPDX-License-Identifier: MIT */
/* The objects of radars from above, with the radar at the bottom, or in the middle if objects are behind it. */

import { byId, makeSvg, setAttributes, setText } from './dom.js';
import { Drawing } from './drawing.js';

const SIZE = 800;
const MARGIN = 40;
const RINGS = 4;
const MIN_METRES = 10;
const TEXT_PIXELS = 12;

/* The smallest of 1, 2 and 5 times a power of ten that is not below @value. */
function roundUp(value) {
  const power = 10 ** Math.floor(Math.log10(value));
  return ([1, 2, 5].find((digit) => digit * power >= value) ?? 10) * power;
}

export class RadarMap {
  #extent;

  constructor() {
    this.section = byId('radar');
    this.element = byId('map');
    setAttributes(this.element, { viewBox: `0 0 ${SIZE} ${SIZE}` });
    this.rings = Array.from({ length: RINGS }, () => ({
      circle: this.element.appendChild(makeSvg('circle', 'ring')),
      label: this.element.appendChild(makeSvg('text', 'ring-label')),
    }));
    this.radar = this.element.appendChild(makeSvg('path', 'radar'));
    this.drawing = new Drawing(this.element, (object) => object.ground !== undefined);
    this.clear();
  }

  /* The map only grows while it is shown, so that it does not jump. */
  clear() {
    this.#extent = { beside: MIN_METRES / 2, ahead: MIN_METRES, behind: 0 };
  }

  draw(sources, withTrails) {
    const radars = sources.filter((source) => source.isRadar);
    this.section.hidden = radars.length === 0;
    if (radars.length === 0) {
      this.clear();
    }
    for (const source of radars) {
      for (const { ground } of source.objects.values()) {
        this.#include(ground);
      }
    }
    const space = this.#layOut();
    this.#drawRings(space);
    this.drawing.draw(radars, space, withTrails);
  }

  #include(ground) {
    if (ground !== undefined) {
      const { beside, ahead, behind } = this.#extent;
      this.#extent = {
        beside: Math.max(beside, Math.abs(ground.x)),
        ahead: Math.max(ahead, ground.y),
        behind: Math.max(behind, -ground.y),
      };
    }
  }

  #layOut() {
    const inner = SIZE - 2 * MARGIN;
    const { beside, ahead, behind } = this.#extent;
    const unit = Math.min(inner / 2 / beside, inner / (ahead + behind));
    const origin = { x: SIZE / 2, y: SIZE - MARGIN - behind * unit };
    return {
      unit,
      origin,
      width: SIZE,
      height: SIZE,
      fontSize: Math.round(TEXT_PIXELS * SIZE / Math.max(this.element.clientWidth, 1)),
      place: ({ x, y }) => ({ x: origin.x + x * unit, y: origin.y - y * unit }),
    };
  }

  #drawRings({ unit, origin, fontSize }) {
    const { beside, ahead, behind } = this.#extent;
    const step = roundUp(Math.hypot(beside, Math.max(ahead, behind)) / RINGS);
    this.rings.forEach(({ circle, label }, number) => {
      const metres = step * (number + 1);
      setAttributes(circle, { cx: origin.x, cy: origin.y, r: metres * unit });
      setAttributes(label, { x: origin.x + 6, y: origin.y - metres * unit - 6, 'font-size': fontSize });
      setText(label, origin.y - metres * unit > fontSize ? `${metres} m` : '');
    });
    this.radar.setAttribute('d', `M${origin.x} ${origin.y - 14}l10 20h-20z`);
  }
}
