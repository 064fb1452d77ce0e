// Takes a line apart, and writes its text in other encodings.

#include <cstdio>

#include "Engine/utilities/ByteString.h"
#include "Engine/utilities/EncodedString.h"
#include "Engine/utilities/MD5.h"

int main() {
  // The encoding says how the bytes are read; from here on the text is UTF-8.
  EncodedString value("greeting = Καλημέρα  # Greek", EncodedString::utf8);
  const EncodedString key = value.splitAt('=').firstToken(" ");
  value = value.allBefore('#');
  value.stripWhiteSpace();

  // A string converts to the zero-terminated text that system calls take.
  const char* const keyText = key;
  const char* const valueText = value;
  std::printf("%s is %s: %u characters in %u bytes\n", keyText, valueText, value.charCount(),
              value.length());

  // Positions count bytes from 1, and 0 is "not found".
  const EncodedString mu("μ", EncodedString::utf8);
  std::printf("μ is at %u, # at %u\n", value.indexOf(mu), value.indexOf('#'));

  // On the way out a text has the encoding that is asked for: here ASCII with escapes.
  const ByteString escaped = value.convert(EncodedString::slashU);
  std::fwrite(escaped, 1, escaped.length(), stdout);
  const EncodedString back(escaped, EncodedString::slashU);
  std::printf("\n%s\n", back == value ? "comes back" : "is lost");

  const EncodedString sum = MD5(value, value.length()).asString(MD5::hexadecimal);
  const char* const sumText = sum;
  std::printf("%s\n", sumText);
}
