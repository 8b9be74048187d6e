/* SPDX-License-Identifier: MIT */
/* The page's elements. Texts from outside reach the page only as textContent and as attributes that are not code. */

import { TEXT_MAX } from './limits.js';

const SVG = 'http://www.w3.org/2000/svg';

export function byId(id) {
  return document.getElementById(id);
}

/* Makes an element with a class and a text, both optional. */
export function make(name, className, text) {
  const element = document.createElement(name);
  if (className) {
    element.className = className;
  }
  if (text !== undefined) {
    element.textContent = text;
  }
  return element;
}

export function makeSvg(name, className) {
  const element = document.createElementNS(SVG, name);
  if (className) {
    element.setAttribute('class', className);
  }
  return element;
}

export function setAttributes(element, attributes) {
  for (const [name, value] of Object.entries(attributes)) {
    element.setAttribute(name, value);
  }
}

/* Writes only changes, which spares screen readers and the layout. */
export function setText(element, text) {
  if (element.textContent !== text) {
    element.textContent = text;
  }
}

/* A text that can break behind the separators of topics and items. */
export function makeBreakable(name, className, text) {
  const element = make(name, className);
  for (const part of text.split(/(?<=[/=_])/)) {
    element.append(part, document.createElement('wbr'));
  }
  return element;
}

export function cut(text) {
  const characters = String(text);
  return characters.length > TEXT_MAX ? `${characters.slice(0, TEXT_MAX)}…` : characters;
}

/* The time of day of an ISO 8601 time. */
export function timeOfDay(text) {
  const time = new Date(text);
  return Number.isNaN(time.getTime()) ? '' : time.toLocaleTimeString([], { hour12: false });
}

/* Elements by key: makes those that are missing, removes those that are not used any more, in the order of @items. */
export function reconcile(parent, known, items, keyOf, makeOne, update) {
  const used = new Set();
  let place = parent.firstElementChild;
  for (const item of items) {
    const key = keyOf(item);
    let entry = known.get(key);
    if (entry === undefined) {
      entry = makeOne(item);
      known.set(key, entry);
    }
    used.add(key);
    update(entry, item);
    if (entry.element === place) {
      place = place.nextElementSibling;
    } else {
      parent.insertBefore(entry.element, place);
    }
  }
  for (const [key, entry] of known) {
    if (!used.has(key)) {
      entry.element.remove();
      known.delete(key);
    }
  }
}
