#include "tool/index_check.h"

#include <algorithm>
#include <map>
#include <string>
#include <vector>

#include "foundation/channel/stream_reader.h"
#include "index/index_file.h"
#include "index/index_reader.h"
#include "index2/block.h"
#include "tool/entry_point.h"
#include "tool/stored_npt.h"
#include "transport/packet.h"

namespace Veldrin::Tool {

namespace {

constexpr uint64_t PACKET = IndexGen::TS_PACKET_SIZE;
constexpr unsigned char SYNC = IndexGen::TS_SYNC_BYTE;

using Packet = unsigned char[IndexGen::TS_PACKET_SIZE];

uint32_t pid_of(const unsigned char* packet) {
  return ((uint32_t{packet[1]} & 0x1F) << 8) | packet[2];
}

uint32_t counter_of(const unsigned char* packet) {
  return packet[3] & 0x0Fu;
}

bool unit_start(const unsigned char* packet) {
  return (packet[1] & 0x40) != 0;
}

const unsigned char* bytes_of(const std::string& data, size_t at) {
  return reinterpret_cast<const unsigned char*>(data.data()) + at;
}

// Whole 188-byte packets, each beginning with a sync byte.
bool whole_packets(const std::string& data) {
  if (data.size() % PACKET != 0) return false;
  for (size_t at = 0; at < data.size(); at += PACKET)
    if (static_cast<unsigned char>(data[at]) != SYNC) return false;
  return true;
}

std::string str(uint64_t n) {
  return std::to_string(n);
}

// What both formats share: the report, the lines, and the test of a packet in the source.
class Checker {
 public:
  Checker(const std::string& index_name_, SourceFile& source_, const std::string& source_name_,
          std::ostream& out_)
      : index_name(index_name_), source(source_), source_name(source_name_), out(out_) {}

  void problem(const std::string& where, const std::string& what) {
    out << index_name << ": " << where << ": " << what << "\n";
    ++report.problems;
  }

  std::string past_end() const {
    return " of " + source_name + " (" + str(source.size) + " bytes)";
  }

  // A whole packet stands at offset of the source, at a packet start; what is named by what.
  bool check_packet_at(const std::string& where, const std::string& what, uint64_t offset) {
    ++report.references;
    if (offset > source.size || source.size - offset < PACKET) {
      problem(where, what + " lies beyond the end" + past_end());
      return false;
    }
    if (!source.packet_starts(offset)) {
      problem(where, what + " is not at a packet start in " + source_name);
      return false;
    }
    return true;
  }

  void summary() {
    out << index_name << ": " << report.problems
        << (report.problems == 1 ? " problem; " : " problems; ") << report.blocks << " blocks and "
        << report.references << " references checked against " << source_name << "\n";
  }

  const std::string& index_name;
  SourceFile& source;
  const std::string& source_name;
  std::ostream& out;
  CheckReport report;
};

// Checks a VDX2 file block by block; a group is held until its last block.
class Vdx2Check {
 public:
  explicit Vdx2Check(Checker& checker_) : checker(checker_) {}

  void run(std::istream& in) {
    Korvix::Channel::StreamReader reader(in);
    Index2::Header header;
    header.read(reader);
    external = (header.flags & Index2::FLAG_EXTERNAL_FRAMES) != 0;
    Index2::Block block;
    for (uint64_t number = 0; in.peek() != std::char_traits<char>::eof(); ++number) {
      block.size = header.block_size;
      block.read(reader);
      check_block(block, number);
      std::swap(previous, block);
      have_previous = true;
    }
    if (group.open) end_group(true);
  }

 private:
  // The blocks of one frame, from index 0 to count - 1.
  struct Group {
    bool open = false;
    uint64_t first = 0;  // block number of its first block
    uint16_t count = 0;
    uint16_t next = 0;  // index of the block expected next
    std::string data;   // the inline data of its blocks so far
    // References that start with a whole packet, to test for the frame's PID at the end.
    std::vector<std::pair<uint64_t, uint64_t>> references;  // block number, offset
  };

  // The blocks of a group made from one packet of the source, which share its offset.
  struct Run {
    bool open = false;
    uint64_t first = 0;  // block number
    uint64_t offset = 0;
    size_t data_start = 0;    // where its data begins in the group's data
    bool referenced = false;  // the packet itself went by reference: nothing was rewritten
  };

  static std::string where(uint64_t number) { return "block " + str(number); }

  void check_block(const Index2::Block& block, uint64_t number) {
    ++checker.report.blocks;
    follow_group(block, number);
    if (!external) check_offset(block, number);
    check_reference(block, number);
    if (group.open) {
      follow_run(block, number);
      group.data += block.data;
      group.next = static_cast<uint16_t>(block.index + 1);
      if (group.next >= group.count) end_group(false);
    } else if (!block.data.empty() && !whole_packets(block.data)) {
      checker.problem(where(number),
                      "inline data of " + str(block.data.size()) + " bytes is not whole packets");
    }
  }

  void follow_group(const Index2::Block& block, uint64_t number) {
    if (block.count == 0) {
      if (group.open) end_group(true);
      return;
    }
    if (block.index == 0) {
      if (group.open) end_group(true);
      begin_group(block, number);
      return;
    }
    if (group.open && block.count == group.count && block.index == group.next) return;
    checker.problem(where(number),
                    "index " + str(block.index) + " of a group of " + str(block.count) +
                        " blocks, where " +
                        (group.open ? "index " + str(group.next) + " of " + str(group.count)
                                    : std::string("a group's first block")) +
                        " was expected");
    if (!group.open) begin_group(block, number);
    group.count = block.count;
  }

  void begin_group(const Index2::Block& block, uint64_t number) {
    group = Group();
    group.open = true;
    group.first = number;
    group.count = block.count;
  }

  void check_offset(const Index2::Block& block, uint64_t number) {
    if (!checker.check_packet_at(where(number), "offset " + str(block.offset), block.offset))
      return;
    if (!starts_frame(block, have_previous ? &previous : nullptr)) return;
    Packet packet;
    if (checker.source.read(block.offset, packet, PACKET) && !unit_start(packet)) {
      checker.problem(where(number), "a frame starts at " + str(block.offset) +
                                         ", but the packet there in " + checker.source_name +
                                         " starts no PES packet");
    }
  }

  void check_reference(const Index2::Block& block, uint64_t number) {
    if (!(block.flags & Index2::FLAG_REF)) {
      if (block.ref_length != 0 || block.ref_offset != 0)
        checker.problem(where(number), "reference fields set without the reference flag");
      return;
    }
    ++checker.report.references;
    SourceFile& source = checker.source;
    const uint64_t offset = block.ref_offset;
    const uint64_t length = block.ref_length;
    const std::string what = "reference of " + str(length) + " bytes at " + str(offset);
    if (offset > source.size || length > source.size - offset) {
      checker.problem(where(number), what + " runs past the end" + checker.past_end());
      return;
    }
    unsigned char byte = 0;
    bool starts = true;
    if (external) {
      // The frame file holds whole packets from its first byte on.
      starts = offset % PACKET == 0 && source.read(offset, &byte, 1) && byte == SYNC;
    } else {
      starts = source.packet_starts(offset);
    }
    if (!starts) {
      checker.problem(where(number),
                      what + " doesn't start at a packet start in " + checker.source_name);
    }
    const uint64_t end = offset + length;
    if (external && length % PACKET != 0) {
      checker.problem(where(number), what + " is not whole packets");
    } else if (!external && length != 0 && end < source.size &&
               (!source.read(end, &byte, 1) || byte != SYNC)) {
      checker.problem(where(number), what + " ends inside a packet of " + checker.source_name);
    }
    if (!starts) return;
    if (group.open && offset + PACKET <= source.size) group.references.emplace_back(number, offset);
  }

  void follow_run(const Index2::Block& block, uint64_t number) {
    if (packet_run.open && block.offset != packet_run.offset) end_run();
    if (!packet_run.open) {
      packet_run = Run();
      packet_run.open = true;
      packet_run.first = number;
      packet_run.offset = block.offset;
      packet_run.data_start = group.data.size();
    }
    if ((block.flags & Index2::FLAG_REF) && block.ref_offset == block.offset)
      packet_run.referenced = true;
  }

  // A packet that went inline was rendered last in its run of blocks, and its last packet keeps
  // the PID and continuity counter of the packet in the source.
  void end_run() {
    const Run ended = packet_run;
    packet_run = Run();
    if (external || ended.referenced) return;
    const size_t length = group.data.size() - ended.data_start;
    if (length < PACKET || length % PACKET != 0) return;
    const unsigned char* rewritten = bytes_of(group.data, group.data.size() - PACKET);
    if (rewritten[0] != SYNC) return;
    Packet packet;
    if (!checker.source.read(ended.offset, packet, PACKET) || packet[0] != SYNC) return;
    if (pid_of(packet) == pid_of(rewritten) && counter_of(packet) == counter_of(rewritten)) return;
    checker.problem(where(ended.first),
                    "the packet at " + str(ended.offset) + " in " + checker.source_name +
                        " has PID " + str(pid_of(packet)) + " and counter " +
                        str(counter_of(packet)) + ", but the one the index rewrote has PID " +
                        str(pid_of(rewritten)) + " and counter " + str(counter_of(rewritten)));
  }

  void end_group(bool cut_short) {
    if (packet_run.open) end_run();
    const Group ended = group;
    group = Group();
    const std::string where_group = "group at block " + str(ended.first);
    if (cut_short) {
      checker.problem(where_group,
                      "ends after " + str(ended.next) + " of its " + str(ended.count) + " blocks");
    }
    if (ended.data.empty()) return;
    if (!whole_packets(ended.data)) {
      checker.problem(where_group,
                      "inline data of " + str(ended.data.size()) + " bytes is not whole packets");
      return;
    }
    // The frame's own packets come last in its inline data.
    const uint32_t frame_pid = pid_of(bytes_of(ended.data, ended.data.size() - PACKET));
    for (const auto& [number, offset] : ended.references) {
      Packet packet;
      if (!checker.source.read(offset, packet, PACKET)) continue;
      if (pid_of(packet) != frame_pid) {
        checker.problem(where(number), "reference at " + str(offset) +
                                           " starts with a packet of PID " + str(pid_of(packet)) +
                                           ", not of the frame's PID " + str(frame_pid));
      }
    }
  }

  Checker& checker;
  bool external = false;
  Index2::Block previous;
  bool have_previous = false;
  Group group;
  Run packet_run;
};

// What the VDX check keeps of a block once its data is gone.
struct SeenBlock {
  uint64_t position = 0;
  uint32_t size = 0;
  uint32_t npt_ms = 0;
  uint64_t offset = 0;
  std::vector<uint32_t> forward;
  std::vector<uint32_t> backward;
};

class VdxCheck {
 public:
  explicit VdxCheck(Checker& checker_) : checker(checker_) {}

  void run(std::istream& in) {
    Korvix::Channel::StreamReader channel(in);
    Index::IndexReader reader(channel);
    reader.read_header();
    check_header(reader);
    Index::FrameBlock block;
    for (uint64_t number = 0; reader.read_block(block); ++number) check_block(block, number);
    check_trailer(in);
    check_links();
    check_table(reader);
  }

 private:
  static std::string where(uint64_t number) { return "block " + str(number); }

  void check_header(const Index::IndexReader& reader) {
    const uint64_t n = reader.table.size();
    const uint64_t expected_size =
        (20 + 16 * n + Index::PAGE_SIZE - 1) / Index::PAGE_SIZE * Index::PAGE_SIZE;
    if (reader.version != Index::VDX_VERSION)
      checker.problem("header", "version " + str(reader.version) + ", where " +
                                    str(Index::VDX_VERSION) + " was expected");
    if (reader.header_size != expected_size)
      checker.problem("header", "header size " + str(reader.header_size) + ", where " +
                                    str(expected_size) + " was expected for " + str(n) +
                                    " entries");
    if (reader.precision == 0) {
      checker.problem("header", "precision 0");
      return;
    }
    // An index made from standard input has no table at all: nothing to compare.
    const uint64_t precision = reader.precision;
    if (n != 0 && n != checker.source.size / precision) {
      checker.problem("header", str(n) + " table entries are for a source of " +
                                    str(n * precision) + " to " + str((n + 1) * precision - 1) +
                                    " bytes, but " + checker.source_name + " has " +
                                    str(checker.source.size));
    }
  }

  void check_block(const Index::FrameBlock& block, uint64_t number) {
    ++checker.report.blocks;
    blocks.push_back({block.position, block.size, stored_milliseconds(block.npt), block.offset,
                      block.forward, block.backward});
    by_position[block.position] = blocks.size() - 1;
    const bool whole = whole_packets(block.data);
    if (!whole) {
      checker.problem(where(number),
                      "frame data of " + str(block.data.size()) + " bytes is not whole packets");
    }
    if (!checker.check_packet_at(where(number), "offset " + str(block.offset), block.offset))
      return;
    if (!whole || block.data.empty()) return;
    Packet packet;
    if (!checker.source.read(block.offset, packet, PACKET)) return;
    const uint32_t frame_pid = pid_of(bytes_of(block.data, block.data.size() - PACKET));
    if (!unit_start(packet)) {
      checker.problem(where(number), "the packet at " + str(block.offset) + " in " +
                                         checker.source_name + " starts no PES packet");
    } else if (pid_of(packet) != frame_pid) {
      checker.problem(where(number), "the packet at " + str(block.offset) + " in " +
                                         checker.source_name + " has PID " + str(pid_of(packet)) +
                                         ", not the frame's PID " + str(frame_pid));
    }
  }

  void check_trailer(std::istream& in) {
    uint64_t extra = 0;
    char buffer[4096];
    while (in.read(buffer, sizeof(buffer)) || in.gcount() > 0)
      extra += static_cast<uint64_t>(in.gcount());
    if (extra != 0) checker.problem("file", str(extra) + " bytes follow the last block");
  }

  void check_links() {
    size_t links = 0;
    for (const SeenBlock& block : blocks)
      links = std::max({links, block.forward.size(), block.backward.size()});
    const size_t n = blocks.size();
    for (size_t j = 0; j < n; ++j) {
      const SeenBlock& block = blocks[j];
      const size_t forward = std::min(links, n - 1 - j);
      const size_t backward = std::min(links, j);
      if (block.forward.size() != forward)
        checker.problem(where(j), str(block.forward.size()) + " forward links, where " +
                                      str(forward) + " were expected");
      if (block.backward.size() != backward)
        checker.problem(where(j), str(block.backward.size()) + " backward links, where " +
                                      str(backward) + " were expected");
      for (size_t k = 0; k < block.forward.size() && j + 1 + k < n; ++k)
        check_link(j, "forward", k, block.forward[k], j + 1 + k);
      for (size_t k = 0; k < block.backward.size() && k < j; ++k)
        check_link(j, "backward", k, block.backward[k], j - 1 - k);
    }
  }

  void check_link(size_t j, const char* way, size_t k, uint32_t size, size_t other) {
    if (size == blocks[other].size) return;
    checker.problem(where(j), std::string(way) + " link " + str(k + 1) + " gives " + str(size) +
                                  " bytes, but block " + str(other) + " has " +
                                  str(blocks[other].size));
  }

  void check_table(const Index::IndexReader& reader) {
    const auto& table = reader.table;
    for (size_t i = 0; i < table.size(); ++i) {
      const Index::TableEntry& entry = table[i];
      const std::string where_entry = "table entry " + str(i);
      const uint32_t npt = stored_milliseconds(entry.npt);
      // Without blocks (an index of times) the page is the entry's number, not a block's.
      if (!blocks.empty()) {
        const auto found = by_position.find(uint64_t{entry.block_page} * Index::PAGE_SIZE);
        if (found == by_position.end()) {
          checker.problem(where_entry, "block page " + str(entry.block_page) + " holds no block");
        } else {
          const SeenBlock& block = blocks[found->second];
          const bool same = npt == block.npt_ms && entry.offset == block.offset;
          // A frame that started but got no block lends its time and offset to the last block.
          const bool later_frame =
              found->second + 1 == blocks.size() && entry.offset >= block.offset;
          if (!same && !later_frame) {
            checker.problem(where_entry,
                            "NPT " + milliseconds_as_seconds(npt) + " at " + str(entry.offset) +
                                ", but block " + str(found->second) + " has NPT " +
                                milliseconds_as_seconds(block.npt_ms) + " at " + str(block.offset));
          }
        }
      }
      if (i > 0 && entry.offset < table[i - 1].offset)
        checker.problem(where_entry, "offset " + str(entry.offset) +
                                         " lies before the previous entry's " +
                                         str(table[i - 1].offset));
      const uint64_t position = uint64_t{reader.precision} * i;
      if (entry.offset > position && entry.offset != table[0].offset)
        checker.problem(where_entry, "offset " + str(entry.offset) +
                                         " lies after its source position " + str(position));
      if (entry.offset == checker.source.size) {
        ++checker.report.references;  // the end of the source
      } else {
        checker.check_packet_at(where_entry, "offset " + str(entry.offset), entry.offset);
      }
    }
  }

  Checker& checker;
  std::vector<SeenBlock> blocks;
  std::map<uint64_t, size_t> by_position;
};

}  // namespace

CheckReport check_index(std::istream& in, IndexFormat format, const std::string& index_name,
                        SourceFile& source, const std::string& source_name, std::ostream& out) {
  Checker checker(index_name, source, source_name, out);
  if (format == IndexFormat::VDX2)
    Vdx2Check(checker).run(in);
  else
    VdxCheck(checker).run(in);
  checker.summary();
  return checker.report;
}

}  // namespace Veldrin::Tool
