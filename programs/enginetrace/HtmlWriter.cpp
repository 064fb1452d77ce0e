#include "programs/enginetrace/HtmlWriter.h"

#include "programs/enginetrace/JsonText.h"
#include "programs/enginetrace/LineBody.h"
#include "programs/enginetrace/Page.h"
#include "programs/enginetrace/PrintableText.h"
#include "programs/enginetrace/Severity.h"

namespace {

constexpr std::size_t chunkSize = 1 << 20;
/// Appends text of HTML. Newlines become form feeds, which appendPrintable() leaves nowhere, so
/// that each line of the trace is one in the page.
void appendHtml(std::string& to, std::string_view text) {
  for (const char c : text) {
    switch (c) {
      case '<':
        to += "&lt;";
        break;
      case '&':
        to += "&amp;";
        break;
      case '\n':
        to += '\f';
        break;
      default:
        to += c;
    }
  }
}

}  // namespace

HtmlWriter::HtmlWriter(Output& output) : output_(output) { output_.put(pageBeforeLines); }

void HtmlWriter::appendLine(const Line& line) {
  const Parts parts = partsOf(line.whole);
  const std::size_t lane = lanes_.add(line, parts.thread);
  chunk_ += std::to_string(line.time - before_);
  chunk_ += ' ';
  chunk_ += std::to_string(lane);
  chunk_ += ' ';
  chunk_ += static_cast<char>('0' + static_cast<int>(severityOf(parts.type)));
  chunk_ += ' ';
  printable_.clear();
  appendPrintable(printable_, bodyOf(line.whole));
  appendHtml(chunk_, printable_);
  chunk_ += '\n';
  before_ = line.time;
}

void HtmlWriter::write(const Line& line) {
  if (isRuler(line.whole)) {
    return;
  }
  appendLine(line);
  if (chunk_.size() >= chunkSize) {
    endChunk();
  }
}

void HtmlWriter::endChunk() {
  output_.put("<template class=\"lines\">");
  output_.put(chunk_);
  output_.put("</template>\n");
  chunk_.clear();
  before_ = 0;
}

void HtmlWriter::finish() {
  endChunk();
  std::string lanes = "[";
  for (const Lane& lane : lanes_.all()) {
    lanes += lanes.size() == 1 ? "{\"process\":" : ",{\"process\":";
    appendJsonText(lanes, lane.process->mark);
    lanes += ",\"file\":";
    appendJsonText(lanes, lane.process->path);
    lanes += ",\"thread\":";
    appendJsonText(lanes, lane.thread);
    lanes += '}';
  }
  std::string html = "<template id=\"lanes\">";
  appendHtml(html, lanes);
  output_.put(html);
  output_.put("]</template>\n");
  output_.put(pageBehindLines);
}
