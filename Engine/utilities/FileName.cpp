#include "Engine/utilities/FileName.h"

#include <algorithm>
#include <cstddef>
#include <cstring>
#include <limits>
#include <memory>
#include <string>
#include <sys/stat.h>
#include <unistd.h>
#include <utility>

#include "Engine/internal/FixedLayout.h"
#include "Engine/internal/PlaceNumber.h"
#include "Engine/internal/ProcessWide.h"
#include "Engine/internal/SystemPath.h"
#include "Engine/internal/Texts.h"
#include "Engine/utilities/CharString.h"
#include "Engine/utilities/OwningList.h"
#include "Engine/utilities/TraceFlags.h"

// The engine knows this layout: docs/contract.md.
CUL_FIXED_SIZE(FileName, 32);
CUL_FIXED_FIELD(FileName, hash, 20);
CUL_FIXED_FIELD(FileName, basePosition, 24);
CUL_FIXED_FIELD(FileName, extensionPosition, 26);
CUL_FIXED_FIELD(FileName, memberPosition, 28);
CUL_FIXED_FIELD(FileName, hashValid, 30);

namespace {

constexpr unsigned workingDirectoryRoom = 4096;

// The 1-based position of the last `c` among `n` bytes, 0 when there is none.
std::size_t lastPosition(const char* text, std::size_t n, char c) noexcept {
  const void* const found = memrchr(text, c, n);
  return found == nullptr ? 0
                          : static_cast<std::size_t>(static_cast<const char*>(found) - text) + 1;
}

bool isName(std::string_view text) noexcept {
  return !text.empty() && text.back() != '/' && text.size() <= FileName::longest;
}

const EncodedString* newText(const char* text) {
  return new EncodedString(text, EncodedString::utf8);
}

}  // namespace

FileName::FileName(const char* text, Encoding encoding) : EncodedString(text, encoding) {
  validate();
}

FileName::FileName(const signed char* text, Encoding encoding) : EncodedString(text, encoding) {
  validate();
}

FileName::FileName(const unsigned char* text, Encoding encoding) : EncodedString(text, encoding) {
  validate();
}

FileName::FileName(const wchar_t* text) : EncodedString(text) { validate(); }

FileName::FileName(const CharString& text) : EncodedString(text) { validate(); }

FileName::FileName(const EncodedString& text) : EncodedString(text) { validate(); }

FileName::FileName(FileName&& source) noexcept { *this = std::move(source); }

FileName& FileName::operator=(FileName&& source) noexcept {
  if (this != &source) {
    hash = source.hash;
    basePosition = source.basePosition;
    extensionPosition = source.extensionPosition;
    memberPosition = source.memberPosition;
    hashValid = source.hashValid;
    source.forgetParts();
    EncodedString::operator=(std::move(source));
  }
  return *this;
}

FileName& FileName::operator=(const EncodedString& text) {
  EncodedString::operator=(text);
  validate();
  return *this;
}

void FileName::validate() {
  forgetParts();
  if (isName(view())) {
    findParts();
  } else if (view().ends_with('/')) {
    CUL_TRACE(TraceType::error, "Engine/utilities/FileName", 665_place,
              "Filename ends with PathSepChar.");
  }
}

void FileName::forgetParts() noexcept {
  basePosition = 0;
  extensionPosition = 0;
  memberPosition = 0;
  hashValid = 0;
}

void FileName::findParts() noexcept { findParts(view()); }

// Looks from the end of the name's text to the last separator in front of the member.
void FileName::findParts(std::string_view text) noexcept {
  const char* const bytes = text.data();
  std::size_t rest = text.size() - 1;  // Bytes still to be looked at.
  std::size_t extension = 0;
  if (bytes[rest] == ')') {
    rest = lastPosition(bytes, rest, '(');
    memberPosition = static_cast<unsigned short>(rest);
    rest -= rest == 0 ? 0 : 1;
  } else if (bytes[rest] == '.') {
    extension = text.size();
  }
  // Extensions are short: byte by byte up to the dot, then all at once.
  for (std::size_t at = rest; extension == 0 && at != 0 && bytes[at - 1] != '/'; --at) {
    if (bytes[at - 1] == '.') {
      extension = at;
    }
  }
  extensionPosition = static_cast<unsigned short>(extension);
  basePosition = static_cast<unsigned short>(lastPosition(bytes, rest, '/') + 1);
}

// The positions may be those of a text that has been shortened since.
std::string_view FileName::view(unsigned from, unsigned to) const noexcept {
  to = std::min(to, len + 1);
  return from == 0 || from >= to ? std::string_view()
                                 : std::string_view(buffer + from - 1, to - from);
}

unsigned FileName::baseEnd() const noexcept {
  return memberPosition != 0 ? memberPosition : len + 1;
}

std::string_view FileName::baseView() const noexcept { return view(basePosition, baseEnd()); }

std::string_view FileName::extensionView() const noexcept {
  return view(extensionPosition, baseEnd());
}

bool FileName::hasNumericExtension() const noexcept {
  const std::string_view extensionText = extensionView();
  return extensionText.size() > 1 && std::all_of(extensionText.begin() + 1, extensionText.end(),
                                                 [](char c) { return c >= '0' && c <= '9'; });
}

bool FileName::isAbsolute() const noexcept { return isValidName() && *buffer == '/'; }

bool FileName::isAccessible(bool executable) const {
  const std::string path = systemPath(*this);
  struct stat status = {};
  return stat(path.c_str(), &status) == 0 && S_ISREG(status.st_mode) &&
         access(path.c_str(), executable ? R_OK | X_OK : R_OK) == 0;
}

bool FileName::is_valid_path(const EncodedString& path) {
  return path.length() != 0 && FileName(path).isValidName();
}

List<EncodedString*> FileName::parsePaths(const EncodedString& paths) {
  std::string_view list = paths.view();
  unsigned count = 0;
  for (; !nextPathEntry(list).empty(); ++count) {
  }
  // A list that has room from the start is not copied while it grows.
  OwningList<EncodedString> result(count);
  list = paths.view();
  for (auto entry = nextPathEntry(list); !entry.empty(); entry = nextPathEntry(list)) {
    result.add(std::make_unique<EncodedString>(encodedText(entry)));
  }
  return result.release();
}

EncodedString FileName::directory() const { return encodedText(view(1, basePosition)); }

// Made in its place: to move a short text costs as much as to copy its bytes. Its parts are
// looked for where the bytes come from, since what was just written cannot be read at once in
// pieces of another size.
FileName FileName::named(std::string_view text) {
  FileName name;
  if (!text.empty()) {
    name.makeBuffer(static_cast<unsigned>(text.size()));
    std::memcpy(name.buffer, text.data(), text.size());
  }
  if (isName(text)) {
    name.findParts(text);
  } else {
    name.validate();
  }
  return name;
}

FileName FileName::baseAndMember() const { return named(view(basePosition, len + 1)); }

FileName FileName::short_name() const { return baseAndMember(); }

FileName FileName::base() const { return named(baseView()); }

FileName FileName::root() const {
  return named(view(basePosition, extensionPosition != 0 ? extensionPosition : len + 1));
}

FileName FileName::root_exe() const { return root(); }

EncodedString FileName::extension() const { return encodedText(extensionView()); }

EncodedString FileName::member() const {
  return memberPosition == 0 ? EncodedString() : encodedText(view(memberPosition + 1U, len));
}

FileName FileName::genericLibraryName() const {
  if (memberPosition == 0 && hasNumericExtension()) {
    FileName library = named(view(basePosition, extensionPosition));
    if (library.extensionView() == ".so") {
      return library;
    }
  }
  return baseAndMember();
}

// Puts `text` in place of what stands in [from, to).
void FileName::replace(unsigned from, unsigned to, std::string_view text) {
  const std::string_view head = view(1, from);
  const std::string_view tail = view(to, len + 1);
  const size_t length = head.size() + text.size() + tail.size();
  FileName changed;
  changed.makeBuffer(
      static_cast<unsigned>(std::min<size_t>(length, std::numeric_limits<unsigned>::max())));
  char* out = std::copy(head.begin(), head.end(), changed.buffer);
  out = std::copy(text.begin(), text.end(), out);
  std::copy(tail.begin(), tail.end(), out);
  *this = std::move(changed);
  validate();
}

void FileName::change_path(const EncodedString& dir) {
  if (!isValidName()) {
    return;
  }
  std::string folder(dir.view());
  if (!folder.empty() && folder.back() != '/') {
    folder += '/';
  }
  replace(1, basePosition, folder);
}

void FileName::change_extension(const EncodedString& ext) {
  if (!isValidName()) {
    return;
  }
  std::string text(ext.view());
  if (!text.empty() && text.front() != '.') {
    text.insert(0, 1, '.');
  }
  replace(extensionPosition != 0 ? extensionPosition : baseEnd(), baseEnd(), text);
}

void FileName::change_member(const EncodedString& name) {
  if (!isValidName()) {
    return;
  }
  std::string text(name.view());
  if (!text.empty() && text.front() != '(' && text.back() != ')') {
    text = '(' + text + ')';
  }
  replace(baseEnd(), len + 1, text);
}

void FileName::rationalizePath(const EncodedString& dir) {
  if (!isAbsolute() && dir.length() != 0) {
    change_path(dir + PathSepString() + directory());
  }
  rationalizePath();
}

EncodedString FileName::commonPathPrefix(const FileName& /*other*/) const { return {}; }

EncodedString FileName::commonPathSuffix(const FileName& other) const {
  if (basePosition <= 1 || other.len == 0) {
    return {};
  }
  const unsigned lastSeparator = basePosition - 1U;
  unsigned mine = other.buffer[other.len - 1] == '/' ? lastSeparator : lastSeparator - 1;
  unsigned theirs = other.len;
  unsigned start = 0;
  for (; mine > 0 && theirs > 0 && buffer[mine - 1] == other.buffer[theirs - 1]; --mine, --theirs) {
    if (buffer[mine - 1] == '/') {
      start = mine + 1;
    }
  }
  return encodedText(view(start, basePosition));
}

FileName FileName::findFile(const FileName& name, const EncodedString& searchPath,
                            bool executable) {
  // The system would see a name where a zero byte stands in front of what makes it none.
  if (!name.isValidName()) {
    return {};
  }
  if (name.memberPosition != 0) {
    const EncodedString member = encodedText(name.view(name.memberPosition, name.len + 1));
    FileName archive = name;
    archive.change_member(EncodedString());
    FileName result = findFile(archive, searchPath, false);
    result.change_member(member);
    return result;
  }
  const EncodedString current = workingDirectory(workingDirectoryRoom);
  if (current.length() == 0) {
    return {};
  }
  if (name.basePosition > 1) {
    if (!name.isAccessible(executable)) {
      return {};
    }
    FileName found = name;
    found.rationalizePath(current);
    return found;
  }
  // One list, kept so (docs/contract.md): a working directory with a ":" in its name is split too.
  const std::string folders = std::string(current.view()).append(":").append(searchPath.view());
  std::string_view list = folders;
  for (auto folder = nextPathEntry(list); !folder.empty(); folder = nextPathEntry(list)) {
    // Each from the name anew: a candidate that is too long cannot be changed any more.
    FileName candidate = name;
    candidate.change_path(encodedText(folder));
    if (candidate.isAccessible(executable)) {
      candidate.rationalizePath(current);
      return candidate;
    }
  }
  return {};
}

unsigned FileName::computeHash() {
  if (hashValid == 0) {
    hash = hashValue();
    hashValid = 1;
  }
  return hash;
}

bool FileName::operator==(const FileName& other) const {
  if (view() == other.view()) {
    return true;
  }
  if (hasTrailingWhiteSpace() || other.hasTrailingWhiteSpace()) {
    EncodedString mine = encodedText(view());
    EncodedString theirs = encodedText(other.view());
    mine.stripTrailingWhiteSpace();
    theirs.stripTrailingWhiteSpace();
    return mine == theirs;
  }
  const bool numeric = hasNumericExtension();
  if (numeric != other.hasNumericExtension()) {
    const FileName& versioned = numeric ? *this : other;
    const FileName& plain = numeric ? other : *this;
    if (plain.extensionView() == ".so") {
      FileName library = versioned;
      library.change_extension(EncodedString());
      return library.view() == plain.view();
    }
  }
  return false;
}

const EncodedString& FileName::PathSepString() {
  static constinit ProcessWide<const EncodedString> text;
  return text.get([] { return newText("/"); });
}

const EncodedString& FileName::PeriodString() {
  static constinit ProcessWide<const EncodedString> text;
  return text.get([] { return newText("."); });
}

const EncodedString& FileName::LeftParenString() {
  static constinit ProcessWide<const EncodedString> text;
  return text.get([] { return newText("("); });
}

const EncodedString& FileName::RightParenString() {
  static constinit ProcessWide<const EncodedString> text;
  return text.get([] { return newText(")"); });
}

EncodedString* FileName::pathSeparator() { return new EncodedString(PathSepString()); }
