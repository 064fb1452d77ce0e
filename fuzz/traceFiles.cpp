// The reader of traces: whatever a file holds, lines come out once, whole and in an order, and the
// parts of each are parts of it.

#include <set>
#include <string>
#include <vector>

#include "fuzz/Fuzz.h"
#include "programs/enginetrace/LineStart.h"
#include "programs/enginetrace/TraceFile.h"
#include "tests/support/TemporaryFolder.h"

namespace {

bool isPart(std::string_view part, std::string_view whole) {
  return part.empty() ||
         (part.data() >= whole.data() && part.data() + part.size() <= whole.data() + whole.size());
}

void checkParts(std::string_view line) {
  const ExactBytes exact(line);
  const std::string_view whole(exact.data(), exact.size());
  const Parts parts = partsOf(whole);
  for (const std::string_view part :
       {parts.thread, parts.type, parts.detail, parts.function, parts.text}) {
    FUZZ_CHECK(isPart(part, whole));
  }
  FUZZ_CHECK(whole.ends_with(parts.text));
  FUZZ_CHECK(typeOf(whole) == parts.type);
}

void checkFile(const std::string& path, const std::string& bytes) {
  TraceFile file(path);
  std::string lines;
  Line line;
  while (file.next(line)) {
    FUZZ_CHECK(beginsLine(line.whole));
    FUZZ_CHECK(bytes.find(line.whole) != std::string::npos);
    FUZZ_CHECK(line.process != nullptr);
    checkParts(line.whole);
    lines += line.whole;
    lines += '\n';
  }
  FUZZ_CHECK(lines.size() <= bytes.size() + 1);
  FUZZ_CHECK(file.facts().unreadBytes <= bytes.size());
  file.rewind();
  std::string again;
  for (std::string_view some; !(some = file.nextBytes()).empty();) {
    again += some;
  }
  FUZZ_CHECK(again == lines);
}

}  // namespace

void setUpFuzzing() { setenv("TZ", "UTC0", 1); }

void fuzz(FuzzInput& input) {
  const std::string path = fuzzFolder() + "/root.1.trc";
  const std::string bytes = input.rest();
  writeFile(path, bytes);
  if (looksLikeATrace(bytes)) {
    checkFile(path, bytes);
    return;
  }
  try {
    checkFile(path, bytes);
    FUZZ_CHECK(false);
  } catch (const NotATrace&) {
  }
}
