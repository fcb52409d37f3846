#ifndef VELDRIN_ENCRYPTION_ATOM_H
#define VELDRIN_ENCRYPTION_ATOM_H

#include <cstdint>
#include <map>
#include <string>
#include <vector>

#include "foundation/channel/writer.h"

namespace Veldrin::IndexGen {

// A typed, length-prefixed node of binary data, framed like the boxes of the ISO base media file
// format: it holds either children or data bytes. Copies are deep.
class Atom {
 public:
  Atom() = default;
  explicit Atom(std::string name_) : name(std::move(name_)) {}
  Atom(std::string name_, std::vector<unsigned char> data_)
      : name(std::move(name_)), data(std::move(data_)) {}

  // The whole length the atom has when written: its header, then its children's sizes if it has
  // any, else its data. Children count even where the writer handles the atom as data.
  uint64_t size() const;

  // The whole length of an atom of this name around body bytes: an 8-byte header for a name of
  // up to 4 characters, 24 bytes (with "uuid" and 16 name bytes) for a longer one, and 8 more for
  // the 64-bit size field when the sum doesn't fit in 32 bits.
  static uint64_t framed_size(const std::string& name, uint64_t body);

  std::string name;
  std::vector<Atom> children;
  std::vector<unsigned char> data;
};

// How the writer handles an atom, by name: as a container of its children or as data.
using AtomFormats = std::map<std::string, int32_t>;
constexpr int32_t atom_data = 1;
constexpr int32_t atom_container = 2;

// Writes atoms to a channel, all numbers big-endian. A Korvix::Channel::Error of the channel
// becomes the result false, with part of the atom written.
class AtomWriter {
 public:
  AtomWriter(Korvix::Channel::Writer& writer_, const AtomFormats& formats_)
      : writer(&writer_), formats(&formats_) {}

  // Size (1 when it needs 64 bits), type ("uuid" for a name longer than 4 characters, else the
  // name padded with zero bytes), the 64-bit size when needed, and the long name in 16 bytes.
  bool write_header(const Atom& atom);
  // The same for an atom of this name and whole size, whose body the caller writes.
  bool write_header(const std::string& name, uint64_t size);
  // The header, then the children of an atom named as a container in formats, or else its data.
  bool write(const Atom& atom);

  Korvix::Channel::Writer* writer;  // not owned
  const AtomFormats* formats;       // not owned
};

}  // namespace Veldrin::IndexGen

#endif
