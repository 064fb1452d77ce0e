#include <fcntl.h>
#include <functional>
#include <malloc.h>
#include <memory>
#include <string>

#include <gtest/gtest.h>

#include "Engine/utilities/Descriptor.h"

#include "programs/enginetrace/Filter.h"
#include "programs/enginetrace/HtmlWriter.h"
#include "programs/enginetrace/JsonWriter.h"
#include "programs/enginetrace/Selection.h"
#include "programs/enginetrace/Summary.h"
#include "programs/enginetrace/TextWriter.h"
#include "programs/enginetrace/TraceEventWriter.h"
#include "tests/enginetrace/Written.h"

// What all forms of output promise.

// A sanitizer has memory of its own.
extern "C" __attribute__((weak)) std::size_t __sanitizer_get_current_allocated_bytes();

namespace {

std::size_t bytesInUse() {
  if (__sanitizer_get_current_allocated_bytes != nullptr) {
    return __sanitizer_get_current_allocated_bytes();
  }
  const struct mallinfo2 heap = mallinfo2();
  return heap.uordblks + heap.hblkhd;
}

// Lines of eight threads, some of them errors, as no two are alike.
void writeLines(LineWriter& writer, unsigned from, unsigned until) {
  for (unsigned i = from; i < until; ++i) {
    const std::string number = std::to_string(i);
    const std::string whole =
        lineOf("worker " + std::to_string(i % 8),
               i % 100 == 0 ? "**ERROR: void A::f(1): failed, number " + number
                            : "**GMH: void A::g(2): text " + number);
    writer.write({whole, noon + i, i % 8 < 4 ? &root : &leaf});
  }
}

void expectFlat(const std::string& name,
                const std::function<std::unique_ptr<LineWriter>(Output&)>& make) {
  const Descriptor null(open("/dev/null", O_WRONLY | O_CLOEXEC));
  Output output(null.get());
  const std::unique_ptr<LineWriter> writer = make(output);
  constexpr unsigned few = 40'000;  // More than a chunk of the page.
  writeLines(*writer, 0, few);
  const std::size_t before = bytesInUse();
  writeLines(*writer, few, 6 * few);
  // Less than a byte for each line.
  EXPECT_LT(bytesInUse(), before + 100'000) << name;
  writer->finish();
}

}  // namespace

TEST(LineWriters, TakeNoMoreMemoryForMoreLines) {
  expectFlat("text", [](Output& output) {
    return std::make_unique<TextWriter>(output, TextStyle{12, true, true});
  });
  expectFlat("JSON", [](Output& output) { return std::make_unique<JsonWriter>(output); });
  expectFlat("trace events",
             [](Output& output) { return std::make_unique<TraceEventWriter>(output); });
  expectFlat("page", [](Output& output) { return std::make_unique<HtmlWriter>(output); });
  TraceFacts ofRoot;
  ofRoot.process = root;
  TraceFacts ofLeaf;
  ofLeaf.process = leaf;
  expectFlat("summary", [&](Output& output) {
    return std::make_unique<Summary>(output, std::vector<const TraceFacts*>{&ofRoot, &ofLeaf});
  });
  Options options;
  options.types = {"ERROR"};
  const Filter filter(options, {});
  std::unique_ptr<LineWriter> text;
  expectFlat("neighbours", [&](Output& output) {
    text = std::make_unique<TextWriter>(output, TextStyle());
    return std::make_unique<Selection>(filter, SelectionLimits{20, 20, 0, {}}, *text);
  });
}
