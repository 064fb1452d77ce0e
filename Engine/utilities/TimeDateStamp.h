#pragma once

#include <time.h>

#include "Engine/utilities/Export.h"

class EncodedString;

/// \file
/// A calendar time, as files and modules are stamped with: a plain value, in seconds.
///
/// Broken-down times are local times of the process's time zone (TZ), and daylight saving
/// is always taken as not in effect when one is read: a summer time read back lies an hour
/// later where summer time is kept. Any thread, as long as none changes TZ meanwhile;
/// nothing throws but the exhaustion of memory.

class CUL_EXPORT TimeDateStamp {
 public:
  /// Unset.
  TimeDateStamp() noexcept = default;

  /// A local time. Values out of range carry over as in mktime().
  /// \param year   a year below 201 counts from 1900: 99 is 1999, 124 is 2024.
  /// \param month  from 1 to 12.
  /// \param day    from 1 to 31.
  /// \param hour   from 0 to 23.
  /// \param minute from 0 to 59.
  /// \param second from 0 to 59.
  TimeDateStamp(unsigned year, unsigned month, unsigned day, unsigned hour, unsigned minute,
                unsigned second) noexcept;

  /// Reads fourteen digits, as asString(true) writes them, with nothing behind; or else the
  /// layout of ctime(), "Wed Jan 31 23:59:59 2024", with anything behind and any word for the
  /// weekday. Any other text, and null, gives the time -1.
  ///
  /// Both are read as `sscanf` reads numbers. The digits are six numbers of four and five times
  /// two characters at most: the last one may have one digit ("2024013123595" is five seconds
  /// past), white space may stand in front of each ("2024 1 31 2 3 4"), and a sign counts as one
  /// of a number's characters. Numbers out of range carry over as above.
  explicit TimeDateStamp(const char* text) noexcept;

  /// The local time as "20240131235959" when `compact`, else "2024/01/31 23:59:59"; all
  /// zeros when the time has no calendar date.
  [[nodiscard]] EncodedString asString(bool compact) const;

  /// All six are false when either side is unset: an unset stamp is neither equal nor
  /// unequal to anything.
  [[nodiscard]] bool operator==(const TimeDateStamp& other) const noexcept;
  [[nodiscard]] bool operator!=(const TimeDateStamp& other) const noexcept;
  [[nodiscard]] bool operator<(const TimeDateStamp& other) const noexcept;
  [[nodiscard]] bool operator<=(const TimeDateStamp& other) const noexcept;
  [[nodiscard]] bool operator>(const TimeDateStamp& other) const noexcept;
  [[nodiscard]] bool operator>=(const TimeDateStamp& other) const noexcept;

  /// Seconds from `other` to this stamp; positive infinity when either is unset.
  [[nodiscard]] double difference(const TimeDateStamp& other) const noexcept;

  /// Seconds since the epoch; 0 is unset, -1 a text that could not be read. The two moments
  /// that have these numbers cannot be told from that.
  time_t time = 0;
};
