# SPDX-License-Identifier: MIT
"""Starts a program as systemd's socket activation does: activation.py PATH,... NAME=VALUE... -- COMMAND...

Listens at every path, also several times at the same one, and then runs the command in this very process, with these
sockets as its descriptors from 3 on and with the given variables alone."""

import fcntl
import os
import socket
import sys

FIRST_DESCRIPTOR = 3

# The sockets get descriptors from this number on until the final ones are free.
FIRST_WAITING_DESCRIPTOR = 100


def listen(path):
    """A descriptor that listens at `path`, in place of an earlier one."""
    if os.path.lexists(path):
        os.unlink(path)
    with socket.socket(socket.AF_UNIX, socket.SOCK_STREAM) as listening:
        listening.bind(path)
        listening.listen()
        return fcntl.fcntl(listening, fcntl.F_DUPFD_CLOEXEC, FIRST_WAITING_DESCRIPTOR)


def main():
    separator = sys.argv.index("--")
    paths = sys.argv[1].split(",")
    environment = dict(variable.split("=", 1) for variable in sys.argv[2:separator])
    command = sys.argv[separator + 1:]

    for descriptor, waiting in enumerate([listen(path) for path in paths], FIRST_DESCRIPTOR):
        os.dup2(waiting, descriptor)
    environment |= {"LISTEN_FDS": str(len(paths)), "LISTEN_PID": str(os.getpid())}
    os.execve(command[0], command, environment)


if __name__ == "__main__":
    main()
