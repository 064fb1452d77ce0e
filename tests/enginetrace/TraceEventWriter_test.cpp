#include "programs/enginetrace/TraceEventWriter.h"

#include <algorithm>
#include <map>
#include <nlohmann/json.hpp>
#include <set>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "tests/enginetrace/Reader.h"
#include "tests/enginetrace/Written.h"

namespace {

using nlohmann::json;

// ---- The rules of the Trace Event Format, as far as they concern the phases that are written

const std::set<std::string> documentKeys = {
    "traceEvents", "displayTimeUnit",   "otherData",          "stackFrames",
    "samples",     "systemTraceEvents", "powerTraceAsString", "controllerTraceDataKey"};

// "cname must be one of the names listed in trace-viewer's base color scheme's reserved color
// names list."
const std::set<std::string> colours = {"thread_state_uninterruptible",
                                       "thread_state_iowait",
                                       "thread_state_running",
                                       "thread_state_runnable",
                                       "thread_state_sleeping",
                                       "thread_state_unknown",
                                       "background_memory_dump",
                                       "light_memory_dump",
                                       "detailed_memory_dump",
                                       "vsync_highlight_color",
                                       "generic_work",
                                       "good",
                                       "bad",
                                       "terrible",
                                       "black",
                                       "grey",
                                       "white",
                                       "yellow",
                                       "olive",
                                       "rail_response",
                                       "rail_animation",
                                       "rail_idle",
                                       "rail_load",
                                       "startup",
                                       "heap_dump_stack_frame",
                                       "heap_dump_object_type",
                                       "heap_dump_child_node_arrow",
                                       "cq_build_running",
                                       "cq_build_passed",
                                       "cq_build_failed",
                                       "cq_build_abandoned",
                                       "cq_build_attempt_runnig",
                                       "cq_build_attempt_passed",
                                       "cq_build_attempt_failed"};

struct Rules {
  std::set<std::string> required;
  std::set<std::string> allowed;
};

// By "ph".
const std::map<std::string, Rules> rules = {
    {"M", {{"ph", "name", "pid", "args"}, {"tid", "ts", "cat"}}},
    {"i", {{"ph", "name", "pid", "tid", "ts"}, {"s", "cat", "cname", "args", "tts"}}},
    {"X", {{"ph", "name", "pid", "tid", "ts", "dur"}, {"cat", "cname", "args", "tts", "tdur"}}}};

void checkFields(const json& event) {
  for (const auto& [key, value] : event.items()) {
    if (key == "pid" || key == "tid") {
      EXPECT_TRUE(value.is_number_integer() && value >= 0 && value <= INT32_MAX) << event;
    } else if (key == "ts" || key == "dur") {
      EXPECT_TRUE(value.is_number() && value >= 0) << event;
    } else if (key == "args") {
      EXPECT_TRUE(value.is_object()) << event;
    } else {
      EXPECT_TRUE(value.is_string()) << event;
    }
  }
  // "cname": see above; "s": global, process or thread.
  EXPECT_TRUE(!event.contains("cname") || colours.contains(event["cname"])) << event;
  EXPECT_TRUE(!event.contains("s") || std::set<std::string>({"g", "p", "t"}).contains(event["s"]))
      << event;
}

void checkEvent(const json& event) {
  ASSERT_TRUE(event.is_object()) << event;
  ASSERT_TRUE(event.contains("ph") && event["ph"].is_string()) << event;
  const auto found = rules.find(event["ph"]);
  ASSERT_NE(found, rules.end()) << event;
  const Rules& own = found->second;
  for (const std::string& key : own.required) {
    EXPECT_TRUE(event.contains(key)) << key << ' ' << event;
  }
  for (const auto& [key, value] : event.items()) {
    EXPECT_TRUE(own.required.contains(key) || own.allowed.contains(key)) << key << ' ' << event;
  }
  checkFields(event);
  if (event["ph"] == "M") {
    EXPECT_TRUE(event["name"] == "process_name" || event["name"] == "thread_name") << event;
    EXPECT_TRUE(event["args"].size() == 1 && event["args"]["name"].is_string()) << event;
    EXPECT_TRUE(event["name"] == "process_name" || event.contains("tid")) << event;
  }
}

// ----

struct Written {
  std::map<std::pair<int, int>, std::string> threads;  // names by pid and tid
  std::map<int, std::string> processes;
  json instants = json::array();
  json slices = json::array();
};

// Sees to it that no object has two values of one name, of which a viewer would take any.
class NamesDiffer : public nlohmann::json_sax<json> {
 public:
  bool start_object(std::size_t) override {
    names_.emplace_back();
    return true;
  }
  bool key(std::string& name) override {
    EXPECT_TRUE(names_.back().insert(name).second) << name;
    return true;
  }
  bool end_object() override {
    names_.pop_back();
    return true;
  }
  bool null() override { return true; }
  bool boolean(bool) override { return true; }
  bool number_integer(number_integer_t) override { return true; }
  bool number_unsigned(number_unsigned_t) override { return true; }
  bool number_float(number_float_t, const std::string&) override { return true; }
  bool string(std::string&) override { return true; }
  bool binary(binary_t&) override { return true; }
  bool start_array(std::size_t) override { return true; }
  bool end_array() override { return true; }
  bool parse_error(std::size_t, const std::string&, const nlohmann::detail::exception&) override {
    return false;
  }

 private:
  std::vector<std::set<std::string>> names_;  // of the objects that are open
};

bool isEarlier(const json& one, const json& other) { return one["ts"] < other["ts"]; }

// A lane is alive from its earliest to its latest instant, once.
void checkLives(const Written& events) {
  std::map<std::pair<int, int>, std::pair<WallTime, WallTime>> spans;
  for (const json& instant : events.instants) {
    const WallTime time = instant["ts"];
    auto& [first, last] =
        spans.try_emplace({instant["pid"], instant["tid"]}, time, time).first->second;
    first = std::min(first, time);
    last = std::max(last, time);
  }
  EXPECT_EQ(events.slices.size(), spans.size());
  EXPECT_EQ(events.threads.size(), spans.size());
  for (const json& slice : events.slices) {
    const auto span = spans.extract({slice["pid"], slice["tid"]});
    ASSERT_FALSE(span.empty()) << slice;
    EXPECT_EQ(slice["name"], "life");
    EXPECT_EQ(slice["ts"], span.mapped().first) << slice;
    EXPECT_EQ(slice["ts"].get<WallTime>() + slice["dur"].get<WallTime>(), span.mapped().second)
        << slice;
  }
}

// Every document that a test makes is held against the rules.
Written eventsOf(const std::string& text) {
  Written result;
  NamesDiffer names;
  EXPECT_TRUE(json::sax_parse(text, &names));
  const json document = json::parse(text);
  for (const auto& [key, value] : document.items()) {
    EXPECT_TRUE(documentKeys.contains(key)) << key;
  }
  EXPECT_TRUE(document["displayTimeUnit"] == "ms" || document["displayTimeUnit"] == "ns");
  for (const json& event : document["traceEvents"]) {
    checkEvent(event);
    const std::string phase = event["ph"];
    if (phase == "M" && event["name"] == "process_name") {
      EXPECT_TRUE(result.processes.emplace(event["pid"], event["args"]["name"]).second) << event;
    } else if (phase == "M") {
      EXPECT_TRUE(
          result.threads.emplace(std::pair(event["pid"], event["tid"]), event["args"]["name"])
              .second)
          << event;
    } else {
      (phase == "i" ? result.instants : result.slices).push_back(event);
      EXPECT_TRUE(result.threads.contains({event["pid"], event["tid"]})) << event;
      EXPECT_TRUE(result.processes.contains(event["pid"])) << event;
    }
  }
  checkLives(result);
  return result;
}

struct Made {
  std::string whole;
  WallTime time;
  const Process* process;
};

Written eventsOf(const std::vector<Made>& lines) {
  Written events = eventsOf(written([&](Output& output) {
    TraceEventWriter writer(output);
    for (const auto& [whole, time, process] : lines) {
      writer.write({whole, time, process});
    }
    writer.finish();
  }));
  const bool isOrdered = std::is_sorted(
      lines.begin(), lines.end(), [](const Made& a, const Made& b) { return a.time < b.time; });
  EXPECT_EQ(std::is_sorted(events.instants.begin(), events.instants.end(), isEarlier), isOrdered);
  return events;
}

}  // namespace

TEST(TraceEventWriter, NoLinesAreADocumentWithoutEvents) {
  const Written events = eventsOf(std::vector<Made>());
  EXPECT_TRUE(events.instants.empty() && events.slices.empty() && events.processes.empty());
}

TEST(TraceEventWriter, ALineIsAnInstantInTheLaneOfItsThread) {
  const Written events =
      eventsOf({{lineOf("main", "**GMH/step: void A::f(147): text"), noon, &root}});
  ASSERT_EQ(events.instants.size(), 1U);
  const json& instant = events.instants[0];
  EXPECT_EQ(instant["name"], "GMH");
  EXPECT_EQ(instant["cat"], "line");
  EXPECT_EQ(instant["s"], "t");
  EXPECT_EQ(instant["ts"], noon);
  EXPECT_EQ(instant["pid"], 1234);
  EXPECT_FALSE(instant.contains("cname"));
  EXPECT_EQ(instant["args"],
            json({{"detail", "step"}, {"function", "void A::f"}, {"line", 147}, {"text", "text"}}));
  EXPECT_EQ(events.processes, (std::map<int, std::string>{{1234, "root.1234"}}));
  EXPECT_EQ(events.threads.at({1234, instant["tid"]}), "main");
}

TEST(TraceEventWriter, AnInstantIsNamedByItsTypeElseByItsFunction) {
  const Written events = eventsOf({{lineOf("main", "**CLI: text"), noon, &root},
                                   {lineOf("main", "void A::f(147): text"), noon, &root},
                                   {lineOf("main", "text"), noon, &root}});
  EXPECT_EQ(events.instants[0]["name"], "CLI");
  EXPECT_EQ(events.instants[1]["name"], "void A::f");
  EXPECT_EQ(events.instants[2]["name"], "line");
  EXPECT_EQ(events.instants[2]["args"], json({{"text", "text"}}));
}

TEST(TraceEventWriter, ErrorsAndWarningsAreMarked) {
  const Written events = eventsOf({{lineOf("main", "**ERROR: text"), noon, &root},
                                   {lineOf("main", "**WARNING: text"), noon, &root}});
  EXPECT_EQ(events.instants[0]["cat"], "error");
  EXPECT_EQ(events.instants[0]["cname"], "terrible");
  EXPECT_EQ(events.instants[1]["cat"], "warning");
  EXPECT_EQ(events.instants[1]["cname"], "bad");
}

TEST(TraceEventWriter, TheLifeOfAThreadIsASliceFromItsFirstToItsLastLine) {
  const Written events = eventsOf({{lineOf("main", "a"), noon, &root},
                                   {lineOf("worker", "b"), noon + 5, &root},
                                   {lineOf("main", "c"), noon + 30, &root}});
  ASSERT_EQ(events.slices.size(), 2U);
  EXPECT_EQ(events.slices[0]["ts"], noon);
  EXPECT_EQ(events.slices[0]["dur"], 30);
  EXPECT_EQ(events.slices[1]["ts"], noon + 5);
  EXPECT_EQ(events.slices[1]["dur"], 0);
  EXPECT_EQ(events.threads.at({1234, events.slices[1]["tid"]}), "worker");
}

TEST(TraceEventWriter, NoTimeAndNoLengthIsNegativeWhenTheTimeRunsBackward) {
  const Written events = eventsOf({{lineOf("main", "a"), noon, &root},
                                   {lineOf("main", "b"), noon - 100, &root},
                                   {lineOf("main", "c"), noon - 50, &root},
                                   {lineOf("old", "d"), -5, &root},
                                   {lineOf("old", "e"), 10, &root}});
  EXPECT_EQ(events.slices[0]["ts"], noon - 100);
  EXPECT_EQ(events.slices[0]["dur"], 100);
  EXPECT_EQ(events.instants[1]["ts"], noon - 100);
  EXPECT_EQ(events.slices[1]["ts"], 0);
  EXPECT_EQ(events.slices[1]["dur"], 10);
  EXPECT_EQ(events.instants[3]["ts"], 0);
}

TEST(TraceEventWriter, ThreadsOfOneNameInTwoProcessesHaveLanesOfTheirOwn) {
  const Written events = eventsOf({{lineOf("main", "a"), noon, &root},
                                   {lineOf("main", "b"), noon, &leaf},
                                   {lineOf("main", "c"), noon, &root}});
  EXPECT_EQ(events.processes,
            (std::map<int, std::string>{{1234, "root.1234"}, {1300, "leaf.1300"}}));
  EXPECT_EQ(events.threads.size(), 2U);
  EXPECT_NE(events.instants[0]["tid"], events.instants[1]["tid"]);
  EXPECT_EQ(events.instants[0]["tid"], events.instants[2]["tid"]);
}

TEST(TraceEventWriter, ProcessesWithoutANumberOfTheirOwnHaveOneThatNoProcessHas) {
  const Process stranger = {"a.log", "", 0, "a.log"};
  const Process other = {"b.log", "", 0, "b.log"};
  const Process again = {"/elsewhere/root.1234.trc", "root", 1234, "elsewhere/root.1234"};
  const Process huge = {"4294967295.trc", "", 4'294'967'295, "4294967295"};
  const Written events = eventsOf({{lineOf("main", "a"), noon, &stranger},
                                   {lineOf("main", "b"), noon, &root},
                                   {lineOf("main", "c"), noon, &again},
                                   {lineOf("main", "d"), noon, &other},
                                   {lineOf("main", "e"), noon, &huge}});
  ASSERT_EQ(events.processes.size(), 5U);
  EXPECT_EQ(events.processes.at(1234), "root.1234");
  for (const auto& [number, name] : events.processes) {
    EXPECT_TRUE(number == 1234 || number >= 1 << 22) << name;
  }
}

TEST(TraceEventWriter, LinesWithoutAThreadHaveALaneAndRulersNone) {
  const Written events = eventsOf({{"no line", noon, &root}, {std::string(72, '='), noon, &root}});
  ASSERT_EQ(events.instants.size(), 1U);
  EXPECT_EQ(events.threads.at({1234, events.instants[0]["tid"]}), "(no thread)");
}

TEST(TraceEventWriter, AnyBytesMakeADocument) {
  std::vector<Made> lines;
  std::string all;
  for (int byte = 0; byte < 256; ++byte) {
    all += static_cast<char>(byte);
  }
  const Process strange = {all, all, 7, all};
  for (int byte = 0; byte < 256; ++byte) {
    const std::string text(1, static_cast<char>(byte));
    lines.push_back({lineOf(text, "**" + text + ": " + text), noon, &strange});
  }
  lines.push_back({all, noon, &strange});
  EXPECT_EQ(eventsOf(lines).instants.size(), 257U);
}

TEST(TraceEventWriter, TheEventsOfSeveralTracesAreInTheOrderOfTheirTimes) {
  const TemporaryFolder folder;
  for (int file = 0; file < 3; ++file) {
    std::string lines;
    for (int i = 0; i < 300; ++i) {
      std::string number = std::to_string(i * 3 + (i % 7 != 0 ? file : 0));
      number.insert(0, 6 - number.size(), '0');
      lines += "12:00:00." + number + (i % 2 == 0 ? " (main    )" : " (worker  )") +
               (i % 50 == 0 ? "**ERROR: A::f(1): x\n" : "**GMH: A::f(2): y\n");
    }
    const std::string name = folder.file("root." + std::to_string(7 + file) + ".trc");
    writeFile(name, lines);
    setWritten(name, 12, 0, 0);
  }
  const ChildResult r = runReader({"--trace-event", folder.path()});
  EXPECT_EQ(r.status, 0);
  EXPECT_EQ(r.err, "");
  const Written events = eventsOf(r.out);
  EXPECT_EQ(events.instants.size(), 900U);
  EXPECT_TRUE(std::is_sorted(events.instants.begin(), events.instants.end(), isEarlier));
  EXPECT_EQ(std::count_if(events.instants.begin(), events.instants.end(),
                          [](const json& instant) { return instant["cat"] == "error"; }),
            18);
  EXPECT_EQ(events.processes,
            (std::map<int, std::string>{{7, "root.7"}, {8, "root.8"}, {9, "root.9"}}));
  EXPECT_EQ(events.slices.size(), 6U);
}

TEST(TraceEventWriter, ThousandsOfThreadsHaveEachALaneAndALife) {
  std::vector<Made> lines;
  for (int i = 0; i < 8000; ++i) {
    lines.push_back({lineOf("t" + std::to_string(i % 2000), "text"), noon + i, &root});
  }
  const Written events = eventsOf(lines);
  EXPECT_EQ(events.instants.size(), 8000U);
  EXPECT_EQ(events.threads.size(), 2000U);
  ASSERT_EQ(events.slices.size(), 2000U);
  for (const json& slice : events.slices) {
    EXPECT_EQ(slice["dur"], 6000);
  }
}
