#!/usr/bin/env bash
# Runs one fuzz target for long, keeping what it learns in a corpus folder of its own, and tells at
# the end what it found.
#
# Usage: scripts/fuzz.sh [-n] [-c CORPUS_DIR] TARGET [SECONDS]
#   TARGET      the name of a target: a file fuzz/TARGET.cc, built as fuzz_TARGET
#   SECONDS     how long to run, default 1200
#   -n          run the target as it is built, without building
#   -c DIR      the folder of the run, default $VDX_FUZZ_DIR/TARGET, or
#               $HOME/.cache/vdx-fuzz/TARGET: new inputs go to DIR/corpus, crash, leak, timeout
#               and out-of-memory files to DIR, the log of each run to DIR/fuzz-<time>.log
#
# Environment: VDX_FUZZ_BUILD the build folder (default build-fuzz, configured with clang when
# missing), VDX_FUZZ_NICE the niceness of the run (default 19), VDX_BUILD_LOCK a lock file that
# the build waits for, so that builds on a shared machine take turns (default
# /tmp/vdx-build.lock; empty for none), VDX_FUZZ_ARGS more arguments for libFuzzer. The targets'
# scratch files go to $TMPDIR, /dev/shm when that isn't set.
#
# The committed seeds of fuzz/corpus/TARGET are read at every start but never written to.
# The exit status is libFuzzer's: 0 when the run found nothing.
set -euo pipefail
here=$(cd "$(dirname "$0")/.." && pwd)

usage() {
  sed -n '5,11p' "$0" | sed 's/^# \{0,1\}//' >&2
  exit 1
}

folder=""
build_first=1
while getopts "c:nh" option; do
  case $option in
    c) folder=$OPTARG ;;
    n) build_first=0 ;;
    *) usage ;;
  esac
done
shift $((OPTIND - 1))
[[ $# -ge 1 && $# -le 2 ]] || usage
target=$1
seconds=${2:-1200}
[[ "$seconds" =~ ^[0-9]+$ ]] || usage
if [[ ! -f "$here/fuzz/$target.cc" ]]; then
  echo "fuzz.sh: no target $target; there are: $(cd "$here/fuzz" && ls ./*.cc | sed 's|^\./||; s|\.cc$||' | tr '\n' ' ')" >&2
  exit 1
fi
folder=${folder:-${VDX_FUZZ_DIR:-$HOME/.cache/vdx-fuzz}/$target}
build=${VDX_FUZZ_BUILD:-$here/build-fuzz}
lock=()
if [[ -n "${VDX_BUILD_LOCK-/tmp/vdx-build.lock}" ]]; then
  lock=(flock "${VDX_BUILD_LOCK-/tmp/vdx-build.lock}")
fi
if [[ -z "${TMPDIR:-}" && -d /dev/shm && -w /dev/shm ]]; then
  export TMPDIR=/dev/shm
fi

# Build (incrementally) what the run needs.
if [[ $build_first -eq 0 ]]; then
  [[ -x "$build/fuzz_$target" ]] || { echo "fuzz.sh: $build/fuzz_$target isn't built" >&2; exit 1; }
elif [[ ! -f "$build/CMakeCache.txt" ]]; then
  "${lock[@]}" env CC=clang CXX=clang++ cmake -S "$here" -B "$build" -DVDX_FUZZ=ON -DVDX_TESTS=OFF \
    -DVDX_BENCH=OFF -DCMAKE_BUILD_TYPE=RelWithDebInfo >/dev/null
fi
if [[ $build_first -eq 1 ]]; then
  "${lock[@]}" cmake --build "$build" -j"${JOBS:-2}" --target "fuzz_$target" >/dev/null
fi

mkdir -p "$folder/corpus"
folder=$(cd "$folder" && pwd)
log=$folder/fuzz-$(date -u +%Y%m%dT%H%M%SZ).log
seeds=()
if [[ -d "$here/fuzz/corpus/$target" ]]; then
  seeds=("$here/fuzz/corpus/$target")
fi
before=$(find "$folder/corpus" -type f | wc -l)
echo "fuzz.sh: fuzz_$target for $seconds s, corpus $folder/corpus ($before inputs), log $log"

status=0
# shellcheck disable=SC2086 # VDX_FUZZ_ARGS is a list of arguments
nice -n "${VDX_FUZZ_NICE:-19}" "$build/fuzz_$target" \
  -max_total_time="$seconds" -timeout=10 -rss_limit_mb=2048 -max_len=1048576 \
  -detect_leaks=1 -dict="$here/fuzz/ts.dict" -print_final_stats=1 \
  -artifact_prefix="$folder/" ${VDX_FUZZ_ARGS:-} \
  "$folder/corpus" "${seeds[@]}" >"$log" 2>&1 || status=$?

# What the run found: the last status line of libFuzzer and its final statistics.
last=$(grep -E '^#[0-9]+' "$log" | tail -n 1 || true)
executions=$(sed -n 's/^stat::number_of_executed_units: *//p' "$log" | tail -n 1)
rate=$(sed -n 's/^stat::average_exec_per_sec: *//p' "$log" | tail -n 1)
coverage=$(sed -n 's/.* \(cov: [0-9]*\) \(ft: [0-9]*\).*/\1 \2/p' <<<"$last")
after=$(find "$folder/corpus" -type f | wc -l)
echo "fuzz.sh: status $status after $seconds s"
echo "  executions: ${executions:-?} (${rate:-?} a second)"
echo "  coverage:   ${coverage:-?}"
echo "  corpus:     $after inputs ($((after - before)) new), $(du -sh "$folder/corpus" | cut -f1)"
echo "  last line:  ${last:-none}"
found=0
for artifact in "$folder"/crash-* "$folder"/leak-* "$folder"/timeout-* "$folder"/oom-* \
  "$folder"/slow-unit-*; do
  [[ -e "$artifact" ]] || continue
  if [[ $found -eq 0 ]]; then
    echo "  findings (reproduce with the command shown; add -runs=1 to run it once):"
  fi
  found=$((found + 1))
  echo "    $build/fuzz_$target $artifact"
done
if [[ $found -eq 0 ]]; then
  echo "  findings:   none"
fi
if grep -qE '^(==[0-9]+==ERROR|SUMMARY: )' "$log"; then
  echo "  the log holds a sanitizer report:"
  grep -E '^(==[0-9]+==ERROR|SUMMARY: )' "$log" | sed 's/^/    /'
fi
exit "$status"
