#ifndef VELDRIN_ENCRYPTION_AUDIO_ENCRYPTION_MARKER_H
#define VELDRIN_ENCRYPTION_AUDIO_ENCRYPTION_MARKER_H

#include "encryption/encryption_marker.h"

namespace Veldrin::IndexGen {

// Audio is enciphered whole, PES headers included, and never waits.
class AudioEncryptionMarker : public EncryptionMarker {
 public:
  void mark(MarkedPacket& packet) override;
};

}  // namespace Veldrin::IndexGen

#endif
