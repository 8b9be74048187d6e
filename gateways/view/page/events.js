/* SPDX-License-Identifier: MIT */
/* Events: the newest ones, and the present state of each property. */

import { byId, make, makeBreakable, reconcile, setText, timeOfDay } from './dom.js';
import { EVENTS_MAX, PROPERTIES_MAX } from './limits.js';

function makeLine({ event }) {
  const element = make('li');
  const time = make('time', '', timeOfDay(event.time));
  time.dateTime = event.time;
  element.append(time, ' ', makeBreakable('strong', '', event.topic), ' ', makeBreakable('span', 'data', event.data),
    ' ', makeBreakable('span', 'source', event.source));
  if (event.operation === 'Deleted') {
    element.append(' ', make('em', '', 'deleted'));
  }
  return { element };
}

function makeRow(event) {
  const element = make('tr');
  const property = element.appendChild(make('th'));
  property.scope = 'row';
  property.append(makeBreakable('span', 'topic', event.topic), ' ', makeBreakable('span', 'source', event.source));
  return { element, state: element.appendChild(make('td')), time: element.appendChild(make('td')) };
}

export class Events {
  #lines = [];
  #number = 0;
  #properties = new Map();
  #knownLines = new Map();
  #knownRows = new Map();

  clear() {
    this.#properties.clear();
  }

  /* A property's first state is no news. */
  add(event) {
    if (event.operation !== 'Initialized') {
      this.#lines.unshift({ event, number: this.#number++ });
      this.#lines.splice(EVENTS_MAX);
    }
    if (event.operation === '') {
      return;
    }
    this.#properties.delete(event.key);
    if (event.operation !== 'Deleted') {
      this.#properties.set(event.key, event);
    }
    if (this.#properties.size > PROPERTIES_MAX) {
      this.#properties.delete(this.#properties.keys().next().value);
    }
  }

  draw() {
    reconcile(byId('ticker'), this.#knownLines, this.#lines, (line) => line.number, makeLine, () => {});
    const states = [...this.#properties.values()].sort((a, b) => (a.key < b.key ? -1 : 1));
    byId('states').hidden = states.length === 0;
    reconcile(byId('states-rows'), this.#knownRows, states, (event) => event.key, makeRow, (row, event) => {
      setText(row.state, event.state);
      setText(row.time, timeOfDay(event.time));
    });
  }
}
