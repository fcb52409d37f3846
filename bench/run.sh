#!/usr/bin/env bash
# Speed of the indexer on a large file, beside plain reading (dd) and a packet-level demuxer
# (ffprobe). Builds the tool in release mode first.
#
#   bench/run.sh [FILE]
#
# Without FILE, the MPEG-2 fixtures are concatenated to about 1 GB in /tmp (made once, kept).
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
build=${BUILD_DIR:-$root/build-release}

cmake -S "$root" -B "$build" -DCMAKE_BUILD_TYPE=Release -DVDX_TESTS=OFF -DVDX_BENCH=OFF >/dev/null
cmake --build "$build" --target vdxindex -j"${JOBS:-2}" >/dev/null

file=${1:-}
if [[ -z "$file" ]]; then
  file=/tmp/vdx-bench-1g.ts
  if [[ ! -s "$file" ]]; then
    echo "making $file"
    target=$((1024 * 1024 * 1024))
    : >"$file.part"
    while [[ $(stat -c %s "$file.part") -lt $target ]]; do
      cat "$root"/tests/fixtures/mpeg2_*.ts >>"$file.part"
    done
    mv "$file.part" "$file"
  fi
fi
[[ -r "$file" ]] || { echo "can't read $file" >&2; exit 1; }
size=$(stat -c %s "$file")
out=$(mktemp -d)
trap 'rm -rf "$out"' EXIT

# Seconds of wall time for a command, its output thrown away; fails with the command.
seconds() {
  local start end status=0
  start=$(date +%s.%N)
  "$@" >/dev/null 2>&1 || status=$?
  end=$(date +%s.%N)
  if [[ $status -ne 0 ]]; then
    echo "failed with status $status: $*" >&2
    return 1
  fi
  awk -v a="$start" -v b="$end" 'BEGIN { printf "%.3f", b - a }'
}

report() {
  local name=$1 time
  shift
  # A run that failed has no speed worth showing.
  time=$(seconds "$@") || exit 1
  awk -v n="$name" -v t="$time" -v s="$size" \
    'BEGIN { printf "%-26s %8.2f s %10.1f MB/s\n", n, t, (t > 0 ? s / 1000000 / t : 0) }'
}

echo "file: $file ($size bytes)"
# dd first, so that every command reads from a warm cache.
report "dd bs=64k" dd if="$file" of=/dev/null bs=64k
report "vdxindex (VDX2)" "$build/vdxindex" -q "$file" "$out/index.vdx2"
report "vdxindex -f vdx" "$build/vdxindex" -q -f vdx "$file" "$out/index.vdx"
report "vdxindex -S" "$build/vdxindex" -q -S "$file" "$out/seek.vdx2"
report "ffprobe -show_packets" ffprobe -v quiet -show_packets "$file"
