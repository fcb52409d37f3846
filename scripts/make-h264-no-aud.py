#!/usr/bin/env python3
"""Makes the H.264 fixtures without access unit delimiters.

The transport stream muxer of ffmpeg always puts an AUD in front of each access unit. This script
takes an Annex B elementary stream from ffmpeg, drops any AUD NAL units and muxes the rest into a
minimal transport stream: PAT and PMT ahead of every 25th access unit, one PES packet per access
unit, and a PCR on the video PID in the first packet of each PES packet. No B-frames, so that
decoding and presentation order agree and the PES packets need a PTS alone.

- tests/fixtures/h264_no_aud.ts: closed GOPs, an IDR picture every second.
- tests/fixtures/h264_no_aud_intra_refresh.ts: periodic intra refresh every 8 pictures, with a
  recovery point SEI of recovery_frame_cnt 7 and no IDR picture after the first.
- tests/fixtures/h264_no_aud_sps_scaling.ts: High profile whose SPS carries all eight scaling
  lists, each sent in full. The encoder never puts them there, so its SPS is rewritten: the lists
  are flat (every value 16), which decodes exactly like the encoder's own flat quantisation.

Usage: scripts/make-h264-no-aud.py [DIRECTORY]   (default: tests/fixtures)
"""

import os
import subprocess
import sys
import tempfile

VIDEO_PID = 0x100
PMT_PID = 0x1000
PROGRAM_NUMBER = 1
FRAME_TICKS = 3600  # 90 kHz ticks per picture at 25 pictures per second
PTS_DELAY = 63000   # 0.7 s between the PCR and the presentation of a picture
TABLE_INTERVAL = 25


def crc32_mpeg(data):
    crc = 0xFFFFFFFF
    for byte in data:
        crc ^= byte << 24
        for _ in range(8):
            crc = ((crc << 1) ^ 0x04C11DB7) if crc & 0x80000000 else (crc << 1)
            crc &= 0xFFFFFFFF
    return crc


def section(table_id, extension, body):
    length = 5 + len(body) + 4
    head = bytes([table_id, 0xB0 | (length >> 8), length & 0xFF,
                  extension >> 8, extension & 0xFF, 0xC1, 0x00, 0x00])
    data = head + body
    return data + crc32_mpeg(data).to_bytes(4, "big")


def pat():
    return section(0x00, 1, bytes([PROGRAM_NUMBER >> 8, PROGRAM_NUMBER & 0xFF,
                                   0xE0 | (PMT_PID >> 8), PMT_PID & 0xFF]))


def pmt():
    body = bytes([0xE0 | (VIDEO_PID >> 8), VIDEO_PID & 0xFF, 0xF0, 0x00,      # PCR PID, info
                  0x1B, 0xE0 | (VIDEO_PID >> 8), VIDEO_PID & 0xFF, 0xF0, 0x00])  # H.264 stream
    return section(0x02, PROGRAM_NUMBER, body)


class Muxer:
    def __init__(self):
        self.out = bytearray()
        self.counters = {}

    def packet(self, pid, payload, start, pcr=None):
        """Writes one packet with as much of payload as fits; returns the count taken."""
        counter = self.counters.get(pid, 0)
        self.counters[pid] = (counter + 1) & 15
        fields = b""
        flags = None
        if pcr is not None:
            flags = 0x10
            base, extension = pcr // 300, pcr % 300
            fields = ((base << 15) | (0x3F << 9) | extension).to_bytes(6, "big")
        room = 184 - (0 if flags is None else 2 + len(fields))
        take = min(room, len(payload))
        stuffing = room - take
        if flags is not None:
            adaptation = bytes([1 + len(fields) + stuffing, flags]) + fields + b"\xFF" * stuffing
        elif stuffing == 1:
            adaptation = b"\x00"
        elif stuffing > 1:
            adaptation = bytes([stuffing - 1, 0x00]) + b"\xFF" * (stuffing - 2)
        else:
            adaptation = b""
        control = 0x30 if adaptation else 0x10
        header = bytes([0x47, (0x40 if start else 0) | (pid >> 8), pid & 0xFF, control | counter])
        data = header + adaptation + bytes(payload[:take])
        assert len(data) == 188, len(data)
        self.out += data
        return take

    def table(self, pid, data):
        payload = b"\x00" + data
        self.packet(pid, payload + b"\xFF" * (184 - len(payload)), True)

    def pes(self, payload, pts, pcr):
        stamp = bytes([0x21 | ((pts >> 29) & 0x0E), (pts >> 22) & 0xFF, 0x01 | ((pts >> 14) & 0xFE),
                       (pts >> 7) & 0xFF, 0x01 | ((pts << 1) & 0xFE)])
        header = bytes([0x00, 0x00, 0x01, 0xE0, 0x00, 0x00, 0x80, 0x80, 0x05]) + stamp
        data = header + payload
        at = self.packet(VIDEO_PID, data, True, pcr)
        while at < len(data):
            at += self.packet(VIDEO_PID, data[at:], False)


def nal_units(stream):
    """Splits an Annex B stream into NAL units, each without its start code."""
    starts = []
    i = 0
    while True:
        i = stream.find(b"\x00\x00\x01", i)
        if i < 0:
            break
        starts.append(i + 3)
        i += 3
    units = []
    for k, begin in enumerate(starts):
        end = starts[k + 1] - 3 if k + 1 < len(starts) else len(stream)
        unit = stream[begin:end]
        while k + 1 < len(starts) and unit.endswith(b"\x00"):
            unit = unit[:-1]  # the zero_byte of a four-byte start code
        units.append(unit)
    return units


class BitString:
    """Reads and writes an RBSP as a string of '0' and '1'."""

    def __init__(self, data=b""):
        self.bits = "".join(f"{byte:08b}" for byte in data)
        self.at = 0

    def u(self, count):
        value = int(self.bits[self.at:self.at + count] or "0", 2)
        self.at += count
        return value

    def ue(self):
        zeros = 0
        while self.u(1) == 0:
            zeros += 1
        return (1 << zeros) - 1 + self.u(zeros)


def ue_bits(value):
    code = f"{value + 1:b}"
    return "0" * (len(code) - 1) + code


def se_bits(value):
    return ue_bits(2 * value - 1 if value > 0 else -2 * value)


def unescape(data):
    out = bytearray()
    zeros = 0
    for byte in data:
        if zeros >= 2 and byte == 3:
            zeros = 0
            continue
        out.append(byte)
        zeros = zeros + 1 if byte == 0 else 0
    return bytes(out)


def escape(data):
    out = bytearray()
    zeros = 0
    for byte in data:
        if zeros >= 2 and byte <= 3:
            out.append(3)
            zeros = 0
        out.append(byte)
        zeros = zeros + 1 if byte == 0 else 0
    return bytes(out)


def with_flat_scaling_lists(sps):
    """Rewrites an SPS of profile 100 without scaling matrix into one with eight flat lists."""
    rbsp = BitString(unescape(sps[1:]))
    profile = rbsp.u(8)
    assert profile == 100, profile
    rbsp.u(16)
    rbsp.ue()
    chroma_format_idc = rbsp.ue()
    assert chroma_format_idc == 1, chroma_format_idc
    rbsp.ue()
    rbsp.ue()
    rbsp.u(1)
    head = rbsp.bits[:rbsp.at]
    assert rbsp.u(1) == 0, "the SPS has a scaling matrix already"
    tail = rbsp.bits[rbsp.at:]
    lists = ""
    for size in (16,) * 6 + (64,) * 2:
        # From 8 to 16, then no change: every value of the list is 16.
        lists += "1" + se_bits(8) + se_bits(0) * (size - 1)
    bits = head + "1" + lists + tail
    # The old tail ended in the stop bit and zero padding: cut the padding, pad anew.
    bits = bits.rstrip("0")
    bits += "0" * (-len(bits) % 8)
    body = bytes(int(bits[k:k + 8], 2) for k in range(0, len(bits), 8))
    return sps[:1] + escape(body)


def access_units(units):
    """Groups NAL units into access units, and drops the AUDs."""
    groups = []
    current = []
    seen_slice = False
    for unit in units:
        kind = unit[0] & 31
        first_slice = kind in (1, 5) and (unit[1] & 0x80) != 0  # first_mb_in_slice 0
        if seen_slice and (kind in (6, 7, 8, 9) or first_slice):
            groups.append(current)
            current = []
            seen_slice = False
        if kind == 9:
            continue
        current.append(unit)
        if kind in (1, 5):
            seen_slice = True
    if current:
        groups.append(current)
    return groups


FIXTURES = {
    "h264_no_aud.ts": ("keyint=25:min-keyint=25:scenecut=0:bframes=0:aud=0", False),
    "h264_no_aud_intra_refresh.ts": ("keyint=8:intra-refresh=1:bframes=0:aud=0", False),
    "h264_no_aud_sps_scaling.ts": ("keyint=25:min-keyint=25:scenecut=0:bframes=0:aud=0", True),
}


def make(output, x264_params, scaling_lists):
    with tempfile.TemporaryDirectory() as work:
        es = os.path.join(work, "video.h264")
        subprocess.run(["ffmpeg", "-hide_banner", "-loglevel", "error", "-y",
                        "-f", "lavfi", "-i", "testsrc2=size=320x240:rate=25", "-t", "4",
                        "-c:v", "libx264", "-profile:v", "high", "-preset", "fast",
                        "-b:v", "700k", "-threads", "1",
                        "-x264-params", x264_params, "-f", "h264", es], check=True)
        with open(es, "rb") as f:
            stream = f.read()
    units = nal_units(stream)
    if scaling_lists:
        units = [with_flat_scaling_lists(unit) if unit[0] & 31 == 7 else unit for unit in units]
    groups = access_units(units)
    mux = Muxer()
    for index, group in enumerate(groups):
        if index % TABLE_INTERVAL == 0:
            mux.table(0, pat())
            mux.table(PMT_PID, pmt())
        payload = b"".join(b"\x00\x00\x00\x01" + unit for unit in group)
        dts = index * FRAME_TICKS
        mux.pes(payload, dts + PTS_DELAY, dts * 300)
    with open(output, "wb") as f:
        f.write(mux.out)
    print(f"{output}: {len(groups)} access units, {len(mux.out)} bytes")


def main():
    here = os.path.dirname(os.path.dirname(os.path.abspath(__file__)))
    directory = sys.argv[1] if len(sys.argv) > 1 else os.path.join(here, "tests/fixtures")
    for name, (x264_params, scaling_lists) in FIXTURES.items():
        make(os.path.join(directory, name), x264_params, scaling_lists)


if __name__ == "__main__":
    main()
