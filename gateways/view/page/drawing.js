/* SPDX-License-Identifier: MIT */
/* Objects as SVG: one group for each object of each shown source, kept from frame to frame. */

import { makeSvg, reconcile, setAttributes, setText } from './dom.js';
import { describe } from './scene.js';

const DOT_RADIUS = 9;
const LABEL_GAP = 6;

/* The width of a character, times the size of the font. */
const CHARACTER_WIDTH = 0.65;

/* One decimal is finer than what screens show. */
function short(number) {
  return Math.round(number * 10) / 10;
}

function pointsText(points, place) {
  return points.map((point) => place(point)).map(({ x, y }) => `${short(x)},${short(y)}`).join(' ');
}

function makeGroup({ source, object }) {
  const element = makeSvg('g', `object c${source.colour}`);
  element.dataset.source = source.name;
  element.dataset.id = object.id;
  const trail = makeSvg('polyline', 'trail');
  const label = makeSvg('text', 'label');
  element.append(trail, label);
  return { element, trail, label, polygons: new Map(), box: undefined, dot: undefined };
}

/* The group's element of this name; none if @wanted is false. */
function part(group, member, name, wanted) {
  if (wanted && group[member] === undefined) {
    group[member] = makeSvg(name, member);
    group.element.insertBefore(group[member], group.label);
  } else if (!wanted && group[member] !== undefined) {
    group[member].remove();
    group[member] = undefined;
  }
  return group[member];
}

function drawTrail(group, object, place, withTrail) {
  group.trail.setAttribute('points', withTrail ? pointsText(object.trail, place) : '');
}

function drawPolygons(group, polygons, place) {
  const items = polygons.map((points, number) => ({ points, number }));
  group.holder ??= group.element.insertBefore(makeSvg('g'), group.label);
  reconcile(group.holder, group.polygons, items, (item) => item.number,
    () => ({ element: makeSvg('polygon', 'polygon') }),
    (entry, item) => entry.element.setAttribute('points', pointsText(item.points, place)));
}

function drawBox(group, box, place) {
  const element = part(group, 'box', 'rect', box !== undefined);
  if (element !== undefined) {
    const leftTop = place({ x: box.left, y: box.top });
    const rightBottom = place({ x: box.right, y: box.bottom });
    setAttributes(element, {
      x: short(leftTop.x), y: short(leftTop.y),
      width: short(rightBottom.x - leftTop.x), height: short(rightBottom.y - leftTop.y),
    });
  }
}

function drawDot(group, point, place) {
  const element = part(group, 'dot', 'circle', point !== undefined);
  if (element !== undefined) {
    const { x, y } = place(point);
    setAttributes(element, { cx: short(x), cy: short(y), r: DOT_RADIUS });
  }
}

/* The text is to the left where it would be cut off. Sources can have the same objects, so the first one has its texts
 * above the boxes, the second one below, the third one above those of the first, and so on. */
function drawLabel(group, rank, object, { place, width, height, fontSize }) {
  const boxed = object.ground === undefined && object.box !== undefined;
  const point = object.ground ?? object.centre;
  const text = point || boxed ? describe(object) : '';
  setText(group.label, text);
  if (!boxed && !point) {
    return;
  }
  const away = boxed ? Math.floor(rank / 2) * fontSize : 0;
  const leftTop = boxed ? place({ x: object.box.left, y: object.box.top }) : place(point);
  const rightBottom = boxed ? place({ x: object.box.right, y: object.box.bottom }) : leftTop;
  const isLeft = leftTop.x + text.length * CHARACTER_WIDTH * fontSize > width;
  const gap = boxed ? 0 : DOT_RADIUS + LABEL_GAP;
  const y = rank % 2 === 1 ? rightBottom.y + fontSize + away : leftTop.y - LABEL_GAP - away;
  setAttributes(group.label, {
    x: short(isLeft ? Math.min(rightBottom.x, width) - gap : Math.max(leftTop.x, 0) + gap),
    y: short(Math.min(Math.max(boxed ? y : leftTop.y + fontSize / 3, fontSize), height - LABEL_GAP)),
    'text-anchor': isLeft ? 'end' : 'start',
    'font-size': fontSize,
  });
}

/* An object of a radar is a point on its map; one without a box is a point in the picture. */
function drawObject(group, { source, object, rank }, space, withTrails) {
  const inPicture = object.ground === undefined;
  group.element.setAttribute('class', `object c${source.colour}`);
  group.element.dataset.time = source.time;
  drawTrail(group, object, space.place, withTrails);
  drawPolygons(group, inPicture ? object.polygons : [], space.place);
  drawBox(group, inPicture ? object.box : undefined, space.place);
  drawDot(group, inPicture ? (object.box ? undefined : object.centre) : object.ground, space.place);
  drawLabel(group, rank, object, space);
}

/* Draws the objects that @isHere selects. @space tells where a place is in the drawing. */
export class Drawing {
  constructor(parent, isHere) {
    this.layer = parent.appendChild(makeSvg('g'));
    this.groups = new Map();
    this.isHere = isHere;
  }

  /* Returns the number of objects. */
  draw(sources, space, withTrails) {
    const items = sources
      .map((source) => [source, [...source.objects.values()].filter(this.isHere)])
      .filter(([, objects]) => objects.length > 0)
      .flatMap(([source, objects], rank) => objects.map((object) => ({ source, object, rank })));
    reconcile(this.layer, this.groups, items, ({ source, object }) => JSON.stringify([source.name, object.id]),
      makeGroup, (group, item) => drawObject(group, item, space, withTrails));
    return items.length;
  }
}
