#ifndef VELDRIN_INDEX2_INDEX_WRITER_H
#define VELDRIN_INDEX2_INDEX_WRITER_H

#include <cstdint>
#include <fstream>
#include <list>
#include <memory>
#include <string>

#include "foundation/channel/stream_writer.h"
#include "index2/block.h"
#include "indexgen/index_writer.h"

namespace Veldrin::Index2 {

// Writes the VDX2 format: what differs from the source goes inline, the rest by reference.
class IndexWriter : public IndexGen::IndexWriter {
 public:
  IndexWriter(uint32_t flags, uint32_t block_size);
  ~IndexWriter() override;
  IndexWriter(const IndexWriter&) = delete;
  IndexWriter& operator=(const IndexWriter&) = delete;

  bool open(const std::string& filename, bool append, const std::string& frame_filename);
  void close();
  // Pushes what was written so far to the files, closing and completing nothing: the end of a
  // run that doesn't close the writer still leaves every byte written on disk.
  void flush();

  void set_tables(const std::string& packets) override;
  void set_frame_preamble(const std::string& packets) override;
  void add_packet(IndexGen::CapturedPacket& captured) override;
  void add_pcr(uint64_t offset, double npt) override;

  void apply_npt(Block& block, const IndexGen::CapturedPacket& captured);

  std::unique_ptr<std::ofstream> index_stream;  // the index file while open
  // The external frame file. close() flushes it but leaves it open, since the run keeps its
  // writer to the end; it is closed when open replaces it and when the writer is destroyed.
  std::unique_ptr<std::ofstream> frame_stream;
  std::unique_ptr<Korvix::Channel::StreamWriter> writer;  // on index_stream; the open state
  std::string tables;
  std::string preamble;
  std::string packet_bytes;  // an inline packet's bytes, in a string that keeps its room
  uint32_t flags;
  uint32_t block_size;
  std::list<Block> pending;
  bool in_group = false;
  double last_npt = 0.0;

 private:
  Block make_block(uint64_t offset) const;
  // Spreads a string over blocks of up to block_size - 36 bytes; first_flags go on the first.
  void add_chunks(const std::string& text, const IndexGen::CapturedPacket& captured,
                  uint32_t first_flags);
  void renumber_preamble(int32_t frame_counter);
  void add_reference(const IndexGen::CapturedPacket& captured);
  void add_inline(const IndexGen::CapturedPacket& captured);
  // Numbers the blocks of the group under way and writes them.
  void write_group();
};

}  // namespace Veldrin::Index2

#endif
