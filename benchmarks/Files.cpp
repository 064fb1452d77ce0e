#include <filesystem>
#include <functional>
#include <memory>
#include <string>

#include "Engine/utilities/FileName.h"

#include "benchmarks/Comparison.h"

namespace {

using Path = std::filesystem::path;

FileName ourName(const std::string& text) { return {text.c_str(), EncodedString::utf8}; }

void compareParsing(const std::string& what, const std::string& text) {
  constexpr const char* peer = "std::filesystem::path";
  const FileName ours = ourName(text);
  const Path path(text);
  require(ours.directory().view() == (path.parent_path() / "").string() &&
              ours.base().view() == path.filename() && ours.root().view() == path.stem() &&
              ours.extension().view() == path.extension(),
          "the parts of " + what);

  compare(
      "FileName: build and destroy, " + what,
      [text] {
        const FileName name(text.c_str(), EncodedString::utf8);
        benchmark::DoNotOptimize(static_cast<const char*>(name));
      },
      peer,
      [text] {
        const Path p(text);
        benchmark::DoNotOptimize(p.c_str());
      });
  compare(
      "FileName: directory, " + what,
      [ours] {
        const EncodedString folder = ours.directory();
        benchmark::DoNotOptimize(static_cast<const char*>(folder));
      },
      peer,
      [path] {
        const Path folder = path.parent_path();
        benchmark::DoNotOptimize(folder.c_str());
      });
  compare(
      "FileName: base, " + what,
      [ours] {
        const FileName base = ours.base();
        benchmark::DoNotOptimize(static_cast<const char*>(base));
      },
      peer,
      [path] {
        const Path base = path.filename();
        benchmark::DoNotOptimize(base.c_str());
      });
  compare(
      "FileName: extension, " + what,
      [ours] {
        const EncodedString extension = ours.extension();
        benchmark::DoNotOptimize(static_cast<const char*>(extension));
      },
      peer,
      [path] {
        const Path extension = path.extension();
        benchmark::DoNotOptimize(extension.c_str());
      });
  compare(
      "FileName: build and take all three parts, " + what,
      [text] {
        const FileName name(text.c_str(), EncodedString::utf8);
        const EncodedString folder = name.directory();
        const FileName base = name.base();
        const EncodedString extension = name.extension();
        benchmark::DoNotOptimize(static_cast<const char*>(folder));
        benchmark::DoNotOptimize(static_cast<const char*>(base));
        benchmark::DoNotOptimize(static_cast<const char*>(extension));
      },
      peer,
      [text] {
        const Path p(text);
        const Path folder = p.parent_path();
        const Path base = p.filename();
        const Path extension = p.extension();
        benchmark::DoNotOptimize(folder.c_str());
        benchmark::DoNotOptimize(base.c_str());
        benchmark::DoNotOptimize(extension.c_str());
      });
}

// Two names beside the paths and beside what a path keeps its text in, which knows nothing of
// components, white space and versions of libraries.
void compareEquality(const std::string& what, const std::string& text, const std::string& other) {
  const FileName ours = ourName(text);
  const FileName oursOther = ourName(other);
  const Path path(text);
  const Path pathOther(other);
  require((ours == oursOther) == (path == pathOther), "equality, " + what);
  compare(
      "FileName: " + what, [ours, oursOther] { benchmark::DoNotOptimize(ours == oursOther); },
      "std::filesystem::path", [path, pathOther] { benchmark::DoNotOptimize(path == pathOther); });
  addPeer("FileName: " + what, "std::string",
          [text, other] { benchmark::DoNotOptimize(text == other); });
}

void compareOrder(const std::string& what, const std::string& text, const std::string& other) {
  const FileName ours = ourName(text);
  const FileName oursOther = ourName(other);
  const Path path(text);
  const Path pathOther(other);
  require((ours < oursOther) == (path < pathOther), "order, " + what);
  compare(
      "FileName: less, " + what, [ours, oursOther] { benchmark::DoNotOptimize(ours < oursOther); },
      "std::filesystem::path", [path, pathOther] { benchmark::DoNotOptimize(path < pathOther); });
}

void compareHash(const std::string& what, const std::string& text) {
  const FileName ours = ourName(text);
  const auto kept = std::make_shared<FileName>(ours);
  const Path path(text);
  const auto peers = [path] { benchmark::DoNotOptimize(hash_value(path)); };
  compare(
      "FileName: hash, " + what, [ours] { benchmark::DoNotOptimize(ours.hashValue()); },
      "std::filesystem::path", peers);
  compare(
      "FileName: hash kept with the name, " + what,
      [kept] { benchmark::DoNotOptimize(kept->computeHash()); }, "std::filesystem::path", peers);
}

void compareNames(const std::string& length, const std::string& text) {
  std::string other = text;
  other.back() = '~';
  const std::string what = length + " (" + std::to_string(text.size()) + " bytes)";
  compareParsing(what, text);
  compareEquality("equal, " + what, text, text);
  compareEquality("unequal at the end, " + what, text, other);
  compareOrder(what, text, other);
  compareHash(what, text);
}

}  // namespace

void compareFiles() {
  compareNames("short", "src/main.cpp");
  compareNames("medium", "/usr/lib/x86_64-linux-gnu/libbenchmark.so");
  std::string folders = "/home/developer";
  for (int i = 10; i < 22; ++i) {
    folders += "/component." + std::to_string(i);
  }
  compareNames("long", folders + "/implementation.cpp");
}
