#include "encryption/decrypt_command.h"

#include <fcntl.h>
#include <signal.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <fstream>
#include <iterator>
#include <memory>
#include <optional>

#include "crypto/aes.h"
#include "crypto/rsa.h"
#include "encryption/key_list.h"
#include "encryption/stream_decryptor.h"
#include "foundation/channel/stream_writer.h"

namespace Veldrin::IndexGen {

namespace {

constexpr size_t READ_CHUNK = 1 << 20;
constexpr size_t MAX_KEY_DIGITS = 32;
const std::string STANDARD_NAME = "-";

struct Options {
  bool list = false;
  std::optional<std::string> private_key_file;
  std::optional<std::string> name;
  std::optional<std::string> key_hex;
  std::vector<std::string> files;
};

// A failure with its exit status and message.
struct Failure {
  DecryptStatus status;
  std::string message;
};

std::string system_error(int number) {
  return number != 0 ? std::string(": ") + std::strerror(number) : std::string();
}

bool is_hex_digit(char c) {
  return (c >= '0' && c <= '9') || (c >= 'a' && c <= 'f') || (c >= 'A' && c <= 'F');
}

// The path of the temporary output, for the signal handler: set while one exists.
char temporary_path[4096];
volatile sig_atomic_t temporary_exists = 0;
constexpr int CLEANED_SIGNALS[] = {SIGINT, SIGTERM, SIGHUP};

extern "C" void remove_temporary_and_reraise(int signal_number) {
  if (temporary_exists) unlink(temporary_path);
  ::signal(signal_number, SIG_DFL);
  raise(signal_number);
}

// The output file under a temporary name beside it, made with the modes an ordinary new file
// gets; removed at destruction unless it has been renamed to its own name.
class TemporaryOutput {
 public:
  explicit TemporaryOutput(const std::string& target_) : target(target_) {}
  TemporaryOutput(const TemporaryOutput&) = delete;
  TemporaryOutput& operator=(const TemporaryOutput&) = delete;

  ~TemporaryOutput() {
    if (path.empty()) return;
    if (stream.is_open()) stream.close();
    unlink(path.c_str());
    forget();
  }

  std::optional<Failure> open() {
    struct stat info;
    if (stat(target.c_str(), &info) == 0 && S_ISDIR(info.st_mode))
      return Failure{DECRYPT_FILE_ERROR, "can't write " + target + system_error(EISDIR)};
    std::string pattern = target + ".part.XXXXXX";
    if (pattern.size() >= sizeof temporary_path)
      return Failure{DECRYPT_FILE_ERROR, "can't create " + target + system_error(ENAMETOOLONG)};
    std::vector<char> name(pattern.begin(), pattern.end());
    name.push_back('\0');
    // Signals that end the process remove the file as well.
    std::memcpy(temporary_path, name.data(), name.size());
    struct sigaction action = {};
    action.sa_handler = remove_temporary_and_reraise;
    sigemptyset(&action.sa_mask);
    for (size_t i = 0; i < std::size(CLEANED_SIGNALS); i++)
      sigaction(CLEANED_SIGNALS[i], &action, &previous[i]);
    handlers = true;

    const int descriptor = mkstemp(name.data());
    if (descriptor < 0) {
      const int number = errno;
      restore_handlers();
      return Failure{DECRYPT_FILE_ERROR, "can't create " + target + system_error(number)};
    }
    path = name.data();
    std::memcpy(temporary_path, name.data(), name.size());
    temporary_exists = 1;
    const mode_t mask = umask(0);
    umask(mask);
    fchmod(descriptor, static_cast<mode_t>(0666 & ~mask));
    close(descriptor);
    stream.open(path, std::ios::out | std::ios::binary | std::ios::trunc);
    if (!stream) return Failure{DECRYPT_FILE_ERROR, "can't create " + target + system_error(errno)};
    return std::nullopt;
  }

  std::optional<Failure> commit() {
    stream.flush();
    if (!stream) return write_failure();
    stream.close();
    if (stream.fail()) return write_failure();
    if (rename(path.c_str(), target.c_str()) != 0)
      return Failure{DECRYPT_FILE_ERROR, "can't write " + target + system_error(errno)};
    path.clear();
    forget();
    return std::nullopt;
  }

  Failure write_failure() const {
    return Failure{DECRYPT_FILE_ERROR, "can't write " + target + system_error(errno)};
  }

  std::ofstream stream;

 private:
  void forget() {
    temporary_exists = 0;
    restore_handlers();
  }

  void restore_handlers() {
    if (!handlers) return;
    for (size_t i = 0; i < std::size(CLEANED_SIGNALS); i++)
      sigaction(CLEANED_SIGNALS[i], &previous[i], nullptr);
    handlers = false;
  }

  std::string target;
  std::string path;
  struct sigaction previous[std::size(CLEANED_SIGNALS)] = {};
  bool handlers = false;
};

// Parses the command line; a Failure for a bad one, std::nullopt with options filled otherwise.
// help is set for -? and --help; show_usage when the usage text should follow the message.
std::optional<Failure> parse(const std::vector<std::string>& args, Options& options, bool& help,
                             bool& show_usage) {
  bool options_end = false;
  for (size_t i = 1; i < args.size(); i++) {
    const std::string& arg = args[i];
    if (options_end || arg.empty() || arg == STANDARD_NAME || arg[0] != '-') {
      options.files.push_back(arg);
      continue;
    }
    auto value = [&]() -> std::optional<std::string> {
      if (i + 1 >= args.size()) return std::nullopt;
      return args[++i];
    };
    if (arg == "--") {
      options_end = true;
    } else if (arg == "-?" || arg == "--help") {
      help = true;
      return std::nullopt;
    } else if (arg == "-l" || arg == "--list") {
      options.list = true;
    } else if (arg == "-k" || arg == "--private-key") {
      options.private_key_file = value();
      if (!options.private_key_file)
        return Failure{DECRYPT_BAD_COMMAND_LINE, arg + " needs the file of the private key"};
    } else if (arg == "-n" || arg == "--name") {
      options.name = value();
      if (!options.name) return Failure{DECRYPT_BAD_COMMAND_LINE, arg + " needs a name"};
    } else if (arg == "-K" || arg == "--key") {
      options.key_hex = value();
      if (!options.key_hex)
        return Failure{DECRYPT_BAD_COMMAND_LINE, arg + " needs the key in hexadecimal"};
    } else {
      show_usage = true;
      return Failure{DECRYPT_BAD_COMMAND_LINE, "unknown option " + arg};
    }
  }

  if (options.list) {
    if (options.private_key_file || options.name || options.key_hex)
      return Failure{DECRYPT_BAD_COMMAND_LINE, "-l deciphers nothing and takes no -k, -n or -K"};
    if (options.files.size() != 1)
      return Failure{DECRYPT_BAD_COMMAND_LINE, "-l takes one encrypted stream"};
    return std::nullopt;
  }
  if (options.private_key_file && options.key_hex)
    return Failure{DECRYPT_BAD_COMMAND_LINE, "-k and -K exclude each other"};
  if (options.name && !options.private_key_file)
    return Failure{DECRYPT_BAD_COMMAND_LINE, "-n names a recipient for -k"};
  if (!options.private_key_file && !options.key_hex)
    return Failure{DECRYPT_BAD_COMMAND_LINE, "a key is needed: -k KEY.pem or -K HEX"};
  if (options.key_hex) {
    const std::string& hex = *options.key_hex;
    bool digits = !hex.empty() && hex.size() <= MAX_KEY_DIGITS;
    for (char c : hex) digits = digits && is_hex_digit(c);
    if (!digits)
      return Failure{DECRYPT_BAD_COMMAND_LINE,
                     "-K needs 1 to 32 hexadecimal digits, not \"" + hex + "\""};
  }
  if (options.files.size() != 2)
    return Failure{DECRYPT_BAD_COMMAND_LINE,
                   options.files.size() < 2 ? "the encrypted stream and the file for the clear "
                                              "stream are needed"
                                            : "too many files: " + options.files[2]};
  return std::nullopt;
}

// Reads the private key of -k.
std::optional<Failure> load_private_key(const std::string& file, Korvix::Crypto::RSAKey& key) {
  std::ifstream stream(file, std::ios::in | std::ios::binary);
  if (!stream) return Failure{DECRYPT_FILE_ERROR, "can't open " + file + system_error(errno)};
  const std::string text{std::istreambuf_iterator<char>(stream), std::istreambuf_iterator<char>()};
  if (stream.bad()) return Failure{DECRYPT_FILE_ERROR, "can't read " + file + system_error(errno)};
  key.read_pem(text);
  if (!key.valid)
    return Failure{DECRYPT_NO_PRIVATE_KEY,
                   file + " holds no RSA private key (a certificate or public key is not enough, "
                          "and an enciphered key must be deciphered first)"};
  return std::nullopt;
}

// Feeds the whole input to the decryptor; a Failure names the input.
std::optional<Failure> run(std::istream& input, const std::string& name, StreamDecryptor& decryptor) {
  std::vector<unsigned char> buffer(READ_CHUNK);
  auto stream_failure = [&] { return Failure{decryptor.status, name + ": " + decryptor.message}; };
  for (;;) {
    errno = 0;
    input.read(reinterpret_cast<char*>(buffer.data()), static_cast<std::streamsize>(buffer.size()));
    const auto count = static_cast<size_t>(input.gcount());
    if (input.bad()) return Failure{DECRYPT_FILE_ERROR, "can't read " + name + system_error(errno)};
    if (count > 0 && !decryptor.feed(buffer.data(), count)) break;
    if (count < buffer.size()) break;
  }
  if (!decryptor.finish()) return stream_failure();
  return std::nullopt;
}

}  // namespace

void decrypt_usage(std::ostream& out, const std::string& program) {
  out << "Usage:\n"
      << "  " << program << " -k KEY.pem [-n NAME] ENCRYPTED.ts CLEAR.ts\n"
      << "  " << program << " -K HEX ENCRYPTED.ts CLEAR.ts\n"
      << "  " << program << " -l ENCRYPTED.ts\n"
      << "\n"
      << "Deciphers the encrypted copy of a stream that vdxindex -e writes. The key list is\n"
      << "found through the PAT, the PMT of the first program and its CA descriptor\n"
      << "(CA_system_ID 0x4B4C); every packet whose transport_scrambling_control is 2 has\n"
      << "the whole 16-byte blocks at the start of its payload deciphered with AES-128 and\n"
      << "those two bits cleared. Every other byte is copied as it is, the key list packets\n"
      << "and the rewritten PMT included. \"-\" names standard input or standard output.\n"
      << "\n"
      << "Options:\n"
      << "  -?  --help              Print this help\n"
      << "  -k  --private-key FILE  Unwrap the content key from the key list with the RSA\n"
      << "                          private key in FILE (PEM, not enciphered)\n"
      << "  -n  --name NAME         With -k, take the recipient named NAME (the commonName\n"
      << "                          of its certificate); without -n every recipient is\n"
      << "                          tried in turn\n"
      << "  -K  --key HEX           The content key itself: 1 to 32 hexadecimal digits, as\n"
      << "                          given to vdxindex -Ek (missing digits count as 0); the\n"
      << "                          key list isn't read\n"
      << "  -l  --list              Show the key list (recipients, key sizes, content\n"
      << "                          cipher) on standard output and decipher nothing\n"
      << "\n"
      << "Packets ahead of the key list are held back, up to 32 MiB of the stream. The key\n"
      << "is checked on the first enciphered packet that starts a PES packet. CLEAR.ts is\n"
      << "written under a temporary name beside it and renamed at the end, so that a\n"
      << "failure leaves no file behind; with \"-\" as CLEAR.ts, what was written before a\n"
      << "failure stays written.\n"
      << "\n"
      << "Exit status: 0 done; 1 bad command line; 2 a file can't be opened, read or\n"
      << "written; 3 not a whole stream of 188-byte packets (lost sync, last packet cut\n"
      << "short); 4 no key list found (no PAT, no PMT, no CA descriptor 0x4B4C or no key\n"
      << "list section); 5 damaged key list (CRC, atoms, version, content cipher); 6 wrong\n"
      << "key (no recipient named NAME, none that the private key unwraps, a key list\n"
      << "without recipients, or a key that doesn't decipher a PES start code); 7 the -k\n"
      << "file holds no RSA private key.\n";
}

int32_t decrypt_command(const std::vector<std::string>& args, std::istream& in, std::ostream& out,
                        std::ostream& err) {
  const std::string program = args.empty() ? "vdxdecrypt" : args[0];
  auto report = [&](const Failure& failure) {
    err << program << ": " << failure.message << "\n";
    return static_cast<int32_t>(failure.status);
  };

  if (args.size() <= 1) {
    decrypt_usage(err, program);
    return DECRYPT_BAD_COMMAND_LINE;
  }
  Options options;
  bool help = false;
  bool show_usage = false;
  if (std::optional<Failure> failure = parse(args, options, help, show_usage)) {
    report(*failure);
    if (show_usage) decrypt_usage(err, program);
    return failure->status;
  }
  if (help) {
    decrypt_usage(out, program);
    return DECRYPT_DONE;
  }

  Korvix::Crypto::RSAKey private_key(true);
  if (options.private_key_file) {
    if (auto failure = load_private_key(*options.private_key_file, private_key))
      return report(*failure);
  }

  const std::string& input_file = options.files[0];
  const bool standard_input = input_file == STANDARD_NAME;
  const std::string input_name = standard_input ? "standard input" : input_file;
  std::ifstream file;
  if (!standard_input) {
    struct stat info;
    if (stat(input_file.c_str(), &info) == 0 && S_ISDIR(info.st_mode))
      return report({DECRYPT_FILE_ERROR, "can't open " + input_file + system_error(EISDIR)});
    file.open(input_file, std::ios::in | std::ios::binary);
    if (!file) return report({DECRYPT_FILE_ERROR, "can't open " + input_file + system_error(errno)});
  }
  std::istream& input = standard_input ? in : file;

  if (options.list) {
    StreamDecryptor decryptor;
    if (auto failure = run(input, input_name, decryptor)) return report(*failure);
    out << "Key list on PID " << decryptor.key_list_pid << ", announced by the PMT of program "
        << decryptor.program_number << " on PID " << decryptor.pmt_pid << "\n";
    list_key_list(out, *decryptor.key_list);
    out.flush();
    return DECRYPT_DONE;
  }

  const std::string& output_file = options.files[1];
  const bool standard_output = output_file == STANDARD_NAME;
  std::unique_ptr<TemporaryOutput> temporary;
  if (!standard_output) {
    temporary = std::make_unique<TemporaryOutput>(output_file);
    if (auto failure = temporary->open()) return report(*failure);
  }
  std::ostream& output = standard_output ? out : temporary->stream;
  Korvix::Channel::StreamWriter writer(output);

  std::unique_ptr<StreamDecryptor> decryptor;
  if (options.key_hex) {
    Korvix::Crypto::AESKey key;
    key.read_hex(*options.key_hex);
    decryptor = std::make_unique<StreamDecryptor>(key, writer);
  } else {
    decryptor = std::make_unique<StreamDecryptor>(private_key, options.name, writer);
  }

  if (auto failure = run(input, input_name, *decryptor)) {
    // The decryptor fails with this status only when the output can't be written.
    if (failure->status == DECRYPT_FILE_ERROR && decryptor->failed())
      return report(temporary ? temporary->write_failure()
                              : Failure{DECRYPT_FILE_ERROR, "can't write standard output"});
    return report(*failure);
  }
  if (temporary) {
    if (auto failure = temporary->commit()) return report(*failure);
  } else {
    output.flush();
    if (!output) return report({DECRYPT_FILE_ERROR, "can't write standard output"});
  }
  if (!decryptor->warning.empty()) err << program << ": warning: " << decryptor->warning << "\n";
  return DECRYPT_DONE;
}

}  // namespace Veldrin::IndexGen
