# SPDX-License-Identifier: MIT
# shellcheck shell=bash
# shellcheck disable=SC2034 # the sourcing scripts use the variables
# The common part of demo, check, soak and bench, which source it under `set -euo pipefail`.
#
# `start` starts every long-running process in a process group of its own. `cleanup` ends them; the traps below call it
# on every exit of the script. Temporary files are in $WORK, below /tmp, because the tree itself may be in a folder that
# the daemon's user cannot read.

umask 022
TOP=$(cd -- "$(dirname -- "${BASH_SOURCE[0]}")/.." && pwd)
DESK_BUILD="build-desk"
PYTHON=/usr/bin/python3
STOP_SECONDS=5

# Needed to build and run. Meson finds Debian's library folder with dpkg-dev.
RUN_PACKAGES=(g++ dpkg-dev meson ninja-build pkg-config dbus-daemon python3
  libglib2.0-dev libgstreamer1.0-dev libgstreamer-plugins-base1.0-dev libsystemd-dev libxml2-dev
  libjson-glib-dev libsimdjson-dev gobject-introspection libgirepository1.0-dev
  gstreamer1.0-plugins-base gstreamer1.0-plugins-bad
  libgstrtspserver-1.0-dev libmosquitto-dev libsoup-3.0-dev
  gstreamer1.0-plugins-good gstreamer1.0-plugins-ugly glib-networking)

# Needed in addition for the example detector.
DETECTOR_PACKAGES=(python3-gi python3-numpy gir1.2-gstreamer-1.0 gir1.2-gst-plugins-base-1.0)

# Needed in addition to soak: the helpers of the system tests use them.
SOAK_PACKAGES=(libgtest-dev python3-pytest python3-gi python3-lxml gir1.2-gstreamer-1.0 gir1.2-gst-plugins-base-1.0)

# Needed in addition to run every test.
TEST_PACKAGES=("${SOAK_PACKAGES[@]}" "${DETECTOR_PACKAGES[@]}" zsh gstreamer1.0-tools systemd python3-pytest-xdist python3-jsonschema
  kconfig-frontends clang clang-format clang-tidy libclang-rt-14-dev git man-db mandoc shellcheck zlib1g-dev ffmpeg iproute2 openssl
  mosquitto mosquitto-clients)

# Packages with a service of their name, which Debian starts with the machine. The tests run their own processes.
SERVICE_PACKAGES=(mosquitto)

# Needed in addition for check --all.
ALL_PACKAGES=(abigail-tools chromium fonts-dejavu-core debootstrap systemd-container curl)

# A prefix that runs a command unprivileged: as a user without files when root runs the script (the daemon refuses to
# run as root), else as the same user. The command ends with its parent, even when that is killed.
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

# Starts a command in its own process group and sets $STARTED_PID. Job control keeps SIGINT working, which a plain
# background command ignores.
start() {
  set -m
  "$@" </dev/null &
  STARTED_PID=$!
  set +m
  STARTED+=("$STARTED_PID")
}

# Runs a command or function, ends what it leaves running, and returns its status. Traps run at once meanwhile; during a
# plain command they would wait for its end.
run() {
  local status=0
  start "$@"
  wait "$STARTED_PID" || status=$?
  stop_group "$STARTED_PID"
  unset 'STARTED[-1]'
  return "$status"
}

# What `run` runs when the first failure of a function is to end it.
in_strict_shell() {
  set -e
  "$@"
}

# Runs a step and prints its output only when it fails. A function must join its commands with &&, because in a
# condition bash continues after a failure.
quietly() {
  local what=$1 log=$WORK/$1.log
  shift
  run "$@" >"$log" 2>&1 && return 0
  tail -n 30 "$log" >&2
  die "$what failed; the lines above are the end of its output"
}

# Whether a process of the group runs; zombies do not count.
group_lives() {
  { cat /proc/[0-9]*/stat 2>/dev/null || true; } |
    awk -v group="$1" '{ sub(/^.*\) /, "") } $3 == group && $1 != "Z" { found = 1 } END { exit !found }'
}

# Terminates a started group, and kills it after STOP_SECONDS.
stop_group() {
  local deadline=$((SECONDS + STOP_SECONDS))
  kill -TERM -- "-$1" 2>/dev/null || return 0
  while group_lives "$1" && ((SECONDS < deadline)); do
    sleep 0.05
  done
  kill -KILL -- "-$1" 2>/dev/null || true
}

# Ends every started group in reverse order.
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

# Creates $WORK, which every user can read and which is removed at the end.
make_work_folder() {
  WORK=$(mktemp -d /tmp/tessard.XXXXXXXX)
  trap cleanup EXIT
  trap 'exit 129' HUP
  trap 'exit 130' INT
  trap 'exit 143' TERM
  chmod 0755 "$WORK"
}

# Creates a folder that the daemon's user owns.
make_unprivileged_folder() {
  mkdir -p -- "$1"
  if [ "$(id -u)" = 0 ]; then
    chown "$UNPRIVILEGED_USER:$UNPRIVILEGED_GROUP" -- "$1"
  fi
}

# Copies file $1 to $2 with the daemon's user as its owner.
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

# Ends the services of these packages, and keeps them from starting with the machine.
disable_services() {
  local package
  for package; do
    case " ${SERVICE_PACKAGES[*]} " in
    *" $package "*) as_root service "$package" stop && as_root update-rc.d "$package" disable || return 1 ;;
    esac
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
  if ! { as_root "${apt[@]}" update && as_root "${apt[@]}" install --no-install-recommends "${missing[@]}" &&
    disable_services "${missing[@]}"; } >"$log" 2>&1; then
    tail -n 15 "$log" >&2
    die "could not install: ${missing[*]}"
  fi
}

# Whether build folder $1 is configured, with each of the options that follow as given (-Dname=value).
configured() {
  [ -f "$1/build.ninja" ] && "$PYTHON" "$TOP/scripts/build-has-options" "$@"
}

# Configures build folder $1 of the tree with the given options, unless it has them already. A new folder has no tests by
# default, because they need more packages. Each daemon keeps producers.conf in its working folder, so several can run at
# the same time and the system's file is never used. Debugging information is limited to lines, for the sanitizers'
# reports: all of it takes a fifth longer to compile.
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

# Whether a process listens on the UNIX socket $1; the file alone appears a moment earlier.
listening() {
  awk -v path="$1" '$4 == "00010000" && $8 == path { found = 1 } END { exit !found }' /proc/net/unix
}

# Waits at most $1 seconds until the command behind them succeeds, as long as the started process $2 lives.
wait_until() {
  local deadline=$((SECONDS + $1)) process=$2
  shift 2
  until "$@"; do
    group_lives "$process" && ((SECONDS < deadline)) || return 1
    sleep 0.05
  done
}

# Prints the bus policy that is installed below $STAGE, with the user that runs the programs here for the daemon's, and
# its group for the administrators'.
bus_policy() {
  local user=$UNPRIVILEGED_USER group=$UNPRIVILEGED_GROUP
  if [ "$(id -u)" != 0 ]; then
    user=$(id -un)
    group=$(id -gn)
  fi
  sed -e "s|user=\"tessard\"|user=\"$user\"|" -e "s|group=\"tessard-admin\"|group=\"$group\"|" \
    "$STAGE/usr/share/dbus-1/system.d/com.quon.MetadataServer1.conf"
}

# Starts a private bus at $WORK/bus/socket. The machine's system bus is not used.
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
