#include "tests/trace/TraceSupport.h"

#include <gmock/gmock.h>

#include "Engine/utilities/TraceImplementation.h"

using testing::ElementsAre;

void traceEach(const Strings& types) {
  for (const std::string& type : types) {
    if (traceImplementation()->isTraceBitSet(type.c_str())) {
      taggedTrace("void f(int)", 12, type.c_str(), "line of %s", type.c_str());
    }
  }
}

CUL_CHILD(TraceNothing) { static_cast<void>(isTraced(TraceType::error)); }

CUL_CHILD(TraceOneLine) { taggedTrace("void f(int)", 12, "ERROR", "a line"); }

CUL_CHILD(TraceTypesNamedByArguments) { traceEach(childArguments()); }

CUL_CHILD(ExpectTracingOff) {
  EXPECT_FALSE(isTraced(TraceType::active));
  TraceImplementation* trace = traceImplementation();
  EXPECT_FALSE(trace->isActive());
  trace->taggedTrace("f", 1, "ERROR", "dropped");
  taggedTrace("f", 1, "ERROR", "dropped");
  EXPECT_EQ(trace->wrap(), 0);
  EXPECT_EQ(trace->setRewindPoint(), 0U);
  EXPECT_TRUE(trace->pause(false));
  EXPECT_TRUE(trace->pause(true));
  EXPECT_TRUE(trace->pause(false));
  EXPECT_FALSE(trace->isActive());
  trace->processForked();
  trace->openFiles();
  EXPECT_FALSE(trace->isActive());
  trace->taggedTrace("f", 1, "ERROR", "dropped");
}

void expectOff(const Environment& environment) {
  const ChildResult r = runWith("ExpectTracingOff", environment);
  EXPECT_EQ(r.out, "");
  EXPECT_EQ(r.err, "");
}

void expectOn(const Environment& environment) {
  const ChildResult r = runWith("TraceOneLine", environment);
  EXPECT_THAT(bodyOf(r.err), ElementsAre("**ERROR: void f(12): a line"));
}
