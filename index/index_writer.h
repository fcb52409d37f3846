#ifndef VELDRIN_INDEX_INDEX_WRITER_H
#define VELDRIN_INDEX_INDEX_WRITER_H

#include <cstdint>
#include <memory>
#include <sstream>
#include <string>

#include "index/index_file.h"
#include "indexgen/index_writer.h"

namespace Veldrin::Index {

// Writes the VDX format: each frame copied whole into page-aligned linked blocks, behind a
// table from source position to block that is filled in at close.
class IndexWriter : public IndexGen::IndexWriter {
 public:
  IndexWriter(int32_t links, uint32_t precision, uint64_t length);
  ~IndexWriter() override;

  // What the generator hands over.
  void set_tables(const std::string& packets) override;
  void set_frame_preamble(const std::string& packets) override;
  void add_packet(IndexGen::CapturedPacket& captured) override;
  void add_pcr(uint64_t offset, double npt) override;

  bool open(const std::string& filename);
  void close();
  // Pushes what was written so far to the file without completing it.
  void flush();

  std::unique_ptr<IndexFile> file;  // the open file; null while closed
  std::ostringstream block;
  std::string tables;
  std::string preamble;
  int32_t links;
  uint32_t precision;
  uint64_t length;
  double last_npt = 0.0;
};

}  // namespace Veldrin::Index

#endif
