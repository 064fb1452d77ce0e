#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <filesystem>
#include <memory>
#include <new>
#include <string>
#include <sys/resource.h>
#include <unistd.h>
#include <vector>

#include "Engine/utilities/Descriptor.h"
#include "Engine/utilities/ProductData.h"

#include "programs/common/Printable.h"
#include "programs/common/StandardStreams.h"
#include "programs/common/StartSignals.h"
#include "programs/enginetrace/Filter.h"
#include "programs/enginetrace/Follow.h"
#include "programs/enginetrace/HtmlWriter.h"
#include "programs/enginetrace/JsonWriter.h"
#include "programs/enginetrace/LineLength.h"
#include "programs/enginetrace/Merge.h"
#include "programs/enginetrace/Messages.h"
#include "programs/enginetrace/Options.h"
#include "programs/enginetrace/Output.h"
#include "programs/enginetrace/Pager.h"
#include "programs/enginetrace/PrintableText.h"
#include "programs/enginetrace/Progress.h"
#include "programs/enginetrace/Selection.h"
#include "programs/enginetrace/Summary.h"
#include "programs/enginetrace/TextWriter.h"
#include "programs/enginetrace/TraceEventWriter.h"
#include "programs/enginetrace/Traces.h"

namespace {

constexpr int statusNotWritten = 1;
constexpr int statusNotRead = 2;

// The library would trace the work of the reader, perhaps into the very file that is read.
void traceNothing() {
  for (const char* variable : {"QVX_DBG_TRACE", "QVX_DBG_TRACE_ROOT", "QVX_DBG_TRACE_MIDDLE",
                               "QVX_DBG_TRACE_LEAF", "WZ4_DBG_TRACE"}) {
    unsetenv(variable);
  }
}

// Each file of a merge is open.
void openAsManyFilesAsMayBe() {
  rlimit limit = {};
  if (getrlimit(RLIMIT_NOFILE, &limit) == 0) {
    limit.rlim_cur = limit.rlim_max;
    setrlimit(RLIMIT_NOFILE, &limit);
  }
}

bool isAtTerminal(int descriptor) { return isatty(descriptor) != 0; }

bool isColoured(const Options& options) {
  switch (options.colour) {
    case Colour::always:
      return true;
    case Colour::never:
      return false;
    case Colour::automatic:
      break;
  }
  const char* const noColour = std::getenv("NO_COLOR");
  return isAtTerminal(STDOUT_FILENO) && (noColour == nullptr || *noColour == '\0');
}

TextStyle styleOf(const Options& options, const Traces& traces) {
  TextStyle style;
  style.hasDates = options.hasDates;
  style.hasColour = options.colour == Colour::always;
  if (traces.areSeveral()) {
    style.markWidth = 1;
    for (const Traces::Trace& trace : traces.all()) {
      style.markWidth = std::max(style.markWidth, trace.process.mark.size());
    }
  }
  return style;
}

std::vector<const TraceFacts*> factsOf(const Traces& traces) {
  std::vector<const TraceFacts*> facts;
  for (const Traces::Trace& trace : traces.all()) {
    facts.push_back(&trace.file->facts());
  }
  return facts;
}

std::unique_ptr<LineWriter> writerOf(const Options& options, const Traces& traces, Output& output) {
  switch (options.form) {
    case Form::json:
      return std::make_unique<JsonWriter>(output);
    case Form::traceEvent:
      return std::make_unique<TraceEventWriter>(output);
    case Form::html:
      return std::make_unique<HtmlWriter>(output);
    case Form::summary:
      return std::make_unique<Summary>(output, factsOf(traces));
    case Form::text:
      break;
  }
  return std::make_unique<TextWriter>(output, styleOf(options, traces));
}

Merge mergeOf(const Traces& traces) {
  std::vector<Merge::Source> sources;
  for (const Traces::Trace& trace : traces.all()) {
    sources.push_back({trace.file.get(), &trace.process});
  }
  return Merge(sources);
}

std::uint64_t countFound(const Traces& traces, const Filter& filter) {
  std::uint64_t count = 0;
  Line line;
  for (const Traces::Trace& trace : traces.all()) {
    while (trace.file->next(line)) {
      count += filter.isInTime(line) && filter.finds(line.whole) ? 1 : 0;
    }
  }
  return count;
}

SelectionLimits limitsOf(const Options& options, const Traces& traces, const Filter& filter) {
  SelectionLimits limits{options.before, options.after, 0, options.head};
  if (options.tail) {
    const std::uint64_t found = countFound(traces, filter);
    limits.skip = found > *options.tail ? found - *options.tail : 0;
  }
  return limits;
}

// What is found in a single trace can be written as it stands there: no line needs its time, and
// none is kept.
bool isCopied(const Options& options, const Traces& traces, const Filter& filter) {
  return options.form == Form::text && !options.follows && traces.all().size() == 1 &&
         filter.takesAllTimes() && options.before == 0 && options.after == 0 && !options.head &&
         !options.tail && styleOf(options, traces).isPlain();
}

void put(std::string_view lines, Output& output) {
  if (isPrintable(lines)) {
    output.put(lines);
  } else {
    std::string printable;
    appendPrintable(printable, lines);
    output.put(printable);
  }
}

// Puts the lines out that are found, as many as follow each other at once.
void copyFound(std::string_view lines, const Filter& filter, Output& output) {
  std::size_t run = 0;
  for (std::size_t start = 0; start < lines.size();) {
    const std::size_t end = start + lengthOfLine(lines.substr(start));
    if (!filter.finds(lines.substr(start, end - start - 1))) {
      put(lines.substr(run, start - run), output);
      run = end;
    }
    start = end;
  }
  put(lines.substr(run), output);
}

void copy(TraceFile& file, const Filter& filter, Output& output) {
  for (std::string_view lines = file.nextBytes(); !lines.empty(); lines = file.nextBytes()) {
    if (filter.takesAll()) {
      put(lines, output);
    } else {
      copyFound(lines, filter, output);
    }
  }
}

void show(const Options& options, Traces& traces, Output& output) {
  const Filter filter(options, traces.span());
  if (isCopied(options, traces, filter)) {
    copy(*traces.all().front().file, filter, output);
    output.flush();
    return;
  }
  const std::unique_ptr<LineWriter> writer = writerOf(options, traces, output);
  Selection selection(filter, limitsOf(options, traces, filter), *writer);
  for (const Traces::Trace& trace : traces.all()) {
    trace.file->rewind();
  }
  if (options.follows) {
    Follow(traces).run(selection, output);
  } else {
    Merge lines = mergeOf(traces);
    for (Line line; !selection.isComplete() && lines.next(line);) {
      selection.write(line);
    }
  }
  selection.finish();
  output.flush();
}

bool isRead(const Traces& traces, const std::string& path) {
  return std::any_of(traces.all().begin(), traces.all().end(), [&](const Traces::Trace& trace) {
    std::error_code ignored;
    return std::filesystem::equivalent(trace.process.path, path, ignored);
  });
}

int showInPage(const Options& options, Traces& traces) {
  const std::string name = shownName(options.page);
  if (isRead(traces, options.page)) {
    complain(Message::isATrace, name.c_str());
    return statusNotRead;
  }
  const Descriptor page(open(options.page.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0666));
  try {
    if (!page.isOpen()) {
      throw OutputFailed(errno, std::generic_category());
    }
    Output output(page.get());
    show(options, traces, output);
    return 0;
  } catch (const OutputFailed& failure) {
    complain(Message::failed, name.c_str(), failure.code().message().c_str());
    return statusNotWritten;
  }
}

// Shows all on standard output.
int showThere(const Options& options, Traces& traces) {
  Output output(STDOUT_FILENO);
  show(options, traces, output);
  return 0;
}

int showInPager(const Options& options, Traces& traces) {
  const Pager pager;
  try {
    return showThere(options, traces);
  } catch (const OutputFailed& failure) {
    if (failure.code().value() == EPIPE) {
      // The user has seen enough.
      return 0;
    }
    throw;
  }
}

int showAsAsked(const Options& options, Traces& traces) {
  if (options.form == Form::html) {
    return showInPage(options, traces);
  }
  return options.usesPager ? showInPager(options, traces) : showThere(options, traces);
}

// Lines that scroll by are progress enough.
bool isProgressShown(const Options& options) {
  const bool isOutputShown = options.form == Form::html || options.form == Form::summary;
  return !options.follows && isAtTerminal(STDERR_FILENO) &&
         (isOutputShown || !isAtTerminal(STDOUT_FILENO));
}

std::uint64_t sizeOf(const Options& options) {
  std::uint64_t size = 0;
  std::error_code ignored;
  for (const std::string& path : options.paths) {
    if (std::filesystem::is_regular_file(path, ignored)) {
      size += std::filesystem::file_size(path, ignored);
    }
    for (std::filesystem::directory_iterator entry(path, ignored), end; entry != end;
         entry.increment(ignored)) {
      size += entry->path().extension() == ".trc" ? entry->file_size(ignored) : 0;
    }
  }
  return size;
}

int run(const Options& options) {
  openAsManyFilesAsMayBe();
  std::optional<Progress> progress;
  if (isProgressShown(options)) {
    progress.emplace(sizeOf(options));
  }
  Traces traces(options);
  if (options.follows) {
    // Not at an end that may never come.
    traces.tellNotes();
  }
  int status = 0;
  if (!traces.all().empty() || traces.canGetMore()) {
    status = showAsAsked(options, traces);
  }
  progress.reset();
  if (!options.follows) {
    traces.tellNotes();
  }
  return status != 0 ? status : traces.hasFailed() ? statusNotRead : 0;
}

int print(const std::string& text) {
  Output output(STDOUT_FILENO);
  output.put(text);
  output.flush();
  return 0;
}

std::string versionText() {
  const ProductData& product = productData();
  return std::string("enginetrace ") + product.version + " (" + product.name + ", build " +
         product.buildStamp + ")\n";
}

int start(int argc, char** argv) {
  std::optional<Options> options = parseOptions(argc, argv);
  if (!options) {
    return statusNotRead;
  }
  if (options->wantsHelp) {
    return print(helpText());
  }
  if (options->wantsVersion) {
    return print(versionText());
  }
  const bool isPaged = options->usesPager && isAtTerminal(STDOUT_FILENO);
  options->colour = isColoured(*options) ? Colour::always : Colour::never;
  options->usesPager = isPaged;
  return run(*options);
}

}  // namespace

int main(int argc, char** argv) {
  openMissingStandardStreams();
  traceNothing();
  // Not failures, as the library has it.
  setStartSignal(SIGHUP);
  setStartSignal(SIGTERM);
  std::signal(SIGPIPE, SIG_IGN);
  try {
    return start(argc, argv);
  } catch (const OutputFailed& failure) {
    // A reader that has seen enough is not told of.
    if (failure.code().value() != EPIPE) {
      complain(Message::standardOutput, failure.code().message().c_str());
    }
  } catch (const std::bad_alloc&) {
    complain(Message::noMemory);
  }
  return statusNotWritten;
}
