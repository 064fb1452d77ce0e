#include "programs/enginetrace/Line.h"

#include <string>

#include <gtest/gtest.h>

#include "programs/enginetrace/LineStart.h"

namespace {

// thread|type|detail|function|line|text
std::string partsIn(const std::string& whole) {
  const Parts p = partsOf(whole);
  EXPECT_EQ(typeOf(whole), p.type) << whole;
  std::string result;
  for (const std::string_view part : {p.thread, p.type, p.detail, p.function}) {
    result += std::string(part) + "|";
  }
  return result + std::to_string(p.line) + "|" + std::string(p.text);
}

const std::string stamp = "12:23:41.000098 (main    )";

}  // namespace

TEST(TraceLineParts, OfALineWithAllOfThem) {
  EXPECT_EQ(partsIn(stamp + "**GMH/step: void A::f(147): text: of it"),
            "main|GMH|step|void A::f|147|text: of it");
  EXPECT_EQ(partsIn(stamp + "**TLS 0x12: void A::f(1): text"), "main|TLS|0x12|void A::f|1|text");
}

TEST(TraceLineParts, OfALineThatLacksSome) {
  EXPECT_EQ(partsIn(stamp + "**ERROR: f(12): text"), "main|ERROR||f|12|text");
  EXPECT_EQ(partsIn(stamp + "f(12): text"), "main|||f|12|text");
  EXPECT_EQ(partsIn(stamp + "**ERROR: void A::f: text"), "main|ERROR||void A::f|0|text");
  EXPECT_EQ(partsIn(stamp + "**ERROR: text"), "main|ERROR|||0|text");
  EXPECT_EQ(partsIn(stamp + "text"), "main||||0|text");
  EXPECT_EQ(partsIn(stamp), "main||||0|");
  EXPECT_EQ(partsIn(stamp + "**ERROR: f(12): "), "main|ERROR||f|12|");
  EXPECT_EQ(partsIn(stamp + "**: f(12): text"), "main||||0|**: f(12): text");
}

TEST(TraceLineParts, OfALineWhoseTypeIsNoWord) {
  EXPECT_EQ(partsIn(stamp + "****: void A::dump: Name: >ls<"),
            "main|**||void A::dump|0|Name: >ls<");
}

TEST(TraceLineParts, TakeNoTextForAFunction) {
  EXPECT_EQ(partsIn(stamp + "**ERROR: cannot open: no such file"),
            "main|ERROR|||0|cannot open: no such file");
  EXPECT_EQ(partsIn(stamp + "**ERROR: said \"A::f\": text"), "main|ERROR|||0|said \"A::f\": text");
  EXPECT_EQ(partsIn(stamp + "a (12) b: text"), "main||||0|a (12) b: text");
  EXPECT_EQ(partsIn(stamp + "): text"), "main||||0|): text");
  EXPECT_EQ(partsIn(stamp + "f(): text"), "main||||0|f(): text");
  EXPECT_EQ(partsIn(stamp + "f(12345678901): text"), "main||||0|f(12345678901): text");
}

TEST(TraceLineParts, KnowFunctionsOfAllKinds) {
  EXPECT_EQ(partsIn(stamp + "(anonymous namespace)::f(int)(3): t"),
            "main|||(anonymous namespace)::f(int)|3|t");
  EXPECT_EQ(partsIn(stamp + "bool A::operator==(3): t"), "main|||bool A::operator==|3|t");
  EXPECT_EQ(partsIn(stamp + "std::vector<A::B*>& C<D>::~C: t"),
            "main|||std::vector<A::B*>& C<D>::~C|0|t");
}

TEST(TraceLineParts, StayInTheFirstLineOfAText) {
  EXPECT_EQ(partsIn(stamp + "**GMH: f(1): text\nand more"), "main|GMH||f|1|text\nand more");
  EXPECT_EQ(partsIn(stamp + "text\nf(1): more"), "main||||0|text\nf(1): more");
  EXPECT_EQ(partsIn(stamp + "**GMH\nf(1): more"), "main||||0|**GMH\nf(1): more");
  EXPECT_EQ(partsIn(stamp + "**GMH/a\nf(1): more"), "main||||0|**GMH/a\nf(1): more");
}

TEST(TraceLineParts, OfAThreadWhoseNameIsAnyBytes) {
  EXPECT_EQ(partsIn("12:23:41.000098 ( a) (b c)t"), " a) (b c||||0|t");
  EXPECT_EQ(partsIn("12:23:41.000098 (        )t"), "||||0|t");
  EXPECT_EQ(partsIn(std::string("12:23:41.000098 (\0\n\xff     )t", 27)),
            std::string("\0\n\xff||||0|t", 10));
}

TEST(TraceLineParts, AreAllTextWhereNoLineBegins) {
  for (const std::string whole : {"", "text", "**ERROR: f(1): text", " 12:23:41.000098 (main    )t",
                                  "12:23:41.000098 (main   )tt", "12:23:41.000098  main    )t",
                                  "12:23:41.000098 (main    "}) {
    EXPECT_EQ(partsIn(whole), "||||0|" + whole);
  }
}

TEST(TraceLineStart, IsOneByteForByte) {
  EXPECT_TRUE(beginsLine(stamp));
  for (std::size_t place = 0; place < lineStartLength; ++place) {
    const bool isName = place >= threadNamePlace && place < threadNamePlace + threadNameLength;
    for (const char other : {'\0', '/', ';', '\n', '\xff', 'a', '*'}) {
      std::string changed = stamp;
      changed[place] = other;
      EXPECT_EQ(beginsLine(changed), isName) << changed;
    }
  }
}

TEST(TraceLineStart, TellsTheTimeOfDay) {
  EXPECT_EQ(timeOfDay("00:00:00.000000 (main    )"), 0);
  EXPECT_EQ(timeOfDay("23:59:59.999999 (main    )"), microsecondsPerDay - 1);
  EXPECT_EQ(timeOfDay("12:34:56.789012 (main    )"),
            ((12 * 60 + 34) * 60 + 56) * microsecondsPerSecond + 789012);
}

TEST(TraceLineParts, EndAtTheFirstColonOfTheFirstLineWhereverItStands) {
  const std::string start = "12:23:41.000098 (main    )";
  for (std::size_t length = 1; length < 80; ++length) {
    std::string tag;
    while (tag.size() < length) {
      tag += "T:"[tag.size() % 2];
    }
    tag.back() = 'T';
    for (const std::string behind :
         {"", "x", "x: y", "\n: ", "0123456789abcdef0123456789abcdef: "}) {
      const std::string whole = start + "**" + tag + ": " + behind;
      EXPECT_EQ(partsOf(whole).type, tag);
      EXPECT_EQ(partsOf(whole).text, behind);
      std::string broken = whole;
      broken[start.size() + 2 + length / 2] = '\n';
      EXPECT_EQ(partsOf(broken).type, "") << broken;
      EXPECT_EQ(partsOf(broken).text, broken.substr(start.size()));
    }
    EXPECT_EQ(partsOf(start + "**" + tag + ":").type, "");
    EXPECT_EQ(partsOf(start + "**" + tag + ":\n ").type, "");
  }
}
