# SPDX-License-Identifier: MIT
"""tessard-mqtt of the installation as a process."""

import signal
import subprocess

from broker import SECRET
from daemon import INFO, WARNING, Log
from gatewayprocess import Observed, gateway_environment
from installation import TREE, defined_limits, unprivileged
from waiting import BOUND_SECONDS, wait_until

PREFIX = "site/camera1"
STATUS = f"{PREFIX}/status"
EVENTS = f"{PREFIX}/onvif-ej"
METADATA = f"{PREFIX}/onvif-mj"
ALARMS = f"{EVENTS}/VideoSource/MotionAlarm"
CROSSINGS = f"{EVENTS}/RuleEngine/LineDetector/Crossed"
FRAMES = f"{METADATA}/VideoAnalytics/1"

EVENTS_ALONE = {"Metadata": {"publish": "false"}}

LIMITS = defined_limits(TREE / "gateways/mqtt/mqttlimits.h")


def key_file(**groups):
    """The text of a key file: key_file(Broker={"qos": 1}). Keys whose value is None are left out."""
    return "".join(f"[{group}]\n" + "".join(f"{key}={value}\n" for key, value in keys.items() if value is not None)
                   for group, keys in groups.items())


def keys_for(broker):
    """The keys of a broker's address and of its access."""
    keys = {"address": broker.address}
    if broker.user:
        keys |= {"user": broker.user, "password": SECRET}
    if broker.certificates:
        keys["ca-file"] = broker.certificates.authority
    return keys


class MqttGateway(Observed):
    """One tessard-mqtt. A test must take each line of its log with a priority above "info".

    launcher: what its command line begins with, run with all privileges; the gateway has none
    groups: the keys of each group of its key file; those of the broker are there already"""

    def __init__(self, installation, bus, socket_path, broker, launcher=(), **groups):
        self.folder = installation.workspace.folder()
        self.log = Log(self.folder / "log")
        self.configuration = self.folder / "mqtt.conf"
        groups["Broker"] = keys_for(broker) | groups.get("Broker", {})
        groups["Topics"] = {"prefix": PREFIX} | groups.get("Topics", {})
        self.configuration.write_text(key_file(**groups), encoding="utf-8")
        self.environment = gateway_environment(installation, bus, self.log)
        self.command = [str(installation.prefix / "bin/tessard-mqtt"), "--socket", str(socket_path), "--config",
                        str(self.configuration)]
        self.user = unprivileged()
        if launcher:
            user, group = self.user["user"], self.user["group"]
            self.command = [*launcher, "setpriv", "--reuid", user, "--regid", group, "--clear-groups", *self.command]
            self.user = {}
        self.start()

    def start(self):
        self.process = subprocess.Popen(self.command, env=self.environment, stdin=subprocess.DEVNULL,
                                        stdout=subprocess.PIPE, stderr=subprocess.PIPE, cwd=self.folder, text=True,
                                        **self.user)

    def take_warnings(self):
        """The texts of the warnings so far, which are taken."""
        return [text for priority, text in self.log.take() if priority == WARNING]

    def wait_for_warnings(self):
        return wait_until(self.take_warnings, "a warning")

    def kill(self):
        self.process.kill()
        self.process.communicate(timeout=BOUND_SECONDS)

    def end(self):
        """Ends it by SIGTERM; returns its status and its output."""
        self.process.send_signal(signal.SIGTERM)
        out, err = self.process.communicate(timeout=BOUND_SECONDS)
        return self.process.returncode, out, err

    def finish(self):
        """Ends it if the test has not, and fails if it wrote or logged anything unexpected."""
        try:
            if self.process.returncode is None:
                assert self.process.poll() is None, self.process.communicate()
                # The signal can arrive before its handler is there.
                status, *output = self.end()
                assert status in (0, -signal.SIGTERM) and output == ["", ""], (status, output)
            left = [line for line in self.log.take() if line[0] != INFO]
        finally:
            self.process.kill()
            self.process.communicate()
            self.log.close()
        assert left == []
