# SPDX-License-Identifier: MIT
# shellcheck shell=bash
# shellcheck disable=SC2034 # what the sourcing scripts use looks unused from here
# The kinds of builds that check and soak test, and what it takes to run them; sourced behind common.sh.

# Beside -Db_sanitize: shared objects leave the runtime's symbols to the program, and warnings are shown by the normal
# build alone, because instrumented code causes false ones. Optimising the address build would take three times as long
# and hardly speed up its tests.
SANITIZED=(-Db_lundef=false -Dwarning_level=0 -Dwerror=false)
ADDRESS_OPTIONS=("-Db_sanitize=address,undefined" -Doptimization=0 "${SANITIZED[@]}")
THREAD_OPTIONS=(-Db_sanitize=thread -Doptimization=1 -Dtools=false -Ddocs=false "${SANITIZED[@]}")

# The address-space layout that some kernels choose is beyond what the sanitizers' runtimes can map.
FIXED_LAYOUT=()
if setarch --addr-no-randomize true 2>/dev/null; then
  FIXED_LAYOUT=(setarch --addr-no-randomize)
fi

# GLib's own allocator would hide what a block was made for. The stacks of allocations end at the first function without
# a frame pointer, thus in GLib: complete ones take more than half of the tests' processor time. The preloaded library of
# the system tests comes before the sanitizer's runtime, and may.
ADDRESS_RUNTIME=verify_asan_link_order=0:fast_unwind_on_malloc=1
ADDRESS_ENVIRONMENT=("${FIXED_LAYOUT[@]}" env G_SLICE=always-malloc
  "ASAN_OPTIONS=$ADDRESS_RUNTIME:detect_stack_use_after_return=1"
  "LSAN_OPTIONS=suppressions=$TOP/scripts/sanitizers/leaks.supp:print_suppressions=0"
  "UBSAN_OPTIONS=halt_on_error=1:print_stacktrace=1")

# The tests of the suite "threads" set the thread sanitizer's options themselves.
THREAD_ENVIRONMENT=("${FIXED_LAYOUT[@]}")
DAEMON_THREAD_ENVIRONMENT=("${FIXED_LAYOUT[@]}" env
  "TSAN_OPTIONS=suppressions=$TOP/tests/tsan/suppressions.txt:second_deadlock_stack=1")

# Builds those files of a build folder that standard input names, one a line, and no more.
build_files() {
  xargs -d '\n' ninja -C "$1"
}

# What `check --all` builds beside the normal build: compiler, build type, and "lto" for link-time optimisation. The flags
# of a plain build are those that the distribution builds its packages with.
MATRIX=("g++ release" "g++ plain" "g++ release lto" "clang++ release" "clang++ debugoptimized" "clang++ plain")

# The library alone, with what a comparison of binary interfaces reads.
ABI_OPTIONS=(-Dbuildtype=debug -Dtests=false -Dtools=false -Dplugins=false -Dreceiver=false -Dsim=false -Ddocs=false
  -Dintrospection=disabled)

declare -A C_COMPILERS=([g++]=gcc [clang++]=clang)

# Meson itself puts ccache before a compiler that it selects, but not before a named one.
CACHED=
if command -v ccache >/dev/null; then
  CACHED="ccache "
fi

# All of the tree. Precompiled headers would hide that a test does not include what it uses.
MATRIX_OPTIONS=(-Dsim=true -Dtests=true -Ddocs=true -Db_pch=false)

# Configures a build folder: its path, the compiler, the build type, options. A configured one keeps its compiler and
# flags, so that it is made again.
configure_anew() (
  build=$1 compiler=$2 type=$3
  shift 3
  [ "$type" != plain ] || eval "$(DEB_BUILD_MAINT_OPTIONS=hardening=+all dpkg-buildflags --export=sh)"
  rm -rf -- "$build"
  CC=$CACHED${C_COMPILERS[$compiler]} CXX=$CACHED$compiler meson setup "$@" "$build" "$TOP"
)

# Builds libtessard-1.0 in a folder, with complete debugging information.
build_abi() {
  configured "$1" "${ABI_OPTIONS[@]}" || configure_anew "$1" g++ debug "${ABI_OPTIONS[@]}"
  ninja -C "$1" lib/libtessard-1.0.so.0
}

# Builds one kind of the matrix, with warnings as errors: the kind, further options.
build_kind() {
  local compiler type lto build=$TOP/build-matrix/${1// /-}
  read -r compiler type lto <<<"$1"
  shift
  set -- "-Dbuildtype=$type" "-Db_lto=$([ "$lto" = lto ] && echo true || echo false)" -Dwerror=true "$@"
  configured "$build" "$@" || configure_anew "$build" "$compiler" "$type" "$@"
  meson compile -C "$build"
}
