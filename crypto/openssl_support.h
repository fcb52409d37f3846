#ifndef KORVIX_CRYPTO_OPENSSL_SUPPORT_H
#define KORVIX_CRYPTO_OPENSSL_SUPPORT_H

#include <memory>
#include <string>

struct bio_st;

// What the OpenSSL wrappers of this folder share; not for use outside it.
namespace Korvix::Crypto {

struct BioFree {
  void operator()(bio_st* bio) const;
};
using MemoryBio = std::unique_ptr<bio_st, BioFree>;

// A read-only memory BIO over the bytes of text, which must outlive it; null if the text is too
// long for one or the BIO can't be had.
MemoryBio memory_bio(const std::string& text);

// Everything written to a memory BIO so far.
std::string memory_bio_text(bio_st* bio);

// The pass phrase callback of the PEM readers and writers: user is the phrase as a zero-terminated
// text. An empty phrase fails at once, where the library's own callback would ask at the terminal.
int pass_phrase_callback(char* buffer, int size, int writing, void* user);

}  // namespace Korvix::Crypto

#endif
