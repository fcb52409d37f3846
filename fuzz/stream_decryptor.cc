// The decryptor over an encrypted copy: the stream fed in chunks of sizes the input chooses, in
// one of its three modes: listing the key list, unwrapping the content key with a private key of
// this process, or deciphering with a content key given (the seeds are enciphered with that key,
// 00 01 02 ... 0F, so that their packets pass the key check).
//
// Layout of an input:
//   byte 0      value % 3: 0 list only, 1 private key, 2 content key
//   byte 1      bit 0: with a private key, ask for the recipient named "Fuzz Seed"
//   bytes 2-3   the hold limit in packets; 0 leaves the default of 32 MiB
//   bytes 4-11  four chunk sizes of 16 bits each, 0 standing for 65,536
//   then        the stream

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "crypto/aes.h"
#include "crypto/rsa.h"
#include "encryption/stream_decryptor.h"
#include "foundation/channel/writer.h"
#include "fuzz/fuzz_support.h"

namespace Crypto = Korvix::Crypto;
namespace Fuzz = Veldrin::Fuzz;
namespace IndexGen = Veldrin::IndexGen;

namespace {

constexpr size_t HEADER_SIZE = 12;

// The deciphered stream goes nowhere; only how much of it came out is kept.
class CountingWriter : public Korvix::Channel::Writer {
 public:
  void basic_write(const unsigned char*, size_t count) override { offset += count; }
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  Fuzz::Choices choices(data, size);
  const uint8_t mode = choices.byte() % 3;
  const bool by_name = (choices.byte() & 1) != 0;
  const uint16_t hold_packets = choices.u16();
  std::vector<uint32_t> chunk_sizes;
  for (int i = 0; i < 4; ++i) {
    const uint16_t chunk = choices.u16();
    chunk_sizes.push_back(chunk == 0 ? 65536u : chunk);
  }
  choices.skip_to(HEADER_SIZE);
  // The decryptor deciphers in place; the input itself stays as libFuzzer gave it.
  std::vector<unsigned char> stream(choices.rest(), choices.rest() + choices.rest_size());

  CountingWriter output;
  std::unique_ptr<IndexGen::StreamDecryptor> decryptor;
  if (mode == 0) {
    decryptor = std::make_unique<IndexGen::StreamDecryptor>();
  } else if (mode == 1) {
    std::optional<std::string> name;
    if (by_name) name = "Fuzz Seed";
    decryptor = std::make_unique<IndexGen::StreamDecryptor>(Fuzz::private_key(), name, output);
  } else {
    Crypto::AESKey key;
    for (unsigned char i = 0; i < 16; ++i) key.key[i] = i;
    key.valid = true;
    decryptor = std::make_unique<IndexGen::StreamDecryptor>(key, output);
  }
  if (hold_packets != 0) decryptor->hold_limit = uint64_t{hold_packets} * 188;

  size_t position = 0;
  size_t turn = 0;
  bool wanted = true;
  while (position < stream.size() && wanted) {
    const size_t count = std::min<size_t>(stream.size() - position,
                                          chunk_sizes[turn++ % chunk_sizes.size()]);
    wanted = decryptor->feed(stream.data() + position, count);
    position += count;
  }
  const bool good = decryptor->finish();
  if (good == decryptor->failed()) std::abort();
  if (decryptor->failed() && decryptor->message.empty()) std::abort();
  // What goes out is whole packets of the input, never more than came in.
  if (output.offset % 188 != 0 || output.offset > stream.size()) std::abort();
  return 0;
}
