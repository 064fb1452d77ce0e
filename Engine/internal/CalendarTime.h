#pragma once

#include <ctime>

/// \file
/// The C library's conversions between points in time and local time, under a lock that is
/// taken around a fork: its own fork does not look after the lock of its time zone. See
/// AcrossFork. Any thread.

/// localtime_r().
/// \return whether there is such a date.
[[nodiscard]] bool toLocalTime(std::time_t time, std::tm& fields) noexcept;

/// mktime().
[[nodiscard]] std::time_t fromLocalTime(std::tm& fields) noexcept;
