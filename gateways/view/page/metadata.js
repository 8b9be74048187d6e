/* SPDX-License-Identifier: MIT */
/* Reads the JSON form of metadata. An element is null, a text, or an object with attributes (@name), its text (#text)
 * and its children; children of one name can be an array. Nothing is trusted: what is missing, of another type or not
 * a number counts as absent. */

import { CHANGES_MAX, COORDINATE_MAX, METRES_MAX, OBJECTS_MAX, POINTS_MAX } from './limits.js';
import { cut } from './dom.js';

const RADIANS = Math.PI / 180;
const IDENTITY = { scale: { x: 1, y: 1 }, translate: { x: 0, y: 0 } };

export function parse(text) {
  try {
    return JSON.parse(text);
  } catch {
    return null;
  }
}

function isObject(value) {
  return typeof value === 'object' && value !== null && !Array.isArray(value);
}

/* The child at a path of names. */
function find(element, ...names) {
  let found = element;
  for (const name of names) {
    found = isObject(found) && Object.hasOwn(found, name) ? found[name] : undefined;
  }
  return found;
}

function list(value) {
  if (value === undefined || value === null) {
    return [];
  }
  return Array.isArray(value) ? value : [value];
}

function textOf(value) {
  const text = isObject(value) ? find(value, '#text') : value;
  return ['string', 'number', 'boolean'].includes(typeof text) ? cut(text) : '';
}

/* Attributes of elements that the schema does not know are texts. */
function numberOf(value) {
  const number = typeof value === 'string' && value.trim() !== '' ? Number(value) : value;
  return typeof number === 'number' && Number.isFinite(number) ? number : undefined;
}

function pointOf(element, xName = '@x', yName = '@y') {
  const x = numberOf(find(element, xName));
  const y = numberOf(find(element, yName));
  return x === undefined || y === undefined ? undefined : { x, y };
}

function transformationOf(parent) {
  const element = find(parent, 'Transformation');
  return {
    scale: pointOf(find(element, 'Scale')) ?? IDENTITY.scale,
    translate: pointOf(find(element, 'Translate')) ?? IDENTITY.translate,
  };
}

function apply({ scale, translate }, point) {
  return { x: point.x * scale.x + translate.x, y: point.y * scale.y + translate.y };
}

function combine(outer, inner) {
  return {
    scale: { x: outer.scale.x * inner.scale.x, y: outer.scale.y * inner.scale.y },
    translate: apply(outer, inner.translate),
  };
}

function limit(value, maximum) {
  return Number.isNaN(value) ? 0 : Math.min(Math.max(value, -maximum), maximum);
}

function toPicture(transformation, point) {
  const moved = apply(transformation, point);
  return { x: limit(moved.x, COORDINATE_MAX), y: limit(moved.y, COORDINATE_MAX) };
}

export function toGround(x, y) {
  return { x: limit(x, METRES_MAX), y: limit(y, METRES_MAX) };
}

function boxOf(shape, transformation) {
  const element = find(shape, 'BoundingBox');
  const leftTop = pointOf(element, '@left', '@top');
  const rightBottom = pointOf(element, '@right', '@bottom');
  if (leftTop === undefined || rightBottom === undefined) {
    return undefined;
  }
  const first = toPicture(transformation, leftTop);
  const second = toPicture(transformation, rightBottom);
  return {
    left: Math.min(first.x, second.x),
    right: Math.max(first.x, second.x),
    top: Math.max(first.y, second.y),
    bottom: Math.min(first.y, second.y),
  };
}

function polygonsOf(shape, transformation) {
  let room = POINTS_MAX;
  return list(find(shape, 'Polygon')).slice(0, POINTS_MAX).map((polygon) => {
    const points = list(find(polygon, 'Point')).slice(0, room).map((point) => pointOf(point));
    room -= points.length;
    return points.filter((point) => point !== undefined).map((point) => toPicture(transformation, point));
  }).filter((points) => points.length > 0);
}

function centreOf(shape, box, transformation) {
  const point = pointOf(find(shape, 'CenterOfGravity'));
  if (point !== undefined) {
    return toPicture(transformation, point);
  }
  return box && { x: (box.left + box.right) / 2, y: (box.top + box.bottom) / 2 };
}

/* The most likely class. The older form of classes counts only without the newer one. */
function classOf(appearance) {
  const classes = find(appearance, 'Class');
  const newer = list(find(classes, 'Type'))
    .map((type) => ({ type: textOf(type), likelihood: numberOf(find(type, '@Likelihood')) }));
  const older = list(find(classes, 'ClassCandidate'))
    .map((one) => ({ type: textOf(find(one, 'Type')), likelihood: numberOf(textOf(find(one, 'Likelihood'))) }));
  const candidates = (newer.length > 0 ? newer : older).filter(({ type }) => type !== '');
  return candidates.reduce((best, one) => (
    best === undefined || (one.likelihood ?? 0) > (best.likelihood ?? 0) ? one : best), undefined);
}

/* Radars put it into an element of their own namespace. The angle is clockwise from straight ahead. */
function polarOf(appearance) {
  for (const extension of Object.values(find(appearance, 'Extension') ?? {})) {
    for (const info of list(extension)) {
      for (const [name, element] of Object.entries(isObject(info) ? info : {})) {
        const angle = numberOf(find(element, '@angle'));
        const range = numberOf(find(element, '@range'));
        if (name.replace(/^.*:/, '') === 'PolarCoordinate' && angle !== undefined && range !== undefined) {
          return toGround(range * Math.sin(angle * RADIANS), range * Math.cos(angle * RADIANS));
        }
      }
    }
  }
  return undefined;
}

/* The azimuth is counter-clockwise from the right. */
function sphericalOf(appearance) {
  const element = find(appearance, 'SphericalCoordinate');
  const distance = numberOf(find(element, '@Distance'));
  const azimuth = numberOf(find(element, '@AzimuthAngle'));
  if (distance === undefined || azimuth === undefined) {
    return undefined;
  }
  const along = distance * Math.cos((numberOf(find(element, '@ElevationAngle')) ?? 0) * RADIANS);
  return toGround(along * Math.cos(azimuth * RADIANS), along * Math.sin(azimuth * RADIANS));
}

function idOf(element) {
  return textOf(find(element, '@ObjectId'));
}

function objectOf(element, transformation) {
  const appearance = find(element, 'Appearance');
  const shape = find(appearance, 'Shape');
  const own = combine(transformation, transformationOf(appearance));
  const box = boxOf(shape, own);
  const ground = polarOf(appearance) ?? sphericalOf(appearance);
  return {
    id: idOf(element),
    class: classOf(appearance),
    box,
    polygons: polygonsOf(shape, own),
    centre: centreOf(shape, box, own),
    ground,
    /* An object with a box has its place in the picture. */
    location: box || ground ? undefined : pointOf(find(appearance, 'GeoLocation'), '@lon', '@lat'),
  };
}

/* A frame: its source, time, objects, and what has become of others. */
function frameOf(element) {
  const transformation = transformationOf(element);
  const tree = find(element, 'ObjectTree');
  return {
    source: textOf(find(element, '@Source')),
    time: textOf(find(element, '@UtcTime')),
    objects: list(find(element, 'Object')).slice(0, OBJECTS_MAX).map((one) => objectOf(one, transformation)),
    deleted: list(find(tree, 'Delete')).slice(0, CHANGES_MAX).map(idOf),
    renamed: list(find(tree, 'Rename')).slice(0, CHANGES_MAX)
      .map((one) => ({ from: idOf(find(one, 'from')), to: idOf(find(one, 'to')) })),
    head: find(element, 'PTZStatus') === undefined ? undefined : headOf(find(element, 'PTZStatus')),
  };
}

/* A PTZ status. A part that it does not have is undefined. */
function headOf(status) {
  const panTilt = find(status, 'Position', 'PanTilt');
  const zoom = find(status, 'Position', 'Zoom');
  const moves = ['PanTilt', 'Zoom'].map((name) => textOf(find(status, 'MoveStatus', name)))
    .filter((text) => text !== '');
  return {
    panTilt: pointOf(panTilt),
    panTiltSpace: textOf(find(panTilt, '@space')),
    zoom: numberOf(find(zoom, '@x')),
    zoomSpace: textOf(find(zoom, '@space')),
    moving: moves.length > 0 ? moves.some((text) => text === 'MOVING') : undefined,
  };
}

export function framesOf(message) {
  return list(find(message, 'Frame')).filter(isObject).map(frameOf);
}

export function headsOf(message) {
  return list(find(message, 'PTZStatus')).filter(isObject).map(headOf);
}

/* The items of an event's source or data as one text. */
function itemsOf(items) {
  return cut(Object.entries(isObject(items) ? items : {})
    .map(([name, value]) => `${name}=${list(value).map(textOf).join(',')}`).join(' '));
}

/* The value of a property; with the names of its items if there are several. */
function stateOf(items) {
  const values = Object.values(isObject(items) ? items : {});
  return values.length === 1 ? cut(list(values[0]).map(textOf).join(',')) : itemsOf(items);
}

/* An event; undefined for a message that is none. */
export function eventOf(message) {
  const topic = textOf(find(message, 'topic'));
  if (topic === '') {
    return undefined;
  }
  return {
    topic,
    operation: textOf(find(message, 'operation')),
    key: JSON.stringify([topic, list(find(message, 'source')).map(textOf)]),
    time: textOf(find(message, 'message', 'UtcTime')),
    source: itemsOf(find(message, 'message', 'Source')),
    data: itemsOf(find(message, 'message', 'Data')),
    state: stateOf(find(message, 'message', 'Data')),
  };
}

/* One entry for each channel of each producer. */
export function producersOf(message) {
  return list(find(message, 'producers')).flatMap((producer) => list(find(producer, 'channels')).map((channel) => ({
    name: String(find(producer, 'name') ?? ''),
    niceName: textOf(find(producer, 'nice_name')) || textOf(find(producer, 'name')),
    channel: numberOf(find(channel, 'channel')) ?? 0,
    enabled: find(channel, 'enabled') === true,
    configuration: String(find(channel, 'configuration') ?? ''),
  })));
}
