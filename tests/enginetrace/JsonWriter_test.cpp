#include "programs/enginetrace/JsonWriter.h"

#include <nlohmann/json.hpp>
#include <sstream>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "tests/enginetrace/Written.h"

namespace {

using nlohmann::ordered_json;

std::string jsonOf(const std::string& whole, const Process& process = root, WallTime time = noon) {
  return written([&](Output& output) {
    JsonWriter writer(output);
    writer.write({whole, time, &process});
    writer.finish();
  });
}

}  // namespace

TEST(JsonWriter, ALineIsAnObjectWithItsPartsInTheirOrder) {
  EXPECT_EQ(jsonOf(lineOf("main", "**GMH/step: void A::f(147): text")),
            R"({"time":"2026-11-22T12:23:41.000098","process":"root.1234","thread":"main",)"
            R"("type":"GMH","detail":"step","function":"void A::f","line":147,"text":"text"})"
            "\n");
}

TEST(JsonWriter, PartsThatALineDoesNotHaveAreLeftOut) {
  EXPECT_EQ(jsonOf(lineOf("main", "text")),
            R"({"time":"2026-11-22T12:23:41.000098","process":"root.1234","thread":"main",)"
            R"("text":"text"})"
            "\n");
  EXPECT_EQ(jsonOf("no line at all"),
            R"({"time":"2026-11-22T12:23:41.000098","process":"root.1234","text":"no line at all"})"
            "\n");
  EXPECT_EQ(jsonOf(""), R"({"time":"2026-11-22T12:23:41.000098","process":"root.1234","text":""})"
                        "\n");
}

TEST(JsonWriter, NoLinesAreNoOutput) {
  EXPECT_EQ(written([](Output& output) { JsonWriter(output).finish(); }), "");
}

TEST(JsonWriter, TextsComeBackFromAnotherReaderOfJson) {
  for (const std::string text : {"\"quotes\" and \\backslashes\\", "two\nlines\tand a tab",
                                 "</script>", "\xC3\xA4 \xE6\x97\xA5 \xF0\x9F\x90\x9E", ""}) {
    const ordered_json object = ordered_json::parse(jsonOf(lineOf("main", text)));
    EXPECT_EQ(object["text"], text);
  }
}

TEST(JsonWriter, BytesThatAreNoTextAreShownInHexadecimal) {
  const std::string text("\x1B[31m \x00 \xFF\xC3 \xE2\x80\xA8 \x7F \xED\xA0\x80", 20);
  const std::string json = jsonOf(lineOf("ma\x01n", text));
  const ordered_json object = ordered_json::parse(json);
  EXPECT_EQ(object["thread"], "ma\\x01n");
  EXPECT_EQ(object["text"], "\\x1B[31m \\x00 \\xFF\\xC3 \\xE2\\x80\\xA8 \\x7F \\xED\\xA0\\x80");
}

TEST(JsonWriter, EachByteMakesOneLineOfJson) {
  for (int byte = 0; byte < 256; ++byte) {
    const std::string text(1, static_cast<char>(byte));
    const std::string json = jsonOf(lineOf(text, "**" + text + ": " + text), {text, "", 0, text});
    EXPECT_EQ(json.find('\n'), json.size() - 1) << byte;
    EXPECT_TRUE(ordered_json::accept(json)) << byte << ' ' << json;
  }
}

TEST(JsonWriter, LinesKeepTheirOrderWhenTheTimeRunsBackward) {
  std::istringstream lines(written([](Output& output) {
    JsonWriter writer(output);
    for (const WallTime time : {noon, noon - microsecondsPerHour, noon - 1, noon}) {
      writer.gap();
      writer.write({lineOf("main", "text"), time, &leaf});
    }
    writer.finish();
  }));
  std::vector<std::string> times;
  for (std::string line; std::getline(lines, line);) {
    times.push_back(ordered_json::parse(line)["time"]);
  }
  EXPECT_EQ(times,
            (std::vector<std::string>{"2026-11-22T12:23:41.000098", "2026-11-22T11:23:41.000098",
                                      "2026-11-22T12:23:41.000097", "2026-11-22T12:23:41.000098"}));
}
