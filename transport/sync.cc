#include "transport/sync.h"

namespace Veldrin::IndexGen {

bool SyncPipe::open(const std::string& path) {
  ts_reader.reset();
  reader.reset();
  file = std::make_unique<std::ifstream>(path, std::ios::in | std::ios::binary);
  if (file->fail()) {
    file.reset();
    return false;
  }
  reader = std::make_unique<Korvix::Channel::StreamReader>(*file);
  ts_reader = std::make_unique<TSReader>(*reader);
  return true;
}

void SyncPipe::process(TSPacket& packet) {
  if (packet.pcr >= 0.0 && packet.pcr != input_pcr) {
    input_pcr = packet.pcr;
    input_counts.clear();
  }
  uint64_t count = ++input_counts[packet.pid];
  uint64_t position = find_offset(packet.pid, count, input_pcr);
  TSPacket copy = packet;
  copy.offset = position;
  for (TSPipe* pipe : pipes) pipe->process(copy);
}

uint64_t SyncPipe::find_offset(uint16_t pid, uint64_t count, double pcr) {
  if (ts_reader == nullptr) throw SyncFailureException();
  for (;;) {
    // Taken before the header, so that on a good file it is a multiple of 188.
    uint64_t position = reader->offset;
    TSPacket packet;
    if (!ts_reader->skip_packet(packet)) throw SyncFailureException();
    if (packet.pcr >= 0.0 && packet.pcr != file_pcr) {
      file_pcr = packet.pcr;
      file_counts.clear();
    }
    ++file_counts[packet.pid];
    if (pcr != file_pcr) continue;
    // Tested at every packet of the interval; only a packet of pid can first make it true.
    if (file_counts[pid] == count) return position;
  }
}

}  // namespace Veldrin::IndexGen
