#pragma once

#include <array>
#include <cstddef>
#include <string>
#include <string_view>

#include "programs/enginetrace/Line.h"
#include "programs/enginetrace/Output.h"

/// \file
/// Lines as they are.

struct TextStyle {
  std::size_t markWidth = 0;  ///< Columns for the mark of the process in front; 0: no marks.
  bool hasDates = false;      ///< The date in front of each time.
  bool hasColour = false;     ///< For a terminal.

  [[nodiscard]] bool isPlain() const noexcept { return markWidth == 0 && !hasDates && !hasColour; }
};

/// Writes each line as it is, but for bytes that are no text, see PrintableText.h.
class TextWriter : public LineWriter {
 public:
  /// \param output lives as long as the writer.
  TextWriter(Output& output, const TextStyle& style);

  void write(const Line& line) override;

  /// "--", as grep has it.
  void gap() override;

 private:
  struct Mark {
    const Process* process = nullptr;
    std::string text;  // As it is put.
  };

  std::string_view markOf(const Process& process);
  void putDate(WallTime time);
  void putBeginning(std::string_view text, std::string_view colour);
  void putIn(std::string_view colour, std::string_view text);

  Output& output_;
  const TextStyle style_;
  std::string buffer_;
  std::array<Mark, 64> marks_;  // of processes that had lines lately
  WallTime day_ = 0;            // the midnight whose date this is
  std::string date_;
};
