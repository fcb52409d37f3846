#ifndef VELDRIN_INDEXGEN_PARSER_H
#define VELDRIN_INDEXGEN_PARSER_H

#include "indexgen/captured_packet.h"

namespace Veldrin::IndexGen {

// Watches the packets of the video PID and marks where the frames worth indexing lie.
class Parser {
 public:
  // Called once for each record, in stream order, with the record already in the queue.
  virtual void parse(CapturedPacket& packet) = 0;
  virtual ~Parser() = default;
};

}  // namespace Veldrin::IndexGen

#endif
