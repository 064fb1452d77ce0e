#include "programs/enginetrace/JsonWriter.h"

#include "programs/enginetrace/JsonText.h"
#include "programs/enginetrace/TimeText.h"

namespace {

/// `key` with the punctuation around it.
void appendPart(std::string& to, std::string_view key, std::string_view part) {
  if (!part.empty()) {
    to += key;
    appendJsonText(to, part);
  }
}

}  // namespace

void JsonWriter::write(const Line& line) {
  const Parts parts = partsOf(line.whole);
  object_ = R"({"time":")";
  appendTime(object_, line.time);
  object_ += R"(","process":)";
  appendJsonText(object_, line.process->mark);
  appendPart(object_, R"(,"thread":)", parts.thread);
  appendPart(object_, R"(,"type":)", parts.type);
  appendPart(object_, R"(,"detail":)", parts.detail);
  appendPart(object_, R"(,"function":)", parts.function);
  if (parts.line != 0) {
    object_ += R"(,"line":)";
    object_ += std::to_string(parts.line);
  }
  object_ += R"(,"text":)";
  appendJsonText(object_, parts.text);
  object_ += "}\n";
  output_.put(object_);
}
