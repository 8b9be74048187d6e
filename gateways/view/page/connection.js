/* SPDX-License-Identifier: MIT */
/* The server's stream of one channel. The browser repeats a request that fails on its way; one that the server refuses
 * is repeated here. */

import { RETRY_MS } from './limits.js';
import { parse } from './metadata.js';

const MESSAGES = ['state', 'frame', 'ptz', 'event', 'producers'];

export class Connection {
  #stream;
  #timer;

  /* @onMessage gets a message's name and value, @onAway is called when the server is away. */
  constructor(onMessage, onAway) {
    this.onMessage = onMessage;
    this.onAway = onAway;
  }

  open(channel) {
    this.close();
    this.#stream = new EventSource(`stream?channel=${channel}`);
    for (const name of MESSAGES) {
      this.#stream.addEventListener(name, ({ data }) => {
        const value = parse(data);
        if (value !== null) {
          this.onMessage(name, value);
        }
      });
    }
    this.#stream.addEventListener('error', ({ target }) => {
      this.onAway();
      if (target.readyState === EventSource.CLOSED) {
        this.#timer = setTimeout(() => this.open(channel), RETRY_MS);
      }
    });
  }

  close() {
    clearTimeout(this.#timer);
    this.#stream?.close();
  }
}
