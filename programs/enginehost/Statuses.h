#pragma once

/// \file
/// Exit statuses of the host's own, as shells use them.

constexpr int statusUsage = 2;
constexpr int statusHostFailed = 125;
constexpr int statusNotStarted = 126;
constexpr int statusNotFound = 127;
