#include "transport/section_assembler.h"

#include "foundation/channel/block_reader.h"
#include "transport/section_reader.h"

namespace Veldrin::IndexGen {

namespace {

template <typename Section>
SectionStatus gather(std::vector<unsigned char>& data, const unsigned char* payload, size_t size,
                     Section& section) {
  data.insert(data.end(), payload, payload + size);
  Korvix::Channel::BlockReader block(data.data(), data.size());
  SectionReader reader(block);
  const SectionStatus status = reader.read(section);
  if (status != SECTION_INCOMPLETE) data.clear();
  return status;
}

}  // namespace

SectionStatus SectionAssembler::add(const std::vector<unsigned char>& payload, PATSection& pat) {
  return gather(data, payload.data(), payload.size(), pat);
}

SectionStatus SectionAssembler::add(const Payload& payload, PATSection& pat) {
  return gather(data, payload.data(), payload.size(), pat);
}

SectionStatus SectionAssembler::add(const std::vector<unsigned char>& payload, PMTSection& pmt) {
  return gather(data, payload.data(), payload.size(), pmt);
}

SectionStatus SectionAssembler::add(const Payload& payload, PMTSection& pmt) {
  return gather(data, payload.data(), payload.size(), pmt);
}

SectionStatus SectionAssembler::add(const std::vector<unsigned char>& payload, CATSection& cat) {
  return gather(data, payload.data(), payload.size(), cat);
}

SectionStatus SectionAssembler::add(const Payload& payload, CATSection& cat) {
  return gather(data, payload.data(), payload.size(), cat);
}

}  // namespace Veldrin::IndexGen
