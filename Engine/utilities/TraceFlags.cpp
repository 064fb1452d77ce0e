#include "Engine/utilities/TraceFlags.h"

#include <algorithm>
#include <functional>
#include <string_view>

#include "Engine/internal/FixedLayout.h"
#include "Engine/internal/Tables.h"

// The engine knows this layout: docs/contract.md.
CUL_FIXED_FIELD(TraceFlags, bytes, 0);

namespace {

constexpr TraceFlags undecidedFlags() noexcept {
  TraceFlags flags;
  for (unsigned char& byte : flags.bytes) {
    byte = undecidedTrace;
  }
  return flags;
}

#define TAG(enumerator, tag, place) tag,
#define NOTHING(name, place)
constexpr std::string_view tags[] = {CUL_TRACE_TYPES(TAG, NOTHING)};
#undef TAG
#undef NOTHING

static_assert(areDifferentBy(tags, std::identity()), "two types of trace lines have one tag");

// What a configuration names is compared in upper case.
static_assert(std::ranges::none_of(tags,
                                   [](std::string_view tag) {
                                     return std::ranges::any_of(
                                         tag, [](char c) { return c >= 'a' && c <= 'z'; });
                                   }),
              "a tag of trace lines has small letters");

// The bytes are the first member of TraceImplementation.
static_assert(TraceFlags::size <= 32, "another type of trace lines moves the fields of the trace");

}  // namespace

constinit TraceFlags traceFlags = undecidedFlags();

void TraceFlags::clear() noexcept {
  for (unsigned char& byte : bytes) {
    __atomic_store_n(&byte, static_cast<unsigned char>(0), __ATOMIC_RELEASE);
  }
}

const char* traceTag(TraceType type) noexcept { return tags[static_cast<unsigned>(type)].data(); }
