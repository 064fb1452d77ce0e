// Takes a line apart, and writes its text in other encodings.

#include <iostream>

#include "Engine/utilities/ByteString.h"
#include "Engine/utilities/EncodedString.h"
#include "Engine/utilities/MD5.h"

int main() {
  // The encoding says how the bytes are read; from here on the text is UTF-8.
  EncodedString value("greeting = Καλημέρα  # Greek", EncodedString::utf8);
  const EncodedString key = value.splitAt('=').firstToken(" ");
  value = value.allBefore('#');
  value.stripWhiteSpace();

  std::cout << key.view() << " is " << value.view() << ": " << value.charCount()
            << " characters in " << value.length() << " bytes\n";

  // Positions count bytes from 1, and 0 is "not found".
  const EncodedString mu("μ", EncodedString::utf8);
  std::cout << "μ is at " << value.indexOf(mu) << ", # at " << value.indexOf('#') << '\n';

  // On the way out a text has the encoding that is asked for: here ASCII with escapes.
  const ByteString escaped = value.convert(EncodedString::slashU);
  const EncodedString asRead(escaped, EncodedString::utf8);
  const EncodedString back(escaped, EncodedString::slashU);
  std::cout << asRead.view() << (back == value ? " comes back\n" : " is lost\n");

  std::cout << MD5(value, value.length()).asString(MD5::hexadecimal).view() << '\n';
}
