/* SPDX-License-Identifier: MIT */
/* The page: messages change the scene, the head, the events and the producers; a timer of frames draws what has
 * changed, unless the page is paused. */

import { Connection } from './connection.js';
import { byId, make, setText } from './dom.js';
import { Events } from './events.js';
import { Head } from './head.js';
import { DRAW_MS, DRAW_REDUCED_MS, RETRY_MS, TABLE_MS } from './limits.js';
import { RadarMap } from './map.js';
import { eventOf, framesOf, headsOf, producersOf } from './metadata.js';
import { Objects } from './objects.js';
import { Picture } from './picture.js';
import { Producers } from './producers.js';
import { Scene } from './scene.js';

const STATES = {
  connecting: 'Connecting…',
  live: 'Live',
  'daemon-away': 'Waiting for the daemon…',
  'server-away': 'The viewer is away, reconnecting…',
};

class View {
  #scene = new Scene();
  #picture = new Picture();
  #map = new RadarMap();
  #head = new Head();
  #events = new Events();
  #objects = new Objects();
  #producers = new Producers();
  #connection = new Connection((name, value) => this.#take(name, value), () => this.#forget('server-away'));
  #reducedMotion = matchMedia('(prefers-reduced-motion: reduce)');
  #changed = true;
  #paused = false;
  #drawnAt = -Infinity;
  #tablesAt = -Infinity;
  #info = { channels: [], video: [] };

  start() {
    byId('channel').addEventListener('change', () => this.#selectChannel());
    byId('pause').addEventListener('click', () => this.#pause(!this.#paused));
    document.addEventListener('keydown', (event) => this.#onKey(event));
    this.#loadInfo();
    this.#drawNext();
  }

  async #loadInfo() {
    try {
      const response = await fetch('info');
      this.#info = await response.json();
    } catch {
      this.#setState('server-away');
      setTimeout(() => this.#loadInfo(), RETRY_MS);
      return;
    }
    byId('channel').replaceChildren(...this.#info.channels.map((channel) => {
      const option = make('option', '', String(channel));
      option.value = channel;
      return option;
    }));
    this.#producers.setControl(this.#info.control === true);
    this.#selectChannel();
  }

  #selectChannel() {
    const channel = Number(byId('channel').value);
    this.#forget('connecting');
    this.#picture.showVideo(this.#info.video.includes(channel) ? channel : undefined);
    this.#connection.open(channel);
  }

  #setState(state) {
    const element = byId('connection');
    setText(element, STATES[state]);
    element.dataset.state = state;
  }

  #forget(state) {
    this.#setState(state);
    this.#scene.clear();
    this.#map.clear();
    this.#head.clear();
    this.#events.clear();
    this.#changed = true;
  }

  #take(name, value) {
    const handlers = {
      state: () => (value.connected === true ? this.#setState('live') : this.#forget('daemon-away')),
      frame: () => framesOf(value).forEach((frame) => this.#takeFrame(frame)),
      ptz: () => headsOf(value).forEach((status) => this.#head.update(status)),
      event: () => this.#takeEvent(eventOf(value)),
      producers: () => this.#producers.update(producersOf(value), value.available === true),
    };
    handlers[name]();
    this.#changed = true;
  }

  #takeFrame(frame) {
    this.#scene.addFrame(frame, performance.now());
    if (frame.head !== undefined) {
      this.#head.update(frame.head);
    }
  }

  #takeEvent(event) {
    if (event !== undefined) {
      this.#events.add(event);
    }
  }

  /* Keys with modifiers are the browser's. */
  #onKey(event) {
    const isTyped = ['SELECT', 'INPUT', 'TEXTAREA'].includes(event.target.tagName) && event.target.type !== 'checkbox';
    if (event.key === 'p' && !event.ctrlKey && !event.altKey && !event.metaKey && !event.repeat && !isTyped) {
      this.#pause(!this.#paused);
    }
  }

  #pause(paused) {
    this.#paused = paused;
    byId('pause').setAttribute('aria-pressed', String(paused));
    this.#picture.freeze(paused);
    this.#changed = true;
  }

  #drawNext() {
    requestAnimationFrame((now) => {
      this.#draw(now);
      this.#drawNext();
    });
  }

  #draw(now) {
    const isReduced = this.#reducedMotion.matches;
    if (this.#paused || now - this.#drawnAt < (isReduced ? DRAW_REDUCED_MS : DRAW_MS)) {
      return;
    }
    this.#changed ||= this.#scene.age(performance.now());
    if (this.#changed) {
      this.#drawScene(!isReduced);
      this.#changed = false;
      this.#drawnAt = now;
    }
    if (now - this.#tablesAt >= TABLE_MS) {
      this.#objects.draw(this.#scene);
      this.#tablesAt = now;
    }
  }

  #drawScene(withTrails) {
    const sources = this.#scene.shownSources();
    this.#picture.draw(sources, withTrails);
    this.#map.draw(sources, withTrails);
    this.#head.draw();
    this.#events.draw();
    this.#objects.drawSources(this.#scene, () => {
      this.#changed = true;
    });
  }
}

new View().start();
