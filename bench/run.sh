#!/usr/bin/env bash
# Speed of the tools on two large recordings, beside plain reading (dd) and a packet-level
# demuxer (ffprobe), one run each, from the page cache. Builds the tools in release mode first.
#
#   bench/run.sh [FILE...]
#
# Without FILE, two 100-second 720p recordings at 21 Mbit/s with audio are made by ffmpeg
# (H.264 and MPEG-2, about 262 MB each), once, and kept in $VDX_BENCH_DIR (default /tmp).
# Prints one Markdown table per file: seconds, MB/s, and the ratios to ffprobe and to the plain
# indexer run.
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
build=${BUILD_DIR:-$root/build-release}
store=${VDX_BENCH_DIR:-/tmp}

cmake -S "$root" -B "$build" -DCMAKE_BUILD_TYPE=Release -DVDX_TESTS=OFF -DVDX_BENCH=OFF >/dev/null
cmake --build "$build" -j"${JOBS:-2}" >/dev/null

make_recording() {
  local file=$1 codec=$2
  [[ -s "$file" ]] && return 0
  echo "making $file" >&2
  local video
  case "$codec" in
    h264) video=(-c:v libx264 -preset ultrafast -g 50 -b:v 18M -maxrate 18M -bufsize 6M) ;;
    mpeg2) video=(-c:v mpeg2video -g 12 -bf 2 -b:v 18M -maxrate 18M -bufsize 6M) ;;
  esac
  ffmpeg -hide_banner -loglevel error -y \
    -f lavfi -i testsrc2=size=1280x720:rate=25:duration=100 \
    -f lavfi -i sine=frequency=1000:sample_rate=48000:duration=100 \
    "${video[@]}" -pix_fmt yuv420p -c:a mp2 -b:a 192k \
    -f mpegts -muxrate 21M "$file.part.ts"
  mv "$file.part.ts" "$file"
}

files=("$@")
if [[ ${#files[@]} -eq 0 ]]; then
  make_recording "$store/vdx-bench-h264.ts" h264
  make_recording "$store/vdx-bench-mpeg2.ts" mpeg2
  files=("$store/vdx-bench-h264.ts" "$store/vdx-bench-mpeg2.ts")
fi

out=$(mktemp -d)
trap 'rm -rf "$out"' EXIT

# A certificate for the encrypted copy, when the tool makes one.
encrypting=false
if "$build/vdxindex" -? 2>&1 | grep -q -- '--encrypt' && command -v openssl >/dev/null; then
  openssl req -x509 -newkey rsa:2048 -nodes -keyout "$out/key.pem" -out "$out/cert.pem" \
    -subj /CN=bench -days 1 >/dev/null 2>&1 && encrypting=true
fi

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

for file in "${files[@]}"; do
  [[ -r "$file" ]] || { echo "can't read $file" >&2; exit 1; }
  size=$(stat -c %s "$file")
  names=() times=()
  run() {
    local name=$1 time
    shift
    # A run that failed has no speed worth showing.
    time=$(seconds "$@") || exit 1
    names+=("$name")
    times+=("$time")
  }
  # dd first, so that every later command reads from a warm cache.
  cat "$file" >/dev/null
  run "dd bs=64k of=/dev/null" dd if="$file" of=/dev/null bs=64k
  run "ffprobe -show_packets" ffprobe -v quiet -show_packets \
    -show_entries packet=pts_time,pos,flags "$file"
  run "vdxindex -q (VDX2)" "$build/vdxindex" -q "$file" "$out/index.vdx2"
  run "vdxindex -q -f vdx" "$build/vdxindex" -q -f vdx "$file" "$out/index.vdx"
  run "vdxindex -q -S" "$build/vdxindex" -q -S "$file" "$out/seek.vdx2"
  run "vdxindex -q -d" "$build/vdxindex" -q -d "$file" "$out/dump.vdx2"
  run "vdxindex -q -O (same file)" "$build/vdxindex" -q -O "$file" "$file" "$out/offsets.vdx2"
  if $encrypting; then
    run "vdxindex -q -e" "$build/vdxindex" -q -e "$out/encrypted.ts" -Ee "$out/cert.pem" \
      "$file" "$out/encrypted.vdx2"
    # Only a copy that was written can be deciphered.
    if [[ -x "$build/vdxdecrypt" && -s "$out/encrypted.ts" ]]; then
      run "vdxdecrypt -k" "$build/vdxdecrypt" -k "$out/key.pem" "$out/encrypted.ts" "$out/clear.ts"
    fi
    rm -f "$out/encrypted.ts" "$out/clear.ts"
  fi
  echo
  echo "$(basename "$file"): $size bytes"
  echo
  echo "| Command | Seconds | MB/s | × ffprobe speed | × plain run time |"
  echo "|---|---:|---:|---:|---:|"
  probe=${times[1]} plain=${times[2]}
  for i in "${!names[@]}"; do
    awk -v n="${names[$i]}" -v t="${times[$i]}" -v s="$size" -v p="$probe" -v q="$plain" \
      'BEGIN { printf "| `%s` | %.3f | %.0f | %.2f | %.2f |\n", n, t, (t > 0 ? s / 1e6 / t : 0),
               (t > 0 ? p / t : 0), (q > 0 ? t / q : 0) }'
  done
done
