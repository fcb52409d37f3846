#include "index/index_reader.h"

#include "foundation/channel/error.h"
#include "foundation/text/hex_dumper.h"
#include "index/index_file.h"

namespace Veldrin::Index {

namespace {

constexpr uint64_t HEADER_FIELDS = 24;  // magic, header size, version, blocks, precision, n
constexpr uint64_t TABLE_ENTRY_SIZE = 16;
constexpr uint64_t BLOCK_FIELDS = 22;  // magic, size, NPT, offset, the two link counts

double seconds(uint32_t ms) {
  return ms / 1000.0;
}

void print_sizes(std::ostream& stream, const char* label, const std::vector<uint32_t>& sizes) {
  if (sizes.empty()) return;
  stream << "  " << label << ":";
  for (uint32_t size : sizes) stream << " " << size;
  stream << "\n";
}

}  // namespace

void IndexReader::read_header() {
  if (reader.read_nbo_32() != VDX_MAGIC) throw Korvix::Channel::Error(2, "Not a VDX file");
  header_size = reader.read_nbo_32();
  version = reader.read_nbo_32();
  blocks = reader.read_nbo_32();
  precision = reader.read_nbo_32();
  const uint32_t n = reader.read_nbo_32();
  const uint64_t table_end = HEADER_FIELDS + TABLE_ENTRY_SIZE * n;
  if (table_end > header_size) throw Korvix::Channel::Error(1, "Table larger than header");
  // Entries are taken as they arrive, so a damaged count can't claim memory the file lacks.
  table.clear();
  for (uint32_t i = 0; i < n; ++i) {
    TableEntry entry;
    entry.block_page = reader.read_nbo_32();
    entry.npt = seconds(reader.read_nbo_32());
    entry.offset = reader.read_nbo_64();
    table.push_back(entry);
  }
  reader.skip(header_size - table_end);
  blocks_read = 0;
}

bool IndexReader::read_block(FrameBlock& block) {
  if (blocks_read >= blocks) return false;
  block.position = reader.offset;
  if (reader.read_nbo_32() != BLOCK_MAGIC) throw Korvix::Channel::Error(2, "Not a VDX block");
  block.size = reader.read_nbo_32();
  block.npt = seconds(reader.read_nbo_32());
  block.offset = reader.read_nbo_64();
  const uint32_t f = reader.read_byte();
  const uint32_t b = reader.read_byte();
  block.forward.clear();
  block.backward.clear();
  for (uint32_t i = 0; i < f; ++i) block.forward.push_back(reader.read_nbo_32());
  for (uint32_t i = 0; i < b; ++i) block.backward.push_back(reader.read_nbo_32());
  // At most 255 links each way: the head always fits in its page, and the data starts on the
  // next one.
  reader.skip(PAGE_SIZE - (BLOCK_FIELDS + 4 * (uint64_t{f} + b)));
  block.data.clear();
  reader.read(block.data, block.size);
  reader.skip((PAGE_SIZE - block.size % PAGE_SIZE) % PAGE_SIZE);
  ++blocks_read;
  return true;
}

void IndexReader::dump_header(std::ostream& stream) const {
  stream << "VDX file, version " << version << ", header size " << header_size << ", " << blocks
         << " blocks, precision " << precision << ", " << table.size() << " entries\n";
  for (size_t i = 0; i < table.size(); ++i) {
    const TableEntry& entry = table[i];
    stream << "  Entry " << i << " for " << uint64_t{precision} * i << ": block page "
           << entry.block_page << ", NPT " << entry.npt << "@" << entry.offset << "\n";
  }
}

void IndexReader::dump_block(std::ostream& stream, const FrameBlock& block, uint32_t number,
                             bool show_data) {
  stream << "Index block " << number << " at " << block.position << ": NPT " << block.npt << "@"
         << block.offset << ", " << block.size << " bytes\n";
  print_sizes(stream, "Forward", block.forward);
  print_sizes(stream, "Backward", block.backward);
  if (show_data && !block.data.empty()) {
    stream << "  Frame data (" << block.data.size() << "):\n";
    Korvix::Text::HexDumper(stream, 16, 4, true)
        .dump(reinterpret_cast<const unsigned char*>(block.data.data()),
              static_cast<int64_t>(block.data.size()));
  }
  stream.flush();
}

}  // namespace Veldrin::Index
