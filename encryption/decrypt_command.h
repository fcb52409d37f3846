#ifndef VELDRIN_ENCRYPTION_DECRYPT_COMMAND_H
#define VELDRIN_ENCRYPTION_DECRYPT_COMMAND_H

#include <cstdint>
#include <istream>
#include <ostream>
#include <string>
#include <vector>

namespace Veldrin::IndexGen {

// The receiving side of the encrypted copy as a command:
//   vdxdecrypt [-k KEY.pem [-n NAME] | -K HEX] ENCRYPTED.ts CLEAR.ts
//   vdxdecrypt -l ENCRYPTED.ts
// args[0] is the program's name, used in messages. in and out stand for the name "-"; out also
// takes the usage text and the listing of -l, err the messages. Gives the exit status
// (DecryptStatus). A named CLEAR.ts is written under a temporary name beside it and renamed at
// the end, so that a failure leaves no file behind.
int32_t decrypt_command(const std::vector<std::string>& args, std::istream& in, std::ostream& out,
                        std::ostream& err);

// The usage text.
void decrypt_usage(std::ostream& out, const std::string& program);

}  // namespace Veldrin::IndexGen

#endif
