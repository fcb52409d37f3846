#include "tool/run.h"

#include <cerrno>
#include <cstring>
#include <fstream>
#include <iostream>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "crypto/certificate.h"
#include "encryption/encryptor.h"
#include "encryption/packet_cipher.h"
#include "foundation/channel/buffered_writer.h"
#include "foundation/channel/stream_writer.h"
#include "foundation/file/path.h"
#include "foundation/log/level_filter.h"
#include "foundation/log/stream.h"
#include "foundation/log/stream_channel.h"
#include "index/index_writer.h"
#include "index2/index_writer.h"
#include "indexgen/generator.h"
#include "tool/alignment.h"
#include "tool/options.h"
#include "tool/statistics.h"
#include "transport/pipeline.h"
#include "transport/sync.h"

namespace Veldrin::Tool {

namespace {

// The input is fed to the chain in chunks of this size, through one reused buffer.
constexpr size_t CHUNK_SIZE = 65536;
// The encrypted copy is written through a buffer of this size.
constexpr size_t ENCRYPTED_BUFFER_SIZE = 1 << 20;

// Hands the gathered packets of the encrypted copy to its file; an output that fails loses
// them, as it loses any packet, and the run goes on.
void flush_encrypted(Korvix::Channel::BufferedWriter* buffer) {
  if (buffer == nullptr) return;
  try {
    buffer->flush();
  } catch (const Korvix::Channel::Error&) {
  }
}

// The index writer of the run, of one format or the other, reachable to the end of the process.
struct RunWriter {
  Index::IndexWriter* vdx = nullptr;
  Index2::IndexWriter* vdx2 = nullptr;

  IndexGen::IndexWriter* get() const {
    return vdx != nullptr ? static_cast<IndexGen::IndexWriter*>(vdx) : vdx2;
  }
  // What was written reaches the file, and nothing is completed.
  void flush() const {
    if (vdx != nullptr) vdx->flush();
    if (vdx2 != nullptr) vdx2->flush();
  }
  void close() const {
    if (vdx != nullptr) vdx->close();
    if (vdx2 != nullptr) vdx2->close();
  }
};

RunWriter run_writer;

// Keeps a channel connected to the logger for the life of the object.
class LogConnection {
 public:
  explicit LogConnection(Korvix::Log::Channel& channel_) : channel(channel_) {
    Korvix::Log::logger.connect(channel);
  }
  ~LogConnection() { Korvix::Log::logger.disconnect(channel); }
  LogConnection(const LogConnection&) = delete;
  LogConnection& operator=(const LogConnection&) = delete;

 private:
  Korvix::Log::Channel& channel;
};

}  // namespace

int run(int argc, char** argv) {
  const std::string program = argc > 0 && argv[0] != nullptr ? argv[0] : "";
  if (argc <= 1) {
    print_usage(std::cout, program);
    return STATUS_USAGE;
  }

  Settings settings;
  ParseOutcome outcome = parse_options(argc, argv, settings, std::cout, std::cerr);
  if (outcome.finished) return outcome.status;

  Korvix::Log::StreamChannel channel(std::cerr);
  Korvix::Log::LevelFilter filter(channel, settings.log_level);
  LogConnection connection(filter);
  Korvix::Log::Streams log;

  if (!take_names(argc, argv, outcome.next, settings)) {
    print_usage(std::cout, program);
    return STATUS_USAGE;
  }

  log.summary << BANNER << std::endl;

  // Standard input is taken as it is and never aligned; a file is aligned to its first packet.
  std::string input_name = settings.input_file;
  std::istream* input = nullptr;
  std::unique_ptr<std::ifstream> input_file;
  if (input_name == "-") {
    input_name = "pipe";
    input = &std::cin;
  } else {
    input_file = std::make_unique<std::ifstream>(input_name, std::ios::in | std::ios::binary);
    if (input_file->fail()) {
      int error = errno;
      log.error << "Can't open input file: " << std::strerror(error) << std::endl;
      return STATUS_CANT_OPEN;
    }
    if (!align_stream(*input_file, settings.start_offset)) {
      log.error << "Could not align to start of TS stream - aborting" << std::endl;
      return STATUS_NO_ALIGNMENT;
    }
    input = input_file.get();
  }

  log.summary << "Indexing " << input_name << " into " << settings.output_file;
  if (settings.external_frames)
    log.summary << " with external frame file " << settings.external_file;
  log.summary << std::endl;

  if (settings.start_offset != 0)
    log.summary << "Aligned with start of TS stream at byte " << settings.start_offset << std::endl;
  if (!settings.offset_file.empty())
    log.summary << "Syncing to " << settings.offset_file << " for offsets" << std::endl;
  if (settings.seek_only) log.summary << "Offset index for seek only" << std::endl;
  if (settings.pcr_only) log.summary << "Capturing only PCR timing, not video frames" << std::endl;
  log.summary << "Output index format: " << (settings.format == FORMAT_VDX ? "VDX" : "VDX2")
              << std::endl;

  // The output exists before anything of the stream beyond the alignment has been looked at.
  // The writer is made with new and never deleted, on purpose: its destructor would complete
  // the file, which an end without close (statuses 7 and 9) must not do. What it has written is
  // flushed instead, and the pointer stays in static storage so that it is reachable to the end.
  bool opened = false;
  if (settings.format == FORMAT_VDX) {
    run_writer.vdx = new Index::IndexWriter(settings.index_links,
                                            static_cast<uint32_t>(settings.index_precision),
                                            Korvix::File::Path(input_name).length());
    opened = run_writer.vdx->open(settings.output_file);
  } else {
    run_writer.vdx2 = new Index2::IndexWriter(static_cast<uint32_t>(settings.index_flags),
                                              static_cast<uint32_t>(settings.index_block_size));
    opened = run_writer.vdx2->open(settings.output_file, false, settings.external_file);
  }
  if (!opened) {
    int error = errno;
    log.error << "Can't open output file: " << std::strerror(error) << std::endl;
    return STATUS_CANT_OPEN;
  }

  IndexGen::IndexGenerator generator(run_writer.get(), settings.include_tables, settings.dump,
                                     settings.seek_only, settings.pcr_only, settings.trim_pmt,
                                     settings.ca_pid);
  IndexGen::TSPipeline pipeline(settings.start_offset);
  IndexGen::TSPipe* last = &pipeline;

  std::unique_ptr<IndexGen::SyncPipe> sync;
  if (!settings.offset_file.empty()) {
    sync = std::make_unique<IndexGen::SyncPipe>();
    if (!sync->open(settings.offset_file)) {
      log.error << "Could not open offset sync file: " << settings.offset_file << std::endl;
      run_writer.flush();
      return STATUS_NO_OFFSET_FILE;
    }
    last->attach(sync.get());
    last = sync.get();
  }

  // The encrypted copy: the certificates that can be read, in order, each failure said and
  // skipped; then the output, which is written to whether or not it could be opened.
  std::unique_ptr<std::ofstream> encrypted_file;
  std::unique_ptr<Korvix::Channel::StreamWriter> encrypted_writer;
  std::unique_ptr<Korvix::Channel::BufferedWriter> encrypted_buffer;
  std::unique_ptr<IndexGen::AESPacketEncryptor> packet_encryptor;
  std::unique_ptr<IndexGen::Encryptor> encryptor;
  if (settings.encrypt) {
    std::vector<Korvix::Crypto::Certificate> certificates;
    for (const std::string& name : settings.key_encrypt_files) {
      std::ifstream file(name, std::ios::in | std::ios::binary);
      if (file.fail()) {
        int error = errno;
        log.error << "Could not open PEM file: " << name << " : " << std::strerror(error)
                  << std::endl;
      }
      Korvix::Crypto::Certificate certificate;
      certificate.read_pem(file);
      if (certificate.x509 == nullptr) {
        log.error << "Could not read public key: " << name << std::endl;
        continue;
      }
      certificates.push_back(std::move(certificate));
    }
    // The packets are gathered in a large buffer ahead of the stream, which then needs none of
    // its own: the copy, as large as the input, costs a system call per buffer and not a
    // passage through the stream's layers per packet.
    encrypted_file = std::make_unique<std::ofstream>();
    encrypted_file->rdbuf()->pubsetbuf(nullptr, 0);
    encrypted_file->open(settings.encrypt_file, std::ios::out | std::ios::binary | std::ios::trunc);
    if (encrypted_file->fail()) {
      int error = errno;
      log.error << "Can't open encrypted output file: " << std::strerror(error) << std::endl;
    }
    log.summary << "Encrypting to file " << settings.encrypt_file << std::endl;
    encrypted_writer = std::make_unique<Korvix::Channel::StreamWriter>(*encrypted_file);
    encrypted_buffer =
        std::make_unique<Korvix::Channel::BufferedWriter>(*encrypted_writer, ENCRYPTED_BUFFER_SIZE);
    packet_encryptor = std::make_unique<IndexGen::AESPacketEncryptor>(settings.key_text, certificates);
    encryptor = std::make_unique<IndexGen::Encryptor>(*packet_encryptor, *encrypted_buffer);
    last->attach(encryptor.get());
    last = encryptor.get();
  }

  last->attach(&generator);

  // End of input is the state the stream reports after the read that delivered a chunk; a
  // stream that failed without reaching its end (a seek that didn't work) ends the loop too.
  std::vector<unsigned char> chunk(CHUNK_SIZE);
  for (;;) {
    input->read(reinterpret_cast<char*>(chunk.data()), static_cast<std::streamsize>(CHUNK_SIZE));
    std::streamsize count = input->gcount();
    if (count > 0) {
      try {
        pipeline.read(chunk.data(), static_cast<int32_t>(count));
      } catch (const IndexGen::SyncFailureException&) {
        // The last chunk may run out of its match in the offset file without harm.
        if (!input->eof()) {
          log.error << "Could not synchronise with offset file. Aborting." << std::endl;
          run_writer.flush();
          flush_encrypted(encrypted_buffer.get());
          return STATUS_SYNC_LOST;
        }
      }
    }
    if (!input->good()) break;
  }

  log.summary << "Creating index of " << generator.block_count << " blocks" << std::endl;
  run_writer.close();

  RunStatistics statistics;
  statistics.duration = generator.time_base.duration;
  statistics.first_offset = generator.time_base.first_offset;
  statistics.last_offset = generator.time_base.last_offset;
  statistics.max_rate = generator.time_base.max_rate;
  statistics.min_rate = generator.time_base.min_rate;
  write_statistics(log.summary, statistics);

  encryptor.reset();
  packet_encryptor.reset();
  flush_encrypted(encrypted_buffer.get());
  encrypted_buffer.reset();
  encrypted_writer.reset();
  encrypted_file.reset();
  sync.reset();
  input_file.reset();

  log.summary << "Done" << std::endl;
  return STATUS_OK;
}

}  // namespace Veldrin::Tool
