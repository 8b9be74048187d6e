# SPDX-License-Identifier: MIT
"""ONVIF's JSON forms of metadata documents, by the official schemas: which elements repeat and which texts are numbers
or logical values is read from there. Objects are lists of pairs, so that the order of members counts; a number is its
text."""

import functools
import json
import pathlib
import re

from documents import NAMESPACES, SCHEMA_DIR, etree

XS = "{http://www.w3.org/2001/XMLSchema}"
TT = NAMESPACES["tt"]
TOPICS = "http://www.onvif.org/ver10/topics"
ONVIF = {TT, "http://www.onvif.org/ver20/analytics/humanface", "http://www.onvif.org/ver20/analytics/humanbody",
         "http://www.onvif.org/ver20/analytics/radiometry"}
SCHEMAS = ["ver10/schema/common.xsd", "ver10/schema/metadatastream.xsd", "ver10/schema/onvif.xsd",
           "ver20/analytics/humanface.xsd", "ver20/analytics/humanbody.xsd"]

NUMBER_TYPES = {XS + name for name in ["float", "double", "int", "integer"]}
NUMBER = re.compile(r"([+-]?)0*(\d*)(?:\.(\d*))?([eE][+-]?\d+)?")

# ONVIF's example shows a polygon that is alone without an array.
NO_ARRAY = "Polygon"


class Number(tuple):
    """A number of JSON, as it is written; never equal to a string."""

    def __new__(cls, text):
        return super().__new__(cls, ("number", text))


class Object(list):
    """The members of an object, as pairs in their order."""


def parse(text):
    """A JSON text in the form of this module."""
    return json.loads(text, parse_int=Number, parse_float=Number, object_pairs_hook=Object)


class Schema:
    """The types and elements of the official schemas, by their names."""

    def __init__(self):
        self.types, self.elements = {}, {}
        for path in SCHEMAS:
            root = etree.parse(str(pathlib.Path(SCHEMA_DIR, path))).getroot()
            space = root.get("targetNamespace")
            for child in root:
                if child.tag in (XS + "complexType", XS + "simpleType"):
                    self.types[f"{{{space}}}{child.get('name')}"] = child
                elif child.tag == XS + "element":
                    self.elements[f"{{{space}}}{child.get('name')}"] = child

    def type_of(self, declaration):
        """The name or, of an anonymous type, the element of the type of an element or attribute."""
        if declaration is None:
            return None
        if name := declaration.get("type"):
            return self.resolve(declaration, name)
        return declaration.find(XS + "complexType")

    @staticmethod
    def resolve(node, name):
        prefix, _, local = name.rpartition(":")
        return f"{{{node.nsmap[prefix or None]}}}{local}"

    def declarations(self, kind, tag):
        """The declarations of elements or attributes that a type has, those of its base too."""
        node = self.types.get(kind) if isinstance(kind, str) else kind
        if node is None:
            return
        for extension in node.iter(XS + "extension"):
            yield from self.declarations(self.resolve(extension, extension.get("base")), tag)
        for found in node.iter(XS + tag):
            if next(found.iterancestors(XS + "complexType")) is node:
                yield found

    def child(self, kind, element):
        """The declaration of a child of an element of this type."""
        name = etree.QName(element)
        for found in self.declarations(kind, "element"):
            space = found.getroottree().getroot().get("targetNamespace")
            if found.get("name") == name.localname and space == name.namespace:
                return found
        return self.elements.get(element.tag)

    def attribute(self, kind, name):
        return next((found for found in self.declarations(kind, "attribute") if found.get("name") == name), None)


@functools.cache
def schema():
    return Schema()


def scalar(kind, text):
    if kind in NUMBER_TYPES and (match := NUMBER.fullmatch(text.strip())):
        sign, whole, fraction, exponent = match.groups()
        if any(character.isdigit() for character in text):
            return Number(sign.strip("+") + (whole or "0") + (f".{fraction}" if fraction else "") + (exponent or ""))
    if kind == XS + "boolean":
        return {"true": True, "1": True, "false": False, "0": False}.get(text.strip().lower(), text)
    return text


class Text:
    """One JSON text, which collects the namespaces that are not ONVIF's."""

    def __init__(self):
        self.context = Object()

    def name(self, element, tag):
        space = etree.QName(tag).namespace
        local = etree.QName(tag).localname
        if space is None or space in ONVIF:
            return local
        prefix = next(prefix for prefix, uri in element.nsmap.items() if uri == space)
        if (prefix, space) not in self.context:
            self.context.append((prefix, space))
        return f"{prefix}:{local}"

    def attributes(self, element, kind):
        for tag, value in element.attrib.items():
            declared = schema().attribute(kind, tag)
            yield "@" + self.name(element, tag), scalar(schema().type_of(declared), value)

    def children(self, element, kind):
        members = {}
        for child in element.iterchildren(etree.Element):
            members.setdefault(self.name(child, child.tag), []).append(child)
        for name, found in members.items():
            declared = [schema().child(kind, child) for child in found]
            values = [self.value(child, schema().type_of(one)) for child, one in zip(found, declared)]
            repeats = declared[0] is not None and declared[0].get("maxOccurs", "1") != "1" and name != NO_ARRAY
            yield name, values if repeats or len(values) > 1 else values[0]

    def value(self, element, kind):
        text = "".join(element.xpath("text()"))
        shown = scalar(kind, text) if text.strip() else None
        if not element.attrib and len(element) == 0:
            return shown
        members = Object(self.attributes(element, kind))
        if shown is not None:
            members.append(("#text", shown))
        return members + Object(self.children(element, kind))

    def items(self, items):
        return Object((item.get("Name"), self.item(item)) for item in ([] if items is None else items))

    def item(self, item):
        if etree.QName(item).localname == "SimpleItem":
            return item.get("Value")
        return Object(self.children(item, None))

    def with_context(self, before, after):
        return before + ([("@context", self.context)] if self.context else []) + after


def top(element, name):
    text = Text()
    kind = f"{{{TT}}}{name}"
    before = Object(text.attributes(element, kind))
    after = Object(text.children(element, kind))
    return [element.get("Source", ""), "", [], Object([(name, [text.with_context(before, after)])])]


def event(notification):
    text = Text()
    message = notification.find("wsnt:Message/tt:Message", NAMESPACES)
    source, data = message.find("tt:Source", NAMESPACES), message.find("tt:Data", NAMESPACES)
    after = Object([("Source", text.items(source))])
    if data is not None:
        after.append(("Data", text.items(data)))
    topic = notification.find("wsnt:Topic", NAMESPACES)
    prefixes = [prefix for prefix, uri in topic.nsmap.items() if uri == TOPICS]
    levels = [level.split(":", 1)[1] if level.split(":")[0] in prefixes else level
              for level in topic.text.strip().split("/")]
    values = [] if source is None else [item.get("Value") for item in source.findall("tt:SimpleItem", NAMESPACES)]
    return ["", "/".join(levels), values, text.with_context(Object([("UtcTime", message.get("UtcTime"))]), after)]


def convert(root):
    """The source, the topic, the values of the source and the content of each text of a document."""
    for element in root.iter(f"{{{TT}}}Frame", f"{{{TT}}}PTZStatus", f"{{{NAMESPACES['wsnt']}}}NotificationMessage"):
        if element.getparent().getparent() is root:
            name = etree.QName(element).localname
            yield event(element) if name == "NotificationMessage" else top(element, name)
