#include <cstdarg>
#include <string>
#include <unistd.h>

#include "Engine/utilities/ByteString.h"
#include "Engine/utilities/List.h"
#include "Engine/utilities/TraceFlags.h"
#include "Engine/utilities/TraceImplementation.h"

#include "tests/torture/Workload.h"

namespace {

class Handler : public GMH_HandlerDiagnostic {
 public:
  virtual ~Handler() = default;
  const char* diagnosticText() const override { return "handler"; }
};

__attribute__((format(printf, 2, 3))) void traceWith(TraceImplementation& trace, const char* format,
                                                     ...) {
  va_list arguments;
  va_start(arguments, format);
  trace.trace("void traceWith()", 1, "ERROR", format, arguments);
  va_end(arguments);
}

void traceLines() {
  CUL_TRACE(TraceType::error, "void traceLines()", 1, "a line");
  taggedTrace("void traceLines()", 2, traceTag(TraceType::error), "line %d", 2);
  TraceImplementation& trace = *traceImplementation();
  trace.taggedTrace("void traceLines()", 3, "ERROR", "line %d", 3);
  traceWith(trace, "line %d", 4);
  trace.traceInternal("line %d", 5);
  const Handler handler;
  trace._traceGMH("void traceLines()", 6, "GMH", &handler, "line %d", 6);
  trace.traceSession("void traceLines()", 7, "DXPL", &trace, "line %d", 7);
  const std::string longText(10000, 'x');
  trace.taggedTrace("void traceLines()", 8, "ERROR", "%s", longText.c_str());
}

void useTheRing() {
  TraceImplementation& trace = *traceImplementation();
  trace.setRewindPoint();
  trace.wrap();
  const std::string text(1000, 'x');
  for (int i = 0; i < 200; ++i) {
    trace.taggedTrace("void useTheRing()", 1, "ERROR", "%s", text.c_str());
  }
}

void askTheTrace() {
  TraceImplementation& trace = *traceImplementation();
  CUL_EXPECT_THAT(TraceImplementation::instance(L"") == &trace);
  CUL_EXPECT_THAT(trace.isTraceBitSet("ERROR") == decideTrace(TraceType::error));
  static_cast<void>(trace.isIncluded(ByteString("ERROR")));
  static_cast<void>(trace.isExcluded(ByteString("ERROR")));
  if (trace.isActive()) {
    trace.pause(true);
    CUL_EXPECT_THAT(!trace.isActive());
    trace.pause(false);
  }
}

void keepListsOfTypes() {
  List<ByteString*> list;
  struct Deletion {
    List<ByteString*>& list;
    ~Deletion() {
      for (const ByteString* const one : list) {
        delete one;
      }
    }
  } const deletion{list};
  TraceImplementation::add(list, ByteString("ONE"));
  TraceImplementation::add(list, ByteString("TWO"));
  TraceImplementation::add(list, ByteString("ONE"));
  TraceImplementation::remove(list, ByteString("ONE"));
  CUL_EXPECT_THAT(list.count() == 1);
}

void reopen() {
  TraceImplementation& trace = *traceImplementation();
  trace.openFiles();
  trace.processForked();
  CUL_TRACE(TraceType::error, "void reopen()", 1, "a line of the child");
}

void setSwitches() {
  TraceFlags flags;
  flags.set(*traceImplementation());
  const bool isTraced = flags[TraceType::error];
  CUL_EXPECT_THAT(isTraced == traceImplementation()->isTraceBitSet("ERROR"));
  flags.clear();
}

void endTheTrace() {
  traceImplementation()->~TraceImplementation();
  _exit(0);
}

const Workload workloads[] = {
    {"trace lines", traceLines},          {"ring", useTheRing},
    {"state of the trace", askTheTrace},  {"lists of types", keepListsOfTypes},
    {"trace of a child", reopen},         {"switches", setSwitches},
    {"end of the trace", endTheTrace, 0},
};

}  // namespace

std::span<const Workload> traceWorkloads() { return workloads; }
