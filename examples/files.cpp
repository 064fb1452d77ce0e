// Takes a file name apart, and reads a property file.

#include <cstdio>

#include "Engine/utilities/EncodedString.h"
#include "Engine/utilities/FileName.h"
#include "Engine/utilities/PathSearch.h"
#include "Engine/utilities/Properties.h"

namespace {

void print(const char* what, const EncodedString& text) {
  const char* const characters = text;
  std::printf("%-10s %s\n", what, characters);
}

}  // namespace

int main() {
  FileName name("lib/libx.a(shr.o)", EncodedString::utf8);
  print("directory", name.directory());
  print("base", name.base());
  print("extension", name.extension());
  print("member", name.member());
  name.change_extension(EncodedString("so", EncodedString::utf8));
  print("changed", name);

  const EncodedString shell("sh", EncodedString::utf8);
  const EncodedString folders("/nowhere:/bin", EncodedString::utf8);
  print("found", searchPath(shell, folders));

  // A property file of two lines and a comment.
  const char* const path = "example.properties";
  if (std::FILE* const file = std::fopen(path, "w"); file != nullptr) {
    std::fputs("host = localhost  # this machine\nport = 8001\nport = 8002\n", file);
    std::fclose(file);
  }
  const FileName properties(path, EncodedString::utf8);
  const Properties read(&properties);
  print("host", read.getString(EncodedString("host", EncodedString::utf8)));
  std::printf("%-10s %d\n", "port", read.getInteger(EncodedString("port", EncodedString::utf8)));
  std::remove(path);
}
