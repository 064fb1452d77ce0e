#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "Catalog.h"
#include "MessageSource.h"
#include "OutputFile.h"

/// \file
/// Makes the C++ source of a message catalog's library from the message sources of its
/// languages.

namespace {

constexpr int statusFailed = 1;
constexpr int statusUsage = 2;

// What a message source may have. No translator writes more: it is a device, or a disk image.
constexpr std::size_t mostBytes = 16 << 20;

constexpr const char* usage =
    "usage: cul-message-compiler -o output.cpp locale=file...\n"
    "Makes the source of a message catalog from message sources, of which the first has the\n"
    "base language.\n";

// Says what the system has against a file.
void printFileError(const std::string& file) {
  std::fprintf(stderr, "cul-message-compiler: %s: %s\n", file.c_str(), std::strerror(errno));
}

std::optional<std::string> contentsOf(const std::string& file) {
  const std::unique_ptr<std::FILE, int (*)(std::FILE*)> stream(std::fopen(file.c_str(), "rb"),
                                                               std::fclose);
  if (stream != nullptr) {
    std::string contents;
    char part[4096];
    std::size_t size;
    do {
      size = std::fread(part, 1, sizeof part, stream.get());
      contents.append(part, size);
    } while (size != 0 && contents.size() <= mostBytes);
    if (contents.size() > mostBytes) {
      errno = EFBIG;
    } else if (std::ferror(stream.get()) == 0) {
      return contents;
    }
  }
  printFileError(file);
  return std::nullopt;
}

// The translation that "locale=file" names, not read yet; nothing when it names none.
std::optional<Translation> translationIn(std::string_view argument) {
  const std::size_t end = argument.find('=');
  if (end == 0 || end == std::string_view::npos || end + 1 == argument.size()) {
    return std::nullopt;
  }
  return Translation{
      std::string(argument.substr(0, end)), std::string(argument.substr(end + 1)), {}};
}

int compile(const std::string& output, std::vector<Translation>& translations) {
  try {
    for (Translation& translation : translations) {
      const std::optional<std::string> source = contentsOf(translation.file);
      if (!source) {
        return statusFailed;
      }
      translation.messages = parseMessages(*source, translation.file);
    }
    if (!writeOutput(output, Catalog(translations).source())) {
      printFileError(output);
      return statusFailed;
    }
    return 0;
  } catch (const MessageError& e) {
    std::fprintf(stderr, "%s:%u: error: %s\n", e.file.c_str(), e.line, e.text.c_str());
    return statusFailed;
  }
}

}  // namespace

int main(int argc, char** argv) {
  if (argc < 4 || std::string_view(argv[1]) != "-o") {
    std::fputs(usage, stderr);
    return statusUsage;
  }
  std::vector<Translation> translations;
  for (int i = 3; i < argc; ++i) {
    std::optional<Translation> translation = translationIn(argv[i]);
    if (!translation) {
      std::fprintf(stderr, "cul-message-compiler: %s: not of the form locale=file\n", argv[i]);
      return statusUsage;
    }
    if (std::any_of(translations.begin(), translations.end(), [&](const Translation& earlier) {
          return earlier.locale == translation->locale;
        })) {
      std::fprintf(stderr, "cul-message-compiler: %s: the locale is there already\n", argv[i]);
      return statusUsage;
    }
    translations.push_back(std::move(*translation));
  }
  const std::string output = argv[2];
  for (const Translation& translation : translations) {
    if (isSameFile(output, translation.file)) {
      std::fprintf(stderr, "cul-message-compiler: %s: it is a source as well as the output\n",
                   output.c_str());
      return statusUsage;
    }
  }
  return compile(output, translations);
}
