#ifndef VELDRIN_ENCRYPTION_STREAM_DECRYPTOR_H
#define VELDRIN_ENCRYPTION_STREAM_DECRYPTOR_H

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "crypto/aes.h"
#include "crypto/rsa.h"
#include "encryption/key_list.h"
#include "foundation/channel/writer.h"
#include "transport/packet.h"

namespace Veldrin::IndexGen {

// Exit statuses of the receiving side; the stream decryptor gives those from 3 on.
enum DecryptStatus : int32_t {
  DECRYPT_DONE = 0,
  DECRYPT_BAD_COMMAND_LINE = 1,
  DECRYPT_FILE_ERROR = 2,       // a file can't be opened, read, created or written
  DECRYPT_BAD_STREAM = 3,       // not whole 188-byte packets: lost sync, last packet cut short
  DECRYPT_NO_KEY_LIST = 4,      // no PAT, no PMT, no CA descriptor, or no key list section
  DECRYPT_BAD_KEY_LIST = 5,     // CRC, atoms, version or content cipher of the key list
  DECRYPT_WRONG_KEY = 6,        // no recipient for the private key, or a key that fails its check
  DECRYPT_NO_PRIVATE_KEY = 7,   // the key file holds no RSA private key
};

// Undoes the encrypted copy: reads the stream packet by packet, finds the key list through the
// PAT, the PMT of the first program and its CA descriptor (CA_system_ID 0x4B4C), gets the content
// key from it (or is given the key), and deciphers the whole 16-byte blocks at the start of the
// payload of every packet whose transport_scrambling_control is 2, clearing those two bits. Every
// other byte of the input is written as it came: packets are worked on in their raw 188 bytes,
// so adaptation fields, key list packets and the rewritten PMT stay as they are.
//
// Packets that come before the content key is known are held, up to hold_limit bytes, and go
// out once it is; a stream whose key list doesn't come within the limit fails. Tables are
// gathered by the section reader's rule, except that a table PID's buffer only starts at a packet
// with payload_unit_start, so that a stream cut inside a section finds the next one.
//
// The key is checked on the first enciphered packet that starts a PES packet (every such packet
// of an encrypted copy is audio): its payload must decipher to the start code prefix 00 00 01.
class StreamDecryptor {
 public:
  static constexpr uint64_t DEFAULT_HOLD_LIMIT = 32 * 1024 * 1024;

  enum Mode {
    LIST_ONLY,    // find and read the key list, decipher nothing, write nothing
    PRIVATE_KEY,  // unwrap the content key from the key list
    CONTENT_KEY,  // the content key is given; the key list isn't looked for
  };

  // List mode: no output.
  StreamDecryptor();
  // The private key of a recipient, and the name of the recipient to take, if given.
  StreamDecryptor(const Korvix::Crypto::RSAKey& private_key, std::optional<std::string> name,
                  Korvix::Channel::Writer& output);
  StreamDecryptor(const Korvix::Crypto::AESKey& content_key, Korvix::Channel::Writer& output);

  // The next bytes of the stream, which may be deciphered in place. False once the run has
  // failed (see status and message) or, in list mode, once the key list has been read: no more
  // input is wanted then.
  bool feed(unsigned char* data, size_t length);
  // The end of the stream. False when the run failed, now or before.
  bool finish();

  bool failed() const { return status != DECRYPT_DONE; }

  // Settings.
  Mode mode;
  uint64_t hold_limit = DEFAULT_HOLD_LIMIT;

  // Results.
  DecryptStatus status = DECRYPT_DONE;
  std::string message;  // why the run failed
  std::string warning;  // a doubt that doesn't fail the run
  std::optional<KeyList> key_list;
  uint16_t program_number = 0;
  uint16_t pmt_pid = 0;
  uint16_t key_list_pid = 0;
  std::optional<size_t> recipient;  // the recipient whose wrapped key was taken
  uint64_t packets = 0;             // whole packets read
  uint64_t deciphered = 0;          // packets deciphered
  bool key_checked = false;         // a deciphered packet confirmed the key

 private:
  struct Header {
    TSPacket packet;  // the header fields; the payload isn't copied
    int32_t payload_length = -1;
    size_t payload_at = 0;  // where the payload starts in the packet
    bool usable = false;    // a payload length of 0 to 184
  };

  bool fail(DecryptStatus failure, std::string text);
  Header parse(const unsigned char* packet) const;
  // One whole packet at its stream position. Deciphers it in place and sets pass when the key is
  // known; holds a copy of it otherwise. False when the run failed or has all it wants.
  bool take(unsigned char* packet, uint64_t position, bool& pass);
  bool decipher(unsigned char* packet, uint64_t position);
  void observe_tables(const Header& header, const unsigned char* packet);
  void observe_pat(const Header& header, const unsigned char* packet);
  void observe_pmt(const Header& header, const unsigned char* packet);
  void observe_key_list(const Header& header, const unsigned char* packet);
  void key_list_read(KeyList list);
  // Deciphers and writes the held packets.
  bool release_held();
  bool write(const unsigned char* data, size_t length);
  // Why no key list was found, at the end of the stream or at the hold limit.
  void fail_without_key_list(bool at_limit);

  Korvix::Channel::Writer* output = nullptr;  // not owned
  Korvix::Crypto::RSAKey private_key{true};
  std::optional<std::string> recipient_name;
  Korvix::Crypto::AESCipher cipher;
  bool key_known = false;
  bool done = false;  // list mode: the key list has been read

  std::vector<unsigned char> held;     // the whole packets from the start, waiting for the key
  unsigned char partial[TS_PACKET_SIZE] = {};
  size_t partial_length = 0;           // bytes of a packet split between two feeds

  // Discovery of the key list.
  bool pat_seen = false;
  bool program_known = false;
  bool pmt_seen = false;
  bool key_list_pid_known = false;
  std::vector<unsigned char> pat_data;
  std::vector<unsigned char> pmt_data;
  std::vector<unsigned char> key_list_data;
  std::string key_list_error;  // the last damaged key list seen
};

}  // namespace Veldrin::IndexGen

#endif
