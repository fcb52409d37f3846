#ifndef VELDRIN_ENCRYPTION_ATOM_READER_H
#define VELDRIN_ENCRYPTION_ATOM_READER_H

#include <cstdint>
#include <string>
#include <vector>

#include "encryption/atom.h"
#include "foundation/channel/block_reader.h"

namespace Veldrin::IndexGen {

// Reads back what AtomWriter writes: a run of atoms that fills a block of bytes exactly, each
// with its children when formats names it a container, else with its data. Every size is checked
// against the bytes present before anything is read, so damaged input gives false and a reason,
// never a read out of bounds.
//
// Accepted: a 32-bit size of 8 or more; size 1 with the 64-bit size behind the type; the type
// "uuid" with 16 name bytes behind the size fields. Refused: sizes 0 and 2 to 7 (AtomWriter never
// writes them), sizes below the header they announce, sizes past the end of the enclosing atom or
// block, bytes left over in a container that can't hold a header, and containers nested deeper
// than MAX_DEPTH. Names lose their padding: trailing zero bytes of the 4-byte type or of the 16
// bytes of a "uuid" name are dropped.
class AtomReader {
 public:
  static constexpr int32_t MAX_DEPTH = 32;

  explicit AtomReader(const AtomFormats& formats_) : formats(&formats_) {}

  // The atoms of data, in order, appended to atoms. On false, error says what is wrong and at
  // which byte, counted from first_byte at the start of data, and atoms holds what was read
  // before.
  bool read(const unsigned char* data, uint64_t length, std::vector<Atom>& atoms,
            uint64_t first_byte = 0);

  const AtomFormats* formats;  // not owned
  std::string error;

 private:
  // The atoms of block, whose first byte is at base in the caller's data.
  bool read_run(Korvix::Channel::BlockReader& block, uint64_t base, int32_t depth,
                std::vector<Atom>& atoms);
  bool fail(std::string reason);
};

// Bytes that may hold anything, made fit for a message: printable ASCII as it is, a backslash
// and every other byte as \xNN.
std::string printable_bytes(const std::string& bytes);

}  // namespace Veldrin::IndexGen

#endif
