#include "crypto/openssl_support.h"

#include <openssl/bio.h>

#include <climits>
#include <cstring>

namespace Korvix::Crypto {

void BioFree::operator()(bio_st* bio) const {
  BIO_free(bio);
}

MemoryBio memory_bio(const std::string& text) {
  if (text.size() > static_cast<size_t>(INT_MAX)) return nullptr;
  return MemoryBio(BIO_new_mem_buf(text.data(), static_cast<int>(text.size())));
}

std::string memory_bio_text(bio_st* bio) {
  char* data = nullptr;
  long length = BIO_get_mem_data(bio, &data);
  if (data == nullptr || length <= 0) return "";
  return std::string(data, static_cast<size_t>(length));
}

int pass_phrase_callback(char* buffer, int size, int, void* user) {
  if (user == nullptr || buffer == nullptr || size <= 0) return -1;
  size_t length = std::strlen(static_cast<const char*>(user));
  if (length == 0) return -1;
  if (length > static_cast<size_t>(size)) length = static_cast<size_t>(size);
  std::memcpy(buffer, user, length);
  return static_cast<int>(length);
}

}  // namespace Korvix::Crypto
