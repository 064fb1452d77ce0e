#include "Engine/utilities/StdException.h"

#include <new>
#include <string>
#include <type_traits>

#include <gmock/gmock.h>

#include "tests/support/Child.h"
#include "tests/support/Famine.h"
#include "tests/trace/TraceSupport.h"

using testing::ElementsAre;
using testing::IsEmpty;

namespace {

std::map<std::string, std::string> tracing(const std::string& types) {
  return {{"GDIA_ID", "root"}, {"QVX_DBG_TRACE", "," + types}};
}

}  // namespace

TEST(StdException, HoldsTextFileLineAndStatusInThisOrder) {
  const StdException exception("Engine/a.cpp", 4294967295U, "no such thing", -7);
  EXPECT_EQ(exception.text.view(), "no such thing");
  EXPECT_EQ(exception.fileName.view(), "Engine/a.cpp");
  EXPECT_EQ(exception.line, 4294967295U);
  EXPECT_EQ(exception.status, -7);

  const auto* start = reinterpret_cast<const char*>(&exception);
  EXPECT_EQ(static_cast<const void*>(&exception.text), start);
  EXPECT_EQ(reinterpret_cast<const char*>(&exception.fileName), start + sizeof(EncodedString));
  EXPECT_EQ(reinterpret_cast<const char*>(&exception.line), start + 2 * sizeof(EncodedString));
  EXPECT_EQ(reinterpret_cast<const char*>(&exception.status),
            start + 2 * sizeof(EncodedString) + sizeof(unsigned));
}

TEST(StdException, HasNoVirtualOperations) { EXPECT_FALSE(std::is_polymorphic_v<StdException>); }

TEST(StdException, NullTextsCountAsEmpty) {
  const StdException exception(nullptr, 1, nullptr, 2);
  EXPECT_EQ(exception.text.length(), 0U);
  EXPECT_EQ(exception.fileName.length(), 0U);
  const StdException textless("f", 1, 2);
  EXPECT_EQ(textless.text.length(), 0U);
}

TEST(StdException, TakesItsTextsAsUtf8) {
  const StdException exception("caf\xC3\xA9.cpp", 1, "\xE2\x82\xAC", 2);
  EXPECT_EQ(exception.fileName.view(), "caf\xC3\xA9.cpp");
  EXPECT_EQ(exception.text.view(), "\xE2\x82\xAC");
}

TEST(StdException, IsThrownByThrowException) {
  try {
    StdException::throwException("file", 12, -3);
    FAIL() << "came back";
  } catch (const StdException& exception) {
    EXPECT_EQ(exception.fileName.view(), "file");
    EXPECT_EQ(exception.line, 12U);
    EXPECT_EQ(exception.text.length(), 0U);
    EXPECT_EQ(exception.status, -3);
  }
  try {
    StdException::throwException("file", 13, "text", 4);
    FAIL() << "came back";
  } catch (const StdException& exception) {
    EXPECT_EQ(exception.line, 13U);
    EXPECT_EQ(exception.text.view(), "text");
    EXPECT_EQ(exception.status, 4);
  }
}

TEST(StdException, CanBeCopiedWithoutSharing) {
  StdException original("file", 1, "text", 2);
  const StdException copy = original;
  original.text = EncodedString("other", EncodedString::utf8);
  EXPECT_EQ(copy.text.view(), "text");
  EXPECT_EQ(copy.line, 1U);
}

#if !defined(__SANITIZE_ADDRESS__) && !defined(__SANITIZE_THREAD__)

CUL_CHILD(ExceptionThrownWithoutMemory) {
  // The library's own handler would end the process.
  std::set_new_handler(nullptr);
  // There are small blocks for texts, but the trace has not been made.
  const EncodedString text("text", EncodedString::utf8);
  int status = 0;
  {
    const Famine famine;
    try {
      StdException::throwException("file", 1, "text", 7);
    } catch (const StdException& exception) {
      status = exception.status;
    }
  }
  EXPECT_EQ(status, 7);
  const std::string large(100000, 't');
  bool isThrown = false;
  {
    const Famine famine;
    try {
      StdException::throwException("file", 1, large.c_str(), 7);
    } catch (const std::bad_alloc&) {
      isThrown = true;
    }
  }
  EXPECT_TRUE(isThrown);
}

TEST(StdException, IsThrownWithoutMemoryOrPassesBadAllocOn) {
  const ChildResult r = runChild("ExceptionThrownWithoutMemory");
  EXPECT_EQ(r.status, 0) << r.out << r.err;
}

#endif

CUL_CHILD(ExceptionsMadeAndCaught) {
  try {
    StdException::throwException("void f(int)", 12, -1);
  } catch (const StdException& exception) {
    exception.trace("void g()", 34);
  }
  try {
    StdException::throwException("Engine/a.cpp", 56, "pipe() failed", 7);
  } catch (const StdException& exception) {
    exception.trace("void h()", 78);
  }
  const StdException withoutText("Engine/b.cpp", 9, nullptr, 8);
}

TEST(StdException, TracesItsCreationAndOnRequestItsCatch) {
  const ChildResult r = runChild("ExceptionsMadeAndCaught", childWith(tracing("EXCPTN")));
  EXPECT_EQ(r.status, 0) << r.out;
  EXPECT_THAT(
      bodyOf(r.err),
      ElementsAre(
          "**EXCPTN: void f(12): StdException created;  Status = -1",
          "**EXCPTN: void g(34): StdException caught; thrown from void f(int)(12); Status = -1, "
          "Text = ",
          "**EXCPTN: Engine/a.cpp(56): StdException created;  Status = 7, Text = pipe() failed",
          "**EXCPTN: void h(78): StdException caught; thrown from Engine/a.cpp(56); Status = 7, "
          "Text = pipe() failed",
          "**EXCPTN: Engine/b.cpp(9): StdException created;  Status = 8, Text = "));
}

TEST(StdException, TracesNothingWhenItsTypeIsOff) {
  const ChildResult r = runChild("ExceptionsMadeAndCaught", childWith(tracing("AGENT")));
  EXPECT_EQ(r.status, 0) << r.out;
  EXPECT_THAT(bodyOf(r.err), IsEmpty());
  EXPECT_EQ(headerOf(r.err).included, (std::vector<std::string>{"AGENT", "ERROR", "WARNING"}));
}
