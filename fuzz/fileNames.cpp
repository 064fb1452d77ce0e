// File names: the pieces of any name make up the name, changes change what they say and
// nothing else, lists are cut at every ":", comparisons are relations.

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <memory>
#include <vector>

#include "Engine/utilities/FileName.h"
#include "Engine/utilities/List.h"

#include "fuzz/Fuzz.h"

namespace {

FileName named(const std::string& text) { return FileName(utf8Text(text)); }

void checkInvalid(const FileName& name, const EncodedString& argument) {
  FUZZ_CHECK(!name.isAbsolute());
  for (const std::string& piece :
       {bytesOf(name.directory()), bytesOf(name.baseAndMember()), bytesOf(name.short_name()),
        bytesOf(name.base()), bytesOf(name.root()), bytesOf(name.root_exe()),
        bytesOf(name.extension()), bytesOf(name.member()), bytesOf(name.genericLibraryName())}) {
    FUZZ_CHECK(piece.empty());
  }
  FileName changed = name;
  changed.change_path(argument);
  changed.change_extension(argument);
  changed.change_member(argument);
  changed.rationalizePath(argument);
  FUZZ_CHECK(bytesOf(changed) == bytesOf(name));
  FUZZ_CHECK(!changed.isValidName());
}

void checkPieces(const FileName& name, const std::string& text) {
  const std::string directory = bytesOf(name.directory());
  const std::string last = bytesOf(name.baseAndMember());
  const std::string base = bytesOf(name.base());
  const std::string root = bytesOf(name.root());
  const std::string extension = bytesOf(name.extension());
  const std::string member = bytesOf(name.member());
  FUZZ_CHECK(name.isAbsolute() == text.starts_with('/'));
  FUZZ_CHECK(directory + last == text);
  FUZZ_CHECK(directory.empty() || directory.back() == '/');
  FUZZ_CHECK(bytesOf(name.short_name()) == last);
  FUZZ_CHECK(bytesOf(name.root_exe()) == root);
  FUZZ_CHECK(extension.empty() || extension.front() == '.');
  FUZZ_CHECK(last.starts_with(base));
  const bool hasMember = base.size() != last.size();
  FUZZ_CHECK(last == (hasMember ? base + '(' + member + ')' : base));
  FUZZ_CHECK(hasMember || member.empty());
  if (extension.empty()) {
    // The end of "a" and of "a.(m)", but a "." right in front of the member is an extension.
    FUZZ_CHECK(root == last);
  } else {
    FUZZ_CHECK(root + extension == base);
    FUZZ_CHECK(extension.find('.', 1) == std::string::npos);
  }
  if (hasMember || !text.ends_with(')')) {
    FUZZ_CHECK(base.find('/') == std::string::npos);
    FUZZ_CHECK(extension.empty() == (base.find('.') == std::string::npos));
  }
  const std::string generic = bytesOf(name.genericLibraryName());
  if (generic != last) {
    FUZZ_CHECK(generic.ends_with(".so") && !hasMember && last.starts_with(generic + '.'));
    FUZZ_CHECK(last.find_first_not_of("0123456789", generic.size() + 1) == std::string::npos);
  }
}

void checkChanges(const FileName& name, const std::string& text, const std::string& argument) {
  // A name that ends with ")" and has no "(" of its own may find one in another folder.
  const bool hasMember = name.base().length() != name.baseAndMember().length();
  const bool isPlain = hasMember || !text.ends_with(')');

  FileName moved = name;
  moved.change_path(utf8Text(argument));
  const std::string last = bytesOf(name.baseAndMember());
  const bool needsSeparator = !argument.empty() && argument.back() != '/';
  FUZZ_CHECK(bytesOf(moved) == argument + (needsSeparator ? "/" : "") + last);
  FUZZ_CHECK(moved.isValidName());
  FUZZ_CHECK(!isPlain || bytesOf(moved.baseAndMember()) == last);

  FileName anchored = name;
  anchored.rationalizePath(utf8Text(argument));
  FUZZ_CHECK(bytesOf(anchored) ==
             (name.isAbsolute() || argument.empty() ? text : argument + '/' + text));

  FileName extended = name;
  extended.change_extension(utf8Text(argument));
  const std::string extension =
      argument.empty() || argument.front() == '.' ? argument : '.' + argument;
  const size_t memberSize = hasMember ? name.member().length() + 2 : 0;
  const std::string front = text.substr(0, text.size() - memberSize - name.extension().length());
  FUZZ_CHECK(bytesOf(extended) == front + extension + text.substr(text.size() - memberSize));
  if (isPlain && !argument.empty() && argument.find_first_of("/.()", 1) == std::string::npos &&
      argument.find_first_of("/()") != 0) {
    FUZZ_CHECK(bytesOf(extended.extension()) == extension);
    FUZZ_CHECK(bytesOf(extended.member()) == bytesOf(name.member()));
  }

  FileName joined = name;
  joined.change_member(utf8Text(argument));
  const bool isWrapped = !argument.empty() && (argument.front() == '(' || argument.back() == ')');
  const std::string member = argument.empty() || isWrapped ? argument : '(' + argument + ')';
  FUZZ_CHECK(bytesOf(joined) == text.substr(0, text.size() - memberSize) + member);
  if (!argument.empty() && argument.find_first_of("()") == std::string::npos) {
    FUZZ_CHECK(bytesOf(joined.member()) == argument);
    FUZZ_CHECK(joined.directory() == name.directory() || !isPlain);
  }
}

void checkRelations(const FileName& a, const FileName& b) {
  FUZZ_CHECK(a == a && !(a != a));
  FUZZ_CHECK((a == b) == (b == a));
  FUZZ_CHECK((a == b) != (a != b));
  if (bytesOf(a) == bytesOf(b)) {
    FUZZ_CHECK(a == b);
    FUZZ_CHECK(FileName(a).computeHash() == FileName(b).computeHash());
  }
  FUZZ_CHECK(a.commonPathPrefix(b).length() == 0);
  const std::string suffix = bytesOf(a.commonPathSuffix(b));
  FUZZ_CHECK(bytesOf(a.directory()).ends_with(suffix));
  FUZZ_CHECK(suffix.empty() || suffix.back() == '/');
  if (!suffix.empty()) {
    const std::string other = bytesOf(b);
    FUZZ_CHECK(other.ends_with('/' + suffix) ||
               other.ends_with('/' + suffix.substr(0, suffix.size() - 1)));
  }
}

void checkCopies(const FileName& name) {
  FileName copy = name;
  const unsigned hash = copy.computeHash();
  FUZZ_CHECK(hash == copy.hashValue() && hash == FileName(copy).computeHash());
  FileName moved = std::move(copy);
  FUZZ_CHECK(moved.directory() == name.directory());
  FUZZ_CHECK(bytesOf(moved.extension()) == bytesOf(name.extension()));
  FUZZ_CHECK(moved.computeHash() == hash);
  copy = static_cast<const EncodedString&>(name);
  copy.validate();
  FUZZ_CHECK(bytesOf(copy.base()) == bytesOf(name.base()));
}

// However the name is given, it is the same one.
void checkForms(const FileName& name, const std::string& text) {
  const std::string whole = upToZero(text);
  const FileName expected = named(whole);
  const char* const characters = whole.c_str();
  const auto* const asSigned = reinterpret_cast<const signed char*>(characters);
  const auto* const asUnsigned = reinterpret_cast<const unsigned char*>(characters);
  for (const FileName& form :
       {FileName(characters, EncodedString::utf8), FileName(asSigned, EncodedString::utf8),
        FileName(asUnsigned, EncodedString::utf8)}) {
    FUZZ_CHECK(bytesOf(form) == whole && form.isValidName() == expected.isValidName());
    FUZZ_CHECK(form.directory() == expected.directory());
  }
  const CharString wide = wideText(text);
  const FileName fromWide(wide);
  FUZZ_CHECK(bytesOf(fromWide) == bytesOf(wide));
  // Characters that are encoded in more bytes than they need come back in the fewest.
  FUZZ_CHECK(bytesOf(wide) != text || fromWide.extension() == name.extension());
  const wchar_t* const values = wide;
  FUZZ_CHECK(bytesOf(FileName(values)) == bytesOf(CharString(values)));
}

// The working directory comes first, then the path. Names without a folder and a member.
void checkSearch(const FileName& name, const std::string& text, const std::string& path,
                 bool executable) {
  const FileName found = FileName::findFile(name, utf8Text(path), executable);
  FUZZ_CHECK(found.length() == 0 || found.isAbsolute());
  if (text == "plain" || text == "program") {
    const bool isPlain = text == "plain";
    const std::string searched = fuzzFolder() + (isPlain ? "" : "/bin");
    const FileName expected = FileName::findFile(name, utf8Text(searched), executable);
    FUZZ_CHECK(bytesOf(expected) == (isPlain && executable ? "" : searched + '/' + text));
  }
}

void checkPaths(const std::string& text) {
  std::vector<std::string> expected;
  for (size_t at = 0; at <= text.size();) {
    const size_t end = std::min(text.find(':', at), text.size());
    if (end != at) {
      expected.push_back(text.substr(at, end - at));
    }
    at = end + 1;
  }
  const List<EncodedString*> paths = FileName::parsePaths(utf8Text(text));
  FUZZ_CHECK(paths.count() == expected.size());
  for (unsigned i = 0; i < paths.count(); ++i) {
    const std::unique_ptr<EncodedString> path(paths[i]);
    FUZZ_CHECK(bytesOf(*path) == expected[i]);
  }
}

}  // namespace

void setUpFuzzing() {
  namespace fs = std::filesystem;
  const fs::path folder = fuzzFolder();
  fs::create_directory(folder / "bin");
  for (const char* const name : {"plain", "bin/program"}) {
    std::ofstream(folder / name) << "";
  }
  fs::permissions(folder / "bin/program", fs::perms::owner_all);
  fs::current_path(folder);
}

void fuzz(FuzzInput& input) {
  const bool isLong = input.choice(16) == 15;
  std::string text = input.text();
  const std::string argument = input.text();
  const std::string other = input.text();
  if (isLong) {
    // On both sides of the greatest length.
    text.insert(text.size() / 2, std::string(FileName::longest - 20, 'n'));
  }
  const FileName name = named(text);
  const bool isValid = !text.empty() && text.back() != '/' && text.size() <= FileName::longest;
  FUZZ_CHECK(bytesOf(name) == text);
  FUZZ_CHECK(name.isValidName() == isValid);
  FUZZ_CHECK(FileName::is_valid_path(utf8Text(text)) == isValid);
  if (!isValid) {
    checkInvalid(name, utf8Text(argument));
  } else if (isLong) {
    FUZZ_CHECK(bytesOf(name.directory()) + bytesOf(name.baseAndMember()) == text);
  } else {
    checkPieces(name, text);
    checkChanges(name, text, argument);
  }
  if (isLong) {
    return;
  }
  checkRelations(name, named(argument));
  checkRelations(name, named(other));
  checkRelations(named(other), named(argument));
  checkCopies(name);
  checkPaths(text);
  checkForms(name, text);
  checkSearch(name, text, argument, input.choice(2) == 1);
}
