// Enciphering transport packet payloads of 184 bytes with AES-128 in ECB mode, as the encrypted
// copy does: with one cipher for all packets, and with a new cipher for each packet.

#include <benchmark/benchmark.h>

#include <vector>

#include "crypto/aes.h"

namespace {

constexpr int32_t PAYLOAD_SIZE = 184;

Korvix::Crypto::AESCipher make_cipher() {
  Korvix::Crypto::AESCipher cipher;
  cipher.key.read_hex("000102030405060708090a0b0c0d0e0f");
  return cipher;
}

void BM_OneCipherForAllPackets(benchmark::State& state) {
  Korvix::Crypto::AESCipher cipher = make_cipher();
  std::vector<unsigned char> payload(PAYLOAD_SIZE, 0x47);
  for (auto _ : state) {
    cipher.encrypt(payload.data(), PAYLOAD_SIZE, true);
    benchmark::DoNotOptimize(payload.data());
  }
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations()) * PAYLOAD_SIZE);
}
BENCHMARK(BM_OneCipherForAllPackets);

void BM_NewCipherForEachPacket(benchmark::State& state) {
  const Korvix::Crypto::AESCipher prototype = make_cipher();
  std::vector<unsigned char> payload(PAYLOAD_SIZE, 0x47);
  for (auto _ : state) {
    Korvix::Crypto::AESCipher cipher = prototype;
    cipher.encrypt(payload.data(), PAYLOAD_SIZE, true);
    benchmark::DoNotOptimize(payload.data());
  }
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations()) * PAYLOAD_SIZE);
}
BENCHMARK(BM_NewCipherForEachPacket);

}  // namespace

BENCHMARK_MAIN();
