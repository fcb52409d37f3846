#include "transport/section_assembler.h"

#include "foundation/channel/block_reader.h"
#include "transport/section_reader.h"

namespace Veldrin::IndexGen {

namespace {

template <typename Section>
SectionStatus gather(std::vector<unsigned char>& data, const std::vector<unsigned char>& payload,
                     Section& section) {
  data.insert(data.end(), payload.begin(), payload.end());
  Korvix::Channel::BlockReader block(data.data(), data.size());
  SectionReader reader(block);
  const SectionStatus status = reader.read(section);
  if (status != SECTION_INCOMPLETE) data.clear();
  return status;
}

}  // namespace

SectionStatus SectionAssembler::add(const std::vector<unsigned char>& payload, PATSection& pat) {
  return gather(data, payload, pat);
}

SectionStatus SectionAssembler::add(const std::vector<unsigned char>& payload, PMTSection& pmt) {
  return gather(data, payload, pmt);
}

SectionStatus SectionAssembler::add(const std::vector<unsigned char>& payload, CATSection& cat) {
  return gather(data, payload, cat);
}

}  // namespace Veldrin::IndexGen
