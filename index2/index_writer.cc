#include "index2/index_writer.h"

#include <algorithm>
#include <utility>

#include "transport/ts_writer.h"

namespace Veldrin::Index2 {

IndexWriter::IndexWriter(uint32_t flags_, uint32_t block_size_)
    : flags(flags_), block_size(block_size_) {}

IndexWriter::~IndexWriter() {
  close();
  pending.clear();
  // frame_stream goes with the writer: nothing writes to the frame file any more, and closing it
  // puts its last buffered bytes on disk.
}

bool IndexWriter::open(const std::string& filename, bool append,
                       const std::string& frame_filename) {
  if (writer != nullptr) close();

  index_stream =
      std::make_unique<std::ofstream>(filename, std::ios::out | std::ios::trunc | std::ios::binary);
  if (!*index_stream) {
    index_stream.reset();
    return false;
  }

  if (flags & FLAG_EXTERNAL_FRAMES) {
    if (frame_filename.empty()) {
      index_stream.reset();
      return false;
    }
    // A frame file of an earlier open has been flushed by close() and is no longer written.
    frame_stream = std::make_unique<std::ofstream>(
        frame_filename,
        std::ios::out | std::ios::binary | (append ? std::ios::app : std::ios::trunc));
    if (!*frame_stream) {
      frame_stream.reset();
      index_stream.reset();
      return false;
    }
  }

  writer = std::make_unique<Korvix::Channel::StreamWriter>(*index_stream);
  Header header;
  header.flags = flags;
  header.block_size = block_size;
  header.write(*writer);
  return true;
}

void IndexWriter::close() {
  if (writer != nullptr) {
    writer.reset();
    index_stream.reset();
    // A group under way is lost with the file it was meant for.
    pending.clear();
    in_group = false;
  }
  // The frame file stays open, but what was written to it must not wait for the end of the
  // process, which never flushes a stream that isn't destroyed.
  if (frame_stream != nullptr) frame_stream->flush();
}

void IndexWriter::flush() {
  if (index_stream != nullptr) index_stream->flush();
  if (frame_stream != nullptr) frame_stream->flush();
}

void IndexWriter::set_tables(const std::string& packets) {
  tables = packets;
}

void IndexWriter::set_frame_preamble(const std::string& packets) {
  preamble = packets;
}

void IndexWriter::apply_npt(Block& block, const IndexGen::CapturedPacket& captured) {
  if (captured.npt == 0.0) {
    block.npt = last_npt;
    return;
  }
  block.npt = captured.npt;
  if (captured.npt != last_npt) {
    block.flags |= FLAG_NEW_NPT;
    last_npt = captured.npt;
  }
}

Block IndexWriter::make_block(uint64_t offset) const {
  Block block;
  block.size = block_size;
  block.offset = offset;
  return block;
}

void IndexWriter::add_chunks(const std::string& text, const IndexGen::CapturedPacket& captured,
                             uint32_t first_flags) {
  // With no room for data in a block the whole string goes into one, whose write then fails.
  const size_t room = block_size > BLOCK_HEADER_SIZE ? block_size - BLOCK_HEADER_SIZE : 0;
  size_t from = 0;
  do {
    Block block = make_block(captured.packet.offset);
    apply_npt(block, captured);
    if (from == 0) block.flags |= first_flags;
    const size_t length = room == 0 ? text.size() : std::min(room, text.size() - from);
    block.data.assign(text, from, length);
    pending.push_back(std::move(block));
    from += length;
  } while (from < text.size());
}

void IndexWriter::renumber_preamble(int32_t frame_counter) {
  // The preamble's counters run up to the frame's own, so that the frame continues them.
  int32_t c = frame_counter;
  for (size_t n = preamble.size() / IndexGen::TS_PACKET_SIZE; n-- > 0;) {
    c = ((c - 1) % 16 + 16) % 16;
    char& byte = preamble[n * IndexGen::TS_PACKET_SIZE + 3];
    byte = static_cast<char>((static_cast<unsigned char>(byte) & 0xF0) | c);
  }
}

void IndexWriter::add_reference(const IndexGen::CapturedPacket& captured) {
  uint64_t position = captured.packet.offset;
  if ((flags & FLAG_EXTERNAL_FRAMES) && frame_stream != nullptr) {
    position = static_cast<uint64_t>(static_cast<std::streamoff>(frame_stream->tellp()));
    frame_stream->write(captured.data.data(), static_cast<std::streamsize>(captured.data.size()));
  }
  const bool new_npt = captured.npt != 0.0 && captured.npt != last_npt;

  if (!pending.empty()) {
    Block& block = pending.back();
    if (in_group) block.ref_offset = position;
    block.flags |= FLAG_REF;
    // An ordinary packet extends the range to its own end; one with a new time closes it just
    // ahead of itself and starts a range of its own.
    block.ref_length = static_cast<uint32_t>(position - block.ref_offset +
                                             (new_npt ? 0 : IndexGen::TS_PACKET_SIZE));
  }

  if (new_npt) {
    last_npt = captured.npt;
    Block block = make_block(captured.packet.offset);
    block.npt = captured.npt;
    block.flags = FLAG_NEW_NPT | FLAG_REF;
    block.ref_length = IndexGen::TS_PACKET_SIZE;
    block.ref_offset = position;
    pending.push_back(std::move(block));
  }
  in_group = false;
}

void IndexWriter::add_inline(const IndexGen::CapturedPacket& captured) {
  in_group = true;
  int32_t continuity = captured.packet.continuity_counter;
  std::string& packets = packet_bytes;
  IndexGen::packetise(captured.packet, continuity, packets);
  const size_t n = packets.size() / IndexGen::TS_PACKET_SIZE;
  if (packets.size() > static_cast<size_t>(IndexGen::TS_PACKET_SIZE)) {
    // Start low enough that the last packet keeps the packet's own counter. The counter may go
    // below 0 here and is passed on as it is.
    continuity = captured.packet.continuity_counter;
    for (size_t i = 1; i < n; ++i) {
      continuity -= 1;
      if (continuity >= 16) continuity = 15;
    }
    IndexGen::packetise(captured.packet, continuity, packets);
  }

  if (packets.empty()) {
    Block block = make_block(captured.packet.offset);
    apply_npt(block, captured);
    pending.push_back(std::move(block));
  } else {
    add_chunks(packets, captured, captured.frame_start && preamble.empty() ? FLAG_VIDEO_START : 0);
  }
}

void IndexWriter::write_group() {
  const auto count = static_cast<uint16_t>(pending.size());
  uint16_t index = 0;
  for (Block& block : pending) {
    block.count = count;
    block.index = index++;
  }
  // A write that throws leaves the group pending and in_group set: the next frame's blocks join
  // it, and its end tries the whole again, as the writer has always done.
  for (const Block& block : pending) block.write(*writer);
  pending.clear();
  in_group = false;
}

void IndexWriter::add_packet(IndexGen::CapturedPacket& captured) {
  if (writer == nullptr) return;
  if (captured.state != IndexGen::PACKET_FRAME) {
    add_pcr(captured.packet.offset, captured.npt);
    return;
  }

  if (captured.frame_start) {
    if (!tables.empty()) add_chunks(tables, captured, FLAG_INTRA);
    renumber_preamble(captured.packet.continuity_counter);
    if (!preamble.empty()) add_chunks(preamble, captured, FLAG_VIDEO_START);
    in_group = true;
  }

  if (captured.modified)
    add_inline(captured);
  else
    add_reference(captured);

  if (captured.ends_frame()) write_group();
}

void IndexWriter::add_pcr(uint64_t offset, double npt) {
  if (writer == nullptr || npt == 0.0 || npt == last_npt) return;
  Block block = make_block(offset);
  block.npt = npt;
  block.flags = FLAG_NEW_NPT;
  last_npt = npt;
  if (in_group)
    pending.push_back(std::move(block));
  else
    block.write(*writer);
}

}  // namespace Veldrin::Index2
