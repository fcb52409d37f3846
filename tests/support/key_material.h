#ifndef VDX_TESTS_SUPPORT_KEY_MATERIAL_H
#define VDX_TESTS_SUPPORT_KEY_MATERIAL_H

// Keys and certificates for the tests, made by the openssl command into a temporary directory the
// first time a test asks for them, and removed at the end of the test process. Nothing of it is
// committed. A target that uses this header compiles tests/e2e/tool_runner.cc and defines
// VDX_OPENSSL_COMMAND, the path of the openssl command.

#include <filesystem>
#include <memory>
#include <optional>
#include <stdexcept>
#include <string>
#include <vector>

#include "e2e/tool_runner.h"

namespace Veldrin::Testing {

// Runs the openssl command in a directory.
inline RunResult run_openssl(const std::vector<std::string>& args, const std::string& dir,
                             const std::optional<std::string>& input = std::nullopt) {
  RunRequest request;
  request.executable = VDX_OPENSSL_COMMAND;
  request.args = args;
  request.working_dir = dir;
  request.input = input;
  request.timeout_seconds = 120;
  return run_program(request);
}

// Lower-case hexadecimal digits of bytes.
inline std::string hex_of(const std::string& bytes) {
  static const char digits[] = "0123456789abcdef";
  std::string text;
  for (char byte : bytes) {
    unsigned char c = static_cast<unsigned char>(byte);
    text += digits[c >> 4];
    text += digits[c & 0x0F];
  }
  return text;
}

// The files, by name:
//   rsa1024.key, rsa2048.key, ec.key        private keys ("BEGIN PRIVATE KEY")
//   rsa1024.pem      certificate of rsa1024.key, subject CN=A
//   rsa2048.pem      certificate of rsa2048.key, subject C=DE, O=Veldrin Test, CN=Receiver Two
//   nocn.pem         certificate of rsa1024.key, subject O=Nobody In Particular, no commonName
//   ec.pem           certificate of ec.key (prime256v1), CN=Curve
//   rsa1024.der      rsa1024.pem in DER
//   trusted.pem      rsa1024.pem with trust settings ("BEGIN TRUSTED CERTIFICATE")
//   leading.pem      rsa2048.pem behind its own text dump
//   rsa1024.pub, rsa2048.pub, ec.pub        public keys ("BEGIN PUBLIC KEY")
//   rsa1024.rsapub   the public key in the older form ("BEGIN RSA PUBLIC KEY")
//   rsa1024.rsakey   the private key in the traditional form ("BEGIN RSA PRIVATE KEY")
//   rsa1024.des3     the traditional form enciphered under "secret phrase"
//   rsa1024.p8enc    the PKCS#8 form enciphered under "secret phrase"
//   empty            an empty file
//   directory/       a directory
//   cn-*.der         hand-built certificates of rsa1024.key's public key whose subject is given
//                    by the caller of subject_certificate
class KeyMaterial {
 public:
  static const KeyMaterial& get() {
    static const std::unique_ptr<KeyMaterial> material(new KeyMaterial());
    return *material;
  }

  std::string path(const std::string& name) const { return dir.file(name); }
  std::string text(const std::string& name) const { return read_file(path(name)); }

  // Runs openssl in the material's directory; throws with its error text if it fails.
  std::string openssl(const std::vector<std::string>& args,
                      const std::optional<std::string>& input = std::nullopt) const {
    RunResult result = run_openssl(args, dir.path, input);
    if (result.status != 0) {
      std::string command;
      for (const std::string& arg : args) command += " " + arg;
      throw std::runtime_error("openssl" + command + " failed: " + result.err);
    }
    return result.out;
  }

  // A certificate in DER built field by field by openssl asn1parse, with the public key of
  // rsa1024.key, a signature of one zero byte (nothing here checks it), and as subject the RDNs
  // given: each entry is one attribute, "TYPE:VALUE" in the notation of asn1parse -genconf
  // (e.g. "UTF8String:Receiver", "FORMAT:HEX,BMPSTRING:0041"), of the type commonName unless
  // the entry starts with "O=".
  std::string subject_certificate(const std::string& name,
                                  const std::vector<std::string>& subject) const {
    std::string config =
        "asn1 = SEQUENCE:certificate\n"
        "[certificate]\n"
        "tbs = SEQUENCE:tbs\n"
        "algorithm = SEQUENCE:signature_algorithm\n"
        "signature = FORMAT:HEX,BITSTRING:00\n"
        "[tbs]\n"
        "version = EXPLICIT:0,INTEGER:2\n"
        "serial = INTEGER:7\n"
        "signature = SEQUENCE:signature_algorithm\n"
        "issuer = SEQUENCE:issuer\n"
        "validity = SEQUENCE:validity\n"
        "subject = SEQUENCE:subject\n"
        "key = SEQUENCE:key\n"
        "[signature_algorithm]\n"
        "algorithm = OID:sha256WithRSAEncryption\n"
        "parameter = NULL\n"
        "[issuer]\n"
        "rdn = SET:issuer_rdn\n"
        "[issuer_rdn]\n"
        "attribute = SEQUENCE:issuer_cn\n"
        "[issuer_cn]\n"
        "type = OID:commonName\n"
        "value = UTF8String:Issuer\n"
        "[validity]\n"
        "from = UTCTIME:250101000000Z\n"
        "to = UTCTIME:350101000000Z\n"
        "[key]\n"
        "algorithm = SEQUENCE:key_algorithm\n"
        "key = FORMAT:HEX,BITSTRING:" +
        rsa1024_public_hex +
        "\n"
        "[key_algorithm]\n"
        "algorithm = OID:rsaEncryption\n"
        "parameter = NULL\n"
        "[subject]\n";
    std::string sections;
    for (size_t i = 0; i < subject.size(); i++) {
      std::string n = std::to_string(i);
      std::string entry = subject[i];
      std::string type = "commonName";
      if (entry.rfind("O=", 0) == 0) {
        type = "organizationName";
        entry = entry.substr(2);
      }
      config += "rdn" + n + " = SET:rdn" + n + "\n";
      sections += "[rdn" + n + "]\nattribute = SEQUENCE:attribute" + n + "\n";
      sections += "[attribute" + n + "]\ntype = OID:" + type + "\nvalue = " + entry + "\n";
    }
    std::string file = "cn-" + name + ".der";
    write_file(path(file + ".cnf"), config + sections);
    openssl({"asn1parse", "-genconf", file + ".cnf", "-out", file, "-noout"});
    return text(file);
  }

 private:
  KeyMaterial() {
    openssl({"genpkey", "-algorithm", "RSA", "-pkeyopt", "rsa_keygen_bits:1024", "-out",
             "rsa1024.key"});
    openssl({"genpkey", "-algorithm", "RSA", "-pkeyopt", "rsa_keygen_bits:2048", "-out",
             "rsa2048.key"});
    openssl({"genpkey", "-algorithm", "EC", "-pkeyopt", "ec_paramgen_curve:prime256v1", "-out",
             "ec.key"});
    certificate("rsa1024.key", "/CN=A", "rsa1024.pem");
    certificate("rsa2048.key", "/C=DE/O=Veldrin Test/CN=Receiver Two", "rsa2048.pem");
    certificate("rsa1024.key", "/O=Nobody In Particular", "nocn.pem");
    certificate("ec.key", "/CN=Curve", "ec.pem");
    openssl({"x509", "-in", "rsa1024.pem", "-outform", "DER", "-out", "rsa1024.der"});
    openssl({"x509", "-in", "rsa1024.pem", "-trustout", "-addtrust", "emailProtection", "-out",
             "trusted.pem"});
    openssl({"x509", "-in", "rsa2048.pem", "-text", "-out", "leading.pem"});
    for (const char* key : {"rsa1024", "rsa2048", "ec"})
      openssl(
          {"pkey", "-in", std::string(key) + ".key", "-pubout", "-out", std::string(key) + ".pub"});
    openssl({"rsa", "-in", "rsa1024.key", "-RSAPublicKey_out", "-out", "rsa1024.rsapub"});
    openssl({"rsa", "-in", "rsa1024.key", "-traditional", "-out", "rsa1024.rsakey"});
    openssl({"rsa", "-in", "rsa1024.key", "-traditional", "-des3", "-passout", "pass:secret phrase",
             "-out", "rsa1024.des3"});
    openssl({"pkcs8", "-topk8", "-in", "rsa1024.key", "-v2", "aes-128-cbc", "-passout",
             "pass:secret phrase", "-out", "rsa1024.p8enc"});
    write_file(path("empty"), "");
    std::filesystem::create_directory(path("directory"));
    rsa1024_public_hex =
        hex_of(openssl({"rsa", "-in", "rsa1024.key", "-RSAPublicKey_out", "-outform", "DER"}));
  }

  void certificate(const std::string& key, const std::string& subject,
                   const std::string& out) const {
    openssl({"req", "-x509", "-new", "-key", key, "-subj", subject, "-days", "30", "-out", out});
  }

  ScratchDir dir;
  std::string rsa1024_public_hex;
};

}  // namespace Veldrin::Testing

#endif
