#include <nlohmann/json.hpp>
#include <string>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "programs/enginetrace/HtmlWriter.h"
#include "tests/enginetrace/Browser.h"
#include "tests/enginetrace/Written.h"
#include "tests/support/TemporaryFolder.h"

// The page in a real browser, as a user sees and moves it.

namespace {

using nlohmann::json;

struct Made {
  std::string whole;
  WallTime time;
  const Process* process = &root;
};

// How much of the screen is what, in pixels; page.js has the same numbers.
constexpr double gutter = 150;
constexpr double axis = 22;
constexpr double rowHeight = 20;

constexpr WallTime step = 1000;

/// A thousand lines, one in a millisecond: five threads of two processes, one error, two warnings.
std::vector<Made> thousandLines() {
  const std::vector<std::string> threads = {"main", "worker", "timer"};
  std::vector<Made> lines;
  for (int i = 0; i < 1000; ++i) {
    const Process& process = i % 5 < 3 ? root : leaf;
    const std::string type = i == 700 ? "ERROR" : i == 300 || i == 301 ? "WARNING" : "GMH/step";
    lines.push_back({lineOf(threads[static_cast<std::size_t>(i % 5 % 3)],
                            "**" + type + ": void A::f(" + std::to_string(i + 1) +
                                "): line number " + std::to_string(i)),
                     noon + i * step, &process});
  }
  return lines;
}

std::string pageOf(const std::vector<Made>& lines) {
  return written([&](Output& output) {
    HtmlWriter writer(output);
    for (const auto& [whole, time, process] : lines) {
      writer.write({whole, time, process});
    }
    writer.finish();
  });
}

class HtmlPage : public testing::Test {
 protected:
  Browser& open(const std::vector<Made>& lines, const std::string& scheme = "light") {
    writeFile(folder_.file("page.html"), pageOf(lines));
    browser_ =
        std::make_unique<Browser>(folder_.file("page.html"), Browser::Size{1000, 700}, scheme);
    return *browser_;
  }

  void TearDown() override {
    EXPECT_EQ(browser_->complaints(), "");
    EXPECT_EQ(browser_->requests(), "");
  }

  json valueOf(const std::string& expression) { return browser_->valueOf(expression); }

  /// Where the timeline is on the screen.
  double top() { return valueOf("canvas.getBoundingClientRect().top"); }
  double rowAt(int row) { return top() + axis + (row + 0.5) * rowHeight; }

  /// The texts of the list's rows that are there.
  std::vector<std::string> rows() {
    return valueOf("[...document.querySelectorAll('.row')].map(row => row.textContent)");
  }

  double span() { return valueOf("view.to - view.from"); }

  /// How many pixels of a row of the timeline have one of the page's colours.
  int pixelsOf(int row, const std::string& colour) {
    return valueOf("(() => { draw(); const box = [" + std::to_string(gutter) + ", " +
                   std::to_string(axis + row * rowHeight) + ", canvas.width - " +
                   std::to_string(gutter) + ", " + std::to_string(rowHeight) +
                   "]; const data = canvas.getContext('2d').getImageData(...box).data;"
                   "return new Uint32Array(data.buffer).filter(pixel => pixel === colours." +
                   colour + ".pixel).length; })()");
  }

  TemporaryFolder folder_;
  std::unique_ptr<Browser> browser_;
};

}  // namespace

TEST_F(HtmlPage, DrawsEachLineInTheLaneOfItsThread) {
  open(thousandLines());
  EXPECT_EQ(valueOf("rows.map(row => row.process ?? lanes[row.lane].thread)"),
            json({"root.1234", "main", "worker", "timer", "leaf.1300", "main", "worker"}));
  for (const int lane : {1, 2, 3, 5, 6}) {
    EXPECT_GT(pixelsOf(lane, "line"), 100) << lane;
    EXPECT_GT(pixelsOf(lane, "life"), 100) << lane;
  }
  EXPECT_EQ(pixelsOf(0, "line"), 0);
  EXPECT_EQ(pixelsOf(4, "line"), 0);
}

TEST_F(HtmlPage, MarksErrorsAndWarningsWhereTheyAre) {
  open(thousandLines());
  for (const int lane : {1, 2, 3, 5, 6}) {
    EXPECT_EQ(pixelsOf(lane, "error") > 0, lane == 1) << lane;
    EXPECT_EQ(pixelsOf(lane, "warning") > 0, lane == 1 || lane == 2) << lane;
  }
  EXPECT_THAT(valueOf("byId('facts').textContent").get<std::string>(),
              testing::HasSubstr("5 threads, 1,000 lines, 1 error, 2 warnings"));
}

TEST_F(HtmlPage, ListsTheLinesOfTheVisibleSpan) {
  open(thousandLines());
  const std::vector<std::string> shown = rows();
  ASSERT_GT(shown.size(), 5U);
  EXPECT_LT(shown.size(), 60U);
  EXPECT_THAT(shown[0],
              testing::HasSubstr(
                  "12:23:41.000098 root.1234 main   **GMH/step: void A::f(1): line number 0"));
  browser_->valueOf("list.scrollTop = 1e9");
  browser_->waitFor("document.getElementById('rank999') !== null");
  EXPECT_THAT(rows().back(), testing::HasSubstr("line number 999"));
  browser_->valueOf("show(" + std::to_string(noon + 500 * step) + ", " +
                    std::to_string(noon + 505 * step) + ")");
  EXPECT_THAT(rows(), testing::ElementsAre(
                          testing::HasSubstr("number 500"), testing::HasSubstr("number 501"),
                          testing::HasSubstr("number 502"), testing::HasSubstr("number 503"),
                          testing::HasSubstr("number 504")));
  EXPECT_THAT(valueOf("byId('span').textContent").get<std::string>(),
              testing::HasSubstr(", 5 ms, 5 lines"));
}

TEST_F(HtmlPage, ZoomsAroundThePointerWithTheWheel) {
  open(thousandLines());
  const double before = span();
  const double x = gutter + 200;
  const std::string time = "view.from + (view.to - view.from) * 200 / (canvas.clientWidth - 150)";
  const double under = valueOf(time);
  browser_->turnWheel(x, rowAt(1), 0, -400);
  browser_->waitFor("view.to - view.from < " + std::to_string(before / 2));
  EXPECT_NEAR(valueOf(time).get<double>(), under, 2);
  const double close = span();
  browser_->turnWheel(x, rowAt(1), 0, 200);
  browser_->waitFor("view.to - view.from > " + std::to_string(close * 1.5));
  browser_->turnWheel(x, rowAt(1), 0, 10'000);
  browser_->waitFor("view.to - view.from === whole.to - whole.from");
}

TEST_F(HtmlPage, MovesWithTheMouseAndStaysInTheTrace) {
  open(thousandLines());
  const double middle = static_cast<double>(noon + 500 * step);
  valueOf("show(" + std::to_string(middle - 1e5) + ", " + std::to_string(middle + 1e5) + ")");
  const double from = valueOf("view.from");
  browser_->drag(600, rowAt(1), 500, rowAt(1));
  EXPECT_NEAR(valueOf("view.from").get<double>(), from + 2e5 * 100 / (1000 - gutter), 1);
  EXPECT_NEAR(span(), 2e5, 1);
  browser_->turnWheel(600, rowAt(1), 100, 0);
  browser_->waitFor("view.from > " + std::to_string(from + 3e4));
  browser_->drag(200, rowAt(1), 990, rowAt(1));
  browser_->drag(200, rowAt(1), 990, rowAt(1));
  browser_->drag(200, rowAt(1), 990, rowAt(1));
  EXPECT_EQ(valueOf("view.from"), valueOf("whole.from"));
}

TEST_F(HtmlPage, ZoomsAndMovesWithKeys) {
  open(thousandLines());
  const double whole = span();
  valueOf("canvas.focus()");
  browser_->press("+");
  EXPECT_NEAR(span(), whole / 2, 1);
  const double from = valueOf("view.from");
  browser_->press("ArrowRight");
  EXPECT_NEAR(valueOf("view.from").get<double>(), from + whole / 20, 1);
  browser_->press("ArrowLeft");
  EXPECT_NEAR(valueOf("view.from").get<double>(), from, 1);
  browser_->press("-");
  EXPECT_NEAR(span(), whole, 1);
  browser_->press("+");
  browser_->press("End");
  EXPECT_EQ(valueOf("view.to"), valueOf("whole.to"));
  browser_->press("0");
  EXPECT_NEAR(span(), whole, 1);
}

TEST_F(HtmlPage, FindsAndStepsThroughHits) {
  open(thousandLines());
  browser_->press("/");
  EXPECT_EQ(valueOf("document.activeElement.id"), "search");
  browser_->type("NUMBER 77");
  browser_->waitFor("byId('found').textContent === '1 of 11 lines'");
  EXPECT_EQ(valueOf("chosen"), 77);
  browser_->press("Enter");
  EXPECT_EQ(valueOf("chosen"), 770);
  EXPECT_EQ(valueOf("byId('found').textContent"), "2 of 11 lines");
  EXPECT_EQ(valueOf("document.querySelector('.row[aria-selected=true] mark').textContent"),
            "number 77");
  EXPECT_GT(pixelsOf(1, "hit"), 0);
  valueOf("canvas.focus()");
  browser_->press("N");
  browser_->press("N");
  EXPECT_EQ(valueOf("chosen"), 779);
  browser_->press("n");
  EXPECT_EQ(valueOf("chosen"), 77);
}

TEST_F(HtmlPage, FindsTextsOnlyAndNotTheNumbersBetweenThem) {
  open({{lineOf("main", "one (1)"), noon}, {lineOf("main", "two.[2]"), noon + 1}});
  browser_->valueOf("find('0 0')");
  EXPECT_EQ(valueOf("byId('found').textContent"), "0 lines");
  browser_->valueOf("find('.[2]')");
  EXPECT_EQ(valueOf("byId('found').textContent"), "1 of 1 line");
  EXPECT_EQ(valueOf("chosen"), 1);
}

TEST_F(HtmlPage, GoesFromErrorToError) {
  open(thousandLines());
  std::vector<int> chosen;
  for (int i = 0; i < 4; ++i) {
    browser_->press("e");
    chosen.push_back(valueOf("chosen"));
  }
  EXPECT_EQ(chosen, (std::vector<int>{300, 301, 700, 300}));
  EXPECT_THAT(valueOf("byId('chosen').textContent").get<std::string>(),
              testing::HasSubstr("2026-11-22 12:23:41.300098  root.1234  main\n**WARNING: "));
}

TEST_F(HtmlPage, ChoosesALineByAClickInTheTimelineAndInTheList) {
  open(thousandLines());
  valueOf("show(" + std::to_string(noon + 500 * step - 500) + ", " +
          std::to_string(noon + 510 * step - 500) + ")");
  // Ten lines, 85 pixels for each; 505 is of the first thread.
  browser_->click(gutter + 85 * 5.5, rowAt(1));
  EXPECT_EQ(valueOf("chosen"), 505);
  const json box = valueOf("document.getElementById('rank508').getBoundingClientRect().toJSON()");
  browser_->click(300, box["top"].get<double>() + 5);
  EXPECT_EQ(valueOf("chosen"), 508);
  EXPECT_THAT(valueOf("byId('chosen').textContent").get<std::string>(),
              testing::HasSubstr("number 508"));
  valueOf("list.focus()");
  browser_->press("ArrowUp");
  EXPECT_EQ(valueOf("chosen"), 507);
  EXPECT_EQ(valueOf("list.getAttribute('aria-activedescendant')"), "rank507");
}

TEST_F(HtmlPage, ShowsTextsAsTheyAreWhateverIsInThem) {
  const std::string text =
      "</template><script>document.title = 'broken'</script><!-- &lt;&amp; \"quotes\" \t tab "
      "\xC3\xA4\xE6\x97\xA5 ";
  open({{lineOf("<b>&", text + "\xE2\x80\xA8 \x1B[31m \xFF"), noon},
        {lineOf("main", "first\nsecond"), noon + 1},
        {lineOf("main", ""), noon + 2}});
  EXPECT_THAT(rows(),
              testing::ElementsAre(
                  "12:23:41.000098 <b>& " + text + "\\xE2\\x80\\xA8 \\x1B[31m \\xFF",
                  "12:23:41.000099 main first \xE2\x8F\x8E second", "12:23:41.000100 main "));
  valueOf("choose(1)");
  EXPECT_THAT(valueOf("byId('chosen').textContent").get<std::string>(),
              testing::EndsWith("\nfirst\nsecond"));
  EXPECT_EQ(valueOf("document.title"), "Trace of root.1234");
}

TEST_F(HtmlPage, PutsLinesInTheOrderOfTheirTimesWhenAClockWasSetBack) {
  open({{lineOf("main", "zero"), noon},
        {lineOf("main", "three"), noon + 3000},
        {lineOf("main", "one"), noon + 1000},
        {lineOf("main", "two"), noon + 2000},
        {lineOf("main", "three again"), noon + 3000}});
  EXPECT_THAT(rows(), testing::ElementsAre(testing::EndsWith("zero"), testing::EndsWith("one"),
                                           testing::EndsWith("two"), testing::EndsWith("three"),
                                           testing::EndsWith("three again")));
  browser_->valueOf("find('three')");
  EXPECT_EQ(valueOf("[...hits]"), json({3, 4}));
}

TEST_F(HtmlPage, IsFineWithoutLinesAndWithLinesOfOneTime) {
  open({});
  EXPECT_EQ(valueOf("byId('facts').textContent"), "There are no lines.");
  browser_->press("e");
  browser_->press("+");
  browser_->turnWheel(500, rowAt(1), 0, -100);
  browser_->click(500, rowAt(1));
  TearDown();
  open({{lineOf("main", "a"), noon}, {lineOf("main", "b"), noon}, {"no line", noon}});
  EXPECT_EQ(rows().size(), 3U);
  EXPECT_EQ(valueOf("rows.map(row => row.process ?? lanes[row.lane].thread)"),
            json({"root.1234", "main", ""}));
  EXPECT_GT(pixelsOf(1, "line"), 0);
}

TEST_F(HtmlPage, TellsTheDatesOfATraceOfSeveralDays) {
  const auto span = [this]() -> std::string { return valueOf("byId('span').textContent"); };
  const auto labels = [this]() -> std::vector<std::string> {
    return valueOf(
        "(() => { const prototype = CanvasRenderingContext2D.prototype, fill = prototype.fillText;"
        "const texts = []; prototype.fillText = text => texts.push(text); draw();"
        "prototype.fillText = fill; return texts; })()");
  };
  open({{lineOf("main", "a"), noon}, {lineOf("main", "b"), noon + 40 * microsecondsPerHour}});
  EXPECT_THAT(rows(),
              testing::ElementsAre(testing::StartsWith("2026-11-22 12:23:41.000098 main "),
                                   testing::StartsWith("2026-11-24 04:23:41.000098 main ")));
  EXPECT_EQ(span(), "2026-11-22 11:59:41.000098 – 2026-11-24 04:47:41.000098, 1.7 d, 2 lines");
  EXPECT_THAT(labels(), testing::IsSupersetOf({"2026-11-22", "2026-11-23", "2026-11-24", "12:00"}));
  TearDown();
  open({{lineOf("main", "a"), noon}, {lineOf("main", "b"), noon + microsecondsPerHour}});
  EXPECT_THAT(rows(), testing::ElementsAre(testing::StartsWith("12:23:41.000098 main "),
                                           testing::StartsWith("13:23:41.000098 main ")));
  EXPECT_EQ(span(), "2026-11-22 12:23:05.000098 – 13:24:17.000098, 1.02 h, 2 lines");
}

TEST_F(HtmlPage, WritesNamesOfProcessesInFullWhereTheirThreadsHaveLines) {
  const Process process = {"/long/root.1.trc", "root", 1, "/a/folder/with/a/long/name/root.1.trc"};
  open({{lineOf("main", "a"), noon, &process}});
  // The name goes on over the timeline: its row has no lines.
  EXPECT_GT(pixelsOf(0, "back"), 0);
  const int ink =
      valueOf("(() => { draw(); const data = canvas.getContext('2d').getImageData(" +
              std::to_string(gutter + 20) + ", " + std::to_string(axis + 2) +
              ", 60, 14).data; return new Uint32Array(data.buffer).filter(pixel => "
              "pixel !== colours.back.pixel && pixel !== colours.rule.pixel).length; })()");
  EXPECT_GT(ink, 50);
}

TEST_F(HtmlPage, DrawsItsGridBehindTheLines) {
  std::vector<Made> lines;
  for (int i = 0; i < 20'000; ++i) {
    lines.push_back({lineOf("main", "x"), noon + i * step});
  }
  open(lines);
  browser_->valueOf("show(" + std::to_string(noon + 5000 * step) + ", " +
                    std::to_string(noon + 15'000 * step) + ")");
  EXPECT_GT(pixelsOf(0, "rule"), 0);
  // The lowest pixels of the lane have a line in each column.
  const std::string lowest = "(() => { draw(); const data = canvas.getContext('2d').getImageData(" +
                             std::to_string(gutter) + ", " +
                             std::to_string(axis + 2 * rowHeight - 4) + ", canvas.width - " +
                             std::to_string(gutter) +
                             ", 1).data; return new Uint32Array(data.buffer).filter(pixel => "
                             "pixel !== colours.line.pixel).length; })()";
  EXPECT_EQ(valueOf(lowest), 0);
}

TEST_F(HtmlPage, ScrollsThroughThousandsOfThreads) {
  std::vector<Made> lines;
  for (int i = 0; i < 5000; ++i) {
    lines.push_back({lineOf("t" + std::to_string(i), "text"), noon + i});
  }
  open(lines);
  valueOf("choose(4321)");
  const int row = valueOf("lanes[4321].row - view.row");
  EXPECT_GE(row, 0);
  EXPECT_LT(row, valueOf("shownRows()").get<int>());
  valueOf("chosen = -1");  // its mark stands where the line is
  EXPECT_GT(pixelsOf(row, "line"), 0);
  browser_->turnWheel(50, rowAt(2), 0, 100);
  browser_->waitFor("view.row === " + std::to_string(4322 - row + 1));
}

TEST_F(HtmlPage, ListsMoreLinesThanABrowserCanScroll) {
  std::vector<Made> lines;
  const std::string whole = lineOf("main", "x");
  for (int i = 0; i < 600'000; ++i) {
    lines.push_back({whole, noon + i});
  }
  open(lines);
  EXPECT_EQ(valueOf("topRank"), 0);
  browser_->valueOf("list.scrollTop = 1e9");
  browser_->waitFor("document.getElementById('rank599999') !== null");
  const json last =
      valueOf("document.getElementById('rank599999').getBoundingClientRect().toJSON()");
  const json list = valueOf("list.getBoundingClientRect().toJSON()");
  EXPECT_LE(last["bottom"].get<double>(), list["bottom"].get<double>() + 1);
  valueOf("choose(300000)");
  EXPECT_TRUE(valueOf("document.getElementById('rank300000') !== null").get<bool>());
}

TEST_F(HtmlPage, IsDarkWhereTheUserLikesIt) {
  open(thousandLines(), "dark");
  const std::string dark = valueOf("getComputedStyle(document.body).backgroundColor");
  const int darkLines = pixelsOf(1, "line");
  TearDown();
  open(thousandLines(), "light");
  EXPECT_NE(valueOf("getComputedStyle(document.body).backgroundColor"), dark);
  EXPECT_EQ(pixelsOf(1, "line"), darkLines);
}

TEST_F(HtmlPage, EveryPartThatTakesInputHasANameAndIsReachedByTheTabKey) {
  open(thousandLines());
  EXPECT_EQ(valueOf("[...document.querySelectorAll('input, button, [tabindex]')].filter("
                    "part => !(part.ariaLabel || part.textContent) || part.tabIndex < 0)"
                    ".map(part => part.id)"),
            json::array());
}
