#!/usr/bin/env bash
# Makes the transport streams that the tests and the README use, with ffmpeg. The outputs are
# committed; run this again only to change them. Each is a few hundred KB: a file shorter than
# 188,000 bytes doesn't align.
set -euo pipefail
here=$(cd "$(dirname "$0")/.." && pwd)
out="$here/tests/fixtures"
mkdir -p "$out" "$here/samples"

ff() { ffmpeg -hide_banner -loglevel error -y "$@"; }
# A moving test picture with a tone; deterministic input.
src=(-f lavfi -i "testsrc2=size=320x240:rate=25" -f lavfi -i "sine=frequency=440:sample_rate=48000")
ts=(-f mpegts -muxrate 1200k -flush_packets 0)

# MPEG-2 video with MPEG audio.
ff "${src[@]}" -t 4 -c:v mpeg2video -b:v 700k -g 12 -bf 2 -c:a mp2 -b:a 64k "${ts[@]}" "$out/mpeg2_bframes.ts"
ff "${src[@]}" -t 4 -c:v mpeg2video -b:v 700k -g 25 -bf 0 -c:a mp2 -b:a 64k "${ts[@]}" "$out/mpeg2_no_bframes.ts"
ff "${src[@]}" -t 4 -c:v mpeg2video -b:v 700k -g 7 -bf 1 -c:a mp2 -b:a 64k "${ts[@]}" "$out/mpeg2_short_gop.ts"
# One GOP for the whole stream: a single sequence header.
ff "${src[@]}" -t 4 -c:v mpeg2video -b:v 700k -g 1000 -bf 2 -c:a mp2 -b:a 64k "${ts[@]}" "$out/mpeg2_one_sequence_header.ts"

# H.264 video with AAC audio.
x264=(-c:v libx264 -preset fast -b:v 700k -c:a aac -b:a 64k)
ff "${src[@]}" -t 4 "${x264[@]}" -x264-params "keyint=25:min-keyint=25:scenecut=0:open-gop=0" "${ts[@]}" "$out/h264_closed_gop.ts"
ff "${src[@]}" -t 4 "${x264[@]}" -x264-params "keyint=25:intra-refresh=1" "${ts[@]}" "$out/h264_intra_refresh.ts"
ff "${src[@]}" -t 4 "${x264[@]}" -x264-params "keyint=25:min-keyint=25:scenecut=0:open-gop=1:bframes=3" "${ts[@]}" "$out/h264_open_gop.ts"
ff "${src[@]}" -t 4 "${x264[@]}" -x264-params "keyint=25:scenecut=0:aud=1" "${ts[@]}" "$out/h264_aud.ts"
ff "${src[@]}" -t 4 "${x264[@]}" -profile:v high -x264-params "keyint=25:scenecut=0:cqm=jvt" "${ts[@]}" "$out/h264_high_scaling.ts"
ff "${src[@]}" -t 4 "${x264[@]}" -pix_fmt yuv444p -profile:v high444 -x264-params "keyint=25:scenecut=0" "${ts[@]}" "$out/h264_high444.ts"
ff "${src[@]}" -t 4 "${x264[@]}" -x264-params "keyint=25:scenecut=0:slices=4" "${ts[@]}" "$out/h264_multi_slice.ts"

# The README's sample.
cp "$out/mpeg2_bframes.ts" "$here/samples/sample.ts"
ls -l "$out" "$here/samples"
