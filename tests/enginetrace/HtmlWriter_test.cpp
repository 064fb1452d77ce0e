#include "programs/enginetrace/HtmlWriter.h"

#include <string>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "programs/enginetrace/Page.h"
#include "tests/enginetrace/Written.h"

// What a browser makes of it is in HtmlPage_test.cpp.

namespace {

using testing::EndsWith;
using testing::HasSubstr;
using testing::Not;
using testing::StartsWith;

/// What stands between the parts of the page that are always the same.
std::string dataOf(const std::function<void(HtmlWriter&)>& write) {
  const std::string page = written([&](Output& output) {
    HtmlWriter writer(output);
    write(writer);
    writer.finish();
  });
  EXPECT_THAT(page, StartsWith(std::string(pageBeforeLines)));
  EXPECT_THAT(page, EndsWith(std::string(pageBehindLines)));
  const std::size_t around = pageBeforeLines.size() + pageBehindLines.size();
  return page.substr(pageBeforeLines.size(), page.size() - around);
}

}  // namespace

TEST(HtmlWriter, WritesTheTimeLaneSeverityAndTextOfEachLine) {
  EXPECT_EQ(dataOf([](HtmlWriter& writer) {
              writer.write({lineOf("main", "**GMH/step: void A::f(147): text"), noon, &root});
              writer.write({lineOf("main", "**WARNING: a"), noon + 7, &leaf});
              writer.write({lineOf("main", "**ERROR: b"), noon - 3, &root});
              writer.write({std::string(72, '='), noon, &root});
              writer.gap();
              writer.write({"c", noon, &root});
            }),
            "<template class=\"lines\">" + std::to_string(noon) +
                " 0 0 **GMH/step: void A::f(147): text\n"
                "7 1 1 **WARNING: a\n"
                "-10 0 2 **ERROR: b\n"
                "3 2 0 c\n"
                "</template>\n"
                "<template id=\"lanes\">["
                R"({"process":"root.1234","file":"/traces/root.1234.trc","thread":"main"},)"
                R"({"process":"leaf.1300","file":"/traces/leaf.1300.trc","thread":"main"},)"
                R"({"process":"root.1234","file":"/traces/root.1234.trc","thread":""})"
                "]</template>\n");
}

TEST(HtmlWriter, NoLinesAreAPage) {
  EXPECT_EQ(dataOf([](HtmlWriter&) {}),
            "<template class=\"lines\"></template>\n<template id=\"lanes\">[]</template>\n");
}

TEST(HtmlWriter, TextsCannotEndWhatTheyStandInNorBeLinesOfTheirOwn) {
  const Process strange = {"</template>\n<b>", "", 0, "&lt;</script>"};
  const std::string data = dataOf([&](HtmlWriter& writer) {
    writer.write(
        {lineOf("<i>&", "</template><!-- &amp;\nsecond\f\r\xFF\xE2\x80\xA8"), 5, &strange});
  });
  EXPECT_EQ(data,
            "<template class=\"lines\">5 0 0 &lt;/template>&lt;!-- &amp;amp;\fsecond"
            "\\x0C\\x0D\\xFF\\xE2\\x80\\xA8\n</template>\n"
            "<template id=\"lanes\">[{\"process\":\"&amp;lt;&lt;/script>\","
            "\"file\":\"&lt;/template>\\n&lt;b>\",\"thread\":\"&lt;i>&amp;\"}]</template>\n");
}

TEST(HtmlWriter, EachTemplateTellsTheTimeOfItsFirstLineByItself) {
  const std::string text(300'000, 'x');
  const std::string data = dataOf([&](HtmlWriter& writer) {
    for (int i = 0; i < 5; ++i) {
      writer.write({lineOf("main", text), noon + i, &root});
    }
  });
  EXPECT_THAT(data, StartsWith("<template class=\"lines\">" + std::to_string(noon) + " 0 0 xxx"));
  EXPECT_THAT(data, HasSubstr("x\n</template>\n<template class=\"lines\">" +
                              std::to_string(noon + 4) + " 0 0 xxx"));
}

TEST(HtmlWriter, LinesLeaveTheWriterAsTheyCome) {
  const int descriptor = memfd_create("written", MFD_CLOEXEC);
  Output output(descriptor);
  HtmlWriter writer(output);
  const std::string whole = lineOf("main", std::string(974, 'x'));
  constexpr off_t count = 20'000;
  for (off_t i = 0; i < count; ++i) {
    writer.write({whole, noon + i, &root});
  }
  EXPECT_GT(lseek(descriptor, 0, SEEK_CUR), count * 974 - (2 << 20));
  close(descriptor);
}

TEST(HtmlWriter, ThePageNeedsNothingElse) {
  const std::string page = std::string(pageBeforeLines) + std::string(pageBehindLines);
  for (const char* const other :
       {"http:", "https:", "src=", "href=", "@import", "url(", "fetch("}) {
    EXPECT_THAT(page, Not(HasSubstr(other)));
  }
  EXPECT_THAT(page, HasSubstr("content=\"default-src 'none'; style-src 'unsafe-inline'; "
                              "script-src 'unsafe-inline'\""));
}
