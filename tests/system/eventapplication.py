# SPDX-License-Identifier: MIT
"""Applications that emit events through the metadata receiver, and its stream of events."""

from gi.repository import Gio, GLib

from busclient import error_text
from daemon import WARNING
from receiverclient import NAME, Stream
from receiverprocess import ERROR_PREFIX, Application, Refused
from waiting import BOUND_SECONDS

EVENTS_PATH = "/com/quon/MetadataReceiver1"
EVENTS = "com.quon.MetadataReceiver1.Events"

MOTION = "tns1:VideoSource/MotionAlarm"
CROSSED = "tns1:RuleEngine/LineDetector/Crossed"
TAMPER = "tns1:VideoSource/acme:Tamper/Covered"
ACME = {"acme": "http://acme.example/topics"}

SOURCE = [("Source", "tt:ReferenceToken")]
STATE = [("State", "xs:boolean")]
OBJECT = [("ObjectId", "xs:integer")]

# The types of the arguments of each method.
SIGNATURES = {
    "DeclareTopic": "(sba(ss)a(ss)a{ss})",
    "Emit": "(ssa{ss}a{ss}x)",
    "GetTopics": "()",
    "GetEventStream": "()",
}

# A warning of the receiver.
NOT_READ = (WARNING, "A stream of events: is not read, messages are dropped")

CURRENT = {"Current": True}
RESYNC = {"Resync": True}


class EventStream(Stream):
    """The read end of a stream of events."""

    def up_to_current(self):
        """The operation, the source's and the data's value of each event before the states are complete."""
        found = []
        while (item := self.item()) != CURRENT:
            found.append(summary(item))
        return found


def summary(item):
    """What tells two events of one topic apart."""
    return item["Operation"], item["Source"][0][1], item["Data"][0][1]


class EventApplication(Application):
    """One connection that declares topics and emits events."""

    def events_call(self, method, *arguments):
        try:
            return self.connection.call_with_unix_fd_list_sync(
                NAME, EVENTS_PATH, EVENTS, method, GLib.Variant(SIGNATURES[method], arguments), None,
                Gio.DBusCallFlags.NO_AUTO_START, BOUND_SECONDS * 1000, None, None)
        except GLib.Error as error:
            name = Gio.DBusError.get_remote_error(error)
            if name is None or not name.startswith(ERROR_PREFIX):
                raise
            raise Refused(name.removeprefix(ERROR_PREFIX), error_text(error)) from error

    def declare(self, topic=MOTION, is_property=True, source=None, data=None, namespaces=None):
        """Declares a topic; returns the application."""
        self.events_call("DeclareTopic", topic, is_property, SOURCE if source is None else source,
                         STATE if data is None else data, namespaces or {})
        return self

    def emit(self, topic, operation, source, data, time=0):
        self.events_call("Emit", topic, operation, source, data, time)

    def alarm(self, source, state, operation="Changed"):
        """Emits the state of a motion alarm."""
        self.emit(MOTION, operation, {"Source": source}, {"State": "true" if state else "false"})

    def cross(self, number):
        """Emits the crossing of a line by an object."""
        self.emit(CROSSED, "", {"Source": "1"}, {"ObjectId": str(number)})

    def send_alarm(self, source, state):
        """Sends an alarm for which no reply is expected."""
        message = Gio.DBusMessage.new_method_call(NAME, EVENTS_PATH, EVENTS, "Emit")
        message.set_flags(Gio.DBusMessageFlags.NO_REPLY_EXPECTED)
        message.set_body(GLib.Variant(
            SIGNATURES["Emit"], (MOTION, "Changed", {"Source": source}, {"State": state}, 0)))
        self.connection.send_message(message, Gio.DBusSendMessageFlags.NONE)

    def topics(self):
        reply, _ = self.events_call("GetTopics")
        return reply.unpack()[0]

    def open_events(self):
        """Opens a stream of events, which close() closes."""
        reply, descriptors = self.events_call("GetEventStream")
        assert reply.get_type_string() == "(h)" and reply.unpack() == (0,)
        (fd,) = descriptors.steal_fds()
        self.writers.append(EventStream(fd))
        return self.writers[-1]
