#ifndef VDX_TESTS_INDEXGEN_GENERATOR_HARNESS_H
#define VDX_TESTS_INDEXGEN_GENERATOR_HARNESS_H

// An index generator fed with synthetic packets, with a writer that records every call and the
// dump collected in a string; and the stream pieces that its tests are made of.

#include <cstdint>
#include <functional>
#include <memory>
#include <sstream>
#include <string>
#include <utility>

#include "indexgen/generator.h"
#include "indexgen/recording_writer.h"
#include "indexgen/stream_builder.h"
#include "support/log_capture.h"
#include "transport/test_bytes.h"

namespace VdxTest {

constexpr uint16_t kPmtPid = 0x20;
constexpr uint16_t kVideoPid = 0x100;
constexpr uint16_t kAudioPid = 0x101;
constexpr uint16_t kPcrPid = 0x1FF;
constexpr uint16_t kCaPid = 0x1234 & 0x1FFF;

inline PacketOptions unit_start() {
  PacketOptions options;
  options.payload_unit_start = true;
  return options;
}

inline PacketOptions with_pcr(int64_t ticks_27mhz, bool start = false) {
  PacketOptions options;
  options.pcr_27mhz = ticks_27mhz;
  options.payload_unit_start = start;
  return options;
}

// A section payload as it stands in a packet: stuffed up to 184 bytes.
inline Bytes stuffed(const Bytes& payload) {
  return payload.size() >= 184 ? payload : concat({payload, repeat(0xFF, 184 - payload.size())});
}

inline Bytes pat_payload(uint16_t pmt_pid = kPmtPid) {
  return stuffed(with_pointer(pat_section(1, {{1, pmt_pid}})));
}

inline Bytes mpeg2_pmt(const Bytes& program_info = {}, uint32_t pcr_pid = kVideoPid) {
  return pmt_section(1, pcr_pid, program_info,
                     {{2, kVideoPid, {}}, {3, kAudioPid, descriptor(0x0A, hex("65 6E 67 00"))}});
}

// Elementary stream pieces, free of start code prefixes inside.
inline const Bytes kSequenceHeader = hex("00 00 01 B3 14 00 F0 13");
inline const Bytes kGop = hex("00 00 01 B8 00 08 00 40");
inline const Bytes kPicture = hex("00 00 01 00 00 0F FF F8");
inline const Bytes kSlice = hex("00 00 01 01 12 34 56 78 9A");

// The PES header that frame capture gives a frame: stamps gone, the PTS of the time inserted,
// the rest of the header data stuffing.
inline Bytes frame_pes_header(uint32_t length, uint64_t pts_ticks, size_t header_data = 10) {
  return concat({hex("00 00 01 E0"), be16(length), hex("80 80"),
                 Bytes{static_cast<unsigned char>(header_data)}, time_stamp(2, pts_ticks),
                 repeat(0xFF, header_data - 5)});
}

// The PES header that stripping leaves without a PTS: the flags cleared, the data all stuffing.
inline Bytes stripped_pes_header(uint32_t length, size_t header_data = 10) {
  return concat({hex("00 00 01 E0"), be16(length), hex("80 00"),
                 Bytes{static_cast<unsigned char>(header_data)}, repeat(0xFF, header_data)});
}

// A parser whose behaviour the test gives, per record in order.
class ScriptedParser : public Veldrin::IndexGen::Parser {
 public:
  using Step = std::function<void(Veldrin::IndexGen::CapturedPacket&, size_t)>;
  explicit ScriptedParser(Step step_) : step(std::move(step_)) {}
  void parse(Veldrin::IndexGen::CapturedPacket& packet) override { step(packet, count++); }
  Step step;
  size_t count = 0;
};

struct Harness {
  explicit Harness(bool include_tables = true, bool dump = false, bool seek_only = false,
                   bool pcr_only = false, bool trim_pmt = false, uint16_t ca_pid = 0)
      : generator(&writer, include_tables, dump, seek_only, pcr_only, trim_pmt, ca_pid, out) {}

  void feed(uint32_t pid, unsigned continuity, const Bytes& payload,
            const PacketOptions& options = {}) {
    Veldrin::IndexGen::TSPacket packet = packet_record(pid, continuity, payload, offset, options);
    offset += 188;
    generator.process(packet);
  }
  void pcr(int64_t ticks_27mhz) { feed(kPcrPid, 0, {}, with_pcr(ticks_27mhz)); }
  void pat(unsigned continuity = 0) { feed(0, continuity, pat_payload(), unit_start()); }
  void pmt(const Bytes& section = mpeg2_pmt(), unsigned continuity = 0) {
    feed(kPmtPid, continuity, stuffed(with_pointer(section)), unit_start());
  }
  // PAT, PMT, then PCRs at 1.0 and 1.5 seconds: the time base stands at 0.5.
  void start_mpeg2() {
    pat();
    pmt();
    pcr(27000000);
    pcr(40500000);
  }
  void video(unsigned continuity, const Bytes& payload, bool start = false) {
    feed(kVideoPid, continuity, payload, start ? unit_start() : PacketOptions{});
  }
  void replace_parser(ScriptedParser::Step step) {
    generator.parser = std::make_unique<ScriptedParser>(std::move(step));
  }
  std::string dumped() const { return out.str(); }

  Veldrin::Testing::LogCapture log;
  RecordingWriter writer;
  std::ostringstream out;
  Veldrin::IndexGen::IndexGenerator generator;
  uint64_t offset = 0;
};

inline std::string pat_packet_for(unsigned continuity = 0) {
  return as_string(
      ts_packet(0, continuity, with_pointer(pat_section(1, {{1, kPmtPid}})), unit_start()));
}

inline std::string pmt_packet_for(const Bytes& section = mpeg2_pmt(), unsigned continuity = 0) {
  return as_string(ts_packet(kPmtPid, continuity, with_pointer(section), unit_start()));
}

}  // namespace VdxTest

#endif
