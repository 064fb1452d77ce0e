// The reader's filters and forms of output: whatever bytes lines, patterns and names have, each
// form keeps its own rules, tells the same lines, and sends nothing to a terminal that it obeys.

#include <algorithm>
#include <nlohmann/json.hpp>
#include <string>
#include <sys/mman.h>
#include <unistd.h>
#include <vector>

#include "fuzz/Fuzz.h"
#include "programs/enginetrace/Filter.h"
#include "programs/enginetrace/HtmlWriter.h"
#include "programs/enginetrace/JsonWriter.h"
#include "programs/enginetrace/LineBody.h"
#include "programs/enginetrace/Options.h"
#include "programs/enginetrace/PrintableText.h"
#include "programs/enginetrace/Selection.h"
#include "programs/enginetrace/Summary.h"
#include "programs/enginetrace/TextWriter.h"
#include "programs/enginetrace/TraceEventWriter.h"

namespace {

using nlohmann::json;

struct Made {
  std::string whole;
  WallTime time;
  const Process* process;
};

// What counts lines and passes them on.
class Counted : public LineWriter {
 public:
  explicit Counted(LineWriter& to) : to_(to) {}
  void write(const Line& line) override {
    ++lines;
    rulers += isRuler(line.whole) ? 1 : 0;
    newlines += static_cast<std::size_t>(std::count(line.whole.begin(), line.whole.end(), '\n'));
    to_.write(line);
  }
  void gap() override {
    ++gaps;
    to_.gap();
  }
  void finish() override { to_.finish(); }

  std::size_t lines = 0;
  std::size_t rulers = 0;
  std::size_t newlines = 0;
  std::size_t gaps = 0;

 private:
  LineWriter& to_;
};

// Lines end at a newline; a vertical tab is one in a text.
std::vector<Made> linesOf(std::string text, const Process& one, const Process& other) {
  std::vector<Made> lines;
  WallTime time = 1'795'350'221 * microsecondsPerSecond;
  while (!text.empty()) {
    const std::size_t end = std::min(text.find('\n'), text.size());
    std::string whole = text.substr(0, end);
    std::replace(whole.begin(), whole.end(), '\v', '\n');
    time += beginsLine(whole) ? timeOfDay(whole.data()) - 43'200 * microsecondsPerSecond : 1;
    lines.push_back({whole, time, end % 2 == 0 ? &one : &other});
    text.erase(0, end + 1);
  }
  return lines;
}

std::string takeWritten(int file) {
  std::string text(static_cast<std::size_t>(lseek(file, 0, SEEK_CUR)), '\0');
  FUZZ_CHECK(pread(file, text.data(), text.size(), 0) == static_cast<ssize_t>(text.size()));
  FUZZ_CHECK(ftruncate(file, 0) == 0 && lseek(file, 0, SEEK_SET) == 0);
  return text;
}

struct Asked {
  Options options;
  SelectionLimits limits;
};

// What a form makes of the lines, and which of them came to it.
template <class Make, class Check>
void tryForm(const std::vector<Made>& lines, const Asked& asked, Make make, Check check) {
  static const int file = memfd_create("form", MFD_CLOEXEC);
  Output output(file);
  auto writer = make(output);
  Counted counted(writer);
  const Filter filter(asked.options, {0, 4'000'000'000 * microsecondsPerSecond});
  Selection selection(filter, asked.limits, counted);
  for (const auto& [whole, time, process] : lines) {
    const ExactBytes exact(whole);
    if (!selection.isComplete()) {
      selection.write({{exact.data(), exact.size()}, time, process});
    }
  }
  selection.finish();
  output.flush();
  check(takeWritten(file), counted);
}

std::size_t linesIn(const std::string& text) {
  FUZZ_CHECK(text.empty() || text.ends_with('\n'));
  return static_cast<std::size_t>(std::count(text.begin(), text.end(), '\n'));
}

void checkForTerminal(const std::string& text, bool hasColour) {
  for (const char c : text) {
    FUZZ_CHECK(c == '\n' || c == '\t' || (c == '\33' && hasColour) ||
               (static_cast<unsigned char>(c) >= 0x20 && c != 0x7F));
  }
  // Throws where a text is not UTF-8.
  static_cast<void>(json(text).dump());
}

void tryText(const std::vector<Made>& lines, const Asked& asked, const TextStyle& style) {
  tryForm(
      lines, asked, [&](Output& output) { return TextWriter(output, style); },
      [&](const std::string& text, const Counted& counted) {
        checkForTerminal(text, style.hasColour);
        FUZZ_CHECK(linesIn(text) == counted.lines + counted.newlines + counted.gaps);
      });
}

void checkJson(const std::string& text, const Counted& counted) {
  FUZZ_CHECK(linesIn(text) == counted.lines);
  for (std::size_t at = 0; at < text.size();) {
    const std::size_t end = text.find('\n', at);
    const json object = json::parse(text.begin() + static_cast<std::ptrdiff_t>(at),
                                    text.begin() + static_cast<std::ptrdiff_t>(end));
    FUZZ_CHECK(object["time"].get<std::string>().size() == 26);
    FUZZ_CHECK(object["process"].is_string() && object["text"].is_string());
    at = end + 1;
  }
}

void checkTraceEvents(const std::string& text, const Counted& counted) {
  std::size_t instants = 0;
  const json document = json::parse(text);
  for (const json& event : document["traceEvents"]) {
    instants += event["ph"] == "i" ? 1 : 0;
    FUZZ_CHECK(event["pid"].is_number_unsigned() && event["tid"].is_number_unsigned());
    FUZZ_CHECK(!event.contains("dur") || event["dur"].is_number_unsigned());
  }
  FUZZ_CHECK(instants == counted.lines - counted.rulers);
}

void checkPage(const std::string& page, const Counted& counted) {
  const std::string begin = "<template class=\"lines\">";
  const std::string text = page.substr(0, page.find("<template id=\"lanes\">"));
  std::size_t found = 0;
  for (std::size_t at = 0; (at = text.find(begin, at)) != std::string::npos;) {
    at += begin.size();
    const std::size_t end = text.find('<', at);
    FUZZ_CHECK(text.compare(end, 11, "</template>") == 0);
    found += linesIn(text.substr(at, end - at));
    at = end;
  }
  FUZZ_CHECK(found == counted.lines - counted.rulers);
  FUZZ_CHECK(page.ends_with("</html>\n"));
}

void trySummary(const std::vector<Made>& lines, const Asked& asked, const Process& process) {
  TraceFacts facts;
  facts.process = process;
  facts.program = facts.build = process.path;
  tryForm(
      lines, asked,
      [&](Output& output) { return Summary(output, std::vector<const TraceFacts*>{&facts}); },
      [](const std::string& text, const Counted&) {
        checkForTerminal(text, false);
        static_cast<void>(linesIn(text));
      });
}

// A name in a complaint stays on its line, and as it is when nothing in it is obeyed.
void tryName(const std::string& name) {
  const std::string shown = shownName(name);
  checkForTerminal(shown, false);
  FUZZ_CHECK(linesIn(shown + '\n') == 1);
  FUZZ_CHECK((shown == name) == (isPrintable(name) && name.find('\n') == std::string::npos));
}

}  // namespace

void setUpFuzzing() { setenv("TZ", "UTC0", 1); }

// Which form and which filters there are, what these are, two names, and the lines.
void fuzz(FuzzInput& input) {
  const unsigned form = input.choice(6);
  Asked asked;
  const unsigned filters = input.choice(8);
  asked.limits = {input.choice(4), input.choice(4), input.choice(3), {}};
  if (const unsigned head = input.choice(8); head != 0) {
    asked.limits.head = head;
  }
  input.text();
  const std::string regex = input.text();
  const std::string glob = input.text();
  const std::string type = input.text();
  if ((filters & 1) != 0 && Pattern(regex).error().empty()) {
    asked.options.pattern = regex;
  }
  if ((filters & 2) != 0 && Pattern::glob(glob).error().empty()) {
    asked.options.functions = {glob};
  }
  if ((filters & 4) != 0) {
    asked.options.notTypes = {type};
  }
  const Process one = processOf(input.text());
  const Process other = processOf(input.text());
  const std::string rest = input.rest();
  tryName(rest);
  const std::vector<Made> lines = linesOf(rest, one, other);

  switch (form) {
    case 0:
      tryText(lines, asked, {});
      break;
    case 1:
      tryText(lines, asked, {9, true, true});
      break;
    case 2:
      tryForm(
          lines, asked, [](Output& output) { return JsonWriter(output); }, checkJson);
      break;
    case 3:
      tryForm(
          lines, asked, [](Output& output) { return TraceEventWriter(output); }, checkTraceEvents);
      break;
    case 4:
      tryForm(
          lines, asked, [](Output& output) { return HtmlWriter(output); }, checkPage);
      break;
    default:
      trySummary(lines, asked, one);
  }
}
