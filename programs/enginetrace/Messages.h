#pragma once

/// \file
/// What the reader says.

#include "programs/common/Messages.h"

/// In the order of the rows of programMessages.
enum class Message : std::size_t {
  usage,
  whatItDoes,
  options,

  onlyTypes,
  notTypes,
  onlyErrors,
  onlyThread,
  onlyFunctions,
  onlyFound,
  ignoreCase,
  onlyProcesses,
  since,
  until,
  linesAfter,
  linesBefore,
  linesAround,
  head,
  tail,
  follow,
  dates,
  colour,
  pager,
  json,
  traceEvent,
  html,
  summary,
  help,
  version,

  noFile,
  invalidOption,
  valueMissing,
  noValue,
  invalidValue,
  invalidPattern,
  notTogether,
  isATrace,

  notATrace,
  failed,
  noTraceInFolder,
  standardOutput,
  noMemory,

  cutLines,
  unreadBytes,
  orderUnknown,
  dateUnknown,
  linesMissed,
  reading,
};
