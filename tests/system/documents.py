# SPDX-License-Identifier: MIT
"""ONVIF metadata documents: each received document is parsed, and validated if the official schemas are available."""

import datetime
import functools
import os
import pathlib

SCHEMA_DIR = os.environ.get("ONVIF_SCHEMA_DIR")
if SCHEMA_DIR:
    # libxml2 reads this variable once, at its first use.
    os.environ["XML_CATALOG_FILES"] = str(pathlib.Path(SCHEMA_DIR, "catalog.xml").resolve())

from lxml import etree  # noqa: E402

NAMESPACES = {
    "tt": "http://www.onvif.org/ver10/schema",
    "wsnt": "http://docs.oasis-open.org/wsn/b-2",
    "qurt": "urn:tessard:simulated-camera:radar",
}

INITIALIZED = "Initialized"
CHANGED = "Changed"

DIGITAL_INPUT = "tns1:Device/Trigger/DigitalInput"
MOTION_ALARM = "tns1:VideoSource/MotionAlarm"
LINE_CROSSED = "tns1:VideoAnalytics/tnsimcam:LineDetector/Crossed"

# The kinds of documents, by the tag of the one child.
EVENTS, PTZ, SCENE = "Event", "PTZ", "VideoAnalytics"

IDLE, MOVING = "IDLE", "MOVING"

PAN_TILT_SPACES = (
    "http://www.onvif.org/ver10/tptz/PanTiltSpaces/PositionGenericSpace",
    "urn:tessard:simulated-camera:ptz-spaces:pan-tilt-degrees",
    "urn:tessard:simulated-camera:ptz-spaces:pan-tilt-radians",
)
ZOOM_SPACES = (
    "http://www.onvif.org/ver10/tptz/ZoomSpaces/PositionGenericSpace",
    "urn:tessard:simulated-camera:ptz-spaces:zoom-millimetres",
    "urn:tessard:simulated-camera:ptz-spaces:zoom-factor",
)


@functools.cache
def schema():
    path = pathlib.Path(SCHEMA_DIR, "ver10/schema/metadatastream.xsd")
    return etree.XMLSchema(etree.parse(str(path), etree.XMLParser(no_network=True)))


def validate(root):
    """Raises etree.DocumentInvalid, with the reason, for an invalid document."""
    schema().assertValid(root)


def now():
    return datetime.datetime.now(datetime.timezone.utc)


def parse_time(text):
    return datetime.datetime.fromisoformat(text)


def find(element, path):
    """The first match, None without a match or an element."""
    return None if element is None else element.find(path, NAMESPACES)


def find_all(element, path):
    return element.findall(path, NAMESPACES)


def text_of(element, path):
    """The text of the first match, None without a match."""
    found = find(element, path)
    return None if found is None else found.text or ""


def numbers(element, *names):
    """The attributes of these names as numbers, None if there is no element."""
    if element is None:
        return None
    values = tuple(float(element.get(name)) for name in names)
    return values if len(values) > 1 else values[0]


class Event:
    """One notification."""

    def __init__(self, notification):
        message = find(notification, "wsnt:Message/tt:Message")
        self.topic = text_of(notification, "wsnt:Topic")
        self.operation = message.get("PropertyOperation")
        self.time = parse_time(message.get("UtcTime"))
        self.source = self._items(message, "Source")
        self.data = self._items(message, "Data")

    @staticmethod
    def _items(message, part):
        items = find_all(message, f"tt:{part}/tt:SimpleItem")
        return {item.get("Name"): item.get("Value") for item in items}


class PtzStatus:
    """Position and movement of a PTZ head. An absent part is None."""

    def __init__(self, status):
        self.parts = [etree.QName(part).localname for part in status]
        self.time = parse_time(text_of(status, "tt:UtcTime"))
        pan_tilt = find(status, "tt:Position/tt:PanTilt")
        zoom = find(status, "tt:Position/tt:Zoom")
        self.pan_tilt = numbers(pan_tilt, "x", "y")
        self.pan_tilt_space = None if pan_tilt is None else pan_tilt.get("space")
        self.zoom = numbers(zoom, "x")
        self.zoom_space = None if zoom is None else zoom.get("space")
        self.pan_tilt_status = text_of(status, "tt:MoveStatus/tt:PanTilt")
        self.zoom_status = text_of(status, "tt:MoveStatus/tt:Zoom")

    @property
    def is_idle(self):
        return self.pan_tilt_status == self.zoom_status == IDLE


class RadarInfo:
    """Measurements of the radar: degrees, metres and metres per second."""

    def __init__(self, info):
        self.angle, self.range = numbers(find(info, "qurt:PolarCoordinate"), "angle", "range")
        self.speed, self.direction = numbers(find(info, "qurt:Velocity"), "m-s", "angle")
        self.size = numbers(find(info, "qurt:Size"), "m")


class SceneObject:
    """One object of a frame. An absent part is None."""

    def __init__(self, found):
        appearance = find(found, "tt:Appearance")
        shape = find(appearance, "tt:Shape")
        polygon = find(shape, "tt:Polygon")
        behaviour = find(found, "tt:Behaviour")
        radar = find(appearance, "tt:Extension/qurt:RadarObjectInfo")
        self.id = found.get("ObjectId")
        self.box = numbers(find(shape, "tt:BoundingBox"), "left", "top", "right", "bottom")
        self.centre = numbers(find(shape, "tt:CenterOfGravity"), "x", "y")
        self.polygon = None if polygon is None else [numbers(point, "x", "y") for point in polygon]
        self.type = text_of(appearance, "tt:Class/tt:Type")
        self.likelihood = numbers(find(appearance, "tt:Class/tt:Type[@Likelihood]"), "Likelihood")
        self.speed = None if behaviour is None else float(text_of(behaviour, "tt:Speed"))
        self.yaw = None if behaviour is None else numbers(find(behaviour, "tt:Direction"), "yaw")
        self.location = numbers(find(appearance, "tt:GeoLocation"), "lon", "lat", "elevation")
        self.radar = None if radar is None else RadarInfo(radar)


class Frame:
    """The objects in the picture at one time, the deleted objects, and the PTZ status if there is one."""

    def __init__(self, frame):
        status = find(frame, "tt:PTZStatus")
        self.time = parse_time(frame.get("UtcTime"))
        self.source = frame.get("Source")
        self.objects = {found.get("ObjectId"): SceneObject(found) for found in find_all(frame, "tt:Object")}
        self.deleted = [found.get("ObjectId") for found in find_all(frame, "tt:ObjectTree/tt:Delete")]
        self.ptz = None if status is None else PtzStatus(status)


class Document:
    """One tt:MetadataStream."""

    def __init__(self, data):
        self.data = data
        self.root = etree.fromstring(data, etree.XMLParser(no_network=True, resolve_entities=False))
        assert self.root.tag == f"{{{NAMESPACES['tt']}}}MetadataStream"
        if SCHEMA_DIR:
            validate(self.root)

    @property
    def kind(self):
        (child,) = self.root
        return etree.QName(child).localname

    @property
    def events(self):
        return [Event(found) for found in find_all(self.root, "tt:Event/wsnt:NotificationMessage")]

    @property
    def ptz(self):
        return [PtzStatus(found) for found in find_all(self.root, "tt:PTZ/tt:PTZStatus")]

    @property
    def frames(self):
        return [Frame(found) for found in find_all(self.root, "tt:VideoAnalytics/tt:Frame")]
