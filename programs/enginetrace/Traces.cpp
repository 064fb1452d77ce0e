#include "programs/enginetrace/Traces.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <filesystem>
#include <map>
#include <system_error>

#include "programs/enginetrace/Filter.h"
#include "programs/enginetrace/Messages.h"
#include "programs/enginetrace/PrintableText.h"

namespace {

// The files of which something is true, as "a, b and so on".
template <class Predicate>
std::string namesOf(const std::vector<Traces::Trace>& traces, Predicate isMeant) {
  constexpr std::size_t most = 5;
  std::string names;
  std::size_t count = 0;
  for (const Traces::Trace& trace : traces) {
    if (isMeant(trace.file->facts()) && ++count <= most) {
      names += (names.empty() ? "" : ", ") + shownName(trace.process.path);
    }
  }
  return count > most ? names + ", ... (" + std::to_string(count) + ")" : names;
}

// By their names.
std::vector<std::string> tracesIn(const std::string& folder, std::error_code& error) {
  std::vector<std::string> names;
  for (std::filesystem::directory_iterator entry(folder, error), end; !error && entry != end;
       entry.increment(error)) {
    std::error_code ignored;
    if (entry->path().extension() == ".trc" && !entry->is_directory(ignored)) {
      names.push_back(entry->path());
    }
  }
  std::sort(names.begin(), names.end());
  return names;
}

bool isFolder(const std::string& path) {
  std::error_code ignored;
  return path != "-" && std::filesystem::is_directory(path, ignored);
}

}  // namespace

Traces::Traces(const Options& options) : options_(options) {
  for (const std::string& path : options.paths) {
    if (isFolder(path)) {
      openFolder(path);
    } else {
      openNamed(path);
    }
  }
  makeMarksDiffer();
}

void Traces::openNew() {
  for (const std::string& path : options_.paths) {
    std::error_code ignored;
    if (isFolder(path)) {
      missing_.erase(path);
      openUntried(tracesIn(path, ignored));
    } else if (missing_.count(path) != 0 && std::filesystem::exists(path, ignored)) {
      missing_.erase(path);
      openNamed(path);
    }
  }
}

std::vector<std::string> Traces::folders() const {
  std::vector<std::string> folders;
  for (const std::string& path : options_.paths) {
    const std::string parent = std::filesystem::path(path).parent_path();
    folders.push_back(isFolder(path) ? path : parent.empty() ? "." : parent);
  }
  return folders;
}

// Files of one name in several folders are marked by their paths.
void Traces::makeMarksDiffer() {
  std::map<std::string, unsigned> counts;
  for (const Trace& trace : all_) {
    ++counts[trace.process.mark];
  }
  for (Trace& trace : all_) {
    if (counts[trace.process.mark] > 1) {
      trace.process.mark = trace.process.path;
    }
  }
}

// One that is followed is waited for when it is not there.
void Traces::openNamed(const std::string& path) {
  std::error_code ignored;
  if (options_.follows && path != "-" && isAskedFor(processOf(path), options_) &&
      std::filesystem::status(path, ignored).type() == std::filesystem::file_type::not_found) {
    missing_.insert(path);
    complain(Message::failed, shownName(path).c_str(), std::strerror(ENOENT));
    return;
  }
  open(path);
}

void Traces::open(const std::string& path) {
  const Process process = processOf(path);
  if (!isAskedFor(process, options_)) {
    return;
  }
  try {
    all_.push_back({std::make_unique<TraceFile>(path), process});
  } catch (const NotATrace&) {
    complain(Message::notATrace, shownName(path).c_str());
    hasFailed_ = true;
  } catch (const std::system_error& error) {
    complain(Message::failed, shownName(path).c_str(), error.code().message().c_str());
    hasFailed_ = true;
  }
}

void Traces::openFolder(const std::string& path) {
  std::error_code error;
  const std::vector<std::string> names = tracesIn(path, error);
  if (error) {
    complain(Message::failed, shownName(path).c_str(), error.message().c_str());
    hasFailed_ = true;
  } else if (names.empty() && !options_.follows) {
    complain(Message::noTraceInFolder, shownName(path).c_str());
    hasFailed_ = true;
  }
  openUntried(names);
}

void Traces::openUntried(const std::vector<std::string>& names) {
  for (const std::string& name : names) {
    if (tried_.insert(name).second) {
      open(name);
    }
  }
}

bool Traces::hasFailed() const {
  return hasFailed_ || !missing_.empty() ||
         std::any_of(all_.begin(), all_.end(), [](const Trace& trace) {
           return static_cast<bool>(trace.file->facts().failure);
         });
}

bool Traces::hasFolder() const {
  return std::any_of(options_.paths.begin(), options_.paths.end(), isFolder);
}

bool Traces::canGetMore() const { return options_.follows && (!missing_.empty() || hasFolder()); }

bool Traces::areSeveral() const {
  return all_.size() + missing_.size() > 1 || (options_.follows && hasFolder());
}

TimeSpan Traces::span() const noexcept {
  if (all_.empty()) {
    return {};
  }
  const TraceFacts& front = all_.front().file->facts();
  TimeSpan span{front.first, front.last};
  for (const Trace& trace : all_) {
    span.first = std::min(span.first, trace.file->facts().first);
    span.last = std::max(span.last, trace.file->facts().last);
  }
  return span;
}

void Traces::tellNotes() const {
  unsigned long long cutLines = 0;
  unsigned long long unreadBytes = 0;
  for (const Trace& trace : all_) {
    cutLines += trace.file->facts().cutLines;
    unreadBytes += trace.file->facts().unreadBytes;
  }
  for (const Trace& trace : all_) {
    if (const std::error_code& failure = trace.file->facts().failure) {
      complain(Message::failed, shownName(trace.process.path).c_str(), failure.message().c_str());
    }
  }
  if (cutLines > 0) {
    complain(Message::cutLines, cutLines);
  }
  if (unreadBytes > 0) {
    complain(Message::unreadBytes, unreadBytes);
  }
  const std::string withoutOrder =
      namesOf(all_, [](const TraceFacts& facts) { return facts.isOrderUnknown; });
  if (!withoutOrder.empty()) {
    complain(Message::orderUnknown, withoutOrder.c_str());
  }
  const std::string withoutDates =
      namesOf(all_, [](const TraceFacts& facts) { return facts.isDateUnknown; });
  if (!withoutDates.empty()) {
    complain(Message::dateUnknown, withoutDates.c_str());
  }
}
