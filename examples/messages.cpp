// Speaks to its user in the user's language.

#include <cstdio>

#include "Engine/utilities/EncodedString.h"
#include "Engine/utilities/msgserv/XPG4MsgServer.h"

namespace {

// The texts are in examples/messages: a set, then the numbers of its messages.
constexpr int greetings = 1;
constexpr int morning = 1;
constexpr int guests = 2;

void speak(const char* language) {
  // libwobnexample.so, which cul_add_message_catalog() makes of the texts. Without a language
  // that of the environment, "LANG".
  const XPG4MsgServer messages(language, "example");
  const EncodedString greeting = messages.getMessage(greetings, morning);
  const EncodedString format = messages.getMessage(greetings, guests);
  std::puts(greeting);
  std::printf(format, 3);
  std::puts("");
}

}  // namespace

int main() {
  speak("en_US");
  speak("de_DE.UTF-8");
}
