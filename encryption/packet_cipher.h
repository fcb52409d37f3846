#ifndef VELDRIN_ENCRYPTION_PACKET_CIPHER_H
#define VELDRIN_ENCRYPTION_PACKET_CIPHER_H

#include <string>
#include <vector>

#include "crypto/aes.h"
#include "crypto/certificate.h"
#include "transport/packet.h"

namespace Veldrin::IndexGen {

// transport_scrambling_control of an enciphered packet: the bits 10.
constexpr int32_t SCRAMBLING_CONTROL_ENCRYPTED = 2;

// How the encrypting stage enciphers one packet and gets the key data to put into the stream.
class PacketEncryptor {
 public:
  virtual ~PacketEncryptor() = default;

  // Enciphers the payload in place and marks the packet as scrambled.
  virtual void encrypt(TSPacket& packet) = 0;
  // The key data to insert into the stream; the same bytes at every call.
  virtual void get_key_list(std::vector<unsigned char>& data) = 0;
};

// AES-128 in ECB mode over the whole 16-byte blocks at the start of a payload, with one key for
// the whole run. What stays in clear: the header, the adaptation field and the 0 to 15 bytes of
// the payload behind its last whole block; the payload keeps its length.
class AESPacketEncryptor : public PacketEncryptor {
 public:
  // key_text: up to 32 hexadecimal digits, read without any check; digits that are missing
  // leave their bytes 0. certificates: those to wrap the key for, in this order; they stay the
  // caller's.
  AESPacketEncryptor(const std::string& key_text,
                     const std::vector<Korvix::Crypto::Certificate>& certificates);

  // Sets scrambling_control to 2, also when the payload has no whole block.
  void encrypt(TSPacket& packet) override;
  void get_key_list(std::vector<unsigned char>& data) override;

  Korvix::Crypto::AESKey key;
  // A copy of key in ECB mode (no valid iv, no counter). It keeps its key schedule for the run.
  Korvix::Crypto::AESCipher cipher;
  // The key list section, pointer_field first; empty when it would be too long to write.
  std::vector<unsigned char> key_list;
};

}  // namespace Veldrin::IndexGen

#endif
