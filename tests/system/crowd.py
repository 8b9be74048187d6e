"""Clients of another user, or of the one who tests, that connect to the daemon and keep their connections."""

import ast
import os
import subprocess
import sys

from installation import run_by_root
from waiting import BOUND_SECONDS

# Connects as often as it is told, goes on to send, and leaves when its input ends. For each line of its input it prints
# what the next client's reply is, in one line. It has no time-out: whoever started it ends it.
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
    """So many clients, once they are connected.

    user: their number of a user, None for the one who tests; only root can be anybody else
    beginning: what each of them sends at once
    drip: what each of them sends now and then"""

    def __init__(self, daemon, count, user=None, beginning="", drip=""):
        assert user is None or run_by_root()
        socket_group = os.stat(daemon.socket_path).st_gid
        other = {} if user is None else {"user": user, "group": socket_group, "extra_groups": []}
        # The folder is the program's own, for the path to it may be closed to that user.
        self.process = subprocess.Popen(
            [sys.executable, "-I", "-c", PROGRAM, str(count), beginning, drip, "0.05"], stdin=subprocess.PIPE,
            stdout=subprocess.PIPE, text=True, cwd=daemon.run_dir, **other)
        assert self.process.stdout.readline() == "connected\n"

    def __enter__(self):
        return self

    def __exit__(self, *exception):
        self.close()

    def next_reply(self):
        """The reply to the next of them, which has to come."""
        self.process.stdin.write("\n")
        self.process.stdin.flush()
        reply = ast.literal_eval(self.process.stdout.readline())
        assert reply.endswith(b"\0")
        return reply[:-1].decode()

    def close(self):
        """Has all of them leave."""
        self.process.stdin.close()
        self.process.wait(BOUND_SECONDS)
        self.process.stdout.close()
