// Keeps objects in a pool that frees them all at once, lists them, and finds them by a key.

#include <cstdio>
#include <cstring>

#include "Engine/utilities/EncodedString.h"
#include "Engine/utilities/List.h"
#include "Engine/utilities/Pool.h"
#include "Engine/utilities/SearchList_HashTable.h"

namespace {

// Memory of a pool is aligned to 4 bytes, so what is made there has no longer fields.
struct Symbol {
  unsigned address;
  char name[12];
};

int byName(const void* a, const void* b) {
  const auto* const left = *static_cast<const Symbol* const*>(a);
  const auto* const right = *static_cast<const Symbol* const*>(b);
  return std::strcmp(left->name, right->name);
}

// What a search list holds has a key.
struct Line {
  EncodedString key;
  unsigned number;
};

}  // namespace

int main() {
  // Objects of a pool are never deleted one by one: they end with the pool.
  Pool pool(4096, 100, "symbols");
  List<Symbol*> symbols;
  symbols.add(new (&pool) Symbol{0x1040, "main"});
  symbols.add(new (&pool) Symbol{0x1030, "exit"});
  symbols.add(new (&pool) Symbol{0x1000, "_start"});
  Symbol* const last = symbols[2];

  symbols.sort(byName);
  for (const Symbol* symbol : symbols) {
    std::printf("%04x %s\n", symbol->address, symbol->name);
  }
  // Indices count from 0; positions that are looked for count from 1, and 0 is "not found".
  std::printf("_start is number %u of %u\n", symbols.indexOf(last), symbols.count());

  SearchList_HashTable<Line, EncodedString> lines(17, 10, 0, nullptr);
  const EncodedString file("main.cpp", EncodedString::utf8);
  lines.add({file, 12});
  const bool addedTwice = lines.add({file, 13});
  std::printf("line %u, %s\n", lines.find(file)->number, addedTwice ? "doubled" : "once");
}
