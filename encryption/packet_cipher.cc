#include "encryption/packet_cipher.h"

#include "encryption/key_list.h"

namespace Veldrin::IndexGen {

AESPacketEncryptor::AESPacketEncryptor(const std::string& key_text,
                                       const std::vector<Korvix::Crypto::Certificate>& certificates)
    : key(true, 128) {
  // A fresh key is all zero, so the bytes that no digit reaches stay 0.
  key.read_hex(key_text);
  cipher.key = key;
  cipher.iv = Korvix::Crypto::AESKey(false, 128);
  cipher.ctr = false;
  key_list = make_key_list(key, certificates);
}

void AESPacketEncryptor::encrypt(TSPacket& packet) {
  const auto length = static_cast<int32_t>(packet.payload.size());
  const int32_t whole = length - length % 16;
  cipher.encrypt(packet.payload.data(), whole, true);
  packet.scrambling_control = SCRAMBLING_CONTROL_ENCRYPTED;
}

void AESPacketEncryptor::get_key_list(std::vector<unsigned char>& data) {
  data = key_list;
}

}  // namespace Veldrin::IndexGen
