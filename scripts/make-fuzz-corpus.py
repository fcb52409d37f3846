#!/usr/bin/env python3
"""Makes the seed corpora of the fuzz targets in fuzz/corpus/<target>/.

Every seed is cut from the committed fixtures (a few tens of packets: the start of a stream, and
the packets around an intra frame with the program tables ahead of it), or made from such a piece:
index files written by the built vdxindex, the elementary stream of H.264 pieces, table sections
and PES headers as they stand in the pieces. Certificates are made by the openssl command; their
private keys live in a temporary folder and are never kept. Everything but the certificates comes
out the same on every run.

Usage: scripts/make-fuzz-corpus.sh [BUILD_DIR]   (BUILD_DIR holds vdxindex, default build)
"""

import os
import pathlib
import shutil
import struct
import subprocess
import sys
import tempfile

ROOT = pathlib.Path(__file__).resolve().parent.parent
FIXTURES = ROOT / "tests" / "fixtures"
CORPUS = ROOT / "fuzz" / "corpus"

PACKET = 188
VIDEO_PID = 0x100
PMT_PID = 0x1000

MPEG2 = ["mpeg2_short_gop", "mpeg2_bframes", "mpeg2_one_sequence_header"]
H264 = ["h264_aud", "h264_no_aud", "h264_open_gop", "h264_intra_refresh", "h264_high_scaling",
        "h264_multi_slice"]


def packets(data):
    return [data[i:i + PACKET] for i in range(0, len(data) - PACKET + 1, PACKET)]


def pid_of(packet):
    return ((packet[1] & 0x1F) << 8) | packet[2]


def unit_start(packet):
    return (packet[1] & 0x40) != 0


def payload(packet):
    control = (packet[3] >> 4) & 3
    start = 4
    if control & 2:
        start = 5 + packet[4]
    return packet[start:] if start <= PACKET else b""


def pes_starts(stream):
    return [n for n, p in enumerate(stream) if pid_of(p) == VIDEO_PID and unit_start(p)]


def pes_bytes(stream, start, end):
    return b"".join(payload(p) for p in stream[start:end] if pid_of(p) == VIDEO_PID)


def is_intra(pes):
    if b"\x00\x00\x01\xb3" in pes:  # MPEG-2 sequence header
        return True
    for code in (b"\x00\x00\x01\x65", b"\x00\x00\x01\x25", b"\x00\x00\x01\x45"):
        if code in pes:  # H.264 IDR slice
            return True
    return False


def intra_frames(stream):
    """(start, end) packet numbers of the PES packets of intra frames."""
    starts = pes_starts(stream) + [len(stream)]
    frames = []
    for a, b in zip(starts, starts[1:]):
        if is_intra(pes_bytes(stream, a, b)):
            frames.append((a, b))
    return frames


def piece_start(stream):
    """The stream from its first packet to a few packets into the frame after the first intra
    frame: tables, the frame whole and the start that ends it."""
    start, end = intra_frames(stream)[0]
    return b"".join(stream[:min(end + 6, len(stream))])


def piece_around(stream, which):
    """The last PAT and PMT ahead of a later intra frame, then the packets from the frame to a
    few packets into the next one, without the null packets."""
    frames = intra_frames(stream)
    start, end = frames[min(which, len(frames) - 1)]
    pat = [p for p in stream[:start] if pid_of(p) == 0][-1:]
    pmt = [p for p in stream[:start] if pid_of(p) == PMT_PID][-1:]
    body = [p for p in stream[start:min(end + 6, len(stream))] if pid_of(p) != 0x1FFF]
    return b"".join(pat + pmt + body)


def chain_header(bits=0, level=0, ca_pid=0, index_value=0, precision=0, chunks=(0, 0, 0, 0)):
    return (struct.pack(">BBHHI", bits, level, ca_pid, index_value, precision) +
            struct.pack(">4H", *chunks))


def write(target, name, data):
    folder = CORPUS / target
    folder.mkdir(parents=True, exist_ok=True)
    (folder / name).write_bytes(data)


def load(name):
    return packets((FIXTURES / (name + ".ts")).read_bytes())


def pieces(names):
    out = []
    for name in names:
        stream = load(name)
        out.append((name + "-start", piece_start(stream)))
        out.append((name + "-intra", piece_around(stream, 2)))
    return out


def chain_seeds(target, names):
    # Option sets: the default; -Ix fed packet by packet; -d -T with odd chunks; -S; -n -s -c
    # with the audio PID as CA PID; -Ib 36, the smallest block that holds data.
    variants = [
        ("default", chain_header()),
        ("external-188", chain_header(bits=0x02, chunks=(188, 188, 188, 188))),
        ("dump-trim-odd", chain_header(bits=0x09, level=3, chunks=(1, 187, 1000, 7))),
        ("pcr-only", chain_header(bits=0x04)),
        ("no-tables-seek-ca", chain_header(bits=0x70, ca_pid=0x101)),
        ("block36", chain_header(bits=0x80, index_value=20)),
    ]
    for n, (name, piece) in enumerate(pieces(names)):
        label, header = variants[n % len(variants)]
        write(target, f"{name}-{label}", header + piece)
        if n == 0:
            for label, header in variants[1:]:
                write(target, f"{name}-{label}", header + piece)


def vdx_chain_seeds(names):
    # -In and -Ip: the defaults, no links with a fine table, many links, and a precision of 0.
    variants = [
        ("default", chain_header()),
        ("links0-fine", chain_header(bits=0x80, index_value=0, precision=1880)),
        ("links300", chain_header(bits=0x80, index_value=300, precision=65536)),
        ("precision0", chain_header(bits=0x80, index_value=2, precision=0)),
        ("pcr-only-fine", chain_header(bits=0x84, index_value=16, precision=4096)),
    ]
    for n, (name, piece) in enumerate(pieces(names)):
        label, header = variants[n % len(variants)]
        write("vdx_chain", f"{name}-{label}", header + piece)


def sync_header(cut):
    return struct.pack(">IB4H", cut, 0, 0, 0, 0, 0)


def sync_seeds():
    stream = load("mpeg2_short_gop")
    piece = b"".join(stream[:60])
    write("sync_pipe", "identical", sync_header(len(piece)) + piece + piece)
    # The offset file has the null packets that the input lacks, and garbage ahead of the input.
    thinned = b"".join(p for p in stream[:60] if pid_of(p) != 0x1FFF)
    write("sync_pipe", "offsets-with-nulls", sync_header(len(thinned)) + thinned + piece)
    shifted = b"\x00" * 100 + piece
    write("sync_pipe", "input-after-garbage", sync_header(len(shifted)) + shifted + piece)
    # The offset file ends early.
    write("sync_pipe", "offsets-cut", sync_header(len(piece)) + piece + piece[:PACKET * 20 + 50])
    h264 = b"".join(load("h264_aud")[:60])
    write("sync_pipe", "h264-identical", sync_header(len(h264)) + h264 + h264)


def table_payloads(stream, pid, limit=2):
    out = []
    for p in stream:
        if pid_of(p) == pid and unit_start(p):
            out.append(payload(p))
            if len(out) == limit:
                break
    return out


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
    head = bytes([table_id, 0xB0 | (length >> 8), length & 0xFF]) + struct.pack(">H", extension)
    head += bytes([0xC1, 0, 0])
    data = head + body
    return b"\x00" + data + struct.pack(">I", crc32_mpeg(data))


def section_seeds():
    for name in ("mpeg2_short_gop", "h264_aud"):
        stream = load(name)
        for pat in table_payloads(stream, 0, 1):
            write("sections", f"{name}-pat", b"\x00" + pat)
            write("sections", f"{name}-section", b"\x03" + pat)
        for pmt in table_payloads(stream, PMT_PID, 1):
            write("sections", f"{name}-pmt", b"\x01" + pmt)
    # A CAT with one CA descriptor (system 0x0B00 on PID 0x1FF0) and a private one; the
    # fixtures have none.
    cat = section(1, 0xFFFF, bytes([9, 4, 0x0B, 0x00, 0xFF, 0xF0, 0x80, 2, 1, 2]))
    write("sections", "cat", b"\x02" + cat)
    # A PMT with program descriptors and a stream with an ES descriptor.
    pmt_body = struct.pack(">HH", 0xE000 | VIDEO_PID, 0xF000 | 6)
    pmt_body += bytes([9, 4, 0x0B, 0x00, 0xFF, 0xF0])
    pmt_body += bytes([0x1B]) + struct.pack(">HH", 0xE000 | VIDEO_PID, 0xF000 | 3)
    pmt_body += bytes([0x52, 1, 0])
    write("sections", "pmt-descriptors", b"\x01" + section(2, 1, pmt_body))


def pes_seeds():
    for name in ("mpeg2_short_gop", "h264_aud"):
        stream = load(name)
        video = [payload(p) for p in stream if pid_of(p) == VIDEO_PID and unit_start(p)][:3]
        audio = [payload(p) for p in stream if pid_of(p) == 0x101 and unit_start(p)][:2]
        write("pes_reader", f"{name}-video", b"".join(video))
        write("pes_reader", f"{name}-audio", b"".join(audio))
        write("pes_reader", f"{name}-video-one", video[0])


def elementary_stream(stream):
    """The video bytes behind each PES header, in order."""
    out = bytearray()
    for p in stream:
        if pid_of(p) != VIDEO_PID:
            continue
        data = payload(p)
        if unit_start(p) and data[:3] == b"\x00\x00\x01" and len(data) >= 9:
            data = data[9 + data[8]:]
        out += data
    return bytes(out)


def h264_unit_seeds():
    for n, name in enumerate(H264):
        stream = load(name)
        start, end = intra_frames(stream)[0]
        # The headers, the intra frame and the start of the next picture; payloads of 184
        # bytes, with a PES header length of 0.
        es = elementary_stream(stream[:min(end + 6, len(stream))])
        header = bytes([n & 3, 183, 0, 0])
        write("h264_units", f"{name}-frame", header + es)
        if n == 0:
            write("h264_units", f"{name}-small-payloads", bytes([3, 17, 0, 0]) + es)
            write("h264_units", f"{name}-scrambled", bytes([0, 183, 5, 9]) + es)


def run_indexer(vdxindex, piece, options, folder):
    """Indexes a piece through standard input; the VDX writer takes the size of a file named
    "pipe" in the current folder as the size of the input, so the piece is put there."""
    (folder / "pipe").write_bytes(piece)
    for old in folder.glob("out.*"):
        old.unlink()
    with open(folder / "pipe", "rb") as source:
        subprocess.run([str(vdxindex), "-q", "-q"] + options + ["-", "out.index"], stdin=source,
                       cwd=folder, check=True)
    return (folder / "out.index").read_bytes()


def dump_seed(index, source, at_ms=0):
    # The target puts the magic in front of the index itself.
    return struct.pack(">Ii", len(index) - 4, at_ms) + index[4:] + source


def dump_seeds(vdxindex):
    with tempfile.TemporaryDirectory() as temp:
        folder = pathlib.Path(temp)
        for name, piece in pieces(["mpeg2_short_gop", "h264_aud"]):
            index = run_indexer(vdxindex, piece, [], folder)
            write("vdx2dump_vdx2", f"{name}", dump_seed(index, piece, 500))
            index = run_indexer(vdxindex, piece, ["-IX", "frames.vdf"], folder)
            frames = (folder / "frames.vdf").read_bytes()
            write("vdx2dump_vdx2", f"{name}-external", dump_seed(index, frames, 100000))
            index = run_indexer(vdxindex, piece, ["-S"], folder)
            write("vdx2dump_vdx2", f"{name}-pcr-only", dump_seed(index, piece, -1))
            index = run_indexer(vdxindex, piece, ["-f", "vdx", "-Ip", "1880", "-In", "2"], folder)
            write("vdx2dump_vdx", f"{name}", dump_seed(index, piece, 500))
            index = run_indexer(vdxindex, piece, ["-f", "vdx", "-S", "-Ip", "4096"], folder)
            write("vdx2dump_vdx", f"{name}-pcr-only", dump_seed(index, piece, 0))


def openssl(*arguments, cwd):
    subprocess.run(["openssl"] + list(arguments), cwd=cwd, check=True,
                   stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)


def certificate_seeds():
    with tempfile.TemporaryDirectory() as temp:
        folder = pathlib.Path(temp)
        openssl("req", "-x509", "-newkey", "rsa:1024", "-nodes", "-keyout", "rsa.key", "-out",
                "rsa.pem", "-days", "3650", "-subj", "/O=Veldrin/CN=Fuzz Seed", cwd=folder)
        openssl("req", "-x509", "-newkey", "rsa:1024", "-nodes", "-keyout", "nocn.key", "-out",
                "nocn.pem", "-days", "3650", "-subj", "/O=Veldrin/OU=No Common Name", cwd=folder)
        openssl("req", "-x509", "-newkey", "ec", "-pkeyopt", "ec_paramgen_curve:P-256", "-nodes",
                "-keyout", "ec.key", "-out", "ec.pem", "-days", "3650", "-subj", "/CN=Not RSA",
                cwd=folder)
        openssl("x509", "-in", "rsa.pem", "-outform", "DER", "-out", "rsa.der", cwd=folder)
        openssl("x509", "-in", "rsa.pem", "-addtrust", "serverAuth", "-trustout", "-out",
                "trusted.pem", cwd=folder)
        pem = (folder / "rsa.pem").read_bytes()
        write("certificate", "rsa-pem", pem)
        write("certificate", "rsa-der", (folder / "rsa.der").read_bytes())
        write("certificate", "rsa-trusted", (folder / "trusted.pem").read_bytes())
        write("certificate", "rsa-text-before", b"Issued for the fuzzer\n" + pem)
        write("certificate", "rsa-crlf", pem.replace(b"\n", b"\r\n"))
        body = b"".join(line + b"\n" for line in pem.splitlines() if not line.startswith(b"-----"))
        write("certificate", "rsa-bare-body", body)
        write("certificate", "no-common-name", (folder / "nocn.pem").read_bytes())
        write("certificate", "ec-key", (folder / "ec.pem").read_bytes())
        # What the key file holds is no certificate; only its public half is kept.
        openssl("pkey", "-in", "rsa.key", "-pubout", "-out", "public.pem", cwd=folder)
        write("certificate", "public-key-only", (folder / "public.pem").read_bytes())


CONTENT_KEY = bytes(range(16))  # the key of the stream_decryptor target
KEY_LIST_PID = 0x1FF0


def atom(name, payload):
    return struct.pack(">I", 8 + len(payload)) + name + payload


def key_list_atoms(recipients):
    """The atom tree of a key list: (name, key type, wrapped key) for each recipient."""
    body = atom(b"VERS", b"\x00\x01") + atom(b"ENCT", b"\x00\x07\x00")
    for name, key_type, wrapped in recipients:
        body += atom(b"KEYR", atom(b"PKCN", name) + atom(b"KEYE", key_type) +
                     atom(b"EKEY", b"\x00" + wrapped))
    return atom(b"VDKL", body)


def key_list_section(atoms):
    length = len(atoms) + 9
    data = bytes([0x4B, 0xB0 | (length >> 8), length & 0xFF, 0xFF, 0xFF, 0xC0, 0, 0]) + atoms
    return b"\x00" + data + struct.pack(">I", crc32_mpeg(data))


def recipients(folder):
    """Two recipients with 1024-bit keys made here, the content key wrapped for each."""
    out = []
    for name in (b"Fuzz Seed", b"Other"):
        stem = name.decode().replace(" ", "_")
        openssl("req", "-x509", "-newkey", "rsa:1024", "-nodes", "-keyout", stem + ".key", "-out",
                stem + ".pem", "-days", "3650", "-subj", "/CN=" + name.decode(), cwd=folder)
        openssl("x509", "-in", stem + ".pem", "-pubkey", "-noout", "-out", stem + ".pub",
                cwd=folder)
        (folder / "content.key").write_bytes(CONTENT_KEY)
        openssl("pkeyutl", "-encrypt", "-pubin", "-inkey", stem + ".pub", "-pkeyopt",
                "rsa_padding_mode:pkcs1", "-in", "content.key", "-out", stem + ".wrapped",
                cwd=folder)
        out.append((name, b"\x01\x0a\x00", (folder / (stem + ".wrapped")).read_bytes()))
    return out


def key_list_seeds(people):
    none = key_list_atoms([])
    one = key_list_atoms(people[:1])
    two = key_list_atoms(people)
    write("key_list_reader", "section-no-recipient", b"\x00\x00" + key_list_section(none))
    write("key_list_reader", "section-one-recipient", b"\x00\x01" + key_list_section(one))
    write("key_list_reader", "section-two-recipients", b"\x00\x00" + key_list_section(two))
    write("key_list_reader", "atoms-wrapped-one-recipient", b"\x01\x01" + one)
    write("key_list_reader", "atoms-two-recipients", b"\x02\x00" + two)


def ts_packet(pid, payload, unit_start, continuity):
    """A packet with the payload, stuffed with an adaptation field when it is short."""
    header = bytes([0x47, (0x40 if unit_start else 0) | (pid >> 8), pid & 0xFF])
    if len(payload) >= 184:
        return header + bytes([0x10 | continuity]) + payload[:184]
    stuffing = 183 - len(payload)
    field = bytes([stuffing]) + (b"\x00" + b"\xff" * (stuffing - 1) if stuffing > 0 else b"")
    return header + bytes([0x30 | continuity]) + field + payload


def with_ca_descriptor(pmt_packet):
    """The PMT with the CA descriptor of the key list among its program descriptors and a stream
    entry of type 5 for its PID, as the encrypted copy carries it."""
    body = payload(pmt_packet)
    section = body[1 + body[0]:]
    length = ((section[1] & 0x0F) << 8) | section[2]
    data = bytearray(section[:3 + length - 4])
    info = ((data[10] & 0x0F) << 8) | data[11]
    descriptor = bytes([9, 4, 0x4B, 0x4C, 0xE0 | (KEY_LIST_PID >> 8), KEY_LIST_PID & 0xFF])
    data[12 + info:12 + info] = descriptor
    info += len(descriptor)
    data[10:12] = bytes([0xF0 | (info >> 8), info & 0xFF])
    data += bytes([5, 0xE0 | (KEY_LIST_PID >> 8), KEY_LIST_PID & 0xFF, 0xF0, 0])
    length = len(data) + 4 - 3
    data[1:3] = bytes([0xB0 | (length >> 8), length & 0xFF])
    new = b"\x00" + bytes(data) + struct.pack(">I", crc32_mpeg(bytes(data)))
    return ts_packet(PMT_PID, new, True, pmt_packet[3] & 0x0F)


def encipher(blocks, folder):
    (folder / "plain.bin").write_bytes(blocks)
    openssl("enc", "-aes-128-ecb", "-nopad", "-K", CONTENT_KEY.hex(), "-in", "plain.bin", "-out",
            "cipher.bin", cwd=folder)
    return (folder / "cipher.bin").read_bytes()


def encrypted_copy(stream, section, folder, key_list_first=False):
    """The stream as the encrypted copy has it: the PMT rewritten, the key list section behind
    it (or ahead of it), and the whole 16-byte blocks of every audio payload enciphered with
    scrambling_control 2."""
    key_list = [ts_packet(KEY_LIST_PID, section[i:i + 184], i == 0, n & 0x0F)
                for n, i in enumerate(range(0, len(section), 184))]
    packets_out = []
    inserted = False
    for p in stream:
        if pid_of(p) == 0x1FFF:
            continue
        if pid_of(p) == PMT_PID:
            if key_list_first and not inserted:
                packets_out += key_list
            packets_out.append(with_ca_descriptor(p))
            if not key_list_first and not inserted:
                packets_out += key_list
            inserted = True
        else:
            packets_out.append(p)
    # Encipher the audio payloads in one call: ECB takes each block by itself.
    spans = []
    plain = b""
    for n, p in enumerate(packets_out):
        if pid_of(p) != 0x101:
            continue
        body = payload(p)
        whole = len(body) - len(body) % 16
        spans.append((n, PACKET - len(body), whole))
        plain += body[:whole]
    cipher = encipher(plain, folder)
    at = 0
    for n, start, whole in spans:
        p = bytearray(packets_out[n])
        p[start:start + whole] = cipher[at:at + whole]
        p[3] = (p[3] & 0x3F) | 0x80
        packets_out[n] = bytes(p)
        at += whole
    return b"".join(packets_out)


def decryptor_header(mode, by_name=0, hold=0, chunks=(0, 0, 0, 0)):
    return bytes([mode, by_name]) + struct.pack(">H4H", hold, *chunks)


def decryptor_seeds(people):
    stream = load("mpeg2_short_gop")[:80]
    with tempfile.TemporaryDirectory() as temp:
        folder = pathlib.Path(temp)
        section = key_list_section(key_list_atoms(people[:1]))
        copy = encrypted_copy(stream, section, folder)
        write("stream_decryptor", "content-key", decryptor_header(2) + copy)
        write("stream_decryptor", "list-only", decryptor_header(0) + copy)
        write("stream_decryptor", "private-key-named", decryptor_header(1, 1) + copy)
        write("stream_decryptor", "content-key-odd-chunks",
              decryptor_header(2, chunks=(1, 187, 189, 1000)) + copy)
        write("stream_decryptor", "private-key-hold-5", decryptor_header(1, 0, 5) + copy)
        early = encrypted_copy(stream, key_list_section(key_list_atoms(people)), folder, True)
        write("stream_decryptor", "list-ahead-of-pmt", decryptor_header(0) + early)


def main():
    build = pathlib.Path(sys.argv[1] if len(sys.argv) > 1 else ROOT / "build")
    vdxindex = build.resolve() / "vdxindex"
    if not vdxindex.exists():
        sys.exit(f"make-fuzz-corpus: {vdxindex} is missing; build the tree first")
    if CORPUS.exists():
        shutil.rmtree(CORPUS)
    chain_seeds("mpeg2_chain", MPEG2)
    chain_seeds("h264_chain", H264)
    chain_seeds("encryptor", MPEG2[:2] + H264[:2])
    vdx_chain_seeds(MPEG2[:2] + H264[:2])
    sync_seeds()
    section_seeds()
    pes_seeds()
    h264_unit_seeds()
    dump_seeds(vdxindex)
    certificate_seeds()
    with tempfile.TemporaryDirectory() as temp:
        people = recipients(pathlib.Path(temp))
    key_list_seeds(people)
    decryptor_seeds(people)
    total = sum(f.stat().st_size for f in CORPUS.rglob("*") if f.is_file())
    count = sum(1 for f in CORPUS.rglob("*") if f.is_file())
    print(f"make-fuzz-corpus: {count} seeds, {total} bytes in {CORPUS.relative_to(ROOT)}")


if __name__ == "__main__":
    main()
