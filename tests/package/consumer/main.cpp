#include <cstdio>

#include "Engine/utilities/DebuggerConfiguration.h"
#include "Engine/utilities/EncodedString.h"
#include "Engine/utilities/msgserv/XPG4MsgServer.h"

int main() {
  const EncodedString word("λόγος", EncodedString::utf8);
  std::printf("%u characters in %u bytes\n", word.charCount(), word.length());
  // Comes from the module that lies beside the library.
  std::printf("%s\n", DebuggerConfiguration::instance()->sourceFilterDefault());
  const XPG4MsgServer messages(nullptr, "consumer");
  const EncodedString greeting = messages.getMessage(1, 1);
  const char* const text = greeting;
  std::printf("%s\n", text);
}
