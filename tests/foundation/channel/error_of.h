#ifndef VDX_TESTS_FOUNDATION_CHANNEL_ERROR_OF_H
#define VDX_TESTS_FOUNDATION_CHANNEL_ERROR_OF_H

#include "foundation/channel/error.h"

// The Error an action throws; code -1 with "no error" when it throws none.
template <typename F>
Korvix::Channel::Error error_of(F&& action) {
  try {
    action();
  } catch (const Korvix::Channel::Error& error) {
    return error;
  }
  return Korvix::Channel::Error(-1, "no error");
}

#endif
