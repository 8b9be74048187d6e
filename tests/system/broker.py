# SPDX-License-Identifier: MIT
"""mosquitto as a broker of a test's own, and mosquitto_sub as its client."""

import json
import os
import random
import shutil
import signal
import socket
import subprocess
import threading
import typing

from installation import unprivileged
from waiting import BOUND_SECONDS, wait_until

# Below the ports that the kernel gives to outgoing connections, so a broker that restarts gets its port again.
PORTS = range(20000, 32000)

# Debian installs the broker in a folder that is not on every user's path.
PROGRAM = shutil.which("mosquitto", path=f"{os.environ['PATH']}:/usr/sbin")

SECRET = "open sesame"

# How long the broker has to end after a signal before the next one.
SIGNAL_SECONDS = 0.5


def free_port():
    while True:
        port = random.choice(PORTS)
        with socket.socket() as probe:
            try:
                probe.bind(("127.0.0.1", port))
                return port
            except OSError:
                continue


class Certificates:
    """A certificate authority in a folder, and what it signed: a certificate of the server at 127.0.0.1, and one of a
    client. `other` is an authority that signed nothing."""

    def __init__(self, folder):
        self.folder = folder
        self.authority, _ = self._make("authority")
        self.other, _ = self._make("other")
        self.server = self._make("server", "-addext", "subjectAltName=IP:127.0.0.1", *self._signed())
        self.client = self._make("client", *self._signed())

    def _signed(self):
        return "-CA", self.authority, "-CAkey", self.folder / "authority.key", "-addext", "basicConstraints=CA:FALSE"

    def _make(self, name, *options):
        """Makes a certificate and its key; returns their paths."""
        certificate, key = self.folder / f"{name}.pem", self.folder / f"{name}.key"
        subprocess.run(["openssl", "req", "-x509", "-newkey", "ec", "-pkeyopt", "ec_paramgen_curve:prime256v1",
                        "-nodes", "-days", "1", "-subj", f"/CN={name}", "-out", certificate, "-keyout", key, *options],
                       check=True, capture_output=True)
        for path in (certificate, key):
            path.chmod(0o644)
        return certificate, key


class Broker:
    """One mosquitto at a port of the loopback interface, which stays the same when it starts again.

    options: further lines of its configuration
    persistent: whether states and sessions survive its end
    certificates: those for TLS; None for a listener without it
    users: the names of users with the password SECRET; None for anonymous clients
    port: its port; None for a free one
    launcher: what its command line begins with"""

    def __init__(self, workspace, *options, persistent=False, certificates=None, users=None, port=None, launcher=()):
        self.folder = workspace.folder()
        self.port = port or free_port()
        self.launcher = launcher
        self.certificates = certificates
        self.user = users[0] if users else None
        self.log_path = self.folder / "log"
        self.configuration = self.folder / "mosquitto.conf"
        lines = [f"listener {self.port} 127.0.0.1", "log_dest stderr", "max_queued_messages 0",
                 f"persistence {'true' if persistent else 'false'}", f"persistence_location {self.folder}/",
                 *self._tls(), *self._access(users), *options]
        self.configuration.write_text("".join(f"{line}\n" for line in lines), encoding="utf-8")
        self.process = None
        self.start()

    def _tls(self):
        if self.certificates is None:
            return []
        certificate, key = self.certificates.server
        return [f"cafile {self.certificates.authority}", f"certfile {certificate}", f"keyfile {key}"]

    def _access(self, users):
        if not users:
            return ["allow_anonymous true"]
        path = self.folder / "passwords"
        path.touch()
        for user in users:
            subprocess.run(["mosquitto_passwd", "-b", path, user, SECRET], check=True, capture_output=True)
        path.chmod(0o644)
        return [f"password_file {path}"]

    @property
    def address(self):
        return f"{'mqtt' if self.certificates is None else 'mqtts'}://127.0.0.1:{self.port}"

    def start(self):
        with open(self.log_path, "ab") as log:
            self.process = subprocess.Popen([*self.launcher, PROGRAM, "-c", self.configuration],
                                            stdin=subprocess.DEVNULL, stdout=log, stderr=log, cwd=self.folder,
                                            **unprivileged())
        wait_until(self._listens, "the broker listens")

    def _listens(self):
        assert self.process.poll() is None, self.log()
        try:
            socket.create_connection(("127.0.0.1", self.port), BOUND_SECONDS).close()
        except ConnectionRefusedError:
            return False
        return True

    def end(self, number=signal.SIGTERM):
        wait_until(lambda: self._ends(number), "the broker ends")

    def _ends(self, number):
        """mosquitto loses a signal that comes after it listens and before its main loop, so each look repeats it."""
        self.process.send_signal(number)
        try:
            self.process.wait(SIGNAL_SECONDS)
        except subprocess.TimeoutExpired:
            return False
        return True

    def log(self):
        return self.log_path.read_text(encoding="utf-8", errors="backslashreplace")

    def client_arguments(self):
        """The options of mosquitto_sub and mosquitto_pub for this broker."""
        arguments = ["-h", "127.0.0.1", "-p", str(self.port)]
        if self.user:
            arguments += ["-u", self.user, "-P", SECRET]
        if self.certificates:
            certificate, key = self.certificates.client
            arguments += ["--cafile", self.certificates.authority, "--cert", certificate, "--key", key]
        return arguments

    def publish(self, topic, text):
        """Publishes a message, and returns when the broker has it."""
        subprocess.run(["mosquitto_pub", *self.client_arguments(), "-q", "1", "-t", topic, "-m", text], check=True,
                       timeout=BOUND_SECONDS)

    def retained(self, topic="#"):
        """The retained payloads by topic, read by a client that comes now."""
        with Subscriber(self, topic, "end-of-states") as subscriber:
            self.publish("end-of-states", "")
            subscriber.wait_for_topic("end-of-states")
            return {message.topic: message.payload for message in subscriber.messages if message.retain}

    def finish(self):
        self.process.kill()
        self.process.wait(BOUND_SECONDS)


class Message(typing.NamedTuple):
    """A message as mosquitto_sub prints it. An empty payload is None."""

    topic: str
    payload: str | None
    retain: bool
    qos: int


class Subscriber:
    """One mosquitto_sub, which has subscribed when it is made, and connects again when the broker comes back. It shows
    the flag of each message that the publisher has set.

    session: the name of a session that the broker keeps while the client is away"""

    def __init__(self, broker, *topics, session=None):
        # Without stdbuf, the line about the subscription waits for the first message.
        command = ["stdbuf", "-oL", "mosquitto_sub", *broker.client_arguments(), "-d", "-q", "1", "-V", "mqttv5",
                   "--retain-as-published", "-F", "%j"]
        command += ["-c", "-i", session] if session else []
        for topic in topics or ("#",):
            command += ["-t", topic]
        self.messages = []
        self.subscribed = 0
        self.process = subprocess.Popen(command, stdin=subprocess.DEVNULL, stdout=subprocess.PIPE,
                                        stderr=subprocess.STDOUT, env=os.environ | {"LC_ALL": "C.UTF-8"})
        self.reader = threading.Thread(target=self._read, daemon=True)
        self.reader.start()
        wait_until(lambda: self.subscribed, "the client has subscribed")

    def _read(self):
        for line in self.process.stdout:
            if line.startswith(b"{"):
                fields = json.loads(line)
                self.messages.append(Message(fields["topic"], fields["payload"], fields["retain"] == 1, fields["qos"]))
            elif line.startswith(b"Subscribed"):
                self.subscribed += 1

    def __enter__(self):
        return self

    def __exit__(self, *exception):
        self.close()

    def close(self):
        # Its own end takes a lock within the signal's handler, which can hang.
        self.process.kill()
        self.process.wait(BOUND_SECONDS)
        self.reader.join(BOUND_SECONDS)
        self.process.stdout.close()

    def of(self, topic):
        """The messages of a topic and of all below it."""
        return [message for message in list(self.messages) if f"{message.topic}/".startswith(f"{topic}/")]

    def payloads(self, topic):
        """The contents of the messages of a topic; None for an empty one."""
        return [json.loads(message.payload) if message.payload else None
                for message in list(self.messages) if message.topic == topic]

    def wait_for_topic(self, topic, count=1):
        """Waits for so many messages of a topic and of all below it, and returns them."""
        wait_until(lambda: len(self.of(topic)) >= count, f"{count} messages of {topic}")
        return self.of(topic)
