#include "programs/enginetrace/Summary.h"

#include <algorithm>
#include <map>

#include "programs/enginetrace/LineBody.h"
#include "programs/enginetrace/SummaryText.h"

namespace {

constexpr std::size_t width = 100;
constexpr std::size_t silencesTold = 5;
constexpr std::size_t silentThreadsTold = 20;
constexpr std::size_t threadsTold = 50;
constexpr std::size_t countsTold = 20;
constexpr std::size_t messagesTold = 20;

constexpr std::size_t numberColumns = 12;
const std::string indent(numberColumns + 2, ' ');

bool isDigit(char c) { return c >= '0' && c <= '9'; }

bool isLetter(char c) { return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z'); }

/// A text with "#" for each number: a digit with the digits and letters behind it, as in "0x7F".
std::string withoutNumbers(std::string_view text) {
  std::string result;
  for (std::size_t i = 0; i < text.size(); ++i) {
    if (!isDigit(text[i])) {
      result += text[i];
      continue;
    }
    while (i + 1 < text.size() && (isDigit(text[i + 1]) || isLetter(text[i + 1]))) {
      ++i;
    }
    result += '#';
  }
  return result;
}

/// The number that begins at a place, or the "#" that stands for one.
std::string_view numberAt(std::string_view text, std::size_t at) {
  std::size_t end = at + 1;
  while (isDigit(text[at]) && end < text.size() && (isDigit(text[end]) || isLetter(text[end]))) {
    ++end;
  }
  return text.substr(at, end - at);
}

/// What two texts have in common, with "#" for numbers that differ.
/// \param key of both, as withoutNumbers() makes it.
std::string common(std::string_view key, std::string_view one, std::string_view other) {
  std::string result;
  std::size_t atOne = 0;
  std::size_t atOther = 0;
  for (const char c : key) {
    const std::string_view number = c == '#' ? numberAt(one, atOne) : one.substr(atOne, 1);
    const std::string_view otherNumber = c == '#' ? numberAt(other, atOther) : number;
    result += number == otherNumber ? number : "#";
    atOne += number.size();
    atOther += otherNumber.size();
  }
  return result;
}

/// Whether a line is the last one of its process, or of its thread.
bool endsProcess(const Parts& parts) { return parts.text.starts_with("Trace end at "); }
bool endsThread(const Parts& parts) { return parts.text.starts_with("Terminating thread "); }

std::string placeOf(const Parts& parts) {
  std::string place(parts.function.substr(0, width));
  if (parts.line != 0) {
    place += '(' + std::to_string(parts.line) + ')';
  }
  return place;
}

std::string joined(const std::vector<std::string>& words) {
  std::string text;
  for (const std::string& word : words) {
    text += text.empty() ? word : ' ' + word;
  }
  return text;
}

/// "  File        text", wrapped between words.
std::string fact(std::string_view name, std::string_view text) {
  constexpr std::size_t column = 14;
  std::string result = "  " + padded(name, column - 2);
  while (column + text.size() > width) {
    const std::size_t blank = text.rfind(' ', width - column);
    if (blank == std::string_view::npos || blank == 0) {
      break;
    }
    result += fitted(text.substr(0, blank), width - column) + '\n' + std::string(column, ' ');
    text.remove_prefix(blank + 1);
  }
  return result + fitted(text, width - column) + '\n';
}

std::string span(WallTime first, WallTime last) {
  return timeText(first) + " to " + timeText(last) + " (" + durationText(last - first) + ')';
}

std::string others(std::uint64_t number, std::string_view one, std::uint64_t lines) {
  return indent + "and " + counted(number, one) + " with " + counted(lines, "line") + '\n';
}

std::string nameOf(const Lane& lane) {
  return lane.process->mark + ' ' + (lane.thread.empty() ? "(no thread)" : lane.thread);
}

}  // namespace

Summary::Summary(Output& output, std::vector<const TraceFacts*> facts)
    : output_(output), facts_(std::move(facts)) {}

// ---- While the lines come

const TraceFacts* Summary::factsOf(const Process& process) const noexcept {
  const auto found = std::find_if(
      facts_.begin(), facts_.end(),
      [&process](const TraceFacts* facts) { return facts->process.path == process.path; });
  return found == facts_.end() ? nullptr : *found;
}

/// \param process null: any.
bool Summary::isLost(const Process* process, WallTime from, WallTime until) const noexcept {
  return std::any_of(facts_.begin(), facts_.end(), [&](const TraceFacts* facts) {
    return facts->hasLost && from < facts->lostUntil && until > facts->lostFrom &&
           (process == nullptr || factsOf(*process) == facts);
  });
}

void Summary::noteSilences(const Line& line, std::size_t lane) {
  const auto silenceAfter = [&](std::size_t before) {
    const ThreadSummary& thread = threads_[before];
    return Silence{thread.last, line.time, before, std::string(thread.said.text())};
  };
  ThreadSummary& thread = threads_[lane];
  if (thread.lines != 0 && line.time - thread.last > thread.longest.length() &&
      !isLost(line.process, thread.last, line.time)) {
    thread.longest = silenceAfter(lane);
  }
  const bool isFull = silences_.size() == silencesTold;
  const WallTime least = isFull ? silences_.back().length() : 0;
  if (lines_ != 0 && line.time - threads_[before_].last > least &&
      !isLost(nullptr, threads_[before_].last, line.time)) {
    if (isFull) {
      silences_.pop_back();
    }
    silences_.push_back(silenceAfter(before_));
    std::stable_sort(silences_.begin(), silences_.end(),
                     [](const Silence& a, const Silence& b) { return a.length() > b.length(); });
  }
}

void Summary::noteMessage(Messages& messages, const Line& line, const Parts& parts) {
  ++messages.all;
  const std::string_view text = parts.text.substr(0, Counts::longest);
  const std::string key = withoutNumbers(text);
  auto found = messages.table.find(key);
  if (found == messages.table.end()) {
    if (messages.table.size() == Counts::most) {
      return;
    }
    found = messages.table.emplace(key, Message()).first;
    found->second = {0, line.time, line.time, placeOf(parts), std::string(text)};
  }
  Message& message = found->second;
  ++message.count;
  message.first = std::min(message.first, line.time);
  message.last = std::max(message.last, line.time);
  if (message.text != text) {
    message.text = common(key, message.text, text);
  }
}

void Summary::write(const Line& line) {
  if (isRuler(line.whole)) {
    return;
  }
  const Parts parts = partsOf(line.whole);
  const std::size_t lane = lanes_.add(line, parts.thread);
  if (lane == threads_.size()) {
    threads_.emplace_back();
  }
  noteSilences(line, lane);
  ThreadSummary& thread = threads_[lane];
  ++thread.lines;
  thread.last = line.time;
  thread.said.set(bodyOf(line.whole));
  // A later thread of the same name goes on.
  thread.hasEnded = endsThread(parts);
  if (endsProcess(parts)) {
    ended_.insert(line.process);
  } else {
    ended_.erase(line.process);
  }
  types_.add(parts.type);
  functions_.add(parts.function);
  switch (severityOf(parts.type)) {
    case Severity::error:
      noteMessage(errors_, line, parts);
      break;
    case Severity::warning:
      noteMessage(warnings_, line, parts);
      break;
    case Severity::none:
      break;
  }
  before_ = lane;
  ++lines_;
}

// ---- At the end

void Summary::tellLosses(const TraceFacts& facts) {
  if (!facts.hasLost) {
    output_.put(fact("Lost", "nothing"));
  } else {
    output_.put(fact("Lost", "the lines from " + span(facts.lostFrom, facts.lostUntil)));
  }
  if (facts.cutLines != 0) {
    output_.put(fact("Cut", counted(facts.cutLines, "line") + " at the seam of the ring"));
  }
  if (facts.unreadBytes != 0) {
    output_.put(fact("Not read", counted(facts.unreadBytes, "byte")));
  }
  if (facts.isOrderUnknown) {
    output_.put(fact("Order", "not known for sure: the seam of the ring is not to be found"));
  }
  if (facts.isDateUnknown) {
    output_.put(fact("Dates", "not known for sure: the file was changed after its last line"));
  }
}

void Summary::tellProcess(const TraceFacts& facts) {
  constexpr std::size_t wholeSeconds = 19;
  constexpr std::uint64_t megabyte = 1 << 20;
  std::uint64_t lines = 0;
  std::string_view mark = facts.process.mark;
  for (std::size_t lane = 0; lane < threads_.size(); ++lane) {
    const Process& process = *lanes_.all()[lane].process;
    if (factsOf(process) == &facts) {
      lines += threads_[lane].lines;
      mark = process.mark;
    }
  }
  output_.put("Process " + fitted(mark, width - 8) + '\n');
  output_.put(fact("File", facts.process.path + ", " + counted(facts.size, "byte")));
  if (!facts.program.empty()) {
    output_.put(
        fact("Program", facts.program + ", version " + facts.version + ", built " + facts.build));
  }
  if (facts.started) {
    output_.put(fact("Started", timeText(*facts.started).substr(0, wholeSeconds)));
  }
  output_.put(fact("Span", span(facts.first, facts.last)));
  output_.put(fact("Lines", grouped(lines)));
  if (facts.limit != 0) {
    output_.put(fact("Ring", std::to_string(facts.limit / megabyte) + " MB"));
  }
  tellLosses(facts);
  if (!facts.included.empty()) {
    output_.put(fact("Types on", joined(facts.included)));
    output_.put(fact("Types off", facts.excluded.empty() ? "none" : joined(facts.excluded)));
  }
  output_.put("\n");
}

void Summary::tellMessages(const Messages& messages, std::string_view name) {
  if (messages.all == 0) {
    output_.put("No " + std::string(name) + "s.\n\n");
    return;
  }
  std::vector<const Message*> told;
  for (const auto& [key, message] : messages.table) {
    told.push_back(&message);
  }
  std::sort(told.begin(), told.end(), [](const Message* a, const Message* b) {
    return a->count != b->count   ? a->count > b->count
           : a->first != b->first ? a->first < b->first
                                  : a->text < b->text;
  });
  told.resize(std::min(told.size(), messagesTold));
  output_.put(counted(messages.all, name) +
              ", first and last time, function, text (\"#\": numbers "
              "that differ)\n");
  std::uint64_t rest = messages.all;
  for (const Message* message : told) {
    rest -= message->count;
    output_.put(grouped(message->count, numberColumns) + "  " + timeText(message->first));
    output_.put(message->count == 1 ? "" : " to " + timeText(message->last));
    output_.put("\n");
    if (!message->where.empty()) {
      output_.put(indent + fitted(message->where, width - indent.size()) + '\n');
    }
    output_.put(indent + fitted(message->text, width - indent.size()) + '\n');
  }
  if (rest != 0) {
    output_.put(others(messages.table.size() - told.size(), "other text", rest));
  }
  output_.put("\n");
}

void Summary::tellSilence(const Silence& silence) {
  output_.put(durationText(silence.length(), numberColumns) + "  " + timeText(silence.from) +
              " to " + timeText(silence.until) + "  " +
              fitted(nameOf(lanes_.all()[silence.lane]), width - numberColumns - 2 - 58) + '\n');
  output_.put(indent + "after " + fitted(silence.after, width - indent.size() - 6) + '\n');
}

void Summary::tellSilences() {
  output_.put("Longest silences of all threads together\n");
  for (const Silence& silence : silences_) {
    tellSilence(silence);
  }
  std::vector<const Silence*> told;
  for (const ThreadSummary& thread : threads_) {
    if (thread.longest.length() > 0) {
      told.push_back(&thread.longest);
    }
  }
  std::stable_sort(told.begin(), told.end(),
                   [](const Silence* a, const Silence* b) { return a->length() > b->length(); });
  output_.put("\nLongest silence of each thread between two of its lines\n");
  for (std::size_t i = 0; i < std::min(told.size(), silentThreadsTold); ++i) {
    tellSilence(*told[i]);
  }
  if (told.size() > silentThreadsTold) {
    output_.put(indent + "and shorter ones of " +
                counted(told.size() - silentThreadsTold, "other thread") + '\n');
  }
  output_.put("\n");
}

// What hangs writes no next line: these silences are between no two lines.
void Summary::tellHanging() {
  std::vector<Silence> told;
  // Whether a process has ended or hangs as a whole, its lines do not always tell.
  std::map<const Process*, WallTime> ends;
  for (const Lane& lane : lanes_.all()) {
    WallTime& end = ends.try_emplace(lane.process, lane.last).first->second;
    end = std::max(end, lane.last);
  }
  for (std::size_t lane = 0; lane < threads_.size(); ++lane) {
    const ThreadSummary& thread = threads_[lane];
    const Process* const process = lanes_.all()[lane].process;
    const WallTime end = ends[process];
    if (thread.last < end && !thread.hasEnded && !ended_.contains(process)) {
      told.push_back({thread.last, end, lane, std::string(thread.said.text())});
    }
  }
  if (told.empty()) {
    return;
  }
  std::stable_sort(told.begin(), told.end(),
                   [](const Silence& a, const Silence& b) { return a.length() > b.length(); });
  output_.put(
      "Silent to the end of the trace, without a line that ends the thread or its process\n");
  for (std::size_t i = 0; i < std::min(told.size(), silentThreadsTold); ++i) {
    tellSilence(told[i]);
  }
  if (told.size() > silentThreadsTold) {
    output_.put(indent + "and shorter ones of " +
                counted(told.size() - silentThreadsTold, "other thread") + '\n');
  }
  output_.put("\n");
}

void Summary::tellThreads() {
  constexpr std::size_t nameColumns = width - numberColumns - 2 - 2 - 26 - 2 - 26;
  std::vector<std::size_t> told;
  for (std::size_t lane = 0; lane < threads_.size(); ++lane) {
    told.push_back(lane);
  }
  std::stable_sort(told.begin(), told.end(), [this](std::size_t a, std::size_t b) {
    return threads_[a].lines > threads_[b].lines;
  });
  std::uint64_t rest = lines_;
  const std::size_t all = told.size();
  told.resize(std::min(all, threadsTold));
  output_.put("       Lines  " + padded("Thread", nameColumns) + "  " + padded("First line", 26) +
              "  Last line\n");
  for (const std::size_t lane : told) {
    const Lane& named = lanes_.all()[lane];
    rest -= threads_[lane].lines;
    output_.put(grouped(threads_[lane].lines, numberColumns) + "  " +
                padded(nameOf(named), nameColumns) + "  " + timeText(named.first) + "  " +
                timeText(named.last) + '\n');
  }
  if (rest != 0) {
    output_.put(others(all - told.size(), "other thread", rest));
  }
  output_.put("\n");
}

void Summary::tellCounts(const Counts& counts, std::string_view title, std::string_view none) {
  output_.put("       Lines  Share    " + std::string(title) + '\n');
  const std::vector<Counts::Counted> told = counts.biggest(countsTold);
  std::uint64_t rest = counts.all();
  for (const auto& [text, count] : told) {
    rest -= count;
    const std::uint64_t thousandths = count * 1000 / counts.all();
    output_.put(grouped(count, numberColumns) + grouped(thousandths / 10, 5) + '.' +
                std::to_string(thousandths % 10) + " %  " +
                fitted(text.empty() ? none : text, width - numberColumns - 11) + '\n');
  }
  if (rest != 0) {
    output_.put(indent + "and " + counted(rest, "line") + " of others\n");
  }
}

void Summary::finish() {
  for (const TraceFacts* facts : facts_) {
    tellProcess(*facts);
  }
  if (lines_ == 0) {
    output_.put("No lines.\n");
    return;
  }
  tellMessages(errors_, "error");
  tellMessages(warnings_, "warning");
  tellSilences();
  tellHanging();
  tellThreads();
  tellCounts(types_, "Type", "(no type)");
  output_.put("\n");
  tellCounts(functions_, "Function", "(no function)");
}
