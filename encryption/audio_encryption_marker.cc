#include "encryption/audio_encryption_marker.h"

namespace Veldrin::IndexGen {

void AudioEncryptionMarker::mark(MarkedPacket& packet) {
  packet.encrypt = true;
  packet.ready = true;
}

}  // namespace Veldrin::IndexGen
