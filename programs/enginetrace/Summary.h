#pragma once

#include <array>
#include <set>
#include <string>
#include <vector>

#include "programs/enginetrace/Counts.h"
#include "programs/enginetrace/Lanes.h"
#include "programs/enginetrace/Line.h"
#include "programs/enginetrace/Output.h"
#include "programs/enginetrace/Severity.h"
#include "programs/enginetrace/TraceFile.h"

/// \file
/// What a support engineer asks first.

/// Tells, when it has seen all lines, in plain text of 100 columns: each process, how much of its
/// trace is lost, and its configuration; errors and warnings by their texts; the longest silences;
/// the threads with their first and last lines; lines by type and function.
///
/// Silences are between two lines, of all threads together and of each thread. Where the ring of
/// a process has written over lines, nobody knows whether it was silent: that is none. Threads that
/// wrote nothing more although neither they nor their processes have ended are told with the
/// silence to the newest line of the process. With a filter in front, all is about the lines that
/// it lets pass.
///
/// Texts are equal when they differ in numbers only, and as in Counts.h in their first bytes.
/// Memory is bounded by that table and by the threads; the times of lines are in the order of the
/// lines.
class Summary : public LineWriter {
 public:
  /// \param facts of all processes that lines come from; they live as long as this and are read
  ///   when lines come and at the end.
  Summary(Output& output, std::vector<const TraceFacts*> facts);

  void write(const Line& line) override;
  void finish() override;

 private:
  /// The beginning of a line, kept in case that a silence follows it.
  class Beginning {
   public:
    void set(std::string_view text) noexcept { length_ = text.copy(bytes_.data(), bytes_.size()); }
    [[nodiscard]] std::string_view text() const noexcept { return {bytes_.data(), length_}; }

   private:
    std::array<char, 120> bytes_;
    std::size_t length_ = 0;
  };

  struct Silence {
    WallTime from = 0;
    WallTime until = 0;
    std::size_t lane = 0;  ///< Of the line before it.
    std::string after;     ///< The beginning of that.
    [[nodiscard]] WallTime length() const noexcept { return until - from; }
  };

  struct ThreadSummary {
    std::uint64_t lines = 0;
    WallTime last = 0;
    bool hasEnded = false;  ///< By its last line.
    Beginning said;
    Silence longest;
  };

  /// Lines of equal text, but for numbers.
  struct Message {
    std::uint64_t count = 0;
    WallTime first = 0;
    WallTime last = 0;
    std::string where;  ///< The function of the first one, with its line.
    std::string text;   ///< That of all; with "#" for numbers that differ.
  };

  struct Messages {
    TextTable<Message> table;
    std::uint64_t all = 0;
  };

  [[nodiscard]] const TraceFacts* factsOf(const Process& process) const noexcept;
  [[nodiscard]] bool isLost(const Process* process, WallTime from, WallTime until) const noexcept;
  void noteSilences(const Line& line, std::size_t lane);
  void noteMessage(Messages& messages, const Line& line, const Parts& parts);

  void tellProcess(const TraceFacts& facts);
  void tellLosses(const TraceFacts& facts);
  void tellMessages(const Messages& messages, std::string_view name);
  void tellSilence(const Silence& silence);
  void tellSilences();
  void tellHanging();
  void tellThreads();
  void tellCounts(const Counts& counts, std::string_view title, std::string_view none);

  Output& output_;
  std::vector<const TraceFacts*> facts_;
  Lanes lanes_;
  std::vector<ThreadSummary> threads_;  ///< Of the lanes.
  std::set<const Process*> ended_;      ///< By their last lines.
  Counts types_;
  Counts functions_;
  Messages errors_;
  Messages warnings_;
  std::vector<Silence> silences_;  ///< Of all threads together, the longest first.
  std::size_t before_ = 0;         ///< The lane of the line before.
  std::uint64_t lines_ = 0;
};
