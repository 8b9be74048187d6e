# SPDX-License-Identifier: MIT
"""The simulated camera's services: their replies, injected faults, and verbs."""

import signal
import subprocess
import time

import pytest
from gi.repository import Gio, GLib

from busclient import PROPERTIES, BusClient, error_text
from simcamera import (CAPTURE, FAILURE, PTZ, RECEIVER, SCENES, SERVICES, SLOW_MS, USAGE, Refused,
                       SimulatedCamera)
from waiting import BOUND_SECONDS, wait_until

CONTROL_NAME = "tessard.SimulatedCamera1"

BUS_NAMES = {
    PTZ: "com.quon.PTZ.Coordinator",
    CAPTURE: "com.quon.Capt1",
    SCENES: "com.quon.VideoSceneManager1",
    RECEIVER: "com.quon.MetadataReceiver1",
}

PTZ_OBJECT = (BUS_NAMES[PTZ], "/com/quon/PTZ/Coordinator/1")
PTZ_PROPERTY = ("com.quon.PTZ.Coordinator", "DriverMoveCapabilities")
CAPTURE_PATH = "/com/quon/Capt1/Channels"
CAPTURE_PROPERTY = ("com.quon.Capt1.Channel", "settings")
SCENES_OBJECT = (BUS_NAMES[SCENES], "/com/quon/VideoSceneManager1")
SCENES_METHOD = ("com.quon.VideoSceneManager1.Scene", "GetNumberOfChannels")

RECEIVER_OBJECT = (BUS_NAMES[RECEIVER], "/com/quon/MetadataReceiver1/Producers/VehicleDetector")
RECEIVER_METHOD = ("com.quon.MetadataReceiver1.Producer", "GetSampleFrame")

SAMPLE_FRAME = (
    '{"UtcTime":"2024-01-01T00:00:00.000000Z","Objects":[{"Id":2,"BoundingBox":{"Left":0.18,"Top":0.14,"Right":0.62,'
    '"Bottom":-0.14},"Type":"Vehicle","Likelihood":0.92}],"Deleted":[]}')

RIGHT_REPLIES = {
    PTZ: "(<7>,)",
    CAPTURE: "(<{'rotation': <uint32 0>}>,)",
    SCENES: "(2,)",
    RECEIVER: f"('{SAMPLE_FRAME}',)",
}

DEFAULT_ERROR_TEXT = "The simulated service fails."

MAX_CHANNELS = 16

VERBS = ("absent, present, inject-fault, clear-fault, calls, channels, rotation, move-capabilities, add-producer, "
         "remove-producer, property, interface, sample-frame, inject-producer-fault, clear-producer-faults, streams, "
         "hang-up, descriptors, pieces, rate, once")

KINDS = "error [TEXT], reply BODY, slow MILLISECONDS, never"


class Caller(BusClient):
    """Makes the daemon's calls."""

    def capture(self, channel=1, **arguments):
        return self.get(BUS_NAMES[CAPTURE], f"{CAPTURE_PATH}/{channel}", *CAPTURE_PROPERTY, **arguments)

    def call_service(self, service, **arguments):
        """The reply in GVariant's text format."""
        if service == PTZ:
            reply = self.get(*PTZ_OBJECT, *PTZ_PROPERTY, **arguments)
        elif service == CAPTURE:
            reply = self.capture(**arguments)
        elif service == RECEIVER:
            reply = self.call(*RECEIVER_OBJECT, *RECEIVER_METHOD, **arguments)
        else:
            reply = self.call(*SCENES_OBJECT, *SCENES_METHOD, **arguments)
        return reply.print_(True)

    def rotation(self, channel):
        return self.capture(channel).print_(True)


@pytest.fixture
def start_camera(start_full_camera):
    return start_full_camera


@pytest.fixture
def caller(bus):
    connected = Caller(bus)
    yield connected
    connected.close()


def start_failing(installation, bus, *options):
    """Runs a camera that ends by itself; returns its status and its output."""
    return SimulatedCamera(installation, bus, *options).wait()


# Replies


@pytest.mark.parametrize("service", SERVICES)
def test_services_reply_to_the_daemons_calls(camera, caller, service):
    assert caller.call_service(service) == RIGHT_REPLIES[service]


@pytest.mark.parametrize("value", [-2147483648, 0, 2147483647])
def test_move_capabilities_are_the_option(start_camera, caller, value):
    camera = start_camera("--move-capabilities", str(value))
    assert caller.call_service(PTZ) == f"(<{value}>,)"

    camera.move_capabilities(3)
    assert caller.call_service(PTZ) == "(<3>,)"

    camera.move_capabilities(value)
    assert caller.call_service(PTZ) == f"(<{value}>,)"


def test_each_channel_has_its_rotation(start_camera, caller):
    camera = start_camera("--rotation", "1=90", "--rotation", "3=none", "--channels", "3")
    assert [caller.rotation(channel) for channel in (1, 2, 3)] == [
        "(<{'rotation': <uint32 90>}>,)", "(<{'rotation': <uint32 0>}>,)", "(<@a{sv} {}>,)"]

    camera.rotation(1, "none")
    camera.rotation(2, 4294967295)
    camera.rotation(3, 180)
    assert [caller.rotation(channel) for channel in (1, 2, 3)] == [
        "(<@a{sv} {}>,)", "(<{'rotation': <uint32 4294967295>}>,)", "(<{'rotation': <uint32 180>}>,)"]


@pytest.mark.parametrize("count", [0, 1, MAX_CHANNELS])
def test_every_channel_is_an_object_and_counted(start_camera, caller, count):
    start_camera("--channels", str(count))

    introspection = caller.call(BUS_NAMES[CAPTURE], CAPTURE_PATH, "org.freedesktop.DBus.Introspectable",
                                "Introspect").unpack()[0]
    nodes = [node.path for node in Gio.DBusNodeInfo.new_for_xml(introspection).nodes]
    assert sorted(nodes, key=int) == [str(channel) for channel in range(1, count + 1)]
    assert caller.call_service(SCENES) == f"({count},)"


def test_channels_are_added_and_removed_with_their_rotation(camera, caller):
    camera.rotation(2, 270)
    camera.channels(1)
    with pytest.raises(GLib.Error) as failed:
        caller.capture(2)
    assert Gio.DBusError.get_remote_error(failed.value) == "org.freedesktop.DBus.Error.UnknownMethod"

    camera.channels(2)
    assert caller.rotation(2) == "(<{'rotation': <uint32 270>}>,)"


@pytest.mark.parametrize("name, path, interface, values", [
    (*PTZ_OBJECT, PTZ_PROPERTY[0], "({'DriverMoveCapabilities': <7>},)"),
    (BUS_NAMES[CAPTURE], f"{CAPTURE_PATH}/1", CAPTURE_PROPERTY[0], "({'settings': <{'rotation': <uint32 0>}>},)"),
    (*SCENES_OBJECT, SCENES_METHOD[0], "(@a{sv} {},)"),
    (*RECEIVER_OBJECT, RECEIVER_METHOD[0], "({'Name': <'VehicleDetector'>, "
                                           "'NiceName': <'Simulated vehicle detector'>, "
                                           "'SupportedChannels': <[uint32 1, 2]>},)"),
])
def test_all_properties_can_be_read_at_once(camera, caller, name, path, interface, values):
    for service in SERVICES:
        camera.inject_fault(service, "never")

    reply = caller.call(name, path, PROPERTIES, "GetAll", GLib.Variant("(s)", (interface,)))
    assert reply.print_(True) == values
    assert [camera.calls(service) for service in SERVICES] == [0] * len(SERVICES)


# Faults


WRONG_REPLIES = [
    (PTZ, "wrong-type", "(<'wrong'>,)"),
    (PTZ, "wrong-number", "(<uint32 1>,)"),
    (PTZ, "no-variant", "(1,)"),
    (PTZ, "nested", "(<<1>>,)"),
    (PTZ, "empty", "()"),
    (CAPTURE, "wrong-type", "(<'wrong'>,)"),
    (CAPTURE, "wrong-number", "(<{'rotation': <90>}>,)"),
    (CAPTURE, "wrong-rotation", "(<{'rotation': <'wrong'>}>,)"),
    (CAPTURE, "no-variant", "({'rotation': <uint32 90>},)"),
    (CAPTURE, "nested", "(<<{'rotation': <uint32 90>}>>,)"),
    (CAPTURE, "empty", "()"),
    (SCENES, "wrong-type", "('wrong',)"),
    (SCENES, "wrong-number", "(uint32 1,)"),
    (SCENES, "variant", "(<1>,)"),
    (SCENES, "nested", "((1,),)"),
    (SCENES, "empty", "()"),
    (RECEIVER, "wrong-type", "(1,)"),
    (RECEIVER, "empty", "()"),
]


@pytest.mark.parametrize("service, how, reply", WRONG_REPLIES)
def test_wrong_replies_are_sent_as_they_are(camera, caller, service, how, reply):
    camera.inject_fault(service, how)
    assert caller.call_service(service) == reply

    camera.clear_fault(service)
    assert caller.call_service(service) == RIGHT_REPLIES[service]


@pytest.mark.parametrize("service, how, reply", WRONG_REPLIES)
def test_wrong_replies_can_be_injected_from_the_start(start_camera, caller, service, how, reply):
    start_camera("--fault", f"{service}={how}")

    assert caller.call_service(service) == reply


@pytest.mark.parametrize("service", SERVICES)
@pytest.mark.parametrize("reply", ["(@av [],)", "('two', 'words')", "(<[1, 2]>,)", "({'rotation': 'a=b:c'},)"])
def test_any_reply_can_be_injected(start_camera, caller, service, reply):
    camera = start_camera("--fault", f"{service}=reply:{reply}")
    assert caller.call_service(service) == reply

    camera.inject_fault(service, "error")
    camera.inject_fault(service, "reply", reply)
    assert caller.call_service(service) == reply


def expect_error(caller, service, text):
    with pytest.raises(GLib.Error) as failed:
        caller.call_service(service)
    assert Gio.DBusError.get_remote_error(failed.value) == "org.freedesktop.DBus.Error.Failed"
    assert error_text(failed.value) == text


@pytest.mark.parametrize("service", SERVICES)
def test_errors_have_their_text(camera, caller, service):
    camera.inject_fault(service, "error", "No such ü: 1=2")
    expect_error(caller, service, "No such ü: 1=2")

    camera.inject_fault(service, "error", "")
    expect_error(caller, service, "")

    camera.inject_fault(service, "error")
    expect_error(caller, service, DEFAULT_ERROR_TEXT)


@pytest.mark.parametrize("option, text", [
    ("ptz=error", DEFAULT_ERROR_TEXT),
    ("ptz=error:", ""),
    ("ptz=error:No such ü: 1=2", "No such ü: 1=2"),
])
def test_errors_can_be_injected_from_the_start(start_camera, caller, option, text):
    start_camera("--fault", option)

    expect_error(caller, PTZ, text)


@pytest.mark.parametrize("service", SERVICES)
def test_slow_replies_are_correct_and_late(camera, caller, service):
    camera.inject_fault(service, "slow", SLOW_MS)
    began = time.monotonic()
    assert caller.call_service(service) == RIGHT_REPLIES[service]

    assert time.monotonic() - began >= SLOW_MS / 1000


def test_slow_service_delays_no_other(camera, caller):
    camera.inject_fault(PTZ, "slow", 600000)
    with pytest.raises(GLib.Error) as failed:
        caller.call_service(PTZ, seconds=SLOW_MS / 1000)
    assert failed.value.matches(Gio.io_error_quark(), Gio.IOErrorEnum.TIMED_OUT)

    assert caller.call_service(CAPTURE) == RIGHT_REPLIES[CAPTURE]
    assert caller.call_service(SCENES) == RIGHT_REPLIES[SCENES]
    camera.clear_fault(PTZ)
    assert caller.call_service(PTZ) == RIGHT_REPLIES[PTZ]


@pytest.mark.parametrize("service", SERVICES)
def test_fault_never_suppresses_the_reply(camera, caller, service):
    camera.inject_fault(service, "never")
    with pytest.raises(GLib.Error) as failed:
        caller.call_service(service, seconds=SLOW_MS / 1000)
    assert failed.value.matches(Gio.io_error_quark(), Gio.IOErrorEnum.TIMED_OUT)

    camera.clear_fault(service)
    assert caller.call_service(service) == RIGHT_REPLIES[service]


@pytest.mark.parametrize("service", SERVICES)
def test_a_fault_affects_one_service_only(camera, caller, service):
    camera.inject_fault(service, "empty")

    assert {other: caller.call_service(other) for other in SERVICES} == RIGHT_REPLIES | {service: "()"}


def test_every_call_is_counted(camera, caller):
    assert camera.calls(PTZ) == 0
    caller.call_service(PTZ)
    camera.inject_fault(PTZ, "error")
    with pytest.raises(GLib.Error):
        caller.call_service(PTZ)
    camera.inject_fault(PTZ, "never")
    caller.start_call(*PTZ_OBJECT, PROPERTIES, "Get", GLib.Variant("(ss)", PTZ_PROPERTY))

    wait_until(lambda: camera.calls(PTZ) == 3, "the third call has arrived")
    assert [camera.calls(service) for service in (CAPTURE, SCENES)] == [0, 0]


# Present and absent services


@pytest.mark.parametrize("there", [(), (PTZ,), (CAPTURE, SCENES), SERVICES])
def test_only_chosen_services_are_there(start_camera, caller, there):
    start_camera("--services", ",".join(there))

    assert {service for service, name in BUS_NAMES.items() if caller.has_owner(name)} == set(there)
    assert caller.has_owner(CONTROL_NAME)


@pytest.mark.parametrize("service", SERVICES)
def test_services_vanish_and_appear_before_the_verb_returns(camera, caller, service):
    for _ in range(5):
        camera.absent(service)
        assert not caller.has_owner(BUS_NAMES[service])
        camera.present(service)
        assert caller.has_owner(BUS_NAMES[service])
        assert caller.call_service(service) == RIGHT_REPLIES[service]


def test_absent_from_the_start_and_present_later(start_camera, caller):
    camera = start_camera("--services", "")
    with pytest.raises(GLib.Error) as failed:
        caller.call_service(SCENES)
    assert Gio.DBusError.get_remote_error(failed.value) == "org.freedesktop.DBus.Error.NameHasNoOwner"

    camera.present(SCENES)
    assert caller.call_service(SCENES) == RIGHT_REPLIES[SCENES]


def test_repeated_verbs_have_no_further_effect(camera, caller):
    camera.absent(PTZ)
    camera.absent(PTZ)
    assert not caller.has_owner(BUS_NAMES[PTZ])
    camera.present(PTZ)
    camera.present(PTZ)
    assert caller.has_owner(BUS_NAMES[PTZ])


@pytest.mark.parametrize("name", [*BUS_NAMES.values(), CONTROL_NAME])
def test_taken_name_is_an_error(installation, bus, caller, name):
    caller.own(name)

    assert start_failing(installation, bus) == (FAILURE, "", f"simcamera: the name {name} is taken\n")


def test_service_cannot_appear_while_its_name_is_taken(camera, bus, caller):
    camera.absent(PTZ)
    other = BusClient(bus)
    other.own(BUS_NAMES[PTZ])
    with pytest.raises(Refused, match=f"^simcamera: the name {BUS_NAMES[PTZ]} is taken\n$"):
        camera.present(PTZ)

    # It does not wait in a queue for the name.
    other.close()
    wait_until(lambda: not caller.has_owner(BUS_NAMES[PTZ]), "the name has no owner")
    camera.present(PTZ)
    assert caller.call_service(PTZ) == RIGHT_REPLIES[PTZ]


# Refusals


@pytest.mark.parametrize("words, text", [
    (["dance"], f"unknown verb 'dance'; there are: {VERBS}"),
    ([""], f"unknown verb ''; there are: {VERBS}"),
    (["absent"], "wrong number of arguments; usage: absent SERVICE"),
    (["absent", "ptz", "scenes"], "wrong number of arguments; usage: absent SERVICE"),
    (["absent", "radio"], "unknown service 'radio'; there are: ptz, capture, scenes, receiver"),
    (["present", "radio"], "unknown service 'radio'; there are: ptz, capture, scenes, receiver"),
    (["clear-fault", "radio"], "unknown service 'radio'; there are: ptz, capture, scenes, receiver"),
    (["calls", "radio"], "unknown service 'radio'; there are: ptz, capture, scenes, receiver"),
    (["inject-fault", "radio", "error"], "unknown service 'radio'; there are: ptz, capture, scenes, receiver"),
    (["inject-fault", "ptz"], "wrong number of arguments; usage: inject-fault SERVICE FAULT [ARGUMENT]"),
    (["inject-fault", "ptz", "badly"], f"unknown fault 'badly'; there are: {KINDS}, wrong-type, wrong-number, "
                                    "no-variant, nested, empty"),
    (["inject-fault", "capture", "badly"], f"unknown fault 'badly'; there are: {KINDS}, wrong-type, "
                                        "wrong-number, wrong-rotation, no-variant, nested, empty"),
    (["inject-fault", "scenes", "badly"], f"unknown fault 'badly'; there are: {KINDS}, wrong-type, "
                                       "wrong-number, variant, nested, empty"),
    (["inject-fault", "ptz", "never", "ever"], "wrong number of arguments; usage: never"),
    (["inject-fault", "ptz", "empty", "1"], "wrong number of arguments; usage: empty"),
    (["inject-fault", "ptz", "slow"], "wrong number of arguments; usage: slow MILLISECONDS"),
    (["inject-fault", "ptz", "slow", "0"], "the delay in milliseconds must be a number from 1 to 600000, not '0'"),
    (["inject-fault", "ptz", "slow", "600001"],
     "the delay in milliseconds must be a number from 1 to 600000, not '600001'"),
    (["inject-fault", "ptz", "reply"], "wrong number of arguments; usage: reply BODY"),
    (["inject-fault", "ptz", "reply", "5"], "the reply must be a tuple, not '5'"),
    (["inject-fault", "ptz", "reply", "(just 5,)"], "the bus carries no such reply: '(just 5,)'"),
    (["inject-fault", "ptz", "reply", "((),)"], "the bus carries no such reply: '((),)'"),
    (["inject-fault", "ptz", "reply", "(<@mi 5>,)"], "the bus carries no such reply: '(<@mi 5>,)'"),
    (["channels", "-1"], "the number of channels must be a number from 0 to 16, not '-1'"),
    (["channels", "17"], "the number of channels must be a number from 0 to 16, not '17'"),
    (["channels", "two"], "the number of channels must be a number from 0 to 16, not 'two'"),
    (["channels", ""], "the number of channels must be a number from 0 to 16, not ''"),
    (["rotation", "1"], "wrong number of arguments; usage: rotation CHANNEL DEGREES"),
    (["rotation", "0", "90"], "the channel must be a number from 1 to 2, not '0'"),
    (["rotation", "3", "90"], "the channel must be a number from 1 to 2, not '3'"),
    (["rotation", "3", "none"], "the channel must be a number from 1 to 2, not '3'"),
    (["rotation", "1", "-90"], "the rotation must be a number from 0 to 4294967295, not '-90'"),
    (["rotation", "1", "4294967296"], "the rotation must be a number from 0 to 4294967295, not '4294967296'"),
    (["move-capabilities", "2147483648"],
     "the move capabilities must be a number from -2147483648 to 2147483647, not '2147483648'"),
    (["move-capabilities", "-2147483649"],
     "the move capabilities must be a number from -2147483648 to 2147483647, not '-2147483649'"),
])
def test_wrong_verbs_are_refused_and_change_nothing(camera, caller, words, text):
    assert camera.run_tell(*words) == (FAILURE, "", f"simcamera: {text}\n")

    assert {service: caller.call_service(service) for service in SERVICES} == RIGHT_REPLIES


def test_reply_that_is_no_gvariant_is_refused(camera, caller):
    with pytest.raises(Refused, match="^simcamera: the reply is not in GVariant's text format: .+\n$"):
        camera.inject_fault(PTZ, "reply", "(5")

    assert caller.call_service(PTZ) == RIGHT_REPLIES[PTZ]


def test_channels_that_are_gone_cannot_be_rotated(camera):
    camera.channels(0)

    with pytest.raises(Refused, match="^simcamera: the camera has no channel to rotate\n$"):
        camera.rotation(1, 90)


def test_a_fault_stays_when_the_next_one_is_refused(camera, caller):
    camera.inject_fault(PTZ, "empty")
    with pytest.raises(Refused):
        camera.inject_fault(PTZ, "slow", "fast")

    assert caller.call_service(PTZ) == "()"


def test_words_that_are_not_utf8_are_refused(camera, installation, bus):
    assert camera.run_tell("absent", b"\xff") == (FAILURE, "", "simcamera: '�' is not UTF-8\n")

    status, out, err = start_failing(installation, bus, "--fault", b"ptz=error:\xff")
    assert (status, out) == (USAGE, "")
    assert err == "simcamera: '�' is not UTF-8\nTry 'simcamera --help'.\n"


def test_verb_without_a_camera_fails(installation, own_bus):
    camera = SimulatedCamera(installation, own_bus)
    camera.wait_until_ready()
    assert camera.end() == (0, "", "")

    assert camera.run_tell("calls", "ptz") == (FAILURE, "", "simcamera: there is no simulated camera on the bus\n")


@pytest.mark.parametrize("options, text", [
    (["--services", "radio"], "unknown service 'radio'; there are: ptz, capture, scenes, receiver"),
    (["--services", "ptz,"], "unknown service ''; there are: ptz, capture, scenes, receiver"),
    (["--channels", "17"], "the number of channels must be a number from 0 to 16, not '17'"),
    (["--rotation", "1"], "wrong number of arguments; usage: rotation CHANNEL DEGREES"),
    (["--rotation", "3=90"], "the channel must be a number from 1 to 2, not '3'"),
    (["--rotation", "1=90=90"], "the rotation must be a number from 0 to 4294967295, not '90=90'"),
    (["--move-capabilities", "many"],
     "the move capabilities must be a number from -2147483648 to 2147483647, not 'many'"),
    (["--fault", "ptz"], "wrong number of arguments; usage: inject-fault SERVICE FAULT [ARGUMENT]"),
    (["--fault", "ptz=slow"], "wrong number of arguments; usage: slow MILLISECONDS"),
    (["now"], "unexpected argument 'now'"),
    (["--wrong"], "Unknown option --wrong"),
])
def test_wrong_options_are_refused_with_a_hint(installation, bus, caller, options, text):
    assert start_failing(installation, bus, *options) == (
        USAGE, "", f"simcamera: {text}\nTry 'simcamera --help'.\n")
    assert not caller.has_owner(CONTROL_NAME)


@pytest.mark.parametrize("words, text", [
    ([], "no verb given"),
    (["--wrong", "calls", "ptz"], "Unknown option --wrong"),
])
def test_tell_without_a_verb_is_refused_with_a_hint(camera, words, text):
    assert camera.run_tell(*words) == (USAGE, "", f"simcamera: {text}\nTry 'simcamera tell --help'.\n")


@pytest.mark.parametrize("words", [["--help"], ["tell", "--help"]])
def test_help_lists_the_verbs(installation, words):
    help_text = subprocess.run([installation.simcamera, *words], check=True, capture_output=True, text=True,
                               timeout=BOUND_SECONDS).stdout

    for verb in ("absent SERVICE", "present SERVICE", "inject-fault SERVICE FAULT [ARGUMENT]", "clear-fault SERVICE",
                 "calls SERVICE", "channels N", "rotation CHANNEL DEGREES", "move-capabilities N",
                 "add-producer NAME [FILE]", "remove-producer NAME", "property NAME PROPERTY VALUE",
                 "sample-frame NAME TEXT", "inject-producer-fault NAME METHOD FAULT [ARGUMENT]",
                 "clear-producer-faults NAME", "streams NAME", "hang-up NAME",
                 "descriptors NAME pipe|socket [nonblocking]", "pieces NAME BYTES MILLISECONDS", "rate N|recorded",
                 "once yes|no"):
        assert f"\n  {verb} " in help_text


# Bus, signals and end


def test_bus_can_be_named(installation, bus, own_bus, start_camera):
    camera = start_camera("--bus", own_bus.address)
    with pytest.raises(Refused, match="there is no simulated camera on the bus"):
        camera.tell("absent", PTZ)

    assert camera.tell("--bus", own_bus.address, "calls", PTZ) == "0\n"
    alone = Caller(own_bus)
    assert alone.call_service(PTZ) == RIGHT_REPLIES[PTZ]
    alone.close()


def test_missing_bus_is_an_error(installation, bus, workspace):
    status, out, err = start_failing(installation, bus, "--bus", f"unix:path={workspace.path}/nothing")

    assert (status, out) == (FAILURE, "")
    assert err.startswith("simcamera: Could not connect: ")


@pytest.mark.parametrize("number", [signal.SIGTERM, signal.SIGINT])
def test_signals_end_the_camera(start_camera, caller, number):
    camera = start_camera()
    camera.inject_fault(PTZ, "slow", 600000)
    caller.start_call(*PTZ_OBJECT, PROPERTIES, "Get", GLib.Variant("(ss)", PTZ_PROPERTY))
    wait_until(lambda: camera.calls(PTZ) == 1, "the call has arrived")

    assert camera.end(number) == (0, "", "")
    assert not any(caller.has_owner(name) for name in (*BUS_NAMES.values(), CONTROL_NAME))
    start_camera()


def test_camera_ends_with_its_bus(installation, own_bus):
    camera = SimulatedCamera(installation, own_bus)
    camera.wait_until_ready()
    own_bus.process.terminate()

    assert camera.wait() == (FAILURE, "", "simcamera: the connection to the bus is closed\n")
