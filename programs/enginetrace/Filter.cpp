#include "programs/enginetrace/Filter.h"

#include <algorithm>
#include <cstddef>
#include <limits>

#include "programs/enginetrace/LineStart.h"

namespace {

bool holds(const std::vector<std::string>& names, std::string_view name) {
  return std::find(names.begin(), names.end(), name) != names.end();
}

// As a line has it: cut, and without the blanks behind.
std::string asInALine(const std::string& thread) {
  std::string name = thread.substr(0, threadNameLength);
  name.resize(name.find_last_not_of(' ') + 1);
  return name;
}

}  // namespace

Filter::Filter(const Options& options, const TimeSpan& span)
    : types_(options.types),
      notTypes_(options.notTypes),
      since_(options.since ? options.since->within(span) : std::numeric_limits<WallTime>::min()),
      until_(options.until ? options.until->within(span) : std::numeric_limits<WallTime>::max()),
      takesAllTimes_(!options.since && !options.until) {
  std::transform(options.threads.begin(), options.threads.end(), std::back_inserter(threads_),
                 asInALine);
  std::transform(options.functions.begin(), options.functions.end(), std::back_inserter(functions_),
                 Pattern::glob);
  if (options.pattern) {
    pattern_.emplace(*options.pattern, options.ignoreCase);
  }
  takesAllTexts_ =
      types_.empty() && notTypes_.empty() && threads_.empty() && functions_.empty() && !pattern_;
}

bool Filter::findsText(std::string_view whole) const {
  if (!types_.empty() || !notTypes_.empty()) {
    const std::string_view type = typeOf(whole);
    if ((!types_.empty() && !holds(types_, type)) || holds(notTypes_, type)) {
      return false;
    }
  }
  if (!threads_.empty() || !functions_.empty()) {
    const Parts parts = partsOf(whole);
    if ((!threads_.empty() && !holds(threads_, parts.thread)) ||
        (!functions_.empty() && !hasFunction(parts.function))) {
      return false;
    }
  }
  return !pattern_ || pattern_->matches(whole);
}

bool Filter::hasFunction(std::string_view function) const {
  // Of "void A::f" also "A::f" alone.
  const std::string_view name = function.substr(function.rfind(' ') + 1);
  return std::any_of(functions_.begin(), functions_.end(), [&](const Pattern& glob) {
    return glob.matches(function) || glob.matches(name);
  });
}

bool isAskedFor(const Process& process, const Options& options) {
  const std::vector<std::string>& asked = options.processes;
  return asked.empty() || holds(asked, process.mark) ||
         (!process.role.empty() && holds(asked, process.role)) ||
         (process.id != 0 && holds(asked, std::to_string(process.id)));
}
