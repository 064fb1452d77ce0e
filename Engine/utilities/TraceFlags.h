#pragma once

#include "Engine/utilities/Export.h"

/// \file
/// What every floor of the library needs in order to trace: the switch bytes and the one
/// tagged call. The trace itself, TraceImplementation, stands high above and is included
/// by few; this header includes nothing of the library but the export macro.
///
/// A disabled trace is one byte read and one branch, without a call:
/// \code
///   CUL_TRACE(TraceType::error, "StdPipe::StdPipe()", __LINE__, "pipe() failed: %d", errno);
/// \endcode
///
/// The process's trace is made by the first test of a switch, wherever that happens; as
/// with every process-wide object, that first test belongs on the main thread before a
/// second thread exists. Testing and tracing keep `errno` and throw nothing; they are not
/// `noexcept`, since a thread that is asked to end can be unwound from there. Any thread may
/// trace.

class TraceImplementation;

/// The table of the types of trace lines, in the order of their switch bytes, which never
/// changes: a new type goes behind the last one.
///
/// `TYPE(enumerator, tag, place)` stands for a type and `WISH(name, place)` for a name that a
/// configuration may hold and that is no type of lines. A place is that in the second order, the
/// one of the known types (see TraceImplementation): 1, 2 and so on, 0 for a name that is not
/// among them.
#define CUL_TRACE_TYPES(TYPE, WISH) \
  WISH("CHILD", 3)                  \
  TYPE(active, "**", 0)             \
  TYPE(error, "ERROR", 23)          \
  TYPE(warning, "WARNING", 24)      \
  TYPE(all, "ALL", 0)               \
  TYPE(agent, "AGENT", 1)           \
  TYPE(agtt, "AGTT", 2)             \
  TYPE(cli, "CLI", 4)               \
  TYPE(connection, "CONNECTION", 5) \
  TYPE(cul, "CUL", 6)               \
  TYPE(dbx, "DBX", 7)               \
  TYPE(mfi, "MFI", 0)               \
  TYPE(dsl, "DSL", 8)               \
  TYPE(clip, "CLIP", 0)             \
  TYPE(wz4, "WZ4", 14)              \
  TYPE(gde, "GDE", 15)              \
  TYPE(gdet, "GDET", 16)            \
  TYPE(gmh, "GMH", 17)              \
  TYPE(gmht, "GMHT", 18)            \
  TYPE(gmhs, "GMHS", 19)            \
  TYPE(isd, "ISD", 20)              \
  TYPE(lcc, "LCC", 9)               \
  TYPE(pmd, "PMD", 21)              \
  TYPE(tls, "TLS", 0)               \
  TYPE(entry, "ENTRY", 10)          \
  TYPE(dxpl, "DXPL", 11)            \
  TYPE(expr, "EXPR", 13)            \
  TYPE(excptn, "EXCPTN", 12)        \
  TYPE(rdr, "RDR", 22)

/// \cond
#define CUL_TRACE_ENUMERATOR(enumerator, tag, place) enumerator,
// NOLINTNEXTLINE(bugprone-macro-parentheses): one more term of a sum.
#define CUL_TRACE_COUNT(enumerator, tag, place) +1
#define CUL_TRACE_NOTHING(name, place)
/// \endcond

/// The kinds of trace lines that have a switch, each the index of its switch byte. `active` is
/// about whether tracing is on at all; lines of this type carry the tag "**".
enum class TraceType : unsigned char { CUL_TRACE_TYPES(CUL_TRACE_ENUMERATOR, CUL_TRACE_NOTHING) };

/// The row of switch bytes, one per TraceType, each 1 or 0. TraceImplementation names this
/// type TraceImplementation::TraceFlags and has it as its first member.
struct CUL_EXPORT TraceFlags {
  /// Types of trace lines.
  static constexpr unsigned size = 0 CUL_TRACE_TYPES(CUL_TRACE_COUNT, CUL_TRACE_NOTHING);

  /// By TraceType. Read one through operator[] where another thread may be switching.
  unsigned char bytes[size] = {};

  /// The switch of `type`. Any thread.
  [[nodiscard]] bool operator[](TraceType type) const noexcept {
    return __atomic_load_n(&bytes[static_cast<unsigned>(type)], __ATOMIC_ACQUIRE) == 1;
  }

  /// Switches everything off.
  void clear() noexcept;

  /// Asks `trace` about every type and stores the answers.
  void set(TraceImplementation& trace);
};

#undef CUL_TRACE_ENUMERATOR
#undef CUL_TRACE_COUNT
#undef CUL_TRACE_NOTHING

/// The switches of the process's trace. Until that trace exists each byte is
/// `undecidedTrace`, so that the first test of a switch makes it.
extern CUL_EXPORT TraceFlags traceFlags;

/// See traceFlags.
inline constexpr unsigned char undecidedTrace = 2;

/// Makes the process's trace and tests the switch of `type`; isTraced() calls it once.
[[nodiscard]] CUL_EXPORT bool decideTrace(TraceType type);

/// Whether the process's trace takes lines of `type`.
[[nodiscard]] inline bool isTraced(TraceType type) {
  const unsigned char flag =
      __atomic_load_n(&traceFlags.bytes[static_cast<unsigned>(type)], __ATOMIC_ACQUIRE);
  return flag != 0 && (flag != undecidedTrace || decideTrace(type));
}

/// The tag of lines of `type`: "ERROR", "WARNING" and so on, "**" for TraceType::active.
[[nodiscard]] CUL_EXPORT const char* traceTag(TraceType type) noexcept;

/// Writes one line to the process's trace; callers test the switch first.
/// \param function the caller's signature text; what follows its "(" is not printed.
/// \param line     source line, or 0 for none.
/// \param tag      a trace type's name or another short text, may be null.
/// \param format   as for printf, without a final newline.
CUL_EXPORT void taggedTrace(const char* function, unsigned line, const char* tag,
                            const char* format, ...) __attribute__((format(printf, 4, 5)));

/// Traces under the tag of `type` when its switch is on; the format's arguments are
/// evaluated only then. `CUL_TRACE(type, function, line, format, ...)`.
#define CUL_TRACE(type, function, line, ...)                        \
  do {                                                              \
    if (isTraced(type)) {                                           \
      taggedTrace((function), (line), traceTag(type), __VA_ARGS__); \
    }                                                               \
  } while (false)
