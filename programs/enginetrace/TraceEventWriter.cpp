#include "programs/enginetrace/TraceEventWriter.h"

#include <algorithm>

#include "programs/enginetrace/JsonText.h"
#include "programs/enginetrace/LineBody.h"
#include "programs/enginetrace/Severity.h"

namespace {

// Linux numbers processes below this.
constexpr unsigned firstFreeProcess = 1U << 22;
constexpr unsigned firstThread = 1U << 23;

std::string_view categoryOf(Severity severity) {
  switch (severity) {
    case Severity::error:
      return "error";
    case Severity::warning:
      return "warning";
    case Severity::none:
      break;
  }
  return "line";
}

/// One of the names of colours that the format knows; none for most lines.
std::string_view colourOf(Severity severity) {
  switch (severity) {
    case Severity::error:
      return R"(,"cname":"terrible")";
    case Severity::warning:
      return R"(,"cname":"bad")";
    case Severity::none:
      break;
  }
  return "";
}

std::string_view nameOf(const Parts& parts) {
  return !parts.type.empty()       ? parts.type
         : !parts.function.empty() ? parts.function
                                   : std::string_view("line");
}

/// Times before 1970 are none to a viewer.
WallTime shown(WallTime time) { return std::max<WallTime>(time, 0); }

void appendText(std::string& to, std::string_view key, std::string_view text) {
  if (!text.empty()) {
    to += key;
    appendJsonText(to, text);
    to += ',';
  }
}

void appendArguments(std::string& to, const Parts& parts) {
  to += R"(,"args":{)";
  appendText(to, R"("detail":)", parts.detail);
  appendText(to, R"("function":)", parts.function);
  if (parts.line != 0) {
    to += R"("line":)" + std::to_string(parts.line) + ',';
  }
  to += R"("text":)";
  appendJsonText(to, parts.text);
  to += "}}";
}

}  // namespace

unsigned TraceEventWriter::processNumber(const Process& process) {
  const auto [known, isNew] = processes_.try_emplace(&process, process.id);
  if (isNew) {
    unsigned& number = known->second;
    if (number == 0 || number >= firstFreeProcess || taken_.contains(number)) {
      number = firstFreeProcess + static_cast<unsigned>(processes_.size()) - 1;
    }
    taken_.insert(number);
  }
  return known->second;
}

unsigned TraceEventWriter::threadNumber(std::size_t lane) const {
  return firstThread + static_cast<unsigned>(lane);
}

void TraceEventWriter::appendPlace(const Process& process, std::size_t lane) {
  event_ += R"(,"pid":)" + std::to_string(processNumber(process));
  event_ += R"(,"tid":)" + std::to_string(threadNumber(lane));
}

void TraceEventWriter::beginEvent() {
  event_ = isFirst_ ? "{\"displayTimeUnit\":\"ms\",\"traceEvents\":[\n" : ",\n";
  isFirst_ = false;
}

void TraceEventWriter::nameLane(std::size_t lane) {
  const Lane& named = lanes_.all()[lane];
  const auto name = [&](std::string_view what, std::string_view text) {
    beginEvent();
    event_ += R"({"ph":"M","name":)";
    appendJsonText(event_, what);
    appendPlace(*named.process, lane);
    event_ += R"(,"args":{"name":)";
    appendJsonText(event_, text);
    event_ += "}}";
    output_.put(event_);
  };
  if (!processes_.contains(named.process)) {
    name("process_name", named.process->mark);
  }
  name("thread_name", named.thread.empty() ? "(no thread)" : named.thread);
}

void TraceEventWriter::write(const Line& line) {
  if (isRuler(line.whole)) {
    return;
  }
  const Parts parts = partsOf(line.whole);
  const std::size_t known = lanes_.all().size();
  const std::size_t lane = lanes_.add(line, parts.thread);
  if (lane == known) {
    nameLane(lane);
  }
  const Severity severity = severityOf(parts.type);
  beginEvent();
  event_ += R"({"ph":"i","s":"t","name":)";
  appendJsonText(event_, nameOf(parts));
  event_ += R"(,"cat":")";
  event_ += categoryOf(severity);
  event_ += '"';
  event_ += colourOf(severity);
  appendPlace(*lanes_.all()[lane].process, lane);
  event_ += R"(,"ts":)" + std::to_string(shown(line.time));
  appendArguments(event_, parts);
  output_.put(event_);
}

void TraceEventWriter::writeLife(std::size_t lane) {
  const Lane& lived = lanes_.all()[lane];
  const WallTime first = shown(lived.first);
  beginEvent();
  event_ += R"({"ph":"X","name":"life","cat":"life")";
  appendPlace(*lived.process, lane);
  event_ += R"(,"ts":)" + std::to_string(first);
  event_ += R"(,"dur":)" + std::to_string(shown(lived.last) - first) + '}';
  output_.put(event_);
}

void TraceEventWriter::finish() {
  for (std::size_t lane = 0; lane < lanes_.all().size(); ++lane) {
    writeLife(lane);
  }
  if (isFirst_) {
    beginEvent();
    output_.put(event_);
  }
  output_.put("\n]}\n");
}
