#include "index2/block.h"

#include <ios>

#include "foundation/channel/error.h"
#include "foundation/text/hex_dumper.h"

namespace Veldrin::Index2 {

namespace {

// Milliseconds, truncated, low 32 bits. Out of the 64-bit range (and NaN) the conversion gives
// the integer-indefinite value, whose low word is 0.
uint32_t to_milliseconds(double seconds) {
  const double ms = seconds * 1000.0;
  if (!(ms > -9223372036854775808.0 && ms < 9223372036854775808.0)) return 0;
  return static_cast<uint32_t>(static_cast<uint64_t>(static_cast<int64_t>(ms)));
}

double from_milliseconds(uint32_t ms) {
  return ms / 1000.0;
}

void check_data_length(uint64_t length, uint32_t size) {
  if (length + BLOCK_HEADER_SIZE > size) throw Korvix::Channel::Error(1, "Block data too long");
}

}  // namespace

void Header::write(Korvix::Channel::Writer& writer) const {
  writer.write_nbo_32(VDX2_MAGIC);
  writer.write_nbo_32(block_size);  // header size: the header fills one block
  writer.write_nbo_32(flags);
  writer.write_nbo_32(block_size);
  if (block_size < MIN_BLOCK_SIZE) throw Korvix::Channel::Error(1, "Block size too small");
  writer.skip(block_size - MIN_BLOCK_SIZE);
}

void Header::read(Korvix::Channel::Reader& reader) {
  if (reader.read_nbo_32() != VDX2_MAGIC) throw Korvix::Channel::Error(2, "Not a VDX2 file");
  const uint32_t header_size = reader.read_nbo_32();
  flags = reader.read_nbo_32();
  block_size = reader.read_nbo_32();
  if (header_size < MIN_BLOCK_SIZE) throw Korvix::Channel::Error(1, "Header size too small");
  reader.skip(header_size - MIN_BLOCK_SIZE);
}

void Header::dump(std::ostream& stream) const {
  stream << "VDX2 file, flags " << std::hex << flags << std::dec << ", block size " << block_size
         << std::endl;
}

void Block::write(Korvix::Channel::Writer& writer) const {
  writer.write_nbo_64(offset);
  writer.write_nbo_32(to_milliseconds(npt));
  writer.write_nbo_32(flags);
  writer.write_nbo_16(count);
  writer.write_nbo_16(index);
  writer.write_nbo_32(ref_length);
  writer.write_nbo_64(ref_offset);
  check_data_length(data.size(), size);
  writer.write_nbo_32(static_cast<uint32_t>(data.size()));
  writer.write(data);
  writer.skip(size - BLOCK_HEADER_SIZE - data.size());
}

void Block::read(Korvix::Channel::Reader& reader) {
  offset = reader.read_nbo_64();
  npt = from_milliseconds(reader.read_nbo_32());
  flags = reader.read_nbo_32();
  count = reader.read_nbo_16();
  index = reader.read_nbo_16();
  ref_length = reader.read_nbo_32();
  ref_offset = reader.read_nbo_64();
  const uint32_t length = reader.read_nbo_32();
  check_data_length(length, size);
  data.clear();
  reader.read(data, length);
  reader.skip(size - BLOCK_HEADER_SIZE - length);
}

void Block::write_multiple(Korvix::Channel::Writer& writer) const {
  // Without room for data in a block, all of it goes into one block, which then fails as too
  // long like any other.
  const uint64_t chunk = size > BLOCK_HEADER_SIZE ? size - BLOCK_HEADER_SIZE : 0;
  uint64_t n = 1;
  if (chunk != 0 && !data.empty()) n = (data.size() + chunk - 1) / chunk;
  const uint32_t npt_ms = to_milliseconds(npt);
  uint64_t from = 0;
  for (uint64_t i = 0; i < n; ++i) {
    const bool last = i + 1 == n;
    const uint64_t length = last ? data.size() - from : chunk;
    writer.write_nbo_64(offset);
    writer.write_nbo_32(npt_ms);
    writer.write_nbo_32(i == 0 ? flags : 0);
    writer.write_nbo_16(static_cast<uint32_t>(n));
    writer.write_nbo_16(static_cast<uint32_t>(i));
    writer.write_nbo_32(last ? ref_length : 0);
    writer.write_nbo_64(last ? ref_offset : 0);
    check_data_length(length, size);
    writer.write_nbo_32(static_cast<uint32_t>(length));
    writer.write(reinterpret_cast<const unsigned char*>(data.data()) + from, length);
    writer.skip(size - BLOCK_HEADER_SIZE - length);
    from += length;
  }
}

void Block::read_multiple(Korvix::Channel::Reader& reader) {
  for (uint32_t i = 0;; ++i) {
    if (i == 0) {
      offset = reader.read_nbo_64();
      npt = from_milliseconds(reader.read_nbo_32());
      flags = reader.read_nbo_32();
      count = reader.read_nbo_16();
    } else {
      reader.skip(18);
    }
    const uint16_t place = reader.read_nbo_16();
    if (place != i) throw Korvix::Channel::Error(2, "Multiple block index out of sync");
    if (count != 0 && place == count - 1u) {
      ref_length = reader.read_nbo_32();
      ref_offset = reader.read_nbo_64();
    } else {
      reader.skip(12);
    }
    const uint32_t length = reader.read_nbo_32();
    check_data_length(length, size);
    reader.read(data, length);
    reader.skip(size - BLOCK_HEADER_SIZE - length);
    if (i + 1 >= count) break;
  }
}

void Block::dump(std::ostream& stream, bool show_inline) const {
  stream << "Index2 block[" << size << "]: NPT " << npt << "@" << offset;
  if (flags & FLAG_NEW_NPT) stream << " NEW-NPT";
  if (flags & FLAG_INTRA) stream << " INTRA";
  if (count != 0) stream << " (" << index << "/" << count << ")";
  stream << std::endl;
  if (ref_length != 0) stream << "  Ref data: " << ref_length << "@" << ref_offset << std::endl;
  if (show_inline && !data.empty()) {
    stream << "  Inline data (" << data.size() << "):\n";
    Korvix::Text::HexDumper(stream, 16, 4, true)
        .dump(reinterpret_cast<const unsigned char*>(data.data()),
              static_cast<int64_t>(data.size()));
  }
}

}  // namespace Veldrin::Index2
