# SPDX-License-Identifier: MIT
# shellcheck shell=bash
# Chroots with a Debian release and a copy of the tree; sourced behind common.sh, by scripts that run as root. $ROOT is the
# absolute path of the chroot's folder, where no other is named.

# Prints where this machine gets its own release from.
package_source() {
  local codename source
  codename=$(sed -n 's/^VERSION_CODENAME=//p' /etc/os-release)
  # shellcheck disable=SC2016 # expanded by apt
  source=$(apt-get indextargets --format '$(REPO_URI)' "Identifier: Packages" "Component: main" "Codename: $codename" |
    head -n 1)
  [ -n "$source" ] || die "apt has no package source with $codename"
  printf '%s\n' "$source"
}

# Makes a chroot with release $1, unless it exists. It is complete once the file is there; until then debootstrap's
# folder tells that nothing else is in it.
make_chroot() {
  local mark=$ROOT/etc/tessard-chroot-$1
  [ ! -e "$mark" ] || return 0
  if [ ! -d "$ROOT/debootstrap" ] && [ -n "$(ls -A -- "$ROOT" 2>/dev/null)" ]; then
    die "$ROOT is neither empty nor a chroot with $1; remove it first"
  fi
  say "making a chroot in $ROOT"
  rm -rf -- "$ROOT"
  run debootstrap --variant=minbase "$1" "$ROOT" "$(package_source)"
  install -d -- "$ROOT/src" "$ROOT/schemas"
  touch -- "$mark"
}

# Runs a shell command in chroot $1, with mounts and processes of its own, which end with it: the command, and variables
# as NAME=VALUE. It runs in the process group of the caller.
in_chroot() {
  local folder=$1 command=$2
  shift 2
  # shellcheck disable=SC2016 # expanded by the inner shell
  unshare --mount --pid --fork --kill-child bash -c '
    mount --rbind /dev "$0/dev" && mount -t proc proc "$0/proc" &&
      exec chroot "$0" env -i HOME=/root PATH=/usr/sbin:/usr/bin:/sbin:/bin LANG=C.UTF-8 \
        DEBIAN_FRONTEND=noninteractive "${@:2}" bash -c "$1"' "$folder" "$command" "$@"
}

# The same in $ROOT, in a process group of its own.
inside() {
  run in_chroot "$ROOT" "$@"
}

# Installs the packages in the chroot that are missing there.
install_inside() {
  ! inside "dpkg-query -W $* >/dev/null 2>&1" || return 0
  say "installing packages there"
  inside "apt-get -q update && apt-get -q -y install --no-install-recommends $*"
}

# Copies what git would commit to folder $1, and removes all else there but folders whose names match $2. Unchanged files
# keep their times, for ninja.
copy_tree() {
  say "copying the tree"
  (cd "$TOP" && git -c safe.directory="$TOP" ls-files -z --cached --others --exclude-standard |
    while IFS= read -r -d '' file; do [ ! -e "$file" ] || printf '%s\0' "$file"; done >"$WORK/files")
  find "$1" -mindepth 1 -maxdepth 1 ! \( -type d -name "$2" \) -exec rm -rf -- {} +
  tar -C "$TOP" --null -T "$WORK/files" -cf - | tar -C "$1" -xf -
}
