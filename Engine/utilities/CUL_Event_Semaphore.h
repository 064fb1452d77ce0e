#pragma once

#include "Engine/utilities/Export.h"

/// \file
/// The interface of an event that threads wait for.
///
/// An event is closed when made. post() opens it and wakes every waiter; it stays open, and
/// all waits pass, until reset() closes it. Waiting itself never closes it. Events are
/// shared between threads and are not copyable.

class CUL_EXPORT CUL_Event_Semaphore {
 public:
  /// The unit of a time limit. Any value but Seconds counts as Milliseconds.
  enum WaitTimeScale : unsigned int { Seconds = 0, Milliseconds = 1 };

  CUL_Event_Semaphore() = default;
  CUL_Event_Semaphore(const CUL_Event_Semaphore&) = delete;
  CUL_Event_Semaphore& operator=(const CUL_Event_Semaphore&) = delete;
  virtual ~CUL_Event_Semaphore();

  /// Waits until the event is open, for a limited time.
  /// \param amount         the limit, 0 to 65535.
  /// \param scale          the unit of `amount`.
  /// \param throwOnTimeout whether running out of time is an error.
  /// \return true when the time ran out, false when the event is open.
  /// \throws CUL_SemaphoreError with status 110 (ETIMEDOUT) when the time ran out and
  ///   `throwOnTimeout` is set.
  virtual bool wait(unsigned short amount, WaitTimeScale scale, bool throwOnTimeout) = 0;

  /// Waits until the event is open.
  virtual void wait() = 0;

  /// Closes the event.
  virtual void reset() = 0;

  /// Opens the event and wakes all who wait.
  virtual void post() = 0;
};
