/* SPDX-License-Identifier: MIT */
/* The sources, each with its colour, and the table of the shown objects, which says in words what the drawings show. */

import { byId, make, reconcile, setText } from './dom.js';
import { ROWS_MAX } from './limits.js';

function placeOf(object) {
  if (object.ground !== undefined) {
    const side = object.ground.x < 0 ? 'left' : 'right';
    return `${object.ground.y.toFixed(1)} m ahead, ${Math.abs(object.ground.x).toFixed(1)} m ${side}`;
  }
  return object.centre === undefined ? '' : `${object.centre.x.toFixed(2)}, ${object.centre.y.toFixed(2)}`;
}

function classOf(object) {
  const likelihood = object.class?.likelihood;
  const percent = likelihood === undefined ? '' : ` ${Math.round(Math.min(Math.max(likelihood, 0), 1) * 100)} %`;
  return `${object.class?.type ?? ''}${percent}`;
}

function makeRow({ source, object }) {
  const element = make('tr');
  element.dataset.source = source.name;
  element.dataset.id = object.id;
  const cells = Array.from({ length: 4 }, () => element.appendChild(make('td')));
  return { element, cells };
}

export class Objects {
  #rows = new Map();
  #sources = new Map();

  draw(scene) {
    const shown = scene.shownSources().flatMap((source) => (
      [...source.objects.values()].map((object) => ({ source, object }))));
    byId('objects').hidden = shown.length === 0;
    reconcile(byId('objects-rows'), this.#rows, shown.slice(0, ROWS_MAX),
      ({ source, object }) => JSON.stringify([source.name, object.id]), makeRow, (row, { source, object }) => {
        [source.label, object.id, classOf(object), placeOf(object)].forEach((text, number) => {
          setText(row.cells[number], text);
        });
      });
  }

  drawSources(scene, onToggle) {
    const sources = [...scene.sources.values()];
    byId('legend').hidden = sources.length === 0;
    reconcile(byId('sources'), this.#sources, sources, (source) => source.name,
      (source) => Objects.#makeSource(scene, source, onToggle), (entry, source) => {
        entry.element.className = `c${source.colour}`;
        setText(entry.name, source.label);
        setText(entry.count, String(source.objects.size));
      });
  }

  static #makeSource(scene, source, onToggle) {
    const element = make('li');
    const label = element.appendChild(make('label'));
    const box = make('input');
    const name = make('span');
    const count = make('span', 'count');
    box.type = 'checkbox';
    box.checked = !scene.hidden.has(source.name);
    box.addEventListener('change', () => {
      scene.hidden[box.checked ? 'delete' : 'add'](source.name);
      onToggle();
    });
    label.append(box, make('span', 'swatch'), name, ' ', count);
    return { element, name, count };
  }
}
