#include "Engine/utilities/DebuggerArgList.h"

#include <memory>

DebuggerArgList::DebuggerArgList(const DebuggerArgList& other) { *this = other; }

DebuggerArgList& DebuggerArgList::operator=(const DebuggerArgList& other) {
  if (this != &other) {
    deleteAll();
    pairs_.reserve(other.count());
    for (const Pair* pair : other.pairs_.list()) {
      addArg(pair->name, pair->value);
    }
  }
  return *this;
}

DebuggerArgList::~DebuggerArgList() = default;

void DebuggerArgList::addArg(const EncodedString& name, const EncodedString& value) {
  pairs_.add(std::make_unique<Pair>(Pair{name, value}));
}

bool DebuggerArgList::removeArg(const EncodedString& name) {
  // NOLINTNEXTLINE(performance-unnecessary-copy-initialization): it may be the list's own.
  const EncodedString wanted = name;
  bool removed = false;
  for (unsigned int position = indexByName(wanted); position != 0; position = indexByName(wanted)) {
    pairs_.removeAt(position - 1);
    removed = true;
  }
  return removed;
}

unsigned int DebuggerArgList::indexByName(const EncodedString& name) const {
  unsigned int position = pairs_.count();
  while (position != 0 && this->name(position) != name) {
    --position;
  }
  return position;
}

EncodedString DebuggerArgList::valueByName(const EncodedString& name) const {
  const unsigned int position = indexByName(name);
  return position == 0 ? EncodedString() : value(position);
}

void DebuggerArgList::deleteAll() { pairs_.removeAll(); }
