#ifndef VELDRIN_ENCRYPTION_MARKED_PACKET_H
#define VELDRIN_ENCRYPTION_MARKED_PACKET_H

#include "transport/packet.h"

namespace Veldrin::IndexGen {

// A packet held by the encrypting stage, with its own copy of the payload, and what the marker of
// its PID has decided about it.
struct MarkedPacket : TSPacket {
  MarkedPacket() = default;
  explicit MarkedPacket(const TSPacket& packet) : TSPacket(packet) {}

  bool encrypt = true;  // the payload is to be enciphered
  bool ready = false;   // the decision is final: the packet may leave the queue
};

}  // namespace Veldrin::IndexGen

#endif
