# shellcheck shell=bash
# shellcheck disable=SC2034 # what the sourcing scripts use looks unused from here
# The kinds of builds that check and soak test, and what it takes to run them; sourced behind common.sh.

# Beside -Db_sanitize: shared objects leave the runtime's symbols to the program, and the normal build has shown all
# warnings; on instrumented code the compiler sees ghosts. Optimising the address build would take three times as long
# and hardly speed up its tests.
SANITIZED=(-Db_lundef=false -Dwarning_level=0 -Dwerror=false)
ADDRESS_OPTIONS=("-Db_sanitize=address,undefined" -Doptimization=0 "${SANITIZED[@]}")
THREAD_OPTIONS=(-Db_sanitize=thread -Doptimization=1 -Dtools=false -Ddocs=false "${SANITIZED[@]}")

# The address-space layout that some kernels choose is beyond what the sanitizers' runtimes can map.
FIXED_LAYOUT=()
if setarch --addr-no-randomize true 2>/dev/null; then
  FIXED_LAYOUT=(setarch --addr-no-randomize)
fi

# GLib's own allocator would hide what a block was made for, and its functions keep no frame pointers to find the
# caller by. Without them each frame costs time at every allocation: ten instead of thirty halve what the daemon takes.
# The preloaded library of the system tests comes before the sanitizer's runtime, and may.
ADDRESS_RUNTIME=verify_asan_link_order=0:fast_unwind_on_malloc=0:malloc_context_size=10
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
