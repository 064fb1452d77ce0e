#include "programs/enginetrace/PrintableText.h"

#include <cstddef>
#include <cstdint>
#include <cstring>

namespace {

using Byte = unsigned char;

// Of a text, or of a line of it, which has no newline.
enum class Of { text, line };

template <Of of>
bool isPlain(Byte c) noexcept {
  return (c >= 0x20 && c < 0x7F) || c == '\t' || (of == Of::text && c == '\n');
}

// Sixteen bytes at once: most texts are nothing but plain characters.
template <Of of>
bool arePlain(const char* text) noexcept {
  using Bytes = std::int8_t __attribute__((vector_size(16)));
  using Halves = std::int64_t __attribute__((vector_size(16)));
  Bytes bytes;
  std::memcpy(&bytes, text, sizeof bytes);
  // Signed: those above 0x7F lie below the blank.
  Bytes plain = ((bytes >= 0x20) & (bytes != 0x7F)) | (bytes == '\t');
  if constexpr (of == Of::text) {
    plain |= bytes == '\n';
  }
  const auto halves = reinterpret_cast<Halves>(plain);
  return (halves[0] & halves[1]) == -1;
}

// How many bytes at the start of the text are plain characters.
template <Of of>
std::size_t plainLength(std::string_view text) noexcept {
  std::size_t length = 0;
  while (length + 16 <= text.size() && arePlain<of>(text.data() + length)) {
    length += 16;
  }
  // The rest is mostly as plain as what is before it.
  if (text.size() >= 16 && length + 16 > text.size() &&
      arePlain<of>(text.data() + text.size() - 16)) {
    return text.size();
  }
  while (length < text.size() && isPlain<of>(static_cast<Byte>(text[length]))) {
    ++length;
  }
  return length;
}

// The shape of a character's UTF-8 form, by its first byte.
struct Form {
  std::size_t length;  // 0 for a byte that begins none
  Byte mask;           // of the first byte
  char32_t smallest;   // a shorter form serves for what lies below
};

Form formOf(Byte first) noexcept {
  if ((first & 0xE0) == 0xC0) {
    return {2, 0x1F, 0x80};
  }
  if ((first & 0xF0) == 0xE0) {
    return {3, 0x0F, 0x800};
  }
  if ((first & 0xF8) == 0xF0) {
    return {4, 0x07, 0x10000};
  }
  return {0, 0, 0};
}

// What a terminal does not show but obeys: control characters, the separators of lines and
// paragraphs, and marks for the direction of writing, which can make a text read as another one.
bool isObeyed(char32_t c) noexcept {
  return c < 0xA0 || c == 0x61C || c == 0x200E || c == 0x200F || (c >= 0x2028 && c <= 0x202E) ||
         (c >= 0x2066 && c <= 0x2069) || c == 0xFEFF || (c >= 0xE0000 && c <= 0xE0FFF);
}

// How long the character is that the text begins with; 0 when it is none to be shown. Its first
// byte is above 0x7F.
std::size_t characterLength(std::string_view text) noexcept {
  const Byte first = static_cast<Byte>(text[0]);
  const Form form = formOf(first);
  if (form.length == 0 || form.length > text.size()) {
    return 0;
  }
  char32_t character = first & form.mask;
  for (std::size_t i = 1; i < form.length; ++i) {
    const Byte next = static_cast<Byte>(text[i]);
    if ((next & 0xC0) != 0x80) {
      return 0;
    }
    character = character << 6 | (next & 0x3F);
  }
  const bool isCharacter = character >= form.smallest && character <= 0x10FFFF &&
                           !(character >= 0xD800 && character <= 0xDFFF);
  return isCharacter && !isObeyed(character) ? form.length : 0;
}

// How many bytes at the start of the text are shown as they are.
std::size_t printableLength(std::string_view text) noexcept {
  std::size_t length = 0;
  for (;;) {
    length += plainLength<Of::text>(text.substr(length));
    if (length == text.size() || static_cast<Byte>(text[length]) < 0x80) {
      return length;
    }
    const std::size_t character = characterLength(text.substr(length));
    if (character == 0) {
      return length;
    }
    length += character;
  }
}

}  // namespace

void appendPrintable(std::string& to, std::string_view text) {
  for (;;) {
    const std::size_t length = printableLength(text);
    to.append(text.substr(0, length));
    if (length == text.size()) {
      return;
    }
    constexpr char digits[] = "0123456789ABCDEF";
    const Byte byte = static_cast<Byte>(text[length]);
    to.append({'\\', 'x', digits[byte >> 4], digits[byte & 0xF]});
    text.remove_prefix(length + 1);
  }
}

bool isPrintable(std::string_view text) noexcept { return printableLength(text) == text.size(); }

bool isPlainLine(std::string_view text) noexcept {
  return plainLength<Of::line>(text) == text.size();
}

std::string shownName(std::string_view name) {
  std::string result;
  appendPrintable(result, name);
  for (std::size_t at = 0; (at = result.find('\n', at)) != std::string::npos;) {
    result.replace(at, 1, "\\x0A");
  }
  return result;
}
