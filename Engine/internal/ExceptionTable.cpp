#include "Engine/internal/ExceptionTable.h"

#include <cstddef>
#include <cstring>
#include <dlfcn.h>

namespace {

// Encodings of numbers in exception tables.
enum : unsigned char { asPointer = 0, asUleb128 = 1, asUdata2 = 2, asUdata4 = 3, asUdata8 = 4 };
constexpr unsigned char formatMask = 0x07;  // signed formats have the sizes of the unsigned
constexpr unsigned char aligned = 0x50;     // padded before: not written by any compiler
constexpr unsigned char omitted = 0xff;

// Reads no further than to `end`; what cannot be read is 0 and spoils the reader.
class TableReader {
 public:
  TableReader(const unsigned char* at, const unsigned char* end) : at_(at), end_(end) {}

  [[nodiscard]] bool isSound() const { return isSound_; }
  [[nodiscard]] std::size_t left() const { return static_cast<std::size_t>(end_ - at_); }
  [[nodiscard]] unsigned char byte() { return fixed<unsigned char>(); }

  std::uintptr_t uleb128() {
    std::uintptr_t value = 0;
    unsigned shift = 0;
    unsigned char part = 0;
    do {
      part = byte();
      value |= shift < 64 ? static_cast<std::uintptr_t>(part & 0x7f) << shift : 0;
      shift += 7;
    } while ((part & 0x80) != 0);
    return value;
  }

  std::uintptr_t number(unsigned char encoding) {
    if (encoding == aligned) {
      isSound_ = false;
      return 0;
    }
    switch (encoding & formatMask) {
      case asUleb128:
        return uleb128();
      case asUdata2:
        return fixed<std::uint16_t>();
      case asUdata4:
        return fixed<std::uint32_t>();
      case asPointer:
      case asUdata8:
        return fixed<std::uint64_t>();
      default:
        isSound_ = false;
        return 0;
    }
  }

 private:
  template <typename T>
  T fixed() {
    T value = 0;
    if (left() < sizeof value) {
      isSound_ = false;
      at_ = end_;
      return value;
    }
    std::memcpy(&value, at_, sizeof value);
    at_ += sizeof value;
    return value;
  }

  const unsigned char* at_;
  const unsigned char* end_;
  bool isSound_ = true;
};

// What the exception table of a function says of the instruction at `offset`. A table that
// does not read like one lists nothing.
Listed lookUp(const unsigned char* table, const unsigned char* end, std::uintptr_t offset) {
  TableReader reader(table, end);
  if (const unsigned char encoding = reader.byte(); encoding != omitted) {
    reader.number(encoding);  // base of landing pads
  }
  if (reader.byte() != omitted) {
    reader.uleb128();  // offset of the type table
  }
  const unsigned char encoding = reader.byte();
  const std::uintptr_t length = reader.uleb128();
  if (!reader.isSound() || length > reader.left()) {
    return Listed::no;
  }
  const std::size_t behind = reader.left() - length;
  while (reader.left() > behind) {
    const std::uintptr_t start = reader.number(encoding);
    const std::uintptr_t size = reader.number(encoding);
    const std::uintptr_t landingPad = reader.number(encoding);
    reader.uleb128();  // action
    if (!reader.isSound()) {
      return Listed::no;
    }
    if (offset - start < size) {
      return landingPad == 0 ? Listed::withoutCleanup : Listed::withCleanup;
    }
  }
  return Listed::no;
}

}  // namespace

Listed lookUp(const unsigned char* table, std::uintptr_t offset) {
  dl_find_object object;
  if (_dl_find_object(const_cast<unsigned char*>(table), &object) != 0) {
    return Listed::no;
  }
  return lookUp(table, static_cast<const unsigned char*>(object.dlfo_map_end), offset);
}
