# SPDX-License-Identifier: MIT
"""The completions of bash and zsh for tessardctl."""

import os
import pathlib
import pty
import re
import shutil
import subprocess

import pytest

from fakeservice import FakeService, properties
from installation import TREE
from controlclient import path_of
from waiting import BOUND_SECONDS, wait_until

BASH = TREE / "tools/completion/tessardctl.bash"
ZSH = TREE / "tools/completion/_tessardctl"

COMMANDS = ["stream", "snapshot", "producers", "list", "show", "enable", "disable", "apply", "monitor", "status",
            "produce", "emit", "topics", "help"]

# Calls the completion function like bash on a tab.
COMPLETE = """\
set -u
source "$0"
COMP_LINE=$1 COMP_POINT=${#1}
_tessardctl "$TESSARDCTL" "" ""
((${#COMPREPLY[@]} == 0)) || printf '%s\\n' "${COMPREPLY[@]}"
"""


@pytest.fixture
def offered(tessardctl, stand_in_bus, tmp_path):
    """Returns the candidates of bash for a line after "tessardctl"."""

    def complete(line, bus=stand_in_bus.address):
        result = subprocess.run(
            ["bash", "-c", COMPLETE, BASH, "tessardctl " + line], cwd=tmp_path, capture_output=True, text=True,
            timeout=BOUND_SECONDS, check=True,
            env=os.environ | {"LC_ALL": "C.UTF-8", "DBUS_SYSTEM_BUS_ADDRESS": bus})
        assert result.stderr == ""
        return result.stdout.splitlines()

    return complete


@pytest.fixture
def service(stand_in_bus):
    started = FakeService(stand_in_bus)
    started.start({path_of(name): properties(name, channels=[(1, False, ""), (12, False, ""), (2, False, "")])
                   for name in ("VideoMotionTracker", "VideoCounter", "Radar")})
    yield started
    started.close()


def options_of(run_tessardctl, *command):
    return re.findall(r"^  (?:-\w, )?(--[a-z-]+)", run_tessardctl(*command, "--help").out.decode(), re.MULTILINE)


def test_commands(offered, run_tessardctl):
    listed = re.search(r"Commands:\n((?:  .*\n)+)", run_tessardctl("--help").out.decode()).group(1)
    assert [line.split()[0] for line in listed.splitlines()] == COMMANDS
    assert offered("") == COMMANDS
    assert offered("s") == ["stream", "snapshot", "show", "status"]
    assert offered("--help s") == ["stream", "snapshot", "show", "status"]
    assert offered("help ") == COMMANDS
    assert offered("help s") == ["stream", "snapshot", "show", "status"]
    assert offered("help show ") == []


@pytest.mark.parametrize("command", [[], *([command] for command in COMMANDS)])
def test_options(offered, run_tessardctl, command):
    words = "".join(word + " " for word in command)
    assert offered(words + "-") == offered(words + "--")
    assert sorted(offered(words + "--")) == sorted(options_of(run_tessardctl, *command))


def test_options_by_their_beginning(offered):
    assert offered("stream --event --event-") == ["--event-topic", "--event-content"]
    assert offered("stream --event-topic x --pr") == ["--pretty"]


@pytest.mark.parametrize("command", COMMANDS)
def test_options_that_take_a_value_are_known(offered, run_tessardctl, command):
    help_text = run_tessardctl(command, "--help").out.decode()
    for option in re.findall(r"^  (--[a-z-]+)=", help_text, re.MULTILINE):
        assert offered(f"{command} {option} --") == []


@pytest.mark.parametrize("line", ["show ", "enable ", "disable ", "producers --channels ", "list --channels "])
def test_names_of_producers(offered, service, line):
    assert offered(line) == ["Radar", "VideoCounter", "VideoMotionTracker"]
    assert offered(line + "Video") == ["VideoCounter", "VideoMotionTracker"]
    assert offered(line + "x") == []


@pytest.mark.parametrize("command", ["enable", "disable"])
def test_channels_of_a_producer(offered, service, command):
    assert offered(f"{command} Radar ") == ["1", "2", "12"]
    assert offered(f"{command} Radar 1") == ["1", "12"]
    assert offered(f"{command} unknown ") == []


@pytest.mark.parametrize("line", ["show Radar ", "disable Radar 1 ", "enable Radar 1 ", "monitor ", "producers ",
                                  "stream ", "nothing ", "show --bus ", "stream --count ", "produce ",
                                  "produce --nice-name "])
def test_nothing_to_offer(offered, service, line):
    assert offered(line) == []


@pytest.mark.parametrize("option", ["--bus {}", "--bus={}"])
def test_bus_of_the_command_line(offered, service, stand_in_bus, option):
    line = "enable " + option.format(stand_in_bus.address)
    assert offered(line + " R", bus="unix:path=/nonexistent/bus") == ["Radar"]
    assert offered(line + " Radar ", bus="unix:path=/nonexistent/bus") == ["1", "2", "12"]


@pytest.mark.parametrize("line", ["show ", "enable Radar ", "producers --channels "])
def test_nothing_when_the_bus_or_the_daemon_is_away(offered, line):
    assert offered(line) == []
    assert offered(line, bus="unix:path=/nonexistent/bus") == []


def test_daemon_that_never_replies_is_given_up_soon(offered, stand_in_bus):
    silent = FakeService(stand_in_bus)
    silent.silent.add("GetManagedObjects")
    silent.start()
    assert offered("show ") == []
    silent.close()


def test_names_are_never_run(offered, stand_in_bus, tmp_path):
    names = ["$(touch run)", "`touch run`", "a b", "a'b", "*", "-x", ";touch run"]
    evil = FakeService(stand_in_bus)
    evil.start({path_of(f"p{number}"): properties(name) for number, name in enumerate(names)})
    given = offered("show ")
    assert not (tmp_path / "run").exists()
    unquoted = subprocess.run(["bash", "-c", "printf '%s\\n' " + " ".join(given)], cwd=tmp_path, capture_output=True,
                              text=True, check=True).stdout.splitlines()
    assert unquoted == sorted(names)
    assert offered("show a\\ ") == ["a\\ b"]
    assert not (tmp_path / "run").exists()
    evil.close()


@pytest.mark.parametrize("line", ["apply ", "snapshot ", "snapshot --input ", "stream --output ", "stream --socket ",
                                  "produce --sample "])
def test_files(offered, tmp_path, line):
    (tmp_path / "changes.json").touch()
    (tmp_path / "other.json").touch()
    assert sorted(offered(line)) == ["changes.json", "other.json"]
    assert offered(line + "ch") == ["changes.json"]


def test_bash_knows_the_function():
    result = subprocess.run(["bash", "-c", 'source "$0" && complete -p tessardctl', BASH], capture_output=True,
                            text=True, check=True)
    assert result.stdout == "complete -F _tessardctl tessardctl\n"


def test_zsh_offers_the_same(run_tessardctl):
    text = ZSH.read_text(encoding="utf-8")
    assert text.startswith("#compdef tessardctl\n")
    assert re.findall(r"^    '(\w+):", text, re.MULTILINE) == COMMANDS
    every_option = {option for command in ([], *([name] for name in COMMANDS))
                    for option in options_of(run_tessardctl, *command)}
    described = set(re.findall(r"'(?:\([^)]*\)|\*)?(--[a-z-]+)=?\[", text))
    assert described == every_option


# Start-up file of an interactive zsh in which Ctrl-X writes the candidates for the word at the cursor to a file. Calls
# of compadd that only fill arrays are internal to zsh.
ZSHRC = """\
PS1='' OFFERED=$ZDOTDIR/offered
fpath=(%s $fpath)
autoload -Uz compinit && compinit -D -u
compadd() {
  local -a arguments=("$@") matches
  if (( ! ${arguments[(I)-[OAD]*]} )); then
    builtin compadd -O matches "$@"
    (( ! $#matches )) || print -rl -- $matches >>$OFFERED
  fi
  builtin compadd "$@"
}
offer() {
  _main_complete
  compstate[insert]='' compstate[list]=''
  print end >>$OFFERED
}
zle -C offer list-choices offer
bindkey '^X' offer
zle-line-init() { print start >>$OFFERED }
zle -N zle-line-init
"""


class Zsh:
    """An interactive zsh on its own terminal."""

    def __init__(self, folder, bus_address):
        self.offered = folder / "offered"
        self.offered.touch()
        (folder / ".zshrc").write_text(ZSHRC % ZSH.parent, encoding="utf-8")
        tool_folder = pathlib.Path(os.environ["TESSARDCTL"]).parent
        self.terminal, side = pty.openpty()
        self.process = subprocess.Popen(
            ["zsh", "-d", "-i"], cwd=folder, stdin=side, stdout=side, stderr=side, start_new_session=True,
            env=os.environ | {"ZDOTDIR": str(folder), "DBUS_SYSTEM_BUS_ADDRESS": bus_address, "TERM": "dumb",
                              "LC_ALL": "C.UTF-8", "PATH": f"{tool_folder}:{os.environ['PATH']}"})
        os.close(side)

    def lines(self):
        return self.offered.read_text(encoding="utf-8").splitlines()

    def complete(self, line):
        wait_until(lambda: "start" in self.lines(), "zsh reads a line")
        os.write(self.terminal, f"tessardctl {line}\x18".encode())
        wait_until(lambda: "end" in self.lines(), "zsh completes the line")
        return sorted(set(self.lines()) - {"start", "end"})

    def close(self):
        self.process.kill()
        self.process.wait(BOUND_SECONDS)
        os.close(self.terminal)


@pytest.fixture
def offered_by_zsh(tessardctl, stand_in_bus, tmp_path):
    if shutil.which("zsh") is None:
        pytest.skip("zsh is not installed")
    zsh = Zsh(tmp_path, stand_in_bus.address)
    yield zsh.complete
    zsh.close()


@pytest.mark.parametrize("line, candidates", [
    ("", sorted(COMMANDS)),
    ("s", ["show", "snapshot", "status", "stream"]),
    ("help s", ["show", "snapshot", "status", "stream"]),
    ("stream --event-", ["--event-content", "--event-topic"]),
    ("stream --analytics=", ["0", "1", "2"]),
    ("list --", ["--bus", "--channels", "--help", "--json", "--names"]),
    ("list --json --", ["--bus", "--help"]),
    ("producers --channels Video", ["VideoCounter", "VideoMotionTracker"]),
    ("show ", ["Radar", "VideoCounter", "VideoMotionTracker"]),
    ("enable Radar ", ["1", "12", "2"]),
    ("disable Radar 1", ["1", "12"]),
    ("disable unknown ", []),
    ("monitor x", []),
])
def test_zsh_offers(offered_by_zsh, service, line, candidates):
    assert offered_by_zsh(line) == candidates


def test_zsh_offers_files(offered_by_zsh, tmp_path):
    (tmp_path / "changes.json").touch()
    assert offered_by_zsh("apply ch") == ["changes.json"]


def test_zsh_uses_the_bus_of_the_command_line(offered_by_zsh, service):
    assert offered_by_zsh("show --bus=unix:path=/nonexistent/bus ") == []
