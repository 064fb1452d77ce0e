#pragma once

/// \file
/// What the host says.

#include "programs/common/Messages.h"

/// In the order of the rows of programMessages.
enum class Message : std::size_t {
  notFound,
  moduleNotLoaded,
  noWindows,
  endedWithStatus,
  endedBySignal,
  failedAt,
  failure,

  usage,
  whatItDoes,
  options,
  settings,
  attachIsForTheEngine,
  invalidOption,

  takesOnlyJson,
  isRefused,
  wrongLength,
  notWithin,
  noneOf,
  noVariable,
  nameHead,
  typeHead,
  permittedHead,
  defaultHead,
  valueHead,
  fromHead,

  processesNotRead,
  processHead,
  argumentsHead,
  propertiesTake,
  convertTakes,
  unknownCodePage,
  inputFailed,
  outputFailed,
  outputNotWritten,
  noRegularFile,
  lineTooLong,
};
