# SPDX-License-Identifier: MIT
"""Clients of another user, or of the testing user, that connect to the daemon and keep their connections."""

import ast
import os
import subprocess
import sys

from installation import run_by_root
from waiting import BOUND_SECONDS

# Opens a number of connections, sends on them, and exits when its input ends. For each line of its input it prints the
# next client's reply, as one line. It has no time-out; the test ends it.
PROGRAM = """\
import select, socket, sys

count, beginning, drip, pause = int(sys.argv[1]), sys.argv[2].encode(), sys.argv[3].encode(), float(sys.argv[4])
clients = []
for _ in range(count):
    client = socket.socket(socket.AF_UNIX, socket.SOCK_STREAM)
    client.connect("metadata")
    clients.append(client)
    try:
        client.sendall(beginning)
    except OSError:
        pass
print("connected", flush=True)
asked = iter(clients)
while True:
    if select.select([sys.stdin], [], [], pause)[0]:
        if not sys.stdin.readline():
            break
        client, reply = next(asked), b""
        while not reply.endswith(b"\\0") and (byte := client.recv(1)):
            reply += byte
        print(repr(reply), flush=True)
    for client in clients:
        try:
            client.send(drip, socket.MSG_DONTWAIT)
        except OSError:
            pass
"""


class Crowd:
    """A number of connected clients.

    user: the id of their user, None for the testing user; only root can use another one
    beginning: the bytes that each client sends at once
    drip: the bytes that each client sends repeatedly"""

    def __init__(self, daemon, count, user=None, beginning="", drip=""):
        assert user is None or run_by_root()
        socket_group = os.stat(daemon.socket_path).st_gid
        other = {} if user is None else {"user": user, "group": socket_group, "extra_groups": []}
        # The program starts in the folder, because that user may not be able to enter the path to it.
        self.process = subprocess.Popen(
            [sys.executable, "-I", "-c", PROGRAM, str(count), beginning, drip, "0.05"], stdin=subprocess.PIPE,
            stdout=subprocess.PIPE, text=True, cwd=daemon.run_dir, **other)
        assert self.process.stdout.readline() == "connected\n"

    def __enter__(self):
        return self

    def __exit__(self, *exception):
        self.close()

    def next_reply(self):
        """The reply to the next client, which must arrive."""
        self.process.stdin.write("\n")
        self.process.stdin.flush()
        reply = ast.literal_eval(self.process.stdout.readline())
        assert reply.endswith(b"\0")
        return reply[:-1].decode()

    def close(self):
        """Closes all connections."""
        self.process.stdin.close()
        self.process.wait(BOUND_SECONDS)
        self.process.stdout.close()
