# SPDX-License-Identifier: MIT
"""Metadata documents for a fake daemon, and what a gateway publishes for a document: its MQTT messages, without any
code of the gateway."""

import typing
from xml.sax.saxutils import quoteattr

import jsonform
from broker import Message
from documents import NAMESPACES, etree

DIALECT = "http://www.onvif.org/ver10/tev/topicExpression/ConcreteSet"
NAMES = {"tt": NAMESPACES["tt"], "wsnt": NAMESPACES["wsnt"], "tns1": jsonform.TOPICS}

TIME = "2026-01-02T03:04:05.678Z"
LATER = "2026-01-02T03:04:06.789Z"

ALARM = "tns1:VideoSource/MotionAlarm"
CROSSED = "tns1:RuleEngine/LineDetector/Crossed"

QOS = 1


def document(content):
    spaces = "".join(f' xmlns:{prefix}="{uri}"' for prefix, uri in NAMES.items())
    return f"<tt:MetadataStream{spaces}>{content}</tt:MetadataStream>".encode()


def items(part, values):
    content = "".join(f"<tt:SimpleItem Name={quoteattr(name)} Value={quoteattr(value)}/>"
                      for name, value in values.items())
    return f"<tt:{part}>{content}</tt:{part}>"


def notification(topic, source, data, operation=None, time=TIME):
    of_property = f' PropertyOperation="{operation}"' if operation else ""
    return (f'<wsnt:NotificationMessage><wsnt:Topic Dialect="{DIALECT}">{topic}</wsnt:Topic><wsnt:Message>'
            f'<tt:Message UtcTime="{time}"{of_property}>{items("Source", source)}{items("Data", data)}</tt:Message>'
            "</wsnt:Message></wsnt:NotificationMessage>")


def events(*notifications):
    return document(f"<tt:Event>{''.join(notifications)}</tt:Event>")


def alarm(source, state, operation="Changed", time=TIME):
    return notification(ALARM, {"Source": source}, {"State": state}, operation, time)


def crossing(number):
    return notification(CROSSED, {"Rule": "line"}, {"ObjectId": str(number)})


def frame(source, number=1, time=TIME):
    return document(f'<tt:VideoAnalytics><tt:Frame UtcTime="{time}" Source={quoteattr(source)}>'
                    f'<tt:Object ObjectId="{number}"/></tt:Frame></tt:VideoAnalytics>')


def ptz_status(x):
    return document(f'<tt:PTZ><tt:PTZStatus><tt:Position><tt:PanTilt x="{x}" y="0"/></tt:Position>'
                    f"<tt:UtcTime>{TIME}</tt:UtcTime></tt:PTZStatus></tt:PTZ>")


# What is published


class Published(typing.NamedTuple):
    """A message with its content as jsonform has it; None for an empty one."""

    topic: str
    content: typing.Any
    retain: bool
    qos: int


def published(message):
    """A message that a subscriber got."""
    content = jsonform.parse(message.payload) if message.payload else None
    return Published(message.topic, content, message.retain, message.qos)


def without(text, characters):
    return "".join(character for character in text if character not in characters and character.isprintable())


def event_topic(prefix, topic, values):
    path = f"{prefix}/onvif-ej/{without(topic, '+#')}"
    return path + "/&" + "/".join(without(value, "/+#") for value in values) if values else path


def kind_and_operation(element):
    message = element.find("wsnt:Message/tt:Message", NAMESPACES)
    return etree.QName(element).localname, None if message is None else message.get("PropertyOperation")


def children(root):
    """The frames, PTZ statuses and notifications in their order."""
    return [child for part in root for child in part
            if etree.QName(child).localname in ("Frame", "PTZStatus", "NotificationMessage")]


def expected(root, prefix, profile="1", configuration="1"):
    """The messages of a document, as Published."""
    texts = list(jsonform.convert(root))
    for element, (source, topic, values, content) in zip(children(root), texts, strict=True):
        kind, operation = kind_and_operation(element)
        if kind == "NotificationMessage":
            yield Published(event_topic(prefix, topic, values), None if operation == "Deleted" else content,
                            operation is not None, QOS)
        elif kind == "PTZStatus":
            yield Published(f"{prefix}/onvif-mj/PTZ/{profile}/{configuration}", content, False, QOS)
        elif source:
            yield Published(f"{prefix}/onvif-mj/VideoAnalytics/{profile}/{without(source, '/+#')}", content, False, QOS)
