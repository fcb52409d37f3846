#include "encryption/atom.h"

#include "foundation/channel/error.h"

namespace Veldrin::IndexGen {

namespace {

constexpr uint64_t MAX_32_BIT_SIZE = 0xFFFFFFFF;
constexpr size_t TYPE_LENGTH = 4;
constexpr size_t EXTENDED_TYPE_LENGTH = 16;

bool extended(const std::string& name) {
  return name.size() > TYPE_LENGTH;
}

}  // namespace

uint64_t Atom::framed_size(const std::string& name, uint64_t body) {
  uint64_t size = (extended(name) ? 8 + EXTENDED_TYPE_LENGTH : 8) + body;
  if (size > MAX_32_BIT_SIZE) size += 8;
  return size;
}

uint64_t Atom::size() const {
  uint64_t body = 0;
  if (!children.empty()) {
    for (const Atom& child : children) body += child.size();
  } else {
    body = data.size();
  }
  return framed_size(name, body);
}

bool AtomWriter::write_header(const Atom& atom) {
  return write_header(atom.name, atom.size());
}

bool AtomWriter::write_header(const std::string& name, uint64_t size) {
  try {
    const bool large = size > MAX_32_BIT_SIZE;
    writer->write_nbo_32(large ? 1 : static_cast<uint32_t>(size));
    const std::string type = extended(name) ? "uuid" : name;
    for (size_t i = 0; i < TYPE_LENGTH; i++)
      writer->write_byte(i < type.size() ? static_cast<unsigned char>(type[i]) : 0);
    if (large) writer->write_nbo_64(size);
    if (extended(name)) {
      for (size_t i = 0; i < EXTENDED_TYPE_LENGTH; i++)
        writer->write_byte(i < name.size() ? static_cast<unsigned char>(name[i]) : 0);
    }
    return true;
  } catch (const Korvix::Channel::Error&) {
    return false;
  }
}

bool AtomWriter::write(const Atom& atom) {
  if (!write_header(atom)) return false;
  auto format = formats->find(atom.name);
  if (format != formats->end() && format->second == atom_container) {
    for (const Atom& child : atom.children) {
      if (!write(child)) return false;
    }
    return true;
  }
  try {
    writer->write(atom.data.data(), atom.data.size());
    return true;
  } catch (const Korvix::Channel::Error&) {
    return false;
  }
}

}  // namespace Veldrin::IndexGen
