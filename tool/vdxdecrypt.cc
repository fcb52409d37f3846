// Deciphers the encrypted copy that vdxindex -e writes; see encryption/decrypt_command.h.

#include <iostream>
#include <string>
#include <vector>

#include "encryption/decrypt_command.h"

int main(int argc, char** argv) {
  std::ios::sync_with_stdio(false);
  const std::vector<std::string> args(argv, argv + argc);
  return Veldrin::IndexGen::decrypt_command(args, std::cin, std::cout, std::cerr);
}
