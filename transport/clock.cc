#include "transport/clock.h"

namespace Veldrin::IndexGen {

uint64_t to_ticks(double seconds, double clock) {
  const double ticks = seconds * clock;
  if (!(ticks >= 0.0 && ticks < 18446744073709551616.0)) return 0;
  return static_cast<uint64_t>(ticks);
}

double to_seconds(uint64_t ticks, double clock) {
  return static_cast<double>(ticks) / clock;
}

double read_time_stamp(Korvix::Channel::Reader& reader) {
  const uint64_t b = reader.read_byte();
  const uint64_t w = reader.read_nbo_32();
  const uint64_t ticks = ((b & 0x0E) << 29) + ((w >> 17) << 15) + ((w & 0xFFFE) >> 1);
  return to_seconds(ticks, TIME_STAMP_CLOCK);
}

void write_time_stamp(Korvix::Channel::Writer& writer, uint8_t prefix, double seconds) {
  write_time_stamp_ticks(writer, prefix, to_ticks(seconds, TIME_STAMP_CLOCK));
}

void write_time_stamp_ticks(Korvix::Channel::Writer& writer, uint8_t prefix, uint64_t ticks) {
  writer.write_byte(static_cast<uint32_t>(prefix | ((ticks >> 29) & 0x0E)));
  writer.write_nbo_32(
      static_cast<uint32_t>(((ticks * 4) & 0xFFFE0000) | ((ticks * 2) & 0xFFFF) | 0x10001));
}

double read_pcr(Korvix::Channel::Reader& reader) {
  const uint64_t high = reader.read_nbo_32();
  const uint16_t low = reader.read_nbo_16();
  const uint64_t base = high * 2 + ((low >> 15) & 1);
  const uint64_t extension = low & 0x1FF;
  return to_seconds(base * PCR_EXTENSION_RANGE + extension, PCR_CLOCK);
}

void write_pcr(Korvix::Channel::Writer& writer, double seconds) {
  write_pcr_ticks(writer, to_ticks(seconds, PCR_CLOCK));
}

void write_pcr_ticks(Korvix::Channel::Writer& writer, uint64_t ticks) {
  uint64_t base = ticks / PCR_EXTENSION_RANGE;
  const uint64_t extension = ticks - base * PCR_EXTENSION_RANGE;
  base %= PCR_BASE_MODULUS;
  writer.write_nbo_32(static_cast<uint32_t>(base >> 1));
  writer.write_nbo_16(static_cast<uint32_t>((base & 1) * 0x8000 + 0x7E00 + extension));
}

}  // namespace Veldrin::IndexGen
