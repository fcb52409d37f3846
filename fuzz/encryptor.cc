// The chain of the encrypted copy: TSPipeline, the Encryptor with a fixed content key and one
// certificate made by this process, writing its copy into the scratch folder, and behind it the
// IndexGenerator with a VDX2 writer, as the tool builds them with -e; then the copy is read back
// by the stream decryptor with the content key, as vdxdecrypt -K would.
//
// Layout of an input: the header of the indexing chain (see index_chain.h), then the stream.

#include <openssl/evp.h>
#include <openssl/pem.h>
#include <openssl/rsa.h>
#include <openssl/x509.h>

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <fstream>
#include <iterator>
#include <memory>
#include <ostream>
#include <string>
#include <vector>

#include "crypto/aes.h"
#include "crypto/certificate.h"
#include "encryption/encryptor.h"
#include "encryption/packet_cipher.h"
#include "encryption/stream_decryptor.h"
#include "foundation/channel/stream_writer.h"
#include "fuzz/fuzz_support.h"
#include "fuzz/index_chain.h"
#include "index2/index_writer.h"
#include "indexgen/generator.h"
#include "transport/pipeline.h"

namespace Crypto = Korvix::Crypto;
namespace Fuzz = Veldrin::Fuzz;
namespace IndexGen = Veldrin::IndexGen;

namespace {

const std::string CONTENT_KEY = "000102030405060708090a0b0c0d0e0f";

// A self-signed certificate of a 1024-bit RSA key with the common name "Fuzz", made once.
const Crypto::Certificate& certificate() {
  static const Crypto::Certificate made = [] {
    std::unique_ptr<EVP_PKEY, decltype(&EVP_PKEY_free)> key(EVP_RSA_gen(1024), EVP_PKEY_free);
    std::unique_ptr<X509, decltype(&X509_free)> x509(X509_new(), X509_free);
    if (key == nullptr || x509 == nullptr) std::abort();
    X509_set_version(x509.get(), 2);
    ASN1_INTEGER_set(X509_get_serialNumber(x509.get()), 1);
    X509_gmtime_adj(X509_getm_notBefore(x509.get()), 0);
    X509_gmtime_adj(X509_getm_notAfter(x509.get()), 86400);
    X509_NAME* name = X509_get_subject_name(x509.get());
    X509_NAME_add_entry_by_txt(name, "CN", MBSTRING_ASC,
                               reinterpret_cast<const unsigned char*>("Fuzz"), -1, -1, 0);
    X509_set_issuer_name(x509.get(), name);
    X509_set_pubkey(x509.get(), key.get());
    if (X509_sign(x509.get(), key.get(), EVP_sha256()) == 0) std::abort();
    std::unique_ptr<BIO, decltype(&BIO_free)> bio(BIO_new(BIO_s_mem()), BIO_free);
    if (bio == nullptr || PEM_write_bio_X509(bio.get(), x509.get()) != 1) std::abort();
    char* text = nullptr;
    const long length = BIO_get_mem_data(bio.get(), &text);
    Crypto::Certificate certificate;
    certificate.read_pem(std::string(text, static_cast<size_t>(length)));
    if (certificate.x509 == nullptr) std::abort();
    return certificate;
  }();
  return made;
}

// The deciphered stream goes nowhere.
class NullWriter : public Korvix::Channel::Writer {
 public:
  void basic_write(const unsigned char*, size_t count) override { offset += count; }
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  Fuzz::QuietLog& log = Fuzz::QuietLog::get();
  const Fuzz::ScratchDir& scratch = Fuzz::ScratchDir::get();
  Fuzz::Choices choices(data, size);
  const Fuzz::ChainOptions options = Fuzz::read_chain_options(choices);
  log.set_level(options.log_level);

  const std::string copy_path = scratch.file("copy.ts");
  {
    Veldrin::Index2::IndexWriter writer(0, options.block_size);
    if (!writer.open(scratch.file("copy.vdx2"), false, "")) std::abort();
    Fuzz::NullBuffer discard;
    std::ostream dump_output(&discard);
    IndexGen::IndexGenerator generator(&writer, options.include_tables, options.dump,
                                       options.seek_only, options.pcr_only, options.trim_pmt,
                                       options.ca_pid, dump_output);
    std::ofstream copy(copy_path, std::ios::out | std::ios::binary | std::ios::trunc);
    Korvix::Channel::StreamWriter copy_writer(copy);
    IndexGen::AESPacketEncryptor cipher(CONTENT_KEY, {certificate()});
    IndexGen::Encryptor encryptor(cipher, copy_writer);
    IndexGen::TSPipeline pipeline(0);
    pipeline.attach(&encryptor);
    encryptor.attach(&generator);
    Fuzz::feed(pipeline, choices.rest(), choices.rest_size(), options.chunk_sizes);
    writer.close();
  }

  // The copy is whole packets; the decryptor reads it back, whatever it makes of the key check.
  std::ifstream written(copy_path, std::ios::binary);
  std::vector<unsigned char> stream((std::istreambuf_iterator<char>(written)),
                                    std::istreambuf_iterator<char>());
  if (stream.size() % 188 != 0) std::abort();
  Crypto::AESKey key(true, 128);
  key.read_hex(CONTENT_KEY);
  NullWriter output;
  IndexGen::StreamDecryptor decryptor(key, output);
  decryptor.feed(stream.data(), stream.size());
  decryptor.finish();
  return 0;
}
