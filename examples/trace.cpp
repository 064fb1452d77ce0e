// Writes a trace with an exception in it, and shows what stands behind its header.

#include <cstdio>
#include <fstream>
#include <iostream>
#include <string>

#include "Engine/utilities/StdException.h"
#include "Engine/utilities/TraceFlags.h"
#include "Engine/utilities/TraceImplementation.h"

namespace {

void readModule(const char* name) {
  // A line says who writes it, and nothing is composed while its type is switched off.
  CUL_TRACE(TraceType::gde, "readModule()", __LINE__, "Reading \"%s\".", name);
  CUL_TRACE(TraceType::dbx, "readModule()", __LINE__, "This type is off.");
  // Leaves a line behind, also when nobody catches it.
  StdException::throwException("trace.cpp", __LINE__, "File not found.", -1);
}

}  // namespace

int main() {
  // As QVX_DBG_TRACE says it elsewhere: the output, then the types.
  TraceImplementation::instance(L"example.trc,GDE,EXCPTN,PMD");
  try {
    readModule("libc.so.6");
  } catch (const StdException& e) {
    e.trace("main()", __LINE__);
  }

  // Each line is flushed at once.
  std::ifstream file("example.trc");
  bool isBehindHeader = false;
  for (std::string line; std::getline(file, line);) {
    if (isBehindHeader) {
      std::cout << line << '\n';
    }
    isBehindHeader = isBehindHeader || line.starts_with("====");
  }
  return std::remove("example.trc");
}
