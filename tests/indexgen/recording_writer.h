#ifndef VDX_TESTS_INDEXGEN_RECORDING_WRITER_H
#define VDX_TESTS_INDEXGEN_RECORDING_WRITER_H

#include <cstdint>
#include <string>
#include <vector>

#include "indexgen/index_writer.h"

namespace VdxTest {

// An index writer that keeps a copy of everything it is told, in order.
class RecordingWriter : public Veldrin::IndexGen::IndexWriter {
 public:
  enum Kind { TABLES, PREAMBLE, PACKET, PCR };

  struct Call {
    Kind kind;
    std::string bytes;                         // tables or preamble packets
    Veldrin::IndexGen::CapturedPacket record;  // a copy as it was during the call
    bool ends_frame = false;
    uint64_t offset = 0;
    double npt = 0.0;
  };

  void set_tables(const std::string& packets) override { calls.push_back({TABLES, packets, {}}); }
  void set_frame_preamble(const std::string& packets) override {
    calls.push_back({PREAMBLE, packets, {}});
  }
  void add_packet(Veldrin::IndexGen::CapturedPacket& captured) override {
    Call call{PACKET, {}, captured};
    call.ends_frame = captured.ends_frame();
    calls.push_back(call);
  }
  void add_pcr(uint64_t offset, double npt) override {
    Call call{PCR, {}, {}};
    call.offset = offset;
    call.npt = npt;
    calls.push_back(call);
  }

  std::vector<Call> of(Kind kind) const {
    std::vector<Call> out;
    for (const Call& call : calls) {
      if (call.kind == kind) out.push_back(call);
    }
    return out;
  }
  std::vector<Veldrin::IndexGen::CapturedPacket> packets() const {
    std::vector<Veldrin::IndexGen::CapturedPacket> out;
    for (const Call& call : calls) {
      if (call.kind == PACKET) out.push_back(call.record);
    }
    return out;
  }
  // The kinds of the calls in order, as letters: T, P (preamble), K (packet), C (PCR).
  std::string order() const {
    std::string out;
    for (const Call& call : calls) out.push_back("TPKC"[call.kind]);
    return out;
  }

  std::vector<Call> calls;
};

}  // namespace VdxTest

#endif
