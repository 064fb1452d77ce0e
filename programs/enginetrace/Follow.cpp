#include "programs/enginetrace/Follow.h"

#include <algorithm>
#include <utility>

#include "programs/enginetrace/Merge.h"
#include "programs/enginetrace/Messages.h"
#include "programs/enginetrace/PrintableText.h"

Follow::Follow(Traces& traces) : traces_(traces) { takeNew(); }

void Follow::run(Selection& selection, Output& output) {
  for (bool isFirst = true;; isFirst = false) {
    handOn(selection);
    tellMissed();
    output.flush();
    if (selection.isComplete() || !canGetMore()) {
      return;
    }
    if (!isFirst) {
      watch_.wait();
    }
    for (const auto& file : files_) {
      file->look();
    }
    traces_.openNew();
    takeNew();
  }
}

bool Follow::canGetMore() const {
  return traces_.canGetMore() || std::any_of(files_.begin(), files_.end(),
                                             [](const auto& file) { return !file->hasEnded(); });
}

void Follow::takeNew() {
  // A folder may have come by now; one that is watched is not watched twice.
  for (const std::string& folder : traces_.folders()) {
    watch_.add(folder);
  }
  for (Traces::Trace& trace : traces_.take()) {
    files_.push_back(
        std::make_unique<FollowedFile>(std::move(trace.file), std::move(trace.process)));
  }
}

void Follow::handOn(Selection& selection) {
  std::vector<Merge::Source> sources;
  for (const auto& file : files_) {
    sources.push_back({file.get(), &file->process()});
  }
  Merge merge(sources);
  for (Line line; !selection.isComplete() && merge.next(line);) {
    selection.write(line);
  }
}

void Follow::tellMissed() {
  for (const auto& file : files_) {
    if (file->takeHasMissed()) {
      complain(Message::linesMissed, shownName(file->process().path).c_str());
    }
  }
}
