#include "Engine/utilities/Properties.h"

#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <new>
#include <string>
#include <utility>

#include "Engine/internal/FixedLayout.h"
#include "Engine/internal/PlaceNumber.h"
#include "Engine/internal/SystemPath.h"
#include "Engine/utilities/ByteString.h"
#include "Engine/utilities/CharString.h"
#include "Engine/utilities/FileName.h"
#include "Engine/utilities/KeepErrno.h"
#include "Engine/utilities/StdException.h"

// The engine knows this layout: docs/contract.md.
using PropertyList = SearchList<Properties::HashElement, EncodedString>;
CUL_FIXED_SIZE(PropertyList, 24);
CUL_FIXED_FIELD(PropertyList, count_, 8);
CUL_FIXED_FIELD(PropertyList, duplicatesAllowed_, 12);
CUL_FIXED_FIELD(PropertyList, stamp_, 16);
CUL_FIXED_FIELD(Properties::Table, cursor_, 24);
CUL_FIXED_FIELD(Properties::Table, memory_, 64);
CUL_FIXED_FIELD(Properties::Table, buckets_, 96);
CUL_FIXED_FIELD(Properties::Table, bucketCount_, 104);
CUL_FIXED_SIZE(Properties::HashElement, 56);
CUL_FIXED_FIELD(Properties::HashElement, key, 8);
CUL_FIXED_FIELD(Properties::HashElement, value, 32);
CUL_FIXED_SIZE(SearchList_HashNode<Properties::HashElement>, 64);
CUL_FIXED_FIELD(SearchList_HashNode<Properties::HashElement>, next, 0);
CUL_FIXED_FIELD(SearchList_HashNode<Properties::HashElement>, element, 8);

template class SearchList<Properties::HashElement, EncodedString>;
template class SearchList_HashTable<Properties::HashElement, EncodedString>;
template class Cursor<Properties::HashElement, EncodedString>;
template class Cursor_HashTable<Properties::HashElement, EncodedString>;

namespace {

constexpr unsigned int bucketCount = 257;
constexpr unsigned int elementsPerBlock = 500;

// A text file, read line by line.
class LineReader {
 public:
  explicit LineReader(const std::string& path) : file_(std::fopen(path.c_str(), "re")) {}
  LineReader(const LineReader&) = delete;
  LineReader& operator=(const LineReader&) = delete;
  ~LineReader() {
    const KeepErrno kept;
    if (file_ != nullptr) {
      std::fclose(file_);
    }
    std::free(line_);
  }

  [[nodiscard]] bool isOpen() const { return file_ != nullptr; }

  // Reads the next line, without its line feed.
  bool next(std::string_view& line) {
    const ssize_t length = getline(&line_, &room_, file_);
    if (length <= 0) {
      return false;
    }
    line = std::string_view(line_, static_cast<size_t>(length));
    if (line.back() == '\n') {
      line.remove_suffix(1);
      return true;
    }
    // Else a failure has cut the line.
    return isAtEnd();
  }

  // Whether the end was reached, rather than a failure.
  [[nodiscard]] bool isAtEnd() const { return std::feof(file_) != 0; }

 private:
  FILE* file_;
  char* line_ = nullptr;
  size_t room_ = 0;
};

EncodedString strippedText(const ByteString& bytes) {
  return {stripWhiteSpace(bytes), EncodedString::autodetect};
}

}  // namespace

Properties::HashElement::~HashElement() = default;

Properties::Properties(const FileName* file)
    : table_(bucketCount, elementsPerBlock, /*duplicatesAllowed=*/0, /*heap=*/nullptr) {
  if (file != nullptr) {
    set(*file);
  }
}

Properties::~Properties() = default;

// True stands for failure: callers test it so.
bool Properties::set(const FileName& file) {
  LineReader reader(systemPath(file));
  if (!reader.isOpen()) {
    return true;
  }
  std::string_view line;
  while (reader.next(line)) {
    setLine(line.substr(0, line.find('#')));
  }
  if (!reader.isAtEnd() && errno == ENOMEM) {
    throw std::bad_alloc();
  }
  return !reader.isAtEnd();
}

// Takes one line without its end and its comment.
void Properties::setLine(std::string_view line) {
  if (line.empty() || line.front() == '=') {
    return;
  }
  if (line.size() >= UINT_MAX) {
    throw std::bad_alloc();
  }
  ByteString value(line.data(), static_cast<unsigned>(line.size()));
  const ByteString key = value.firstToken("=");
  setProperty(strippedText(key), strippedText(value));
}

void Properties::setProperty(const EncodedString& key, const EncodedString& value) {
  if (key.length() == 0) {
    return;
  }
  HashElement property(key, value);
  if (!table_.add(property)) {
    // Adding has moved the cursor to the property that is there.
    table_.cursor().element()->value = std::move(property.value);
  }
}

EncodedString Properties::getString(const EncodedString& key) const {
  const HashElement* const property = table_.find(key);
  return property != nullptr ? property->value : EncodedString();
}

int Properties::getInteger(const EncodedString& key) const {
  const EncodedString text = getString(key);
  CharString wide;
  wide.loadFrom(text, text.length(), EncodedString::utf8);
  int value = 0;
  if (!wide.asValue(value)) {
    StdException::throwException("int Properties::getInteger(const EncodedString&) const",
                                 139_place, "Invalid property format.", -1);
  }
  return value;
}

bool Properties::doesContain(const EncodedString& key) const { return table_.find(key) != nullptr; }
