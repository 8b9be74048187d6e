# SPDX-License-Identifier: MIT
"""tessardctl snapshot: the drawing of a document, and what happens without one."""

import os
import pathlib
import subprocess

import pytest
from lxml import etree

from fakedaemon import metadata
from installation import documented_limit
from tessardctl import ENDED, LOCAL, MALFORMED, REFUSED, SUCCESS, TIMED_OUT, failure
from waiting import BOUND_SECONDS

MAX_OBJECTS = documented_limit("../tools/scene.h", "SCENE_MAX_OBJECTS")
MAX_DOCUMENT_BYTES = documented_limit("../tools/scene.h", "SCENE_MAX_DOCUMENT_BYTES")
MAX_TEXT = documented_limit("../tools/scene.h", "SCENE_MAX_TEXT_CHARACTERS")

SVG = {"svg": "http://www.w3.org/2000/svg"}

NO_DOCUMENT = "The document is not a well-formed tt:MetadataStream."

# Half of the drawing's precision.
ROUNDING = 0.006


def document(*frames):
    return ('<tt:MetadataStream xmlns:tt="http://www.onvif.org/ver10/schema" xmlns:r="urn:example:radar">'
            f'<tt:VideoAnalytics>{"".join(frames)}</tt:VideoAnalytics></tt:MetadataStream>').encode()


def frame(*parts, source="Entrance"):
    return f'<tt:Frame UtcTime="2026-01-02T03:04:05Z" Source="{source}">{"".join(parts)}</tt:Frame>'


def found(number, appearance="", shape="", classes=""):
    return (f'<tt:Object ObjectId="{number}"><tt:Appearance>{appearance}<tt:Shape>{shape}</tt:Shape>'
            f'<tt:Class>{classes}</tt:Class></tt:Appearance></tt:Object>')


def box(left, top, right, bottom):
    return f'<tt:BoundingBox left="{left}" top="{top}" right="{right}" bottom="{bottom}"/>'


def centre(x, y):
    return f'<tt:CenterOfGravity x="{x}" y="{y}"/>'


def polygon(*points):
    return f'<tt:Polygon>{"".join(f"<tt:Point x={x!r} y={y!r}/>" for x, y in points)}</tt:Polygon>'.replace(
        "x=", 'x="').replace(" y=", '" y="').replace("/>", '"/>')


def transformation(translate, scale):
    return ('<tt:Transformation><tt:Translate x="{}" y="{}"/><tt:Scale x="{}" y="{}"/></tt:Transformation>'
            .format(*translate, *scale))


ONE = document(frame(found(7, shape=box(-1, 1, 0, 0) + centre(-0.5, 0.5))))


class Drawing:
    """A parsed drawing."""

    def __init__(self, data):
        self.root = etree.fromstring(data)
        assert self.root.tag == f"{{{SVG['svg']}}}svg"

    def all(self, path):
        return self.root.xpath(path, namespaces=SVG)

    def panel(self, name):
        """The width and the height of a part of the drawing."""
        (part,) = self.all(f"svg:svg[@class='{name}']")
        return float(part.get("width")), float(part.get("height"))

    def objects(self, panel="picture"):
        return {group.get("data-id"): group for group in self.all(f"svg:svg[@class='{panel}']/svg:g[@class='object']")}

    def in_picture(self, x, y):
        width, height = self.panel("picture")
        return (x + 1) / 2 * width, (1 - y) / 2 * height

    def texts(self):
        return ["".join(text.itertext()) for text in self.all("//svg:text")]


def shape(group, name):
    (element,) = group.findall(f"svg:{name}", SVG)
    return element


def rect_of(group):
    """The left, upper, right and lower edge."""
    rect = shape(group, "rect")
    x, y, width, height = (float(rect.get(name)) for name in ("x", "y", "width", "height"))
    return x, y, x + width, y + height


def place_of(group):
    circle = shape(group, "circle")
    return float(circle.get("cx")), float(circle.get("cy"))


@pytest.fixture
def draw(run_tessardctl, tmp_path):
    """Draws a document."""

    def drawn(data):
        source = tmp_path / "document.xml"
        source.write_bytes(data)
        result = run_tessardctl("snapshot", "--input", source, "-")
        assert (result.status, result.err) == (SUCCESS, b"")
        return Drawing(result.out)

    return drawn


def test_box_polygon_and_text(draw):
    corners = [(-0.5, 0.25), (0.5, 0.25), (0, -0.75)]
    drawing = draw(document(frame(found(
        12, shape=box(-0.5, 0.25, 0.5, -0.75) + centre(0, 0) + polygon(*corners),
        classes='<tt:Type Likelihood="0.2">Animal</tt:Type><tt:Type Likelihood="0.961">Human</tt:Type>'))))
    (group,) = drawing.objects().values()
    assert {name: group.get(name) for name in ("data-id", "data-class", "data-source")} == {
        "data-id": "12", "data-class": "Human", "data-source": "Entrance"}
    assert rect_of(group) == pytest.approx(drawing.in_picture(-0.5, 0.25) + drawing.in_picture(0.5, -0.75),
                                           abs=ROUNDING)
    points = [tuple(map(float, point.split(","))) for point in shape(group, "polygon").get("points").split()]
    assert points == [pytest.approx(drawing.in_picture(*corner), abs=ROUNDING) for corner in corners]
    assert shape(group, "text").text == "12 Human 96 %"
    assert not drawing.all("svg:svg[@class='map']")
    assert "Entrance, 2026-01-02T03:04:05Z, 1 objects" in drawing.texts()


def test_one_shape_for_each_object_without_a_box(draw):
    drawing = draw(document(frame(found(1, shape=centre(0.5, -0.5)), found(2), found(3, shape=box(0, 1, 1, 0)))))
    groups = drawing.objects()
    assert set(groups) == {"1", "2", "3"}
    assert place_of(groups["1"]) == pytest.approx(drawing.in_picture(0.5, -0.5), abs=ROUNDING)
    assert len(groups["2"]) == 0
    assert [etree.QName(part).localname for part in groups["3"]] == ["rect", "text"]


def test_transformations_of_frame_and_object(draw):
    drawing = draw(document(frame(
        transformation((-1, 1), (0.002, -0.004)),
        found(1, shape=box(100, 50, 300, 150)),
        found(2, appearance=transformation((100, 0), (10, 10)), shape=box(10, 5, 30, 15)))))
    groups = drawing.objects()
    assert rect_of(groups["1"]) == pytest.approx(drawing.in_picture(-0.8, 0.8) + drawing.in_picture(-0.4, 0.4),
                                                 abs=ROUNDING)
    assert rect_of(groups["2"]) == pytest.approx(drawing.in_picture(-0.6, 0.8) + drawing.in_picture(-0.2, 0.4),
                                                 abs=ROUNDING)


def test_a_colour_for_each_source(draw):
    drawing = draw(document(frame(found(1, shape=box(0, 1, 1, 0))),
                            frame(found(2, shape=box(0, 1, 1, 0)), source="Yard"),
                            frame(found(3, shape=box(0, 1, 1, 0)))))
    colours = [drawing.objects()[number].get("stroke") for number in "123"]
    assert colours[0] == colours[2] != colours[1]
    assert [rect.get("fill") for rect in drawing.all("svg:rect")[1:]] == colours


POLAR = '<tt:Extension><r:Info><r:PolarCoordinate angle="{}" range="{}"/></r:Info></tt:Extension>'
SPHERICAL = '<tt:SphericalCoordinate Distance="{}" ElevationAngle="0" AzimuthAngle="{}"/>'
LOCATION = '<tt:GeoLocation lon="{}" lat="{}"/>'


def test_radar_is_a_map(draw):
    """20 m to the right and 20 m ahead, in the forms of a radar; a box does not make it an object of the picture."""
    drawing = draw(document(frame(
        found(1, appearance=POLAR.format(45, 20 * 2 ** 0.5), shape=box(0, 1, 1, 0)),
        found(2, appearance=SPHERICAL.format(20 * 2 ** 0.5, 45)),
        found(3, appearance=POLAR.format(0, 20)),
        found(4, appearance=POLAR.format(0, 0)), source="Forecourt")))
    assert drawing.objects() == {}
    places = {number: place_of(group) for number, group in drawing.objects("map").items()}
    assert places["1"] == pytest.approx(places["2"], abs=2 * ROUNDING)
    (radar_x, radar_y), (ahead_x, ahead_y), (right_x, right_y) = places["4"], places["3"], places["1"]
    width, height = drawing.panel("map")
    assert radar_x == ahead_x == width / 2
    assert 0 < ahead_y < radar_y < height
    assert (right_x - radar_x, right_y) == pytest.approx((radar_y - ahead_y, ahead_y), abs=0.1)
    rings = [float(ring.get("r")) for ring in drawing.all("svg:svg[@class='map']/svg:circle")]
    labels = [float(text.text.removesuffix(" m")) for text in drawing.all("svg:svg[@class='map']/svg:text")]
    assert len(rings) == len(labels) >= 2
    for ring, metres in zip(rings, labels):
        assert ring / metres == pytest.approx((radar_y - ahead_y) / 20, abs=0.01)


def test_locations_without_a_radar_are_a_map_too(draw):
    metres = 40075017 / 360
    drawing = draw(document(frame(
        found(1, appearance=LOCATION.format(10, 60)), found(2, appearance=LOCATION.format(10 + 30 / metres * 2, 60)),
        found(3, appearance=LOCATION.format(10, 60 + 30 / metres)),
        found(4, appearance=LOCATION.format(10, 60), shape=box(0, 1, 1, 0)))))
    assert set(drawing.objects()) == {"4"}
    first, east, north = (place_of(drawing.objects("map")[number]) for number in "123")
    assert (east[0] - first[0], east[1]) == pytest.approx((first[1] - north[1], first[1]), abs=0.1)
    assert north[0] == first[0] and north[1] < first[1]


def test_texts_are_escaped_and_cut(draw):
    evil = "&lt;script&gt;alert('1')&lt;/script&gt;&quot;&amp;&#10;"
    drawing = draw(document(frame(found(evil, shape=box(0, 1, 1, 0), classes=f"<tt:Type>{'ä' * 1000}</tt:Type>"),
                                  source=evil)))
    text = "<script>alert('1')</script>\"&\n"
    (group,) = drawing.objects().values()
    assert (group.get("data-id"), group.get("data-source")) == (text, text)
    assert shape(group, "text").text == f"{text} {'ä' * MAX_TEXT}"
    assert not drawing.all("//*[local-name()='script']")


def test_numbers_that_are_none_or_huge(draw):
    drawing = draw(document(frame(
        found(1, shape=box("nan", "inf", "x", "")), found(2, shape=box(-1e300, 1e300, 1e300, -1e300)),
        found(3, appearance=transformation((1e308, 1e308), (1e308, -1e308)), shape=box(10, 10, -10, -10)),
        found(4, appearance=POLAR.format(90, 1e300)))))
    assert len(drawing.objects()["1"]) == 0
    for text in ("nan", "inf", "e+"):
        assert not drawing.all(f"//@*[contains(translate(., 'NAIF', 'naif'), '{text}')]")
    width, height = drawing.panel("picture")
    assert rect_of(drawing.objects()["2"])[2:] == (width / 2 * 101, height / 2 * 101)


def test_objects_beyond_the_limit_are_counted(draw):
    drawing = draw(document(frame(*(found(number, shape=centre(0, 0)) for number in range(MAX_OBJECTS + 3)))))
    assert len(drawing.objects()) == MAX_OBJECTS
    assert "3 more objects are left out" in drawing.texts()


@pytest.mark.parametrize("data, reason", [
    (b"", NO_DOCUMENT), (b"\0\xff<", NO_DOCUMENT), (ONE[:-3], NO_DOCUMENT), (b"<svg/>", NO_DOCUMENT),
    (b'<!DOCTYPE a [<!ENTITY b "c">]>' + ONE, NO_DOCUMENT), (metadata("no scene"), "The document has no scene."),
    (b" " * (MAX_DOCUMENT_BYTES + 1), f"The document is longer than {MAX_DOCUMENT_BYTES} bytes."),
], ids=["empty", "binary", "cut", "svg", "type definition", "no scene", "long"])
def test_malformed_input(run_tessardctl, tmp_path, data, reason):
    source, target = tmp_path / "document.xml", tmp_path / "scene.svg"
    source.write_bytes(data)
    target.write_text("old", encoding="utf-8")
    assert run_tessardctl("snapshot", "--input", source, target) == failure(MALFORMED, reason)
    assert target.read_text(encoding="utf-8") == "old"


def test_standard_input(start_tessardctl):
    command = start_tessardctl("snapshot", "--input", "-", "-", stdin=subprocess.PIPE)
    out, err = command.process.communicate(ONE, timeout=BOUND_SECONDS)
    assert (command.process.returncode, err) == (SUCCESS, b"")
    assert set(Drawing(out).objects()) == {"7"}


def test_files_that_cannot_be_used(run_tessardctl, tmp_path):
    missing = tmp_path / "missing"
    assert run_tessardctl("snapshot", "--input", missing, "-") == failure(
        LOCAL, f"Could not open '{missing}': No such file or directory.")
    assert run_tessardctl("snapshot", "--input", tmp_path, "-").status == LOCAL
    source = tmp_path / "document.xml"
    source.write_bytes(ONE)
    assert run_tessardctl("snapshot", "--input", source, "/dev/null") == failure(
        LOCAL, "'/dev/null' is not a regular file.")
    assert pathlib.Path("/dev/null").is_char_device()
    assert run_tessardctl("snapshot", "--input", source, missing / "scene.svg").status == LOCAL


class TestDaemon:
    """With a fake daemon."""

    @pytest.fixture
    def start(self, start_tessardctl, fake_daemon):
        return lambda *args: start_tessardctl("snapshot", "--socket", fake_daemon.path, *args)

    def test_first_document_with_objects_replaces_the_file(self, start, fake_daemon, gdp, tmp_path):
        target = tmp_path / "scene.svg"
        target.write_text("old", encoding="utf-8")
        command = start(target)
        connection = fake_daemon.accept()
        assert connection.read_request() == b"OPEN\nanalytics=2\nvideo_channel=1\n\n"
        connection.send(b"OK\0" + gdp.document(metadata("x")) + gdp.document(document(frame())))
        with target.open(encoding="utf-8") as old:
            connection.send(gdp.document(ONE))
            assert command.finish() == (SUCCESS, b"", b"")
            assert old.read() == "old"
        assert set(Drawing(target.read_bytes()).objects()) == {"7"}
        assert os.listdir(tmp_path).count(target.name) == 1 and connection.read_to_end() == b""

    def test_request_of_the_command_line(self, start, fake_daemon):
        command = start("--analytics", "1", "--channel", "3", "-")
        connection = fake_daemon.accept()
        assert connection.read_request() == b"OPEN\nanalytics=1\nvideo_channel=3\n\n"
        connection.send(b"FAIL\nNo.\0")
        connection.close()
        assert command.finish() == failure(REFUSED, "No.")

    def test_time_limit(self, start, fake_daemon, gdp):
        command = start("--timeout", "0.3", "-")
        connection = fake_daemon.accept_stream()
        connection.send(gdp.document(document(frame())))
        assert command.finish() == failure(TIMED_OUT, "No document with objects within 0.3 seconds.")

    def test_malformed_document(self, start, fake_daemon, gdp):
        command = start("-")
        fake_daemon.accept_stream().send(gdp.document(b"<broken"))
        assert command.finish() == failure(MALFORMED, NO_DOCUMENT)

    def test_daemon_that_ends(self, start, fake_daemon):
        command = start("-")
        fake_daemon.accept_stream().close()
        assert command.finish() == failure(ENDED, "The daemon ended the stream.")
