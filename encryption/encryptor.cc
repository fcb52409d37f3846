#include "encryption/encryptor.h"

#include <cstring>
#include <list>

#include "encryption/audio_encryption_marker.h"
#include "encryption/h264_encryption_marker.h"
#include "encryption/key_list.h"
#include "encryption/mpeg2_encryption_marker.h"
#include "foundation/channel/error.h"
#include "foundation/channel/string_writer.h"
#include "transport/section_writer.h"
#include "transport/table_packets.h"
#include "transport/ts_writer.h"

namespace Veldrin::IndexGen {

namespace {

std::unique_ptr<EncryptionMarker> make_marker(MarkerType type) {
  switch (type) {
    case MARKER_MPEG2:
      return std::make_unique<MPEG2EncryptionMarker>();
    case MARKER_H264:
      return std::make_unique<H264EncryptionMarker>();
    case MARKER_AUDIO:
      return std::make_unique<AudioEncryptionMarker>();
    case MARKER_NONE:
      break;
  }
  return nullptr;
}

}  // namespace

MarkerType marker_type_of(uint8_t stream_type) {
  switch (stream_type) {
    case STREAM_TYPE_MPEG2_VIDEO:
      return MARKER_MPEG2;
    case STREAM_TYPE_H264_VIDEO:
      return MARKER_H264;
    case 0x03:  // MPEG-1 audio
    case 0x04:  // MPEG-2 audio
    case 0x0F:  // AAC in ADTS
    case 0x11:  // AAC in LATM
    case 0x81:  // AC-3
    case 0x8A:  // DTS
      return MARKER_AUDIO;
    default:
      return MARKER_NONE;
  }
}

void Encryptor::process(TSPacket& packet) {
  MarkedPacket& queued = queue.emplace_back(packet);
  if (queued.pid == PAT_PID) handle_pat(queued);
  if (pmt_pid != 0 && queued.pid == pmt_pid) handle_pmt(queued);

  const MarkerEntry& entry = markers[index_of(queued.pid)];
  if (entry.marker == nullptr) {
    queued.encrypt = false;
    queued.ready = true;
  } else {
    entry.marker->mark(queued);
  }
  drain();
}

bool Encryptor::handle_pat(MarkedPacket& packet) {
  PATSection pat;
  const SectionStatus status = pat_data.add(packet.payload, pat);
  if (status != SECTION_GOOD) return false;
  // The program with the lowest number, 0 included.
  if (pat.current_next && !pat.programs.empty()) {
    const auto& [number, pid] = *pat.programs.begin();
    if (pid != pmt_pid) {
      pmt_pid = pid;
      program_number = number;
    }
  }
  return true;
}

bool Encryptor::handle_pmt(MarkedPacket& packet) {
  PMTSection pmt;
  const SectionStatus status = pmt_data.add(packet.payload, pmt);
  if (status != SECTION_GOOD) return false;
  if (pmt.id != program_number) return true;

  // The streams that got a marker now; only they keep the key list off their PIDs.
  std::list<PMTStream> kept;
  for (const PMTStream& stream : pmt.streams) {
    const MarkerType type = marker_type_of(stream.stream_type);
    if (type == MARKER_NONE) continue;
    MarkerEntry& entry = markers[index_of(stream.pid)];
    // A marker of the same type keeps its scan state.
    if (entry.marker != nullptr && entry.marker_type == type) continue;
    entry.pid = stream.pid;
    entry.marker_type = type;
    entry.marker = make_marker(type);
    kept.push_back(stream);
  }

  if (ca_pid == 0) {
    ca_pid = KEY_LIST_PID_FIRST;
    for (;;) {
      bool taken = false;
      for (const PMTStream& stream : kept) taken = taken || stream.pid == ca_pid;
      if (!taken) break;
      --ca_pid;
    }
  }

  Descriptor ca;
  ca.tag = CA_DESCRIPTOR_TAG;
  ca.data = {static_cast<unsigned char>(KEY_LIST_CA_SYSTEM_ID >> 8),
             static_cast<unsigned char>(KEY_LIST_CA_SYSTEM_ID & 0xFF),
             static_cast<unsigned char>((ca_pid >> 8) | 0xE0),
             static_cast<unsigned char>(ca_pid & 0xFF)};
  pmt.descriptors.push_back(ca);
  PMTStream key_list_stream;
  key_list_stream.stream_type = KEY_LIST_STREAM_TYPE;
  key_list_stream.pid = static_cast<uint16_t>(ca_pid);
  pmt.streams.push_back(key_list_stream);

  // Empty when the section is longer than a section writer writes.
  const std::vector<unsigned char> section = written_section(pmt);
  packet.payload.assign(section.begin(), section.end());
  return true;
}

void Encryptor::drain() {
  while (!queue.empty() && queue.front().ready) {
    MarkedPacket& head = queue.front();
    if (head.encrypt) packet_encryptor.encrypt(head);
    // The header comes from the record with its own continuity counter; adaptation field data
    // that the record doesn't hold isn't reproduced, and a payload longer than a packet is cut.
    // The packet is made whole first and goes to the output in one write; an output that fails
    // loses it, and the run goes on.
    try {
      unsigned char* room = gathering != nullptr ? gathering->room(TS_PACKET_SIZE) : nullptr;
      if (room != nullptr) {
        gathering->commit(compose_record(head, room));
      } else {
        unsigned char bytes[TS_PACKET_SIZE];
        output.write(bytes, compose_record(head, bytes));
      }
    } catch (const Korvix::Channel::Error&) {
    }
    for (TSPipe* pipe : pipes) pipe->process(head);
    const uint64_t drained_offset = head.offset;
    queue.pop_front();

    if (ca_pid == 0) continue;
    const int32_t count = packet_count;
    packet_count = static_cast<int32_t>(static_cast<uint32_t>(packet_count) + 1u);
    if (count % KEY_LIST_INTERVAL != 0) continue;
    insert_key_list(drained_offset);
  }
}

void Encryptor::insert_key_list(uint64_t drained_offset) {
  // Once per insertion, however many packets it takes.
  inserted_bytes += TS_PACKET_SIZE;

  packet_encryptor.get_key_list(key_list);
  if (key_list.empty()) return;
  TSPacket& record = key_list_record;
  record.pid = static_cast<uint16_t>(ca_pid);
  record.payload_unit_start = true;
  record.discontinuity = false;
  record.random_access = false;
  record.scrambling_control = 0;
  record.pcr = -1.0;
  record.continuity_counter = 0;
  record.offset = drained_offset + inserted_bytes;
  record.payload.assign(key_list.begin(), key_list.end());

  // Every packet loads its counter from the record, which stays 0; only the first has
  // payload_unit_start. Each stage behind receives the record with the whole payload.
  if (gathering != nullptr && (cut_list != key_list || cut_pid != record.pid)) cut_key_list();
  TSWriter writer(output);
  TablePackets cut(record, record.payload.data(), record.payload.size(), UNIT_START_FIRST_PACKET);
  for (size_t index = 0; !cut.done(); ++index) {
    // As the cut does before each packet behind the first.
    if (cut.taken > 0) record.payload_unit_start = false;
    if (copy_key_list_packet(index, cut.taken)) {
      cut.taken = cut_taken[index];
    } else {
      cut.write_next(writer);
    }
    for (TSPipe* pipe : pipes) pipe->process(record);
  }
}

bool Encryptor::copy_key_list_packet(size_t index, size_t taken) {
  if (gathering == nullptr || index >= cut_taken.size()) return false;
  if (taken != (index == 0 ? 0 : cut_taken[index - 1])) return false;
  const TSPacket& record = key_list_record;
  // What the stages behind were given may have been changed by them.
  if (record.pid != cut_pid || record.payload_unit_start != (index == 0) ||
      record.discontinuity || record.random_access || record.scrambling_control != 0 ||
      record.pcr != -1.0 || record.continuity_counter != 0 || !(record.payload == cut_list))
    return false;
  if (gathering->buffer.size() - gathering->used < static_cast<size_t>(TS_PACKET_SIZE)) return false;
  unsigned char* room = gathering->room(TS_PACKET_SIZE);
  std::memcpy(room, cut_packets.data() + index * TS_PACKET_SIZE, TS_PACKET_SIZE);
  gathering->commit(TS_PACKET_SIZE);
  return true;
}

void Encryptor::cut_key_list() {
  cut_list = key_list;
  cut_pid = key_list_record.pid;
  cut_packets.clear();
  cut_taken.clear();
  TSPacket prototype = header_fields(key_list_record);
  Korvix::Channel::StringWriter memory(cut_packets);
  TSWriter writer(memory);
  TablePackets cut(prototype, cut_list.data(), cut_list.size(), UNIT_START_FIRST_PACKET);
  while (!cut.done()) {
    cut.write_next(writer);
    cut_taken.push_back(cut.taken);
  }
  // Only whole packets can be copied; a cut that came out otherwise is written each time.
  if (cut_packets.size() != cut_taken.size() * TS_PACKET_SIZE) cut_taken.clear();
}

}  // namespace Veldrin::IndexGen
