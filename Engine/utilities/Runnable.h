#pragma once

#include "Engine/utilities/Export.h"

/// \file
/// Work for a thread of its own, see ThreadManager and ThreadListener.

/// Whoever makes a Runnable owns it and keeps it until its run has ended: the thread classes
/// never delete it, and it has no virtual destructor.
class CUL_EXPORT Runnable {
 public:
  /// Does the work, once, on the worker thread. What it throws ends the process with status
  /// 99.
  /// \return the result of the run.
  virtual int work() = 0;

 protected:
  Runnable() = default;
  Runnable(const Runnable&) = default;
  Runnable& operator=(const Runnable&) = default;
  ~Runnable() = default;
};
