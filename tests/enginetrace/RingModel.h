#pragma once

#include <cstdint>
#include <map>
#include <string>
#include <vector>

#include "programs/enginetrace/Line.h"

/// \file
/// A trace file as its writer makes it, in memory, together with what is left of its lines.

/// A line as the reader should give it.
struct ModelLine {
  std::string text;
  WallTime time = 0;

  bool operator==(const ModelLine&) const = default;
};

class RingModel {
 public:
  /// Writes a header that tells of the start, and of the limit in megabytes when it is some.
  /// \param start a whole second.
  RingModel(std::uint64_t limit, WallTime start);

  /// An empty file, for replay().
  explicit RingModel(std::uint64_t limit) : limit_(limit) {}

  /// Does what the trace does with these bytes: a line, or a separator.
  void replay(const std::string& bytes, WallTime time);

  /// Writes one line.
  /// \param text what stands behind the stamp; may have newlines.
  /// \param newline whether one comes before the stamp.
  void write(WallTime time, const std::string& text, bool newline = false);

  /// Sets a rewind point.
  void wrap();

  /// Writes the last line of a trace.
  void finish(WallTime time);

  /// As a crash leaves it: only so many bytes of a line.
  void tear(WallTime time, const std::string& text, std::size_t size);

  [[nodiscard]] const std::string& file() const { return file_; }
  /// What is left of the lines, in the order of writing.
  [[nodiscard]] std::vector<ModelLine> lines() const;
  /// Whether the last write stands before older bytes.
  [[nodiscard]] bool hasSeam() const { return position_ < file_.size(); }
  [[nodiscard]] std::uint64_t rewindPoint() const { return rewindPoint_; }
  /// How often writing went on at the rewind point.
  [[nodiscard]] unsigned passes() const { return passes_; }

 private:
  struct Written {
    std::size_t size;
    unsigned number;
    ModelLine line;
  };

  void header(const std::string& text);
  void put(const std::string& bytes, std::uint64_t limit, const ModelLine* line, std::size_t skip);
  void forget(std::uint64_t begin, std::uint64_t end);

  std::uint64_t limit_;
  WallTime start_ = 0;
  std::string file_;
  std::uint64_t position_ = 0;
  std::uint64_t rewindPoint_ = 0;
  unsigned passes_ = 0;
  unsigned number_ = 0;
  std::map<std::uint64_t, Written> written_;  // by place
};

/// "Sun Nov 22 12:23:41 2026\n".
std::string dateText(WallTime time);

/// "12:23:41.000098 (main    )".
std::string stampAt(WallTime time);
