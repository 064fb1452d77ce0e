// Takes a file name apart, and reads a property file.

#include <cstdio>
#include <fstream>
#include <iomanip>
#include <iostream>

#include "Engine/utilities/EncodedString.h"
#include "Engine/utilities/FileName.h"
#include "Engine/utilities/PathSearch.h"
#include "Engine/utilities/Properties.h"

namespace {

void print(const char* what, const EncodedString& text) {
  std::cout << std::left << std::setw(10) << what << ' ' << text.view() << '\n';
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

  // Of two lines with one key the last one counts.
  const char* const path = "example.properties";
  std::ofstream(path) << "host = localhost  # this machine\nport = 8001\nport = 8002\n";
  const FileName properties(path, EncodedString::utf8);
  const Properties read(&properties);
  print("host", read.getString(EncodedString("host", EncodedString::utf8)));
  const int port = read.getInteger(EncodedString("port", EncodedString::utf8));
  print("port + 1", EncodedString::number(port + 1));
  return std::remove(path);
}
