#pragma once

#include <string>

#include "programs/enginetrace/Line.h"

/// \file
/// How the reader writes times.

/// Appends a time with its date: "2026-11-22T12:23:41.000098".
/// \param separator between the date and the time.
void appendTime(std::string& to, WallTime time, char separator = 'T');

/// Appends a length of time as people say it, in the two units that tell the most: "2 d 3 h",
/// "21 min 19 s", "3.250 s", "17.004 ms", "80 us". Below 0 it is the time backward: "-80 us".
void appendDuration(std::string& to, WallTime duration);
