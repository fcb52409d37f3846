#ifndef VELDRIN_TRANSPORT_CLOCK_H
#define VELDRIN_TRANSPORT_CLOCK_H

#include <cstddef>
#include <cstdint>

#include "foundation/channel/reader.h"
#include "foundation/channel/writer.h"

namespace Veldrin::IndexGen {

// The two clocks of a stream. Times inside the system are seconds in doubles; counts of ticks
// exist only in the coded PTS, DTS and PCR fields, and are made and read here alone.
constexpr double TIME_STAMP_CLOCK = 90000.0;  // ticks per second of PTS and DTS
constexpr double PCR_CLOCK = 27000000.0;      // ticks per second of PCR
// A PCR is a base in 90 kHz ticks and an extension that counts the 300 ticks between them.
constexpr uint64_t PCR_EXTENSION_RANGE = 300;
// The base is reduced modulo 2^33 - 1, not 2^33: the written streams depend on it.
constexpr uint64_t PCR_BASE_MODULUS = 0x1FFFFFFFF;

// Bytes of a coded PTS or DTS, and of a coded PCR.
constexpr size_t TIME_STAMP_SIZE = 5;
constexpr size_t PCR_SIZE = 6;

// The first byte of a coded time stamp: its four-bit prefix and the first marker bit.
constexpr uint8_t PREFIX_PTS_ONLY = 0x21;
constexpr uint8_t PREFIX_PTS_WITH_DTS = 0x31;
constexpr uint8_t PREFIX_DTS = 0x11;

// Seconds to ticks of a clock, truncated. A negative value, not a number, or one beyond 64
// bits, which no stream holds, gives 0.
uint64_t to_ticks(double seconds, double clock);
double to_seconds(uint64_t ticks, double clock);

// A PTS or DTS: 33 bits of 90 kHz ticks in five bytes, behind the prefix and between marker
// bits. Reading examines neither the prefix nor the marker bits, and the 33-bit wrap is left
// as it is. Both directions throw the Korvix::Channel::Error of their channel.
double read_time_stamp(Korvix::Channel::Reader& reader);
void write_time_stamp(Korvix::Channel::Writer& writer, uint8_t prefix, double seconds);
void write_time_stamp_ticks(Korvix::Channel::Writer& writer, uint8_t prefix, uint64_t ticks);

// A PCR: 33 bits of base, six reserved bits (written as ones), nine bits of extension.
double read_pcr(Korvix::Channel::Reader& reader);
void write_pcr(Korvix::Channel::Writer& writer, double seconds);
void write_pcr_ticks(Korvix::Channel::Writer& writer, uint64_t ticks);

}  // namespace Veldrin::IndexGen

#endif
