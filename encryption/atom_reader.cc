#include "encryption/atom_reader.h"

namespace Veldrin::IndexGen {

namespace {

constexpr uint64_t HEADER_SIZE = 8;
constexpr uint64_t LARGE_SIZE_FIELD = 8;
constexpr uint64_t EXTENDED_TYPE_SIZE = 16;
constexpr uint32_t SIZE_IN_64_BITS = 1;

// The padding AtomWriter adds behind a short name is zero bytes.
std::string without_padding(const unsigned char* bytes, size_t count) {
  while (count > 0 && bytes[count - 1] == 0) count--;
  return std::string(reinterpret_cast<const char*>(bytes), count);
}

}  // namespace

std::string printable_bytes(const std::string& bytes) {
  static constexpr char DIGITS[] = "0123456789abcdef";
  std::string text;
  for (char byte : bytes) {
    const auto c = static_cast<unsigned char>(byte);
    if (c >= 0x20 && c < 0x7F && c != '\\') {
      text += byte;
    } else {
      text += "\\x";
      text += DIGITS[c >> 4];
      text += DIGITS[c & 0x0F];
    }
  }
  return text;
}

bool AtomReader::fail(std::string reason) {
  error = std::move(reason);
  return false;
}

bool AtomReader::read(const unsigned char* data, uint64_t length, std::vector<Atom>& atoms,
                      uint64_t first_byte) {
  error.clear();
  Korvix::Channel::BlockReader block(data, length);
  return read_run(block, first_byte, 0, atoms);
}

bool AtomReader::read_run(Korvix::Channel::BlockReader& block, uint64_t base, int32_t depth,
                          std::vector<Atom>& atoms) {
  if (depth > MAX_DEPTH)
    return fail("atoms nested deeper than " + std::to_string(MAX_DEPTH) + " levels at byte " +
                std::to_string(base));
  // Each pass takes at least a header's bytes off the block, so the loop ends.
  while (block.offset < block.length) {
    const uint64_t start = block.offset;
    const uint64_t left = block.length - start;
    const std::string where = "atom at byte " + std::to_string(base + start);
    if (left < HEADER_SIZE)
      return fail(where + " cut short: " + std::to_string(left) + " bytes left of its " +
                  std::to_string(HEADER_SIZE) + "-byte header");

    uint64_t size = block.read_nbo_32();
    unsigned char type[4];
    block.read(type, sizeof type);
    std::string name = without_padding(type, sizeof type);
    uint64_t header = HEADER_SIZE;

    if (size == SIZE_IN_64_BITS) {
      header += LARGE_SIZE_FIELD;
      if (left < header)
        return fail(where + " cut short: " + std::to_string(left) + " bytes left of its " +
                    std::to_string(header) + "-byte header");
      size = block.read_nbo_64();
    } else if (size < HEADER_SIZE) {
      return fail(where + " has size " + std::to_string(size) + ", less than its " +
                  std::to_string(HEADER_SIZE) + "-byte header");
    }
    if (name == "uuid") {
      header += EXTENDED_TYPE_SIZE;
      if (left < header)
        return fail(where + " cut short: " + std::to_string(left) + " bytes left of its " +
                    std::to_string(header) + "-byte header");
      unsigned char extended[EXTENDED_TYPE_SIZE];
      block.read(extended, sizeof extended);
      name = without_padding(extended, sizeof extended);
    }
    const std::string named = "atom \"" + printable_bytes(name) + "\" at byte " +
                              std::to_string(base + start);
    if (size < header)
      return fail(named + " has size " + std::to_string(size) + ", less than its " +
                  std::to_string(header) + "-byte header");
    if (size > left)
      return fail(named + " has size " + std::to_string(size) + ", past the end of the " +
                  std::to_string(left) + " bytes left for it");

    const uint64_t body = size - header;
    Atom atom(std::move(name));
    auto format = formats->find(atom.name);
    if (format != formats->end() && format->second == atom_container) {
      Korvix::Channel::BlockReader children(block.data, body);
      if (!read_run(children, base + start + header, depth + 1, atom.children)) return false;
      block.skip(body);
    } else {
      atom.data.resize(static_cast<size_t>(body));
      block.read(atom.data.data(), atom.data.size());
    }
    atoms.push_back(std::move(atom));
  }
  return true;
}

}  // namespace Veldrin::IndexGen
