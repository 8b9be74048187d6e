# SPDX-License-Identifier: MIT
"""The page of tessard-view in a browser: what it shows, its switches, its appearance. Only with TESSARD_BROWSER=yes,
because Chromium takes long to start."""

import base64
import collections
import contextlib
import functools
import itertools
import json
import math
import os
import re
import signal
import types

import pytest

from chromium import PROGRAM, Browser
from client import header
from daemon import RADAR_TRACKER, VIDEO_TRACKER, WARNING, producers_enabled
from documents import parse_time
from fakedaemon import FakeDaemon
from installation import ALL_PLUGINS, TREE, UNPRIVILEGED_GROUP, run_by_root
from scenes import BUSY_SECONDS, Tracks, seen_by_radar
from viewgateway import View

pytestmark = [
    pytest.mark.skipif(os.environ.get("TESSARD_BROWSER") != "yes", reason="the browser runs with ./check --all only"),
    pytest.mark.skipif(PROGRAM is None, reason="chromium is not installed"),
]

VIDEO, RADAR = "Front", "Yard"
BOTH = producers_enabled({(VIDEO_TRACKER, 1): VIDEO, (RADAR_TRACKER, 1): RADAR})

LIMITS_FILE = TREE / "gateways/view/page/limits.js"
LIMITS = {name: int(value) for name, value in re.findall(
    r"^export const (\w+) = (\d+);$", LIMITS_FILE.read_text(encoding="utf-8"), re.MULTILINE)}

# The phone that is tested.
PHONE_WIDTH = 360

# The precision of positions in the drawings, with that of the metadata. The radar has hundredths of a metre and degree.
DRAWN = 0.001
DRAWN_ON_MAP = 0.005

# What a person sees of an object: its source, id and text, the time of its frame, and its shape in the coordinates of
# the drawing.
SHOWN = """[...document.querySelectorAll(PANEL + ' .object')].map((group) => ({
  source: group.dataset.source, id: group.dataset.id, time: group.dataset.time,
  text: group.querySelector('.label').textContent,
  trail: group.querySelector('.trail').getAttribute('points'),
  box: ['x', 'y', 'width', 'height'].map((name) => Number(group.querySelector('.box')?.getAttribute(name))),
  dot: ['cx', 'cy'].map((name) => Number(group.querySelector('.dot')?.getAttribute(name))),
  polygons: [...group.querySelectorAll('.polygon')].map((polygon) => polygon.getAttribute('points')),
}))"""


def shown(page, panel="#overlay"):
    return page.evaluate(SHOWN.replace("PANEL", json.dumps(panel)))


def size_of(page, panel):
    return tuple(page.evaluate(f"document.querySelector('{panel}').viewBox.baseVal.{side}")
                 for side in ("width", "height"))


def rows(page, table):
    """The texts of a table's cells."""
    return page.evaluate(f"[...document.querySelectorAll('{table} tbody tr')].map("
                         "(row) => [...row.cells].map((cell) => cell.textContent))")


@pytest.fixture(scope="module", name="browser")
def make_browser(tmp_path_factory):
    with contextlib.closing(Browser(tmp_path_factory.mktemp("chromium"))) as browser:
        yield browser


@pytest.fixture(name="view")
def make_view(view):
    """Starts tessard-view for all kinds of metadata."""
    return functools.partial(view, kinds=())


@pytest.fixture(name="open_page")
def make_open_page(browser):
    """Opens pages that have nothing to complain about at the end."""
    pages = []

    def opened(url, **options):
        pages.append(browser.open(url, **options))
        return pages[-1]

    yield opened
    complaints = [text for page in pages for text in page.complaints()]
    for page in pages:
        page.close()
    assert complaints == []


@pytest.fixture(name="start_busy_daemon")
def make_start_busy_daemon(start_camera, start_daemon):
    """Starts a simulated camera and a daemon whose world has objects from its start on."""

    def start(**more):
        start_camera(**({"on": more["on"]} if "on" in more else {}))
        return start_daemon(**{"plugins": ALL_PLUGINS, "coordinator_line": None, "world_seconds": BUSY_SECONDS,
                               "producers": BOTH} | more)

    return start


@pytest.fixture(name="fake")
def make_fake(workspace, view, open_page):
    """A page whose metadata come from a fake daemon, and the daemon's side of its stream."""
    with contextlib.closing(FakeDaemon(workspace.folder() / "metadata")) as daemon:
        os.chmod(daemon.path, 0o777)
        page = open_page(view(daemon.path).url)
        connection = daemon.accept_stream()
        yield page, connection
        page.leave()
        connection.read_to_end()


# The simulated world


class World:
    """The objects of the world, as a client of the daemon receives them."""

    def __init__(self, daemon, stack):
        client = stack.enter_context(daemon.client())
        self.frames = client.start(header(analytics=2, video_channel=1)).frames()
        self.tracks = {VIDEO: Tracks(), RADAR: Tracks()}
        self.ids = {VIDEO: [], RADAR: []}

    def follow_until(self, time):
        """Reads frames until both sources have one after this time."""
        missing = {VIDEO, RADAR}
        while missing:
            frame = next(self.frames)
            if frame.source in self.tracks:
                self.tracks[frame.source].add(frame)
                self.ids[frame.source].append((frame.time, set(frame.objects)))
                if frame.time > time:
                    missing.discard(frame.source)

    def ids_around(self, source, time):
        """The ids of the last frame before this time and of the first one after it; None without one of them."""
        for (before, first), (after, last) in itertools.pairwise(self.ids[source]):
            if before <= time <= after:
                return first, last
        return None


def read_scene(page):
    """The drawn objects of both panels, all of one moment, and the radar's pixels for a metre and its place."""
    return page.evaluate(f"""({{
      objects: {SHOWN.replace("PANEL", "'#overlay'")}.concat({SHOWN.replace("PANEL", "'#map'")}),
      unit: document.querySelector('.ring').r.baseVal.value
        / parseFloat(document.querySelector('.ring-label').textContent),
      radar: ['cx', 'cy'].map((name) => Number(document.querySelector('.ring').getAttribute(name))),
    }})""")


def place_in_picture(found, size):
    """The centre of a drawn box in ONVIF's coordinates; None if the picture's edge cuts it."""
    x, y, width, height = found["box"]
    if x <= 1 or y <= 1 or x + width >= size[0] - 1 or y + height >= size[1] - 1:
        return None
    return (x + width / 2) / size[0] * 2 - 1, 1 - (y + height / 2) / size[1] * 2


def place_on_map(found, scene):
    """The place of a drawn dot in the radar's picture."""
    x, y = found["dot"]
    right, ahead = (x - scene["radar"][0]) / scene["unit"], (scene["radar"][1] - y) / scene["unit"]
    return seen_by_radar(types.SimpleNamespace(angle=math.degrees(math.atan2(right, ahead)),
                                               range=math.hypot(right, ahead)))


def compare_with_world(scene, world, size):
    """Yields the source of each object that was compared."""
    drawn = {}
    for found in scene["objects"]:
        drawn.setdefault((found["source"], parse_time(found["time"])), set()).add(found["id"])
    for (source, time), ids in drawn.items():
        around = world.ids_around(source, time)
        if around is not None:
            assert around[0] & around[1] <= ids <= around[0] | around[1]
    for found in scene["objects"]:
        place = world.tracks[found["source"]].at(found["id"], parse_time(found["time"]))
        seen = place_in_picture(found, size) if found["source"] == VIDEO else place_on_map(found, scene)
        if place is not None and seen is not None:
            assert seen == pytest.approx(place, abs=DRAWN if found["source"] == VIDEO else DRAWN_ON_MAP)
            assert len(found["polygons"]) == (1 if found["source"] == VIDEO else 0)
            assert re.fullmatch(rf"{found['id']} (Human|Vehicle) \d\d %", found["text"])
            yield found["source"]


def test_objects_are_those_of_the_world(start_busy_daemon, view, open_page):
    """At several moments each object is where the world has it, in the picture and on the radar's map."""
    daemon = start_busy_daemon()
    page = open_page(view(daemon.socket_path).url)
    page.wait_for("document.querySelector('#overlay .object') && document.querySelector('#map .object')")
    size = size_of(page, "#overlay")
    assert size == (1600, 900)
    compared = collections.Counter()
    with contextlib.ExitStack() as stack:
        world = World(daemon, stack)
        while min(compared[VIDEO], compared[RADAR]) < 10:
            page.wait_for("document.querySelector('#overlay .object') && document.querySelector('#map .object')")
            scene = read_scene(page)
            if scene["objects"]:
                world.follow_until(max(parse_time(found["time"]) for found in scene["objects"]))
                compared.update(compare_with_world(scene, world, size))


def test_table_says_what_the_drawings_show(start_busy_daemon, view, open_page):
    page = open_page(view(start_busy_daemon().socket_path).url)
    page.wait_for("new Set([...document.querySelectorAll('#objects tbody tr')].map((row) => row.dataset.source)).size"
                  " === 2")
    found = {row[0]: row for row in rows(page, "#objects")}
    for source, place in ((VIDEO, r"-?[01]\.\d\d, -?[01]\.\d\d"), (RADAR, r"\d+\.\d m ahead, \d+\.\d m (left|right)")):
        assert re.fullmatch(r"\d+", found[source][1])
        assert re.fullmatch(r"(Human|Vehicle) \d\d %", found[source][2])
        assert re.fullmatch(place, found[source][3])


def test_head_events_and_states(start_busy_daemon, view, open_page):
    page = open_page(view(start_busy_daemon(speed=4).socket_path).url)
    page.wait_for("document.querySelector('#head-state').innerText === 'moving'")
    page.wait_for("document.querySelector('#head-state').innerText === 'idle'")
    for name in ("pan", "tilt", "zoom-value"):
        assert re.fullmatch(r"-?\d\.\d\d", page.text(f"#head-{name}"))
    page.wait_for("[...document.querySelectorAll('#ticker li')].some((line) => "
                  "line.innerText.includes('VideoAnalytics/tnsimcam:LineDetector/Crossed'))")
    states = {row[0] for row in rows(page, "#states")}
    assert states == {"VideoSource/MotionAlarm Source=VideoSource_1",
                      *(f"Device/Trigger/DigitalInput InputToken=DigitalInput_{number}" for number in (1, 2))}


def test_source_can_be_hidden(start_busy_daemon, view, open_page):
    page = open_page(view(start_busy_daemon().socket_path).url)
    page.wait_for("document.querySelectorAll('#overlay .object').length > 0")
    page.evaluate("[...document.querySelectorAll('#sources label')]"
                  f".find((label) => label.innerText.includes('{VIDEO}')).querySelector('input').focus()")
    page.press(" ")
    page.wait_for("document.querySelectorAll('#overlay .object').length === 0")
    page.wait_for("[...document.querySelectorAll('#objects tbody tr')]"
                  f".every((row) => row.dataset.source !== '{VIDEO}')")
    page.press(" ")
    page.wait_for("document.querySelectorAll('#overlay .object').length > 0")


# Switches


def switch(producer):
    return f"document.querySelector('.switch[data-producer=\"{producer}\"][data-channel=\"1\"]')"


@pytest.fixture(name="start_switching")
def make_start_switching(start_bus, start_busy_daemon, view, open_page):
    """Opens a page that may switch, on a bus whose administrators are these."""

    def start(administrators):
        bus = start_bus(administrators=administrators)
        daemon = start_busy_daemon(on=bus)
        page = open_page(view(daemon.socket_path, "--control", on=bus).url)
        page.wait_for(f"{switch(VIDEO_TRACKER)} && !{switch(VIDEO_TRACKER)}.disabled")
        return page

    return start


def test_switches(start_switching):
    """A producer's objects and its source go and come back with its switch, which the keyboard reaches."""
    page = start_switching(UNPRIVILEGED_GROUP if run_by_root() else None)
    assert page.evaluate("location.hash") == ""
    page.wait_for("document.querySelectorAll('#map .object').length > 0")
    control = switch(RADAR_TRACKER)
    assert page.evaluate(f"{control}.getAttribute('aria-checked')") == "true"
    page.evaluate(f"{control}.focus()")
    page.press(" ")
    page.wait_for(f"{control}.getAttribute('aria-checked') === 'false' && {control}.innerText === 'Off'")
    page.wait_for("document.querySelectorAll('#map .object').length === 0")
    assert page.evaluate(f"document.activeElement === {control}")
    page.press("Enter")
    page.wait_for(f"{control}.getAttribute('aria-checked') === 'true'")
    page.wait_for("document.querySelectorAll('#map .object').length > 0")
    assert page.text("#producers-error") == ""


@pytest.mark.skipif(not run_by_root(), reason="only root starts programs as another user")
def test_refused_switch(start_switching):
    page = start_switching("root")
    page.evaluate(f"{switch(RADAR_TRACKER)}.click()")
    page.wait_for("document.querySelector('#producers-error').innerText"
                  ".startsWith('Quon radar motion tracker, channel 1: ')")
    assert page.evaluate(f"{switch(RADAR_TRACKER)}.getAttribute('aria-checked')") == "true"
    complaints = page.complaints()
    assert len(complaints) == 1 and re.search(r"status of 4\d\d", complaints[0])
    page.browser.events.clear()


def test_without_control_switches_are_states(start_busy_daemon, view, open_page):
    page = open_page(view(start_busy_daemon().socket_path).url)
    page.wait_for(f"{switch(VIDEO_TRACKER)}?.getAttribute('aria-checked') === 'true'")
    assert page.evaluate("[...document.querySelectorAll('.switch')].every((control) => control.disabled)")
    assert page.text("#producers-note") == "Read only: tessard-view was started without --control."


def test_without_the_token_switches_are_states(start_busy_daemon, view, open_page):
    page = open_page(view(start_busy_daemon().socket_path, "--control").address)
    page.wait_for(f"{switch(VIDEO_TRACKER)} !== null")
    assert page.evaluate(f"{switch(VIDEO_TRACKER)}.disabled")
    assert page.text("#producers-note") == "Read only: open the whole address that tessard-view printed."


# The daemon and the server go


def test_daemon_that_comes_back(start_busy_daemon, view, open_page):
    daemon = start_busy_daemon()
    gateway = view(daemon.socket_path)
    page = open_page(gateway.url)
    page.wait_for("document.querySelectorAll('#overlay .object').length > 0")
    daemon.end(signal.SIGKILL)
    page.wait_for("document.querySelector('#connection').innerText === 'Waiting for the daemon…'")
    page.wait_for("document.querySelectorAll('.object').length === 0 && document.querySelector('#states').hidden")
    page.wait_for("document.querySelector('#producers-note').innerText === 'The daemon is not on the bus.'")
    daemon.start_again()
    page.wait_for("document.querySelectorAll('#overlay .object').length > 0")
    assert page.text("#connection") == "Live"
    page.leave()
    daemon.wait_until_ready()
    assert {priority for priority, _ in gateway.take_log()} <= {WARNING}


def test_server_that_comes_back(start_busy_daemon, installation, bus, view, open_page):
    daemon = start_busy_daemon()
    gateway = View(installation, bus, daemon.socket_path, kinds=())
    try:
        page = open_page(gateway.url)
        page.wait_for("document.querySelectorAll('#overlay .object').length > 0")
    finally:
        gateway.finish()
    page.wait_for("document.querySelector('#connection').innerText === 'The viewer is away, reconnecting…'")
    page.wait_for("document.querySelectorAll('.object').length === 0")
    view(daemon.socket_path, "--port", gateway.port)
    page.wait_for("document.querySelectorAll('#overlay .object').length > 0")
    assert all("ERR_" in text for text in page.complaints())
    page.browser.events.clear()


# Documents of a fake daemon


def frame(*parts, source=VIDEO):
    return (f'<tt:Frame UtcTime="2026-01-02T03:04:05Z" Source="{source}">{"".join(parts)}</tt:Frame>')


def scene(*frames):
    return ('<tt:MetadataStream xmlns:tt="http://www.onvif.org/ver10/schema"><tt:VideoAnalytics>'
            f'{"".join(frames)}</tt:VideoAnalytics></tt:MetadataStream>').encode()


def found(number, appearance="", box=(-0.5, 0.5, 0.5, -0.5)):
    sides = " ".join(f'{name}="{value}"' for name, value in zip(("left", "top", "right", "bottom"), box))
    return (f'<tt:Object ObjectId="{number}"><tt:Appearance>{appearance}<tt:Shape><tt:BoundingBox {sides}/>'
            '</tt:Shape></tt:Appearance></tt:Object>')


def transformation(translate, scale):
    return ('<tt:Transformation><tt:Translate x="{}" y="{}"/><tt:Scale x="{}" y="{}"/></tt:Transformation>'
            .format(*translate, *scale))


def ids(page):
    return sorted(one["id"] for one in shown(page))


def test_transformations(fake, gdp):
    page, connection = fake
    connection.send(gdp.document(scene(frame(
        transformation((-1, 1), (0.002, -0.004)), found(1, box=(100, 50, 300, 150)),
        found(2, transformation((100, 0), (10, 10)), box=(10, 5, 30, 15))))))
    page.wait_for("document.querySelectorAll('#overlay .object').length === 2")
    boxes = {one["id"]: one["box"] for one in shown(page)}
    # From -0.8 to -0.4 and 0.8 to 0.4; from -0.6 to -0.2 and 0.8 to 0.4.
    assert boxes == {"1": [160, 90, 320, 180], "2": [320, 90, 320, 180]}


def test_objects_vanish(fake, gdp):
    """With a deletion, with a frame that lacks them, and when their source is silent."""
    page, connection = fake
    connection.send(gdp.document(scene(frame(found(1), found(2), found(3)), frame(found(4), source="Other"))))
    page.wait_for("document.querySelectorAll('#overlay .object').length === 4")
    connection.send(gdp.document(scene(frame(found(1), found(2), '<tt:ObjectTree><tt:Delete ObjectId="1"/>'
                                             '</tt:ObjectTree>'))))
    page.wait_for("document.querySelectorAll('#overlay .object').length === 2")
    assert ids(page) == ["2", "4"]
    page.wait_for("document.querySelectorAll('#overlay .object').length === 0")
    page.wait_for("document.querySelectorAll('#sources li').length === 0")


def test_everything_has_a_limit(fake, gdp):
    page, connection = fake
    points = '<tt:Point x="0" y="0"/>' * (LIMITS["POINTS_MAX"] + 5)
    many = "".join(found(number, box=(0, 0.1, 0.1, 0)) for number in range(LIMITS["OBJECTS_MAX"] + 9))
    shape = many.replace("</tt:Shape>", f"<tt:Polygon>{points}</tt:Polygon></tt:Shape>", 1)
    connection.send(gdp.document(scene(frame(shape))))
    page.wait_for("document.querySelectorAll('#overlay .object').length > 1")
    page.wait_for(f"document.querySelectorAll('#objects tbody tr').length === {LIMITS['ROWS_MAX']}")
    assert len(shown(page)) == LIMITS["OBJECTS_MAX"]
    assert len(shown(page)[0]["polygons"][0].split()) == LIMITS["POINTS_MAX"]
    for number in range(LIMITS["SOURCES_MAX"] + 3):
        connection.send(gdp.document(scene(frame(found(number, box=(0, 0.1, 0.1, 0)), source=f"S{number}"))))
    page.wait_for(f"document.querySelector('#sources').innerText.includes('S{LIMITS['SOURCES_MAX'] + 2}')")
    assert page.evaluate("document.querySelectorAll('#sources li').length") == LIMITS["SOURCES_MAX"]
    for number in range(LIMITS["TRAIL_POINTS_MAX"] * 2):
        connection.send(gdp.document(scene(frame(found("t", box=(0, 0.1, 0.1 + number / 1000, 0)), source="Trail"))))
    page.wait_for("document.querySelectorAll('#overlay .object[data-id=t]').length === 1")
    (trail,) = [one["trail"] for one in shown(page) if one["id"] == "t"]
    assert 1 <= len(trail.split()) <= LIMITS["TRAIL_POINTS_MAX"]


EVENT = """<tt:MetadataStream xmlns:tt="http://www.onvif.org/ver10/schema"><tt:Event>
<wsnt:NotificationMessage xmlns:wsnt="http://docs.oasis-open.org/wsn/b-2"
 xmlns:tns1="http://www.onvif.org/ver10/topics"><wsnt:Topic>tns1:{topic}</wsnt:Topic><wsnt:Message>
<tt:Message UtcTime="2026-01-02T03:04:05Z"{operation}><tt:Source><tt:SimpleItem Name="Token" Value="{source}"/>
</tt:Source><tt:Data><tt:SimpleItem Name="State" Value="{value}"/></tt:Data></tt:Message>
</wsnt:Message></wsnt:NotificationMessage></tt:Event></tt:MetadataStream>"""


def event(value, operation="", source=1, topic="Device/Test"):
    attribute = f' PropertyOperation="{operation}"' if operation else ""
    return EVENT.format(topic=topic, operation=attribute, source=source, value=value).encode()


def test_events_and_states_have_a_limit(fake, gdp):
    page, connection = fake
    count = LIMITS["EVENTS_MAX"] + 20
    for number in range(count):
        connection.send(gdp.document(event(number)))
    page.wait_for(f"document.querySelector('#ticker li')?.innerText.includes('State={count - 1} ')")
    assert page.evaluate("document.querySelectorAll('#ticker li').length") == LIMITS["EVENTS_MAX"]
    for number in range(LIMITS["PROPERTIES_MAX"] + 5):
        connection.send(gdp.document(event("on", "Initialized", number)))
    page.wait_for(f"document.querySelector('#states').innerText.includes('Token={LIMITS['PROPERTIES_MAX'] + 4}')")
    assert page.evaluate("document.querySelectorAll('#states tbody tr').length") == LIMITS["PROPERTIES_MAX"]


def test_states_of_properties(fake, gdp):
    """The first state is no news; a deleted property has no state."""
    page, connection = fake
    for document in (event("a", "Initialized"), event("b", "Initialized", 2)):
        connection.send(gdp.document(document))
    page.wait_for("document.querySelectorAll('#states tbody tr').length === 2")
    assert page.evaluate("document.querySelectorAll('#ticker li').length") == 0
    for document in (event("c", "Changed"), event("b", "Deleted", 2)):
        connection.send(gdp.document(document))
    page.wait_for("document.querySelectorAll('#ticker li').length === 2")
    assert [row[:2] for row in rows(page, "#states")] == [["Device/Test Token=1", "c"]]
    assert page.evaluate("[...document.querySelectorAll('#ticker li')].map((line) => line.innerText)") == [
        "03:04:05 Device/Test State=b Token=2 deleted", "03:04:05 Device/Test State=c Token=1"]


def test_texts_from_outside_are_texts(fake, gdp):
    page, connection = fake
    evil = "&lt;img src=x onerror=&quot;document.title='run'&quot;&gt;&lt;script&gt;document.title='run'&lt;/script&gt;"
    kind = f'<tt:Class><tt:Type Likelihood="0.5">{evil}</tt:Type></tt:Class>'
    connection.send(gdp.document(scene(frame(found(evil).replace("</tt:Shape>", f"</tt:Shape>{kind}"), source=evil))))
    connection.send(gdp.document(event(evil, "Changed", evil, "Device/A")))
    page.wait_for("document.querySelectorAll('#overlay .object').length === 1"
                  " && document.querySelectorAll('#ticker li').length === 1")
    page.wait_for("document.querySelectorAll('#objects tbody tr').length === 1")
    assert "<img src=x onerror=" in page.text("#objects") and "<img src=x" in page.text("#ticker")
    assert page.evaluate("document.title") == "tessard view"
    assert page.evaluate("document.querySelectorAll('main img:not(#video), body script').length") == 0


# Appearance and keyboard


def test_no_wider_than_a_phone(start_busy_daemon, view, open_page):
    page = open_page(view(start_busy_daemon().socket_path).url, width=PHONE_WIDTH, height=740)
    page.wait_for("document.querySelectorAll('#objects tbody tr').length > 0"
                  " && document.querySelectorAll('#map .object').length > 0")
    assert page.evaluate("innerWidth") == PHONE_WIDTH
    assert page.evaluate("document.documentElement.scrollWidth") == PHONE_WIDTH
    wider = page.evaluate("[...document.querySelectorAll('header *, section, section *:not(svg *)')]"
                          f".filter((one) => one.getBoundingClientRect().right > {PHONE_WIDTH})"
                          ".map((one) => one.outerHTML)")
    assert wider == []


@pytest.mark.parametrize("dark", [False, True], ids=["light", "dark"])
def test_contrast(start_busy_daemon, view, open_page, dark):
    """Texts have the contrast of 4.5 to 1 to their background, in both colour schemes."""
    page = open_page(view(start_busy_daemon().socket_path).url, dark=dark)
    page.wait_for("document.querySelectorAll('#objects tbody tr').length > 0"
                  " && document.querySelectorAll('#ticker li').length > 0")
    pairs = page.evaluate("""[...document.querySelectorAll('body *:not(svg *, noscript)')].filter((one) =>
      one.checkVisibility() && [...one.childNodes].some((node) => node.nodeType === 3 && node.data.trim())
      && !one.matches('option')).map((one) => {
        let back = one;
        while (getComputedStyle(back).backgroundColor === 'rgba(0, 0, 0, 0)') back = back.parentElement;
        return [getComputedStyle(one).color, getComputedStyle(back).backgroundColor, one.outerHTML.slice(0, 80)];
      })""")
    page_colour = page.evaluate("getComputedStyle(document.body).backgroundColor")
    assert (luminance(page_colour) < 0.1) == dark
    assert len(pairs) > 20
    for text, back, element in pairs:
        light, low = sorted((luminance(text), luminance(back)), reverse=True)
        assert (light + 0.05) / (low + 0.05) >= 4.5, element


def luminance(colour):
    """The relative luminance of a colour, by the definition of contrast in the accessibility guidelines."""
    parts = [int(value) / 255 for value in re.findall(r"\d+", colour)[:3]]
    red, green, blue = (part / 12.92 if part <= 0.04045 else ((part + 0.055) / 1.055) ** 2.4 for part in parts)
    return 0.2126 * red + 0.7152 * green + 0.0722 * blue


def test_keyboard_reaches_everything(start_switching):
    page = start_switching(UNPRIVILEGED_GROUP if run_by_root() else None)
    page.wait_for("document.querySelectorAll('#sources li').length === 2")
    wanted = page.evaluate("document.querySelectorAll('button:not(:disabled), select, input, [tabindex=\"0\"]').length")
    reached = []
    for _ in range(wanted):
        page.press("Tab")
        reached.append(page.evaluate(
            "(() => { const one = document.activeElement; const style = getComputedStyle(one);"
            " return [[one.tagName, one.id, one.ariaLabel, one.closest('li')?.innerText].join(' '),"
            " one.matches(':focus-visible'), style.outlineStyle, parseFloat(style.outlineWidth)]; })()"))
    assert len({name for name, *_ in reached}) == wanted
    assert all(visible and style == "solid" and width >= 2 for _, visible, style, width in reached), reached
    unnamed = page.evaluate("[...document.querySelectorAll('button, select, input, section, svg[role], [role=log]')]"
                            ".filter((one) => !one.ariaLabel && !one.innerText && !one.closest('label')"
                            " && !one.getAttribute('aria-labelledby')).map((one) => one.outerHTML)")
    assert unnamed == []


@pytest.mark.parametrize("by", ["key", "button"])
def test_pause(start_busy_daemon, view, open_page, by):
    """A paused page stays as it is; then it shows the present scene, and the events of the pause."""
    daemon = start_busy_daemon(speed=4)
    gateway = view(daemon.socket_path)
    page = open_page(gateway.url)
    page.wait_for("document.querySelectorAll('#overlay .object').length > 0"
                  " && document.querySelectorAll('#ticker li').length > 0")

    def toggle():
        if by == "button":
            page.evaluate("document.querySelector('#pause').focus()")
        page.press("p" if by == "key" else "Enter")

    toggle()
    assert page.evaluate("document.querySelector('#pause').getAttribute('aria-pressed')") == "true"
    content = "document.querySelector('main').innerHTML"
    paused = page.evaluate(content)
    with gateway.stream() as stream:
        for _ in range(3):
            stream.find("event", lambda data: data["operation"] == "Changed")
    assert page.evaluate(content) == paused
    count = page.evaluate("document.querySelectorAll('#ticker li').length")
    toggle()
    page.wait_for(f"document.querySelectorAll('#ticker li').length >= {count + 3}")
    page.wait_for(f"{content} !== {json.dumps(paused)}")


def test_reduced_motion(start_busy_daemon, view, open_page):
    """No trails, no transitions, and at most one drawing in a second."""
    page = open_page(view(start_busy_daemon().socket_path).url, reduced_motion=True)
    page.wait_for("document.querySelectorAll('#overlay .object').length > 0")
    assert {one["trail"] for one in shown(page)} == {""}
    assert page.evaluate("[...document.querySelectorAll('*')].every((one) => "
                         "getComputedStyle(one).transitionDuration === '0s'"
                         " && getComputedStyle(one).animationName === 'none')")
    times = page.evaluate("""new Promise((done) => {
      const times = [];
      new MutationObserver(() => {
        times.push(performance.now());
        if (times.length === 3) done(times);
      }).observe(document.querySelector('#overlay'), {subtree: true, attributes: true, attributeFilter: ['data-time']});
    })""")
    assert all(after - before > LIMITS["DRAW_REDUCED_MS"] * 0.9 for before, after in itertools.pairwise(times))


def test_channels(start_busy_daemon, view, open_page):
    page = open_page(view(start_busy_daemon().socket_path, "--channels", "2").url)
    page.wait_for("document.querySelectorAll('#overlay .object').length > 0")
    page.evaluate("document.querySelector('#channel').value = '2';"
                  " document.querySelector('#channel').dispatchEvent(new Event('change'))")
    page.wait_for("document.querySelector('#connection').innerText === 'Live'"
                  " && document.querySelectorAll('.object').length === 0")
    assert page.evaluate("document.querySelectorAll('#sources li').length") == 0


SMALL_VIDEO = "videotestsrc is-live=true ! video/x-raw,format=I420,width=80,height=60,framerate=10/1 ! jpegenc"


def test_video_below_the_scene(start_busy_daemon, view, open_page):
    """The drawing has the aspect ratio of the picture, and is over it."""
    page = open_page(view(start_busy_daemon().socket_path, "--video", SMALL_VIDEO).url)
    page.wait_for("document.querySelector('#video').naturalWidth === 80")
    page.wait_for("document.querySelector('#overlay').viewBox.baseVal.height === 1200")
    edges = [page.evaluate(f"(({{left, top, right, bottom}}) => [left, top, right, bottom])"
                           f"(document.querySelector('{name}').getBoundingClientRect())")
             for name in ("#video", "#overlay")]
    assert edges[0] == pytest.approx(edges[1], abs=0.5)
    assert (edges[0][2] - edges[0][0]) / (edges[0][3] - edges[0][1]) == pytest.approx(80 / 60, abs=0.01)


def test_pause_freezes_the_video(start_busy_daemon, view, open_page):
    """A still of the video covers it during a pause."""
    page = open_page(view(start_busy_daemon().socket_path, "--video", SMALL_VIDEO).url)
    page.wait_for("document.querySelector('#video').naturalWidth === 80")
    assert page.evaluate("document.querySelector('#still').hidden")
    page.press("p")
    still = page.evaluate("(({hidden, width, height}) => [hidden, width, height])(document.querySelector('#still'))")
    assert still == [False, 80, 60]
    corner = "document.querySelector('#still').getContext('2d').getImageData(0, 0, 1, 1).data"
    # The first bar of the test picture is white.
    assert min(page.evaluate(f"[...{corner}]")) > 150
    page.press("p")
    assert page.evaluate("document.querySelector('#still').hidden")


# The colours of a screenshot: for each rectangle, the number of pixels that are close to a colour.
COUNT_PIXELS = """(async () => {
  const image = await createImageBitmap(await (await fetch('data:image/png;base64,' + PICTURE)).blob());
  const canvas = new OffscreenCanvas(image.width, image.height);
  const context = canvas.getContext('2d');
  context.drawImage(image, 0, 0);
  return WANTED.map(([colour, [left, top, width, height]]) => {
    const { data } = context.getImageData(left, top, Math.max(width, 1), Math.max(height, 1));
    let count = 0;
    for (let i = 0; i < data.length; i += 4) {
      count += colour.every((value, channel) => Math.abs(value - data[i + channel]) < 40) ? 1 : 0;
    }
    return count;
  });
})()"""

# The colour and the place of each drawn object and of some marks.
WANTED = """[
  ...[...document.querySelectorAll('.object')].map((group) => [group.querySelector('.box, .dot'), 'stroke']),
  ...[...document.querySelectorAll('.swatch')].map((swatch) => [swatch, 'backgroundColor']),
  [document.querySelector('#head-direction'), 'fill'],
].map(([one, property]) => {
  const { left, top, width, height } = one.getBoundingClientRect();
  return [getComputedStyle(one)[property].match(/\\d+/g).map(Number), [left, top, width, height].map(Math.round)];
})"""


def test_screenshot_has_what_must_be_there(start_busy_daemon, view, open_page, browser, tmp_path):
    """The browser has painted each object, the colours of the legend and the camera head."""
    page = open_page(view(start_busy_daemon().socket_path).url, height=1400)
    page.wait_for("document.querySelectorAll('#overlay .object').length > 0 && document.querySelector('#map .object')"
                  " && !document.querySelector('#head').hidden")
    page.press("p")
    wanted = page.evaluate(WANTED)
    assert len(wanted) >= 5
    page.screenshot(tmp_path / "page.png")
    picture = base64.b64encode((tmp_path / "page.png").read_bytes()).decode()
    blank = browser.open("data:text/html,")
    counts = blank.evaluate(COUNT_PIXELS.replace("PICTURE", json.dumps(picture))
                            .replace("WANTED", json.dumps(wanted)))
    blank.close()
    for count, (colour, (left, top, width, height)) in zip(counts, wanted):
        assert count >= (width + height) / 2, (colour, left, top, width, height)


def test_picture_of_the_readme():
    picture = TREE / "docs/view.png"
    assert "(docs/view.png)" in (TREE / "README.md").read_text(encoding="utf-8")
    assert picture.read_bytes().startswith(b"\x89PNG\r\n")
    assert picture.stat().st_size < 150 * 1000
