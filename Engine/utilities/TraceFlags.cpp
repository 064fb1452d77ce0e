#include "Engine/utilities/TraceFlags.h"

#include "Engine/internal/FixedLayout.h"

// The engine knows this layout: docs/contract.md.
CUL_FIXED_SIZE(TraceFlags, 28);
CUL_FIXED_FIELD(TraceFlags, bytes, 0);

namespace {

constexpr TraceFlags undecidedFlags() noexcept {
  TraceFlags flags;
  for (unsigned char& byte : flags.bytes) {
    byte = undecidedTrace;
  }
  return flags;
}

constexpr const char* tags[TraceFlags::size] = {
    "**",  "ERROR", "WARNING", "ALL",   "AGENT", "AGTT", "CLI",    "CONNECTION", "CUL",  "DBX",
    "MFI", "DSL",   "CLIP",    "WZ4",   "GDE",   "GDET", "GMH",    "GMHT",       "GMHS", "ISD",
    "LCC", "PMD",   "TLS",     "ENTRY", "DXPL",  "EXPR", "EXCPTN", "RDR"};

}  // namespace

constinit TraceFlags traceFlags = undecidedFlags();

void TraceFlags::clear() noexcept {
  for (unsigned char& byte : bytes) {
    __atomic_store_n(&byte, static_cast<unsigned char>(0), __ATOMIC_RELEASE);
  }
}

const char* traceTag(TraceType type) noexcept { return tags[static_cast<unsigned>(type)]; }
