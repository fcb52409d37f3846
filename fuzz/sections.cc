// SectionReader on raw payload bytes: a PAT, a PMT, a CAT or a bare section, chosen by the
// first byte. A table read whole is written again by SectionWriter and read back, and must come
// back as it was.
//
// Layout of an input:
//   byte 0   what to read: value % 4 gives PAT, PMT, CAT, or the section alone
//   then     the gathered payload of a table PID, from its pointer_field on

#include <cstddef>
#include <cstdint>
#include <cstdlib>

#include "foundation/channel/block_reader.h"
#include "foundation/channel/block_writer.h"
#include "transport/section_reader.h"
#include "transport/section_writer.h"
#include "transport/sections.h"

namespace IndexGen = Veldrin::IndexGen;

namespace {

bool same_header(const IndexGen::SectionHeader& a, const IndexGen::SectionHeader& b) {
  return a.table_id == b.table_id && a.version == b.version && a.current_next == b.current_next &&
         a.section_number == b.section_number && a.last_section_number == b.last_section_number;
}

template <typename List>
bool same_descriptors(const List& a, const List& b) {
  if (a.size() != b.size()) return false;
  auto j = b.begin();
  for (auto i = a.begin(); i != a.end(); ++i, ++j) {
    if (i->tag != j->tag || i->data != j->data) return false;
  }
  return true;
}

bool same(const IndexGen::PATSection& a, const IndexGen::PATSection& b) {
  return same_header(a, b) && a.id == b.id && a.programs == b.programs;
}

bool same(const IndexGen::PMTSection& a, const IndexGen::PMTSection& b) {
  if (!same_header(a, b) || a.id != b.id || a.pcr_pid != b.pcr_pid ||
      !same_descriptors(a.descriptors, b.descriptors) || a.streams.size() != b.streams.size()) {
    return false;
  }
  auto j = b.streams.begin();
  for (auto i = a.streams.begin(); i != a.streams.end(); ++i, ++j) {
    if (i->stream_type != j->stream_type || i->pid != j->pid ||
        !same_descriptors(i->descriptors, j->descriptors)) {
      return false;
    }
  }
  return true;
}

bool same(const IndexGen::CATSection& a, const IndexGen::CATSection& b) {
  return same_header(a, b) && same_descriptors(a.descriptors, b.descriptors);
}

// Reads a table; a good one is written out and read back, and the two models must agree. A
// table too long for the writer is refused by it, and that is all.
template <typename Table>
void round_trip(const uint8_t* data, size_t size) {
  Korvix::Channel::BlockReader source(data, size);
  IndexGen::SectionReader reader(source);
  Table table;
  const int32_t status = static_cast<int32_t>(reader.read(table));
  if (status < 0 || status > 2) std::abort();
  if (status != 2) return;

  unsigned char buffer[IndexGen::SECTION_BUFFER_SIZE];
  Korvix::Channel::BlockWriter target(buffer, sizeof buffer);
  IndexGen::SectionWriter writer(target);
  if (!writer.write(table)) return;

  Korvix::Channel::BlockReader written(buffer, target.offset);
  IndexGen::SectionReader again(written);
  Table copy;
  if (static_cast<int32_t>(again.read(copy)) != 2 || !same(table, copy)) std::abort();
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size == 0) return 0;
  const uint8_t* body = data + 1;
  const size_t body_size = size - 1;
  switch (data[0] % 4) {
    case 0:
      round_trip<IndexGen::PATSection>(body, body_size);
      break;
    case 1:
      round_trip<IndexGen::PMTSection>(body, body_size);
      break;
    case 2:
      round_trip<IndexGen::CATSection>(body, body_size);
      break;
    default: {
      Korvix::Channel::BlockReader source(body, body_size);
      IndexGen::SectionReader reader(source);
      IndexGen::SectionHeader header;
      const int32_t status = static_cast<int32_t>(reader.read_section(header));
      if (status < 0 || status > 2) std::abort();
      // A good section holds its three header bytes, its length and its CRC.
      if (status == 2 && reader.data.size() < 7) std::abort();
      break;
    }
  }
  return 0;
}
