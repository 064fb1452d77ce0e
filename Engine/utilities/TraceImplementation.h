#pragma once

#include <atomic>
#include <cstdarg>
#include <cstdint>
#include <cstdio>
#include <ctime>
#include <string_view>
#include <sys/types.h>

#include "Engine/utilities/ByteString.h"
#include "Engine/utilities/CharString.h"
#include "Engine/utilities/Export.h"
#include "Engine/utilities/List.h"
#include "Engine/utilities/TraceFlags.h"
#include "Engine/utilities/UNIX/UNIX_Critical_Section.h"

/// \file
/// The diagnostic trace of a debugger process. Most code needs only TraceFlags.h; include
/// this header to control the trace (pause it, mark a rewind point, tell it of a fork) or
/// to write lines with a composed tag.
///
/// **Configuration.** A comma-separated text: the output, then names of trace types and a
/// size, in any order. It is the argument of TraceImplementation::instance(), or when that
/// is null comes from the environment: "QVX_DBG_TRACE_ROOT", "QVX_DBG_TRACE_MIDDLE" or
/// "QVX_DBG_TRACE_LEAF" in a process whose "GDIA_ID" starts with root, middle or leaf (any
/// case) when that variable is set, else "QVX_DBG_TRACE". When any of these is empty or
/// blank, "WZ4_DBG_TRACE" takes its place.
///
/// "QVX_DBG_TRACEHOST", unless it is blank, is a list of host names separated by ":" and keeps
/// every other host silent. An entry is compared, case and blanks included, with the name that
/// gethostname() tells and with the part of that before its first "."; a host that cannot tell
/// its name stays silent.
///
/// The output is "stdout", "stderr" (also when the text starts with ","), a file, or a
/// directory: there the file is named by "GDIA_ID" and ".", if set, the process id and
/// ".trc". An existing file is emptied. A FIFO must have a reader when it is opened. The name
/// is used in the native code page; one that came from the environment in bytes which that
/// cannot carry is used as it stands there.
///
/// A name switches its type on, with "~" or "!" before it off; the last mention counts, the
/// case of letters a to z and blanks around it do not, but those behind "~" do. "ALL" is every
/// type but "CHILD", "TLS" and "ISD", which can be named beside it; no name at all is every
/// type but "CHILD"; names switched off and none on leave the others on but "CHILD" and "TLS".
/// "ERROR" and "WARNING" are always on. "CHILD" is no kind of line: it lets a forked child go
/// on tracing. Nothing but blanks is the empty name, which is one like any other: alone it
/// switches every known type off but "ERROR" and "WARNING". Between two commas and behind the last
/// there is no name. A number from 2 to 511 is the size of the ring in megabytes, 16 otherwise;
/// other numbers are ignored.
///
/// When the type "PMD" is off, a process whose "GDIA_ID" does not start with root, middle
/// or leaf traces nothing.
///
/// **The file** begins with a header, then is a ring: when the lines behind the rewind
/// point exceed the size, writing goes on at the rewind point. Each line is flushed at once.
/// Only what the trace has written is cut or overwritten. Where anything else is in the file
/// (a standard stream opened to append, or shared with what the program or another process
/// prints; a file that somebody has added to), all lines go to its end, and it grows without
/// limit. When somebody has cut the file, the ring begins anew behind what is left. In the file
/// of the trace's own, lines at the end are appended.
///
/// **The program** is left as it is: a limit on file sizes and a pipe without reader cost
/// lines, and the signals SIGXFSZ and SIGPIPE that they raise do not reach it. (One exception:
/// a limit no larger than the file already is, set within the present second, of which the
/// trace has not heard yet.) A pipe that is full is waited for.
///
/// **Threads.** Any thread may write lines, and a line is whole. openFiles(), pause(),
/// processForked() and the destructor belong to start-up, a child just forked, or one
/// controlling thread. A thread asked to end while it writes a line ends after the line; one
/// that waits for its turn ends without it. What writes lines is therefore not `noexcept`,
/// but throws nothing of its own. A child forked while other threads trace can trace, with
/// the local time of its parent.
///
/// Nothing here reports an error or changes `errno`: a trace that cannot be written is
/// silently off, a line that cannot be written is lost.

/// A handler that can name itself in trace lines. The operation is the first virtual one.
class CUL_EXPORT GMH_HandlerDiagnostic {
 public:
  /// The text that stands for the handler in a tag.
  virtual const char* diagnosticText() const = 0;

 protected:
  GMH_HandlerDiagnostic() = default;
  GMH_HandlerDiagnostic(const GMH_HandlerDiagnostic&) = default;
  GMH_HandlerDiagnostic& operator=(const GMH_HandlerDiagnostic&) = default;
  ~GMH_HandlerDiagnostic() = default;
};

class CUL_EXPORT TraceImplementation {
 public:
  /// The row of switch bytes, under the name by which the engine knows it.
  using TraceFlags = ::TraceFlags;

  /// The answers of isTraceBitSet() for the types with a switch and, for TraceType::active,
  /// that of isActive(), as of the last opening or closing of the output. A pause leaves them
  /// as they are: callers go on composing lines, which are dropped. traceFlags mirrors them.
  TraceFlags flags;

  /// The trace of this process, made by the first call. The object lives in static storage
  /// and is not destroyed at exit.
  /// \param configuration null: the environment. Ignored by every call but the first, and but
  ///   the first after the destructor.
  static TraceImplementation* instance(const wchar_t* configuration) noexcept;

  TraceImplementation(const TraceImplementation&) = delete;
  TraceImplementation& operator=(const TraceImplementation&) = delete;

  /// Writes the line "Trace end at ...", unless the trace is paused, and closes the output,
  /// unless that is a standard stream; all switches are off then. Lines asked for afterwards are
  /// dropped; only an explicit call of instance() or traceImplementation() begins a new trace.
  ~TraceImplementation();

  /// The object's storage is static: `delete` runs the destructor and frees nothing.
  static void operator delete(void*) noexcept {}

  /// Writes one line; see ::taggedTrace().
  void taggedTrace(const char* function, unsigned line, const char* tag, const char* format, ...)
      __attribute__((format(printf, 5, 6)));

  /// Writes one line. A newline at the start of `format` goes before the time stamp. What
  /// exceeds 128000 bytes is cut; a newline always ends the line.
  /// \param function  signature text, printed up to its "("; null leaves out the line too.
  /// \param line      0: none.
  /// \param tag       may be null.
  /// \param format    as for printf().
  /// \param arguments what `format` asks for.
  void trace(const char* function, unsigned line, const char* tag, const char* format,
             va_list arguments) __attribute__((format(printf, 5, 0)));

  /// Writes a line of the trace's own, without a tag.
  void traceInternal(const char* format, ...) __attribute__((format(printf, 2, 3)));

  /// Writes one line whose tag is "tag/text of the handler", or just `tag` without handler.
  void _traceGMH(const char* function, unsigned line, const char* tag,
                 const GMH_HandlerDiagnostic* handler, const char* format, ...)
      __attribute__((format(printf, 6, 7)));

  /// Writes one line whose tag is "tag address of the session", or just `tag` without session.
  void traceSession(const char* function, unsigned line, const char* tag, const void* session,
                    const char* format, ...) __attribute__((format(printf, 6, 7)));

  /// Whether lines of `type` are wanted, be the output open or not. A name that the
  /// configuration does not know is on unless it is excluded; a null `type` is on; all are off
  /// without an output name. Types are in upper case; others are not found in the lists.
  [[nodiscard]] bool isTraceBitSet(const char* type) const noexcept;

  /// Whether the configuration switched `type` on, or completed its list with it.
  [[nodiscard]] bool isIncluded(const ByteString& type) const noexcept;

  /// Whether the configuration switched `type` off, or completed its list with it.
  [[nodiscard]] bool isExcluded(const ByteString& type) const noexcept;

  /// Adds a copy of `name` to `list`, which owns its items, unless it is there already.
  static void add(List<ByteString*>& list, const ByteString& name);

  /// Removes and deletes `name` from `list`; absent is no error.
  static void remove(List<ByteString*>& list, const ByteString& name);

  /// Whether the output is open and not paused.
  [[nodiscard]] bool isActive() const noexcept;

  /// Writes a separator line, also while paused, and lets the ring begin behind it: what was
  /// written so far is kept for good.
  /// \return the file position where the ring begins; unchanged while no output is open.
  unsigned setRewindPoint();

  /// setRewindPoint() when tracing is on, paused or not.
  /// \return its result, else 0.
  int wrap();

  /// Counts requests to pause up or down and writes no lines while there are any; rewind points
  /// are set all the same. The switches stay on.
  /// \return whether the trace is paused now; true, and nothing is counted, when tracing is off.
  bool pause(bool on) noexcept;

  /// Opens the output and writes the header; done by instance(). Does nothing after the first
  /// time, also when that opened nothing, unless processForked() has closed the output
  /// meanwhile.
  void openFiles() noexcept CUL_UNCHECKED_LOCKS;  // before any other thread writes

  /// To be called in a child after `fork`: closes the output (standard output and standard
  /// error, too) and opens it again when it was a directory or a standard stream and the
  /// type "CHILD" is on. What was a standard stream continues on a descriptor of its own. What
  /// the parent has left unflushed in a standard stream is flushed by the child, too. Requests
  /// to pause stay counted, but the child's trace is paused only by the next one.
  void processForked() noexcept CUL_UNCHECKED_LOCKS;  // the child has no other thread

 private:
  enum State : unsigned { closed = 0, active = 1, paused = 2, opening = 4 };
  // How lines stand in the output: one behind the other, as in a pipe or in a file that is
  // open to append; in a ring that holds nothing else; or among what others write there.
  enum class Layout : unsigned char { stream, ring, mixed };
  struct Tag;

  static constexpr int notTaken = -2;
  static constexpr int noCopy = -1;

  explicit TraceImplementation(const wchar_t* configuration) noexcept;

  friend class AcrossFork;
  friend void abandonTraceLines() noexcept;

  [[gnu::visibility("hidden")]] void abandonLines() noexcept
      CUL_UNCHECKED_LOCKS;  // gives back what its caller never will
  void configure(const wchar_t* configuration);
  [[gnu::visibility("hidden")]] void parse(CharString configuration, const char* variable);
  void parseToken(const CharString& token);
  void completeLists();
  void excludeUnlessNamed(const char* type);
  void refreshFlags() noexcept;
  bool isStandard() const noexcept;
  FILE* openOutput() noexcept;
  FILE* openStandard(FILE* stream) noexcept;
  FILE* openNamed() noexcept;
  void writeHeader();
  void writeTypes(bool included);
  void writeLine(const char* function, unsigned line, const Tag& tag, const char* format,
                 va_list arguments) __attribute__((format(printf, 5, 0)));
  const char* clockText(std::time_t second) noexcept CUL_NEEDS(lock_);
  [[gnu::visibility("hidden")]] void inspectOutput() noexcept CUL_NEEDS(lock_);
  [[gnu::visibility("hidden")]] void append(bool on) noexcept CUL_NEEDS(lock_);
  [[gnu::visibility("hidden")]] bool isAsLeft(bool asksForSize) noexcept CUL_NEEDS(lock_);
  [[gnu::visibility("hidden")]] void findPlace(unsigned length, unsigned limit) noexcept
      CUL_NEEDS(lock_);
  [[gnu::visibility("hidden")]] void write(std::string_view text, unsigned limit) noexcept
      CUL_NEEDS(lock_);

  // The lists own their names, and the buffer, from malloc(), is owned as well; the output is
  // unless it is a standard stream. All are raw because the engine knows these fields
  // (docs/contract.md).
  List<ByteString*> excludeList_;
  List<ByteString*> includeList_;
  char* ownedBuffer_ = nullptr;  // the output name in the native code page
  std::uint64_t startCounter_;
  CharString outputName_;
  UNIX_Critical_Section lock_;
  std::time_t startTime_;
  FILE* output_ CUL_GUARDED_BY(lock_) = nullptr;
  unsigned rewindPoint_ CUL_GUARDED_BY(lock_) = 0;
  unsigned sizeLimit_;
  unsigned currentSize_ CUL_GUARDED_BY(lock_) = 0;
  unsigned pauseCount_ = 0;
  std::atomic<State> state_ = closed;
  bool reopenInChild_ = false;
  int standardCopy_ = notTaken;  // a standard stream's descriptor, kept when it was closed
  std::time_t clockSecond_ CUL_GUARDED_BY(lock_) = -1;
  char clockText_[32] = {};  // clockSecond_ broken down
  Layout layout_ CUL_GUARDED_BY(lock_) = Layout::stream;
  bool isShared_ CUL_GUARDED_BY(lock_) = false;         // a standard stream, or a copy of one
  bool mayRaiseSignals_ CUL_GUARDED_BY(lock_) = false;  // as of clockSecond_
  off_t fileSize_ CUL_GUARDED_BY(lock_) = 0;            // as the trace has made it, in a ring
};

/// The trace of this process, made from the environment by the first call.
CUL_EXPORT TraceImplementation* traceImplementation() noexcept;
