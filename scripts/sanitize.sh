#!/usr/bin/env bash
# Builds lumamark and its tests with sanitizers and runs the whole test suite
# under each build:
#   build-asan  AddressSanitizer + UndefinedBehaviorSanitizer (-DLUMAMARK_SANITIZE=address,undefined)
#   build-tsan  ThreadSanitizer                                (-DLUMAMARK_SANITIZE=thread)
#
# Usage: bash scripts/sanitize.sh [--asan-only | --tsan-only] [--jobs N]
#   --asan-only  only the ASan+UBSan build (what CI runs)
#   --tsan-only  only the ThreadSanitizer build
#   --jobs N     parallel build and test jobs (default 2)
# The compiler is clang++ (installed when missing; its sanitizer runtimes
# honour log_path for every kind of report); CXX overrides it.
#
# Every sanitizer report of every process (the test binaries and each run of
# the tool they start) is written to a file under <build>/sanitizer-reports
# instead of standard error, so that a report from a child process whose
# output a test does not look at still fails the run. The script exits
# non-zero when a build fails, a test fails, or any report was written.
set -euo pipefail
cd "$(dirname "$0")/.."

run_asan=1
run_tsan=1
jobs=2
while [ $# -gt 0 ]; do
  case "$1" in
    --asan-only) run_tsan=0 ;;
    --tsan-only) run_asan=0 ;;
    --jobs) jobs=${2:?--jobs needs a number}; shift ;;
    -h|--help) sed -n '2,18p' "$0" | sed 's/^# \{0,1\}//'; exit 0 ;;
    *) echo "sanitize.sh: unknown argument: $1" >&2; exit 2 ;;
  esac
  shift
done

. scripts/deps.sh
ensure_build_deps
ensure_video_deps
# clang and its sanitizer runtimes.
ensure_packages clang++:clang
if ! compgen -G '/usr/lib/llvm-*/lib/clang/*/lib/linux/libclang_rt.asan-x86_64.a' >/dev/null; then
  ensure_packages /usr/lib/llvm-14/lib/clang/14.0.6/lib/linux/libclang_rt.asan-x86_64.a:libclang-rt-14-dev
fi

compiler=${CXX:-$(command -v clang++ || true)}

# Options shared by all sanitizers: stop at the first report, keep the stack.
# The allocator keeps its default: an impossible allocation is a report (the
# tools check their sizes before they allocate).
common="halt_on_error=1:print_stacktrace=1"

# Builds one configuration and runs ctest in it; name is asan or tsan.
run_suite() {
  local name=$1 sanitizers=$2
  local build="build-$name"
  local reports="$PWD/$build/sanitizer-reports"
  local start=$SECONDS
  local compiler_arg=()
  if [ -n "$compiler" ]; then
    compiler_arg=(-DCMAKE_CXX_COMPILER="$compiler")
    # A build directory configured with another compiler starts afresh.
    if [ -f "$build/CMakeCache.txt" ] &&
       ! grep -qx "CMAKE_CXX_COMPILER:[A-Z]*=$(command -v "$compiler")" "$build/CMakeCache.txt"; then
      rm -rf "$build"
    fi
  fi
  echo "== $name: configure and build ($build, ${compiler:-default compiler}, -DLUMAMARK_SANITIZE=$sanitizers)"
  cmake -S . -B "$build" -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo "${compiler_arg[@]}" \
    -DLUMAMARK_SANITIZE="$sanitizers" >/dev/null
  cmake --build "$build" -j "$jobs"
  rm -rf "$reports"
  mkdir -p "$reports"
  echo "== $name: ctest"
  local status=0
  ASAN_OPTIONS="$common:detect_leaks=1:check_initialization_order=1:strict_init_order=1:log_path=$reports/asan" \
  UBSAN_OPTIONS="$common:log_path=$reports/ubsan" \
  TSAN_OPTIONS="$common:second_deadlock_stack=1:log_path=$reports/tsan" \
    ctest --test-dir "$build" --output-on-failure -j "$jobs" || status=$?
  # Any report file is a finding.
  local f found=0
  for f in "$reports"/*; do
    [ -e "$f" ] || continue
    if [ -s "$f" ]; then
      [ $found -eq 0 ] && echo "== $name: sanitizer reports:" >&2
      found=1
      echo "--- $f" >&2
      cat "$f" >&2
    fi
  done
  [ $found -eq 0 ] || status=1
  echo "== $name: $([ $status -eq 0 ] && echo clean || echo FAILED) in $((SECONDS - start)) s"
  return $status
}

overall=0
if [ $run_asan -eq 1 ]; then run_suite asan address,undefined || overall=1; fi
if [ $run_tsan -eq 1 ]; then run_suite tsan thread || overall=1; fi
exit $overall
