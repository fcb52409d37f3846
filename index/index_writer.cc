#include "index/index_writer.h"

#include <memory>
#include <utility>

namespace Veldrin::Index {

IndexWriter::IndexWriter(int32_t links_, uint32_t precision_, uint64_t length_)
    : links(links_), precision(precision_), length(length_) {}

IndexWriter::~IndexWriter() {
  try {
    close();
  } catch (const Korvix::Channel::Error&) {
    // A destructor has no caller to report to; the file is left as far as it got.
  }
}

bool IndexWriter::open(const std::string& filename) {
  if (file != nullptr) close();
  auto made = std::make_unique<IndexFile>(filename);
  if (made->stream.fail()) return false;  // the file has said why
  made->links = links;
  made->precision = precision;
  made->start(length);
  file = std::move(made);
  return true;
}

void IndexWriter::close() {
  if (file == nullptr) return;
  // Taken over first so that a failed write still closes the stream.
  const std::unique_ptr<IndexFile> closing = std::move(file);
  closing->entries.push_back(IndexEntry{length, last_npt, 0});
  closing->flush_blocks();
  closing->complete();
}

void IndexWriter::flush() {
  if (file != nullptr) file->stream.flush();
}

void IndexWriter::set_tables(const std::string& packets) {
  tables = packets;
}

void IndexWriter::set_frame_preamble(const std::string& packets) {
  preamble = packets;
}

void IndexWriter::add_packet(IndexGen::CapturedPacket& captured) {
  if (file == nullptr) return;
  if (captured.npt != 0.0) last_npt = captured.npt;
  // A record that only carries time ends here.
  if (captured.state != IndexGen::PACKET_FRAME) return;
  if (captured.frame_start) {
    file->entries.push_back(IndexEntry{captured.packet.offset, last_npt, 0});
    block.str(std::string());
    block.clear();
    block << tables << preamble;
  }
  block << captured.data;
  if (captured.ends_frame()) file->add_block(block.str());
}

void IndexWriter::add_pcr(uint64_t offset, double npt) {
  if (file == nullptr) return;
  file->entries.push_back(IndexEntry{offset, npt, 0});
  last_npt = npt;
}

}  // namespace Veldrin::Index
