/* SPDX-License-Identifier: MIT */
/* The picture with its objects. ONVIF's coordinates go from -1 to 1, left to right and bottom to top, independent of
 * the picture's aspect ratio, which is that of the video if there is one. */

import { byId, setAttributes } from './dom.js';
import { Drawing } from './drawing.js';
import { RETRY_MS } from './limits.js';

const WIDTH = 1600;
const USUAL_RATIO = 16 / 9;

/* Phones show the same drawing smaller, so its text is larger there. */
const TEXT_PIXELS = 12;

export class Picture {
  #channel;
  #ratio;

  constructor() {
    this.element = byId('picture');
    this.overlay = byId('overlay');
    this.video = byId('video');
    this.still = byId('still');
    this.drawing = new Drawing(this.overlay, (object) => object.ground === undefined);
    this.video.addEventListener('error', () => this.#retry());
    this.#setRatio(USUAL_RATIO);
  }

  /* Shows the video of a channel, or none. */
  showVideo(channel) {
    this.#channel = channel;
    this.video.hidden = channel === undefined;
    if (channel === undefined) {
      this.video.removeAttribute('src');
      this.#setRatio(USUAL_RATIO);
    } else {
      this.video.src = `video?channel=${channel}`;
    }
  }

  /* A picture that moves below a scene that does not would be misleading. */
  freeze(frozen) {
    const drawn = frozen && this.video.naturalWidth > 0;
    if (drawn) {
      this.still.width = this.video.naturalWidth;
      this.still.height = this.video.naturalHeight;
      this.still.getContext('2d').drawImage(this.video, 0, 0);
    }
    this.still.hidden = !drawn;
  }

  draw(sources, withTrails) {
    if (this.video.naturalWidth > 0 && this.video.naturalHeight > 0) {
      this.#setRatio(this.video.naturalWidth / this.video.naturalHeight);
    }
    const height = WIDTH / this.#ratio;
    const fontSize = Math.round(TEXT_PIXELS * WIDTH / Math.max(this.overlay.clientWidth, 1));
    const place = ({ x, y }) => ({ x: (x + 1) / 2 * WIDTH, y: (1 - y) / 2 * height });
    const count = this.drawing.draw(sources, { place, width: WIDTH, height, fontSize }, withTrails);
    byId('nothing').hidden = count > 0 || this.#channel !== undefined;
  }

  #setRatio(ratio) {
    if (ratio !== this.#ratio) {
      this.#ratio = ratio;
      this.element.style.aspectRatio = ratio;
      setAttributes(this.overlay, { viewBox: `0 0 ${WIDTH} ${WIDTH / ratio}` });
    }
  }

  #retry() {
    const channel = this.#channel;
    if (channel === undefined) {
      return;
    }
    this.video.hidden = true;
    setTimeout(() => {
      if (this.#channel === channel) {
        this.showVideo(channel);
      }
    }, RETRY_MS);
  }
}
