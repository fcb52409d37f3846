#include "index/index_file.h"

#include <algorithm>
#include <cmath>
#include <ios>
#include <utility>

#include "foundation/log/stream.h"

namespace Veldrin::Index {

uint32_t npt_milliseconds(double seconds) {
  // Truncated towards zero, then the low 32 bits, as a 64-bit conversion would give; a value
  // with no 64-bit form gives 0 rather than undefined behaviour.
  double ms = seconds * 1000.0;
  if (!(std::fabs(ms) < 9223372036854775808.0)) return 0;
  return static_cast<uint32_t>(static_cast<uint64_t>(static_cast<int64_t>(ms)));
}

uint64_t header_size(uint64_t entry_count) {
  return (entry_count * 16 + 20 + PAGE_SIZE - 1) / PAGE_SIZE * PAGE_SIZE;
}

IndexFile::IndexFile(const std::string& filename_)
    : filename(filename_),
      stream(filename_, std::ios::out | std::ios::trunc | std::ios::binary),
      writer(stream) {
  if (stream.fail()) {
    Korvix::Log::Error error;
    error << "Can't open index file " << filename << " for writing\n";
  }
}

uint64_t IndexFile::entry_count() const {
  // A precision of 0 has no steps to walk.
  return precision == 0 ? 0 : length / precision;
}

void IndexFile::start(uint64_t length_) {
  length = length_;
  uint64_t n = entry_count();
  Korvix::Log::Detail detail;
  detail << "Creating index placeholder with " << n << " index entries\n";
  writer.skip(16 * n + 20);
  writer.align(PAGE_SIZE);
}

void IndexFile::add_block(std::string data) {
  blocks.push_back(std::move(data));
  blocks_queued++;
  write_block(false);
}

void IndexFile::write_block(bool force) {
  int64_t q = blocks_queued;
  int64_t m = static_cast<int64_t>(blocks.size());
  if (m < q) return;
  if (!force && q <= links) return;
  if (q <= 0) return;

  size_t i = static_cast<size_t>(m - q);
  uint32_t k = blocks_written;
  const std::string& data = blocks[i];
  // The k-th entry stands for the k-th block, whether or not it came from a frame.
  bool have_entry = k < entries.size();
  if (have_entry) entries[k].position = writer.offset;

  writer.write_nbo_32(BLOCK_MAGIC);
  writer.write_nbo_32(static_cast<uint32_t>(data.size()));
  writer.write_nbo_32(have_entry ? npt_milliseconds(entries[k].npt) : 0);
  if (have_entry) {
    writer.write_nbo_64(entries[k].offset);
  } else {
    Korvix::Log::Error error;
    error << "Ran out of original index offsets at block " << k << std::endl;
    writer.write_nbo_64(0);
  }
  blocks_written++;
  blocks_queued--;

  int64_t f = blocks_queued;
  int64_t b = std::min<int64_t>(static_cast<int64_t>(i), links);
  // Only the low 8 bits of each count fit; the sizes are all written regardless.
  writer.write_byte(static_cast<uint32_t>(f));
  writer.write_byte(static_cast<uint32_t>(b));
  for (int64_t j = 1; j <= f; j++) {
    writer.write_nbo_32(static_cast<uint32_t>(blocks[i + static_cast<size_t>(j)].size()));
  }
  for (int64_t j = 1; j <= b; j++) {
    writer.write_nbo_32(static_cast<uint32_t>(blocks[i - static_cast<size_t>(j)].size()));
  }
  writer.align(PAGE_SIZE);
  writer.write(data);
  writer.align(PAGE_SIZE);

  if (2 * static_cast<int64_t>(links) < m) blocks.erase(blocks.begin());
}

void IndexFile::flush_blocks() {
  while (blocks_queued != 0) {
    int32_t before = blocks_queued;
    write_block(true);
    if (blocks_queued == before) break;  // nothing left that can go out
  }
  Korvix::Log::Detail detail;
  detail << blocks_written << " blocks output\n";
}

void IndexFile::complete() {
  {
    Korvix::Log::Detail detail;
    detail << "Completing index with " << blocks_written << " blocks\n";
  }
  stream.seekp(0);
  Korvix::Channel::StreamWriter header(stream);

  uint64_t n = entry_count();
  header.write_nbo_32(VDX_MAGIC);
  header.write_nbo_32(static_cast<uint32_t>(header_size(n)));
  header.write_nbo_32(VDX_VERSION);
  header.write_nbo_32(blocks_written);
  header.write_nbo_32(precision);
  header.write_nbo_32(static_cast<uint32_t>(n));

  int64_t last = static_cast<int64_t>(entries.size()) - 1;
  int64_t c = 0;
  // With the end entry alone there is no second entry: every position uses the first.
  uint64_t next = entries.size() > 1 ? entries[1].offset : length;
  Korvix::Log::Error error;
  for (uint64_t i = 0; i < n; i++) {
    uint64_t p = i * precision;
    if (p >= next) {
      for (;;) {
        c++;
        if (c >= last) {
          error << "Ran out of original offsets at block " << c << " - using end-of-file\n";
          next = length;
          break;
        }
        next = entries[static_cast<size_t>(c + 1)].offset;
        if (p < next) break;
      }
    }

    int64_t e = c;
    if (c < 0 || c > last) {
      error << "Ran out of index for file offset " << p << ": need " << c << ", using last ("
            << last << ")\n";
      e = last;
    }
    if (e < 0) {
      // No entry at all: nothing to refer to.
      header.write_nbo_32(0);
      header.write_nbo_32(0);
      header.write_nbo_64(0);
      continue;
    }

    const IndexEntry& entry = entries[static_cast<size_t>(e)];
    uint64_t position;
    if (blocks_written == 0) {
      // Without blocks the block page is the number of the entry.
      position = static_cast<uint64_t>(e) * PAGE_SIZE;
    } else if (static_cast<uint64_t>(e) < blocks_written) {
      position = entry.position;
    } else {
      error << "Ran out of extracted blocks for file offset " << p << ": need " << e
            << ", using last (" << blocks_written - 1 << ")\n";
      position = entries[blocks_written - 1].position;
    }
    header.write_nbo_32(static_cast<uint32_t>(position >> 12));
    header.write_nbo_32(npt_milliseconds(entry.npt));
    header.write_nbo_64(entry.offset);
  }
  header.align(PAGE_SIZE);
}

}  // namespace Veldrin::Index
