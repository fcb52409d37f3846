#ifndef VELDRIN_TRANSPORT_PIPE_H
#define VELDRIN_TRANSPORT_PIPE_H

#include <vector>

#include "transport/packet.h"

namespace Veldrin::IndexGen {

// A stage of the chain. A stage forwards by calling process on each of its pipes in order.
class TSPipe {
 public:
  void attach(TSPipe* pipe) { pipes.push_back(pipe); }
  virtual void process(TSPacket& packet) = 0;

  std::vector<TSPipe*> pipes;  // not owned

 protected:
  ~TSPipe() = default;
};

}  // namespace Veldrin::IndexGen

#endif
