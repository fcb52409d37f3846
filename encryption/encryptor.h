#ifndef VELDRIN_ENCRYPTION_ENCRYPTOR_H
#define VELDRIN_ENCRYPTION_ENCRYPTOR_H

#include <array>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "encryption/encryption_marker.h"
#include "encryption/marked_packet.h"
#include "encryption/packet_cipher.h"
#include "foundation/channel/buffered_writer.h"
#include "foundation/channel/writer.h"
#include "transport/held_queue.h"
#include "transport/pipe.h"
#include "transport/section_assembler.h"
#include "transport/sections.h"

namespace Veldrin::IndexGen {

// Which rule a PID is enciphered by, as a PMT stream_type gives it.
enum MarkerType : uint32_t {
  MARKER_NONE = 0,
  MARKER_MPEG2 = 1,
  MARKER_H264 = 2,
  MARKER_AUDIO = 3,
};

// The marker type of a PMT stream_type; MARKER_NONE for a stream that stays in clear.
MarkerType marker_type_of(uint8_t stream_type);

struct MarkerEntry {
  uint16_t pid = 0;
  MarkerType marker_type = MARKER_NONE;
  std::unique_ptr<EncryptionMarker> marker;  // null: the PID has no entry
};

// The first PID tried for the key list; the choice goes down from here past the PIDs that the
// first PMT has enciphered.
constexpr uint32_t KEY_LIST_PID_FIRST = 0x1FFE;
// The key list goes into the stream after every this many packets that leave the stage.
constexpr int32_t KEY_LIST_INTERVAL = 100;

// Makes the encrypted copy of the stream. It follows the PAT to the PMT of the program with the
// lowest number, rewrites every complete PMT of it to announce the key list (a CA descriptor with
// CA_system_ID 0x4B4C at program level and a stream entry of type 5), holds the packets in one
// queue in input order until the marker of their PID has decided, enciphers those it may, writes
// each to the output and passes it on, and inserts the key list on its own PID every 100
// packets. Nothing marks the end of the stream: what is still queued then is neither written nor
// passed on. Final: the tool deletes it through its own type, and like the other stages it has
// no virtual destructor.
class Encryptor final : public TSPipe {
 public:
  // Neither is owned.
  Encryptor(PacketEncryptor& packet_encryptor_, Korvix::Channel::Writer& output_)
      : packet_encryptor(packet_encryptor_),
        output(output_),
        gathering(dynamic_cast<Korvix::Channel::BufferedWriter*>(&output_)) {}

  // Works on a copy; the caller's packet isn't changed.
  void process(TSPacket& packet) override;

  // True when the table bytes were used up, false while more are awaited or the section was bad.
  bool handle_pat(MarkedPacket& packet);
  // May replace the payload of the packet with the rewritten section.
  bool handle_pmt(MarkedPacket& packet);

  // The entry of a PID; its marker is null when the PID has none.
  const MarkerEntry& marker_entry(uint16_t pid) const { return markers[index_of(pid)]; }

  SectionAssembler pat_data;
  uint32_t pmt_pid = 0;  // 0 until a PAT has been read
  uint16_t program_number = 0;
  SectionAssembler pmt_data;
  uint32_t ca_pid = 0;  // the key list PID; 0 until the first PMT has been rewritten
  PacketEncryptor& packet_encryptor;
  Korvix::Channel::Writer& output;
  // The output when it gathers packets in a buffer: each is then composed in that buffer, which
  // saves a copy of every packet.
  Korvix::Channel::BufferedWriter* gathering;
  int32_t packet_count = 0;     // packets drained since ca_pid was chosen
  uint64_t inserted_bytes = 0;  // 188 for each key list insertion so far
  HeldQueue<MarkedPacket> queue;

 private:
  static constexpr size_t PID_COUNT = 0x2000;
  static size_t index_of(uint16_t pid) { return static_cast<size_t>(pid) & (PID_COUNT - 1); }

  void drain();
  void insert_key_list(uint64_t drained_offset);
  // Puts the next packet of the key list's cut into the gathering buffer from the packets cut
  // before, when that gives the very bytes that cutting them again would: the record and the
  // list are as they were cut, and the buffer has room, so no write can fail. False otherwise.
  bool copy_key_list_packet(size_t index, size_t taken);
  void cut_key_list();

  // By PID. An overwritten marker is freed at once: it has nothing to finish.
  std::array<MarkerEntry, PID_COUNT> markers;
  std::vector<unsigned char> key_list;  // reused at each insertion
  // The record passed on at each insertion, kept so that its payload, longer than a packet,
  // needs no new allocation each time; every field is set afresh.
  TSPacket key_list_record;
  // The packets of the last cut of the key list, which are the same bytes at every insertion
  // while the list and its PID stay: cut once and copied after that.
  std::vector<unsigned char> cut_list;     // the list that was cut
  uint16_t cut_pid = 0;                    // and its PID
  std::string cut_packets;                 // the packets, one after the other
  std::vector<size_t> cut_taken;           // list bytes written after each packet
};

}  // namespace Veldrin::IndexGen

#endif
