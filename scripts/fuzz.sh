#!/usr/bin/env bash
# Builds the libFuzzer targets (clang, AddressSanitizer + UndefinedBehavior-
# Sanitizer, coverage instrumentation of the whole library) in build-fuzz and
# runs each for a given time.
#
# Usage: bash scripts/fuzz.sh [--time SECONDS] [--jobs N] [TARGET ...]
#   --time SECONDS  how long each target runs (default 300)
#   --jobs N        targets run at the same time (default 2)
#   TARGET          fuzz_options, fuzz_payload_file, fuzz_filter, fuzz_rm,
#                   fuzz_y4m, fuzz_detect, fuzz_api (default: all seven)
#
# Each target starts from its committed seeds in fuzz/corpus/<target>/
# (read only) and keeps what it finds in build-fuzz/corpus/<target>/. A
# crash, leak, sanitizer report, timeout or out-of-memory stops that target
# and leaves its input in build-fuzz/artifacts/; reproduce it with
#   build-fuzz/fuzz/<target> <artifact>
# The full log of each run is build-fuzz/logs/<target>.log. The script ends
# with one line per target (runs, coverage, features, corpus, time) and exits
# non-zero when any target found something.
set -euo pipefail
cd "$(dirname "$0")/.."

seconds=300
jobs=2
targets=()
while [ $# -gt 0 ]; do
  case "$1" in
    --time) seconds=${2:?--time needs a number of seconds}; shift ;;
    --jobs) jobs=${2:?--jobs needs a number}; shift ;;
    -h|--help) sed -n '2,19p' "$0" | sed 's/^# \{0,1\}//'; exit 0 ;;
    fuzz_*) targets+=("$1") ;;
    *) echo "fuzz.sh: unknown argument: $1" >&2; exit 2 ;;
  esac
  shift
done
[ ${#targets[@]} -gt 0 ] || targets=(fuzz_options fuzz_payload_file fuzz_filter fuzz_rm fuzz_y4m fuzz_detect fuzz_api)

. scripts/deps.sh
ensure_build_deps
# clang and its sanitizer and libFuzzer runtimes.
ensure_packages clang++:clang
if ! compgen -G '/usr/lib/llvm-*/lib/clang/*/lib/linux/libclang_rt.fuzzer-x86_64.a' >/dev/null; then
  ensure_packages /usr/lib/llvm-14/lib/clang/14.0.6/lib/linux/libclang_rt.fuzzer-x86_64.a:libclang-rt-14-dev
fi

build=build-fuzz
cmake -S . -B "$build" -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo -DCMAKE_CXX_COMPILER=clang++ \
  -DLUMAMARK_BUILD_TESTS=OFF -DLUMAMARK_BUILD_FUZZ=ON \
  -DLUMAMARK_SANITIZE=address,undefined,fuzzer-no-link >/dev/null
cmake --build "$build" -j 2 --target "${targets[@]}"
mkdir -p "$build/logs" "$build/artifacts"

# Undefined behaviour must stop the run like any other finding.
export UBSAN_OPTIONS="halt_on_error=1:print_stacktrace=1"
export ASAN_OPTIONS="detect_leaks=1"

run_target() {
  local t=$1
  mkdir -p "$build/corpus/$t"
  "$build/fuzz/$t" -max_total_time="$seconds" -print_final_stats=1 -timeout=60 \
    -rss_limit_mb=4096 -artifact_prefix="$build/artifacts/$t-" \
    "$build/corpus/$t" "fuzz/corpus/$t" >"$build/logs/$t.log" 2>&1
}

declare -A status
running=0
for t in "${targets[@]}"; do
  if [ "$running" -ge "$jobs" ]; then
    wait -n || true
    running=$((running - 1))
  fi
  echo "== $t: ${seconds} s"
  ( run_target "$t"; echo $? >"$build/logs/$t.status" ) &
  running=$((running + 1))
done
wait

overall=0
echo
printf '%-18s %-7s %12s %8s %8s %8s %8s\n' target result runs cov ft corpus seconds
for t in "${targets[@]}"; do
  log="$build/logs/$t.log"
  rc=$(cat "$build/logs/$t.status" 2>/dev/null || echo 1)
  runs=$(sed -n 's/^stat::number_of_executed_units: *//p' "$log" | tail -1)
  last=$(grep -E '^#[0-9]+.*cov: ' "$log" | tail -1 || true)
  cov=$(sed -n 's/.* cov: \([0-9]*\).*/\1/p' <<<"$last")
  ft=$(sed -n 's/.* ft: \([0-9]*\).*/\1/p' <<<"$last")
  corp=$(sed -n 's/.* corp: \([0-9]*\/[0-9]*[A-Za-z]*\).*/\1/p' <<<"$last")
  secs=$(sed -n 's/^Done [0-9]* runs in \([0-9]*\) second.*/\1/p' "$log" | tail -1)
  result=clean
  if [ "$rc" != 0 ] || grep -qE 'ERROR: (AddressSanitizer|LeakSanitizer|libFuzzer)|runtime error:' "$log"; then
    result=FOUND
    overall=1
  fi
  printf '%-18s %-7s %12s %8s %8s %8s %8s\n' "$t" "$result" "${runs:-?}" "${cov:-?}" "${ft:-?}" \
    "${corp:-?}" "${secs:-?}"
done
if [ $overall -ne 0 ]; then
  echo "findings: see $build/logs/ and $build/artifacts/" >&2
fi
exit $overall
