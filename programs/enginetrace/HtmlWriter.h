#pragma once

#include <string>

#include "programs/enginetrace/Lanes.h"
#include "programs/enginetrace/Line.h"
#include "programs/enginetrace/Output.h"

/// \file
/// Lines as a page for a browser.

/// Writes one page that needs nothing else: a timeline with a lane for each thread of each process,
/// a search, and the lines of the visible span. What a reader sees and does there is in
/// page/page.html; page/page.js tells how the lines lie in the page.
///
/// Texts are as appendPrintable() shows them. The lines are written as they come: memory grows with
/// the threads, not with the lines. Browsers take some millions of lines. Gaps and rulers are not
/// shown.
class HtmlWriter : public LineWriter {
 public:
  explicit HtmlWriter(Output& output);

  void write(const Line& line) override;
  void finish() override;

 private:
  void appendLine(const Line& line);
  void endChunk();

  Output& output_;
  std::string chunk_;    ///< What is not yet written of the lines; as text of HTML.
  WallTime before_ = 0;  ///< The time of the last line in the chunk.
  std::string printable_;
  Lanes lanes_;
};
