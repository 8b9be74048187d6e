"""ONVIF metadata documents: every one that a test receives is parsed, and validated where the official schemas are at
hand."""

import datetime
import functools
import os
import pathlib

SCHEMA_DIR = os.environ.get("ONVIF_SCHEMA_DIR")
if SCHEMA_DIR:
    # libxml2 looks at this once, when it is first used.
    os.environ["XML_CATALOG_FILES"] = str(pathlib.Path(SCHEMA_DIR, "catalog.xml").resolve())

from lxml import etree  # noqa: E402

NAMESPACES = {
    "tt": "http://www.onvif.org/ver10/schema",
    "wsnt": "http://docs.oasis-open.org/wsn/b-2",
}

INITIALIZED = "Initialized"
CHANGED = "Changed"

DIGITAL_INPUT = "tns1:Device/Trigger/DigitalInput"
MOTION_ALARM = "tns1:VideoSource/MotionAlarm"
LINE_CROSSED = "tns1:VideoAnalytics/tnsimcam:LineDetector/Crossed"


@functools.cache
def schema():
    path = pathlib.Path(SCHEMA_DIR, "ver10/schema/metadatastream.xsd")
    return etree.XMLSchema(etree.parse(str(path), etree.XMLParser(no_network=True)))


def validate(root):
    """Raises etree.DocumentInvalid, with what is wrong, for a document that the schemas do not allow."""
    schema().assertValid(root)


class Event:
    """One notification."""

    def __init__(self, notification):
        message = notification.find("wsnt:Message/tt:Message", NAMESPACES)
        self.topic = notification.findtext("wsnt:Topic", None, NAMESPACES)
        self.operation = message.get("PropertyOperation")
        self.time = datetime.datetime.fromisoformat(message.get("UtcTime"))
        self.source = self._items(message, "Source")
        self.data = self._items(message, "Data")

    @staticmethod
    def _items(message, part):
        items = message.findall(f"tt:{part}/tt:SimpleItem", NAMESPACES)
        return {item.get("Name"): item.get("Value") for item in items}


class Document:
    """One tt:MetadataStream."""

    def __init__(self, data):
        self.data = data
        self.root = etree.fromstring(data, etree.XMLParser(no_network=True, resolve_entities=False))
        assert self.root.tag == f"{{{NAMESPACES['tt']}}}MetadataStream"
        if SCHEMA_DIR:
            validate(self.root)

    @property
    def events(self):
        return [Event(found) for found in self.root.findall("tt:Event/wsnt:NotificationMessage", NAMESPACES)]
