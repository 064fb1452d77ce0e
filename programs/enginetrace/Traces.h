#pragma once

#include <cstddef>
#include <memory>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include "programs/enginetrace/Options.h"
#include "programs/enginetrace/TraceFile.h"

/// \file
/// The traces that the user names.

class Traces {
 public:
  /// Opens all files and those of the folders that end in ".trc", by their names, but those of
  /// processes that are not asked for. What is no trace or cannot be read is told in one line, and
  /// the others are opened all the same.
  /// \param options live as long as this.
  explicit Traces(const Options& options);

  struct Trace {
    std::unique_ptr<TraceFile> file;
    Process process;  ///< With a mark that no other one has.
  };

  [[nodiscard]] const std::vector<Trace>& all() const noexcept { return all_; }

  /// Opens the files that the folders that were named hold by now, and those that were named and
  /// were not there.
  void openNew();

  /// Gives all away.
  [[nodiscard]] std::vector<Trace> take() { return std::exchange(all_, {}); }

  /// The folders that were named, and those that the files that were named are in.
  [[nodiscard]] std::vector<std::string> folders() const;

  /// Whether something could not be opened, or not be read to its end.
  [[nodiscard]] bool hasFailed() const;

  /// Whether they are followed and there may be more: of a folder, or files that are not there.
  [[nodiscard]] bool canGetMore() const;

  /// Whether they are several, or may become that.
  [[nodiscard]] bool areSeveral() const;

  [[nodiscard]] TimeSpan span() const noexcept;

  /// Tells what the user has to know about lines that are left out, lines whose order is not
  /// certain and the like, each in one line.
  void tellNotes() const;

 private:
  void openNamed(const std::string& path);
  void open(const std::string& path);
  [[nodiscard]] bool hasFolder() const;
  void openFolder(const std::string& path);
  void openUntried(const std::vector<std::string>& names);

  void makeMarksDiffer();

  const Options& options_;
  std::vector<Trace> all_;
  std::set<std::string> tried_;    // files of the folders
  std::set<std::string> missing_;  // named, and not there
  bool hasFailed_ = false;
};
