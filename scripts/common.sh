# shellcheck shell=bash
# shellcheck disable=SC2034 # what the sourcing scripts use looks unused from here
# What demo, check and soak share; sourced by them under `set -euo pipefail`.
#
# Everything that runs for long is started by `start`, in a process group of its own, and ended by `cleanup`, which
# the traps below call however the script ends. Temporary files live in $WORK, below /tmp, because the tree itself
# may be in a folder that the daemon's user cannot read.

umask 022
TOP=$(cd -- "$(dirname -- "${BASH_SOURCE[0]}")/.." && pwd)
DESK_BUILD="build-desk"
PYTHON=/usr/bin/python3
STOP_SECONDS=5

# To build and run; without dpkg-dev Meson does not see where Debian has its libraries.
RUN_PACKAGES=(g++ dpkg-dev meson ninja-build pkg-config dbus-daemon python3
  libglib2.0-dev libgstreamer1.0-dev libgstreamer-plugins-base1.0-dev libsystemd-dev libxml2-dev
  libjson-glib-dev gstreamer1.0-plugins-base gstreamer1.0-plugins-bad)

# To soak beside that: what the helpers of the system tests are made of.
SOAK_PACKAGES=(libgtest-dev python3-pytest python3-gi python3-lxml gir1.2-gstreamer-1.0 gir1.2-gst-plugins-base-1.0)

# To run every test beside that.
TEST_PACKAGES=("${SOAK_PACKAGES[@]}" zsh gstreamer1.0-tools systemd python3-pytest-xdist python3-jsonschema
  clang clang-format clang-tidy libclang-rt-14-dev git mandoc shellcheck)

# The daemon refuses to run as root, so for root this drops to a user that owns nothing; others run it as themselves.
# Either way the command ends with the script that started it, even when that is killed.
UNPRIVILEGED_USER=nobody
UNPRIVILEGED_GROUP=nogroup
UNPRIVILEGED=(setpriv --pdeathsig TERM)
if [ "$(id -u)" = 0 ]; then
  UNPRIVILEGED+=(--reuid "$UNPRIVILEGED_USER" --regid "$UNPRIVILEGED_GROUP" --clear-groups)
fi

STARTED=()

say() {
  printf '== %s\n' "$*"
}

die() {
  printf '%s: %s\n' "$(basename -- "$0")" "$*" >&2
  exit 1
}

# Starts a command in its own process group and leaves its process id in $STARTED_PID. Job control does that without
# making the command deaf to SIGINT, as a plain background command would be.
start() {
  set -m
  "$@" </dev/null &
  STARTED_PID=$!
  set +m
  STARTED+=("$STARTED_PID")
}

# Runs a command or function to its end, with all that it started, and returns its status; unlike a plain command it
# lets the traps act at once.
run() {
  local status=0
  start "$@"
  wait "$STARTED_PID" || status=$?
  stop_group "$STARTED_PID"
  unset 'STARTED[-1]'
  return "$status"
}

# Runs a step with its output put aside: a person wants to see it only when it failed. A function has to
# join its commands with &&: in a condition, bash goes on behind one that fails.
quietly() {
  local what=$1 log=$WORK/$1.log
  shift
  run "$@" >"$log" 2>&1 && return 0
  tail -n 30 "$log" >&2
  die "$what failed; the lines above are the end of its output"
}

# Whether a process of the group still runs; one that has ended and waits for its parent does not.
group_lives() {
  { cat /proc/[0-9]*/stat 2>/dev/null || true; } |
    awk -v group="$1" '{ sub(/^.*\) /, "") } $3 == group && $1 != "Z" { found = 1 } END { exit !found }'
}

# Asks a started group to end, and kills it when it has not done so within STOP_SECONDS.
stop_group() {
  local deadline=$((SECONDS + STOP_SECONDS))
  kill -TERM -- "-$1" 2>/dev/null || return 0
  while group_lives "$1" && ((SECONDS < deadline)); do
    sleep 0.05
  done
  kill -KILL -- "-$1" 2>/dev/null || true
}

# Ends everything that was started, the latest first.
stop_started() {
  local index
  trap '' INT TERM HUP
  for ((index = ${#STARTED[@]} - 1; index >= 0; index--)); do
    stop_group "${STARTED[index]}"
  done
  wait 2>/dev/null || true
}

cleanup() {
  stop_started
  rm -rf -- "$WORK"
}

# A folder of this run's own that everybody can read, removed at the end.
make_work_folder() {
  WORK=$(mktemp -d /tmp/tessard.XXXXXXXX)
  trap cleanup EXIT
  trap 'exit 129' HUP
  trap 'exit 130' INT
  trap 'exit 143' TERM
  chmod 0755 "$WORK"
}

# Makes a folder that the daemon's user owns.
make_unprivileged_folder() {
  mkdir -p -- "$1"
  if [ "$(id -u)" = 0 ]; then
    chown "$UNPRIVILEGED_USER:$UNPRIVILEGED_GROUP" -- "$1"
  fi
}

# Makes a copy of file $1 at $2 that the daemon's user owns.
install_for_daemon() {
  local owner=()
  if [ "$(id -u)" = 0 ]; then
    owner=(-o "$UNPRIVILEGED_USER" -g "$UNPRIVILEGED_GROUP")
  fi
  install -m 0644 "${owner[@]}" -- "$1" "$2"
}

as_root() {
  if [ "$(id -u)" = 0 ]; then
    "$@"
  else
    sudo "$@"
  fi
}

missing_packages() {
  local package
  for package; do
    [ "$(dpkg-query -W -f '${db:Status-Status}' "$package" 2>/dev/null)" = installed ] || printf '%s\n' "$package"
  done
}

install_missing() {
  local missing log
  command -v dpkg-query >/dev/null || die "this needs Debian's package tools; see the README for what to install"
  mapfile -t missing < <(missing_packages "$@")
  ((${#missing[@]} > 0)) || return 0

  [ "$(id -u)" = 0 ] || command -v sudo >/dev/null ||
    die "not installed, and neither root nor sudo to install them: ${missing[*]}"
  say "installing ${#missing[@]} packages: ${missing[*]}"
  log=$WORK/packages.log
  local apt=(env DEBIAN_FRONTEND=noninteractive apt-get -q -y -o DPkg::Lock::Timeout=120)
  if ! { as_root "${apt[@]}" update && as_root "${apt[@]}" install --no-install-recommends "${missing[@]}"; } \
    >"$log" 2>&1; then
    tail -n 15 "$log" >&2
    die "could not install: ${missing[*]}"
  fi
}

# Whether build folder $1 is configured, with each of the options that follow as given (-Dname=value).
configured() {
  [ -f "$1/build.ninja" ] && "$PYTHON" "$TOP/scripts/build-has-options" "$@"
}

# Configures build folder $1 of the tree with the given options, unless it has them already. The unit tests are left
# out of a new one, unless asked for, because they need more packages. Each daemon keeps its producers in the folder
# that it is started in, so that several can run side by side and nothing of the system's is touched. Of debugging
# information there are lines alone, for the sanitizers' reports: more of it takes a fifth longer to compile.
configure() {
  local build=$1 mode=()
  shift
  set -- -Dprefix=/usr -Dproducers_conf=producers.conf -Ddebug=false -Dc_args=-g1 -Dcpp_args=-g1 "$@"
  if [ -e "$build" ] && ! [ -w "$build" ]; then
    die "cannot write to $build (owned by $(stat -c %U "$build")); remove it first"
  fi
  configured "$build" "$@" && return 0
  if [ -f "$build/build.ninja" ]; then
    mode=(--reconfigure)
  else
    mode=(-Dtests=false)
  fi
  meson setup "${mode[@]}" "$@" "$build" "$TOP"
}

# Installs build folder $1 below $2.
stage() {
  DESTDIR=$2 meson install -C "$1" --no-rebuild --quiet
}

# Whether somebody listens on the UNIX socket $1; the file alone appears a moment earlier.
listening() {
  awk -v path="$1" '$4 == "00010000" && $8 == path { found = 1 } END { exit !found }' /proc/net/unix
}

# Waits at most $1 seconds until the command that follows succeeds, as long as the started process $2 lives.
wait_until() {
  local deadline=$((SECONDS + $1)) process=$2
  shift 2
  until "$@"; do
    group_lives "$process" && ((SECONDS < deadline)) || return 1
    sleep 0.05
  done
}

# The bus policy that is installed below $STAGE, in which others stand in for whom it names: the daemon's user here for
# the daemon's, and the group of a caller that is not root for the administrators'.
bus_policy() {
  local stand_ins=(-e "s|user=\"tessard\"|user=\"$UNPRIVILEGED_USER\"|")
  if [ "$(id -u)" != 0 ]; then
    stand_ins=(-e "s|user=\"tessard\"|user=\"$(id -un)\"|" -e "s|group=\"tessard-admin\"|group=\"$(id -gn)\"|")
  fi
  sed "${stand_ins[@]}" "$STAGE/usr/share/dbus-1/system.d/com.quon.MetadataServer1.conf"
}

# A bus of this run's own, at $WORK/bus/socket: nothing of the machine's system bus is used or seen.
start_bus() {
  make_unprivileged_folder "$WORK/bus"
  bus_policy >"$WORK/bus/policy.conf"
  sed -e "s|@socket@|$WORK/bus/socket|" -e "s|@policy@|$WORK/bus/policy.conf|" "$TOP/scripts/private-bus.conf.in" \
    >"$WORK/bus/bus.conf"
  start "${UNPRIVILEGED[@]}" dbus-daemon --config-file="$WORK/bus/bus.conf" --nofork --nopidfile --nosyslog \
    >"$WORK/bus.log" 2>&1
  wait_until 10 "$STARTED_PID" listening "$WORK/bus/socket" ||
    die "the private bus did not start: $(tail -n 1 "$WORK/bus.log")"
  export DBUS_SYSTEM_BUS_ADDRESS=unix:path=$WORK/bus/socket
}
