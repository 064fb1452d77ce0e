#pragma once

#include "tests/support/StandIn.h"

/// \file
/// Tells of each variable of the environment that is read.

extern StandIn<char*(const char*)> getenvStandIn;

/// In place of `getenv`: hands the name to `announce` first; what that reads itself is not
/// announced.
template <void (*announce)(const char* name)>
char* announceAndRead(const char* name) {
  {
    const Instead unannounced(getenvStandIn, nullptr);
    announce(name);
  }
  return getenvStandIn.real(name);
}
