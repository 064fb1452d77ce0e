#include "programs/enginetrace/JsonText.h"

#include <algorithm>

#include "programs/enginetrace/PrintableText.h"

namespace {

bool isPlain(char c) { return c >= ' ' && c <= '~' && c != '"' && c != '\\'; }

void appendEscaped(std::string& to, char c) {
  switch (c) {
    case '"':
    case '\\':
      to += '\\';
      to += c;
      break;
    case '\n':
      to += "\\n";
      break;
    case '\t':
      to += "\\t";
      break;
    default:
      to += c;
  }
}

}  // namespace

void appendJsonText(std::string& to, std::string_view text) {
  to += '"';
  if (std::all_of(text.begin(), text.end(), isPlain)) {
    to += text;
  } else {
    std::string printable;
    appendPrintable(printable, text);
    for (const char c : printable) {
      appendEscaped(to, c);
    }
  }
  to += '"';
}
