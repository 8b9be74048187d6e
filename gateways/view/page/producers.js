/* SPDX-License-Identifier: MIT */
/* The producers, each with a switch for each of its channels. A switch shows the daemon's state, which follows a
 * successful change as an event. */

import { byId, cut, make, reconcile, setText } from './dom.js';
import { SWITCHES_MAX } from './limits.js';

const TOKEN = 'tessard-view-token';

/* The token of the printed address leaves the address bar, so that it is in no bookmark or screenshot. */
function takeToken() {
  const token = new URLSearchParams(location.hash.slice(1)).get('token');
  if (token !== null) {
    sessionStorage.setItem(TOKEN, token);
    history.replaceState(null, '', location.pathname + location.search);
  }
  return sessionStorage.getItem(TOKEN);
}

async function errorOf(response) {
  try {
    return cut((await response.json()).error);
  } catch {
    return `The viewer replied with status ${response.status}.`;
  }
}

export class Producers {
  #token = takeToken();
  #known = new Map();
  #entries = [];
  #available = false;
  #control = false;

  setControl(control) {
    this.#control = control;
    this.draw();
  }

  update(entries, available) {
    this.#entries = entries.slice(0, SWITCHES_MAX);
    this.#available = available;
    this.draw();
  }

  draw() {
    setText(byId('producers-note'), this.#note());
    const canSwitch = this.#available && this.#control && this.#token !== null;
    reconcile(byId('producers-list'), this.#known, this.#entries,
      ({ name, channel }) => JSON.stringify([name, channel]), (entry) => this.#makeRow(entry), (row, entry) => {
        const configuration = entry.enabled && entry.configuration ? `, ${cut(entry.configuration)}` : '';
        row.entry = entry;
        setText(row.name, entry.niceName);
        setText(row.where, `channel ${entry.channel}${configuration}`);
        setText(row.control, entry.enabled ? 'On' : 'Off');
        row.control.setAttribute('aria-checked', String(entry.enabled));
        row.control.disabled = !canSwitch;
      });
  }

  #note() {
    if (!this.#available) {
      return 'The daemon is not on the bus.';
    }
    if (!this.#control) {
      return 'Read only: tessard-view was started without --control.';
    }
    return this.#token === null ? 'Read only: open the whole address that tessard-view printed.' : '';
  }

  #makeRow(entry) {
    const element = make('li');
    const text = element.appendChild(make('span', 'text'));
    const name = text.appendChild(make('span', 'name'));
    const where = make('span', 'where');
    text.append(' ', where);
    const control = element.appendChild(make('button', 'switch'));
    control.type = 'button';
    control.setAttribute('role', 'switch');
    control.setAttribute('aria-label', `${entry.niceName}, channel ${entry.channel}`);
    control.dataset.producer = entry.name;
    control.dataset.channel = entry.channel;
    const row = { element, name, where, control, entry };
    control.addEventListener('click', () => this.#toggle(row));
    return row;
  }

  /* The button keeps the focus while the call is in progress, so it is not disabled. */
  async #toggle(row) {
    if (row.control.getAttribute('aria-busy') === 'true') {
      return;
    }
    row.control.setAttribute('aria-busy', 'true');
    setText(byId('producers-error'), '');
    const error = await this.#change(row.entry, !row.entry.enabled);
    row.control.removeAttribute('aria-busy');
    if (error !== undefined) {
      setText(byId('producers-error'), `${row.entry.niceName}, channel ${row.entry.channel}: ${error}`);
    }
  }

  /* Returns the text of an error. */
  async #change({ name, channel, configuration }, enabled) {
    const change = { producer: name, channel, enabled };
    if (enabled && configuration !== '') {
      change.configuration = configuration;
    }
    try {
      const response = await fetch('producers', {
        method: 'POST',
        headers: { 'Content-Type': 'application/json', Authorization: `Bearer ${this.#token}` },
        body: JSON.stringify(change),
      });
      return response.ok ? undefined : await errorOf(response);
    } catch {
      return 'The viewer does not reply.';
    }
  }
}
