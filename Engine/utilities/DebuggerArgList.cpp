#include "Engine/utilities/DebuggerArgList.h"

#include <memory>

// Delegates so that the destructor runs when a copy of a text fails.
DebuggerArgList::DebuggerArgList(const DebuggerArgList& other) : DebuggerArgList() {
  *this = other;
}

DebuggerArgList& DebuggerArgList::operator=(const DebuggerArgList& other) {
  if (this != &other) {
    deleteAll();
    pairs_.extend(other.count());
    for (const Pair* pair : other.pairs_) {
      addArg(pair->name, pair->value);
    }
  }
  return *this;
}

DebuggerArgList::~DebuggerArgList() { deleteAll(); }

void DebuggerArgList::addArg(const EncodedString& name, const EncodedString& value) {
  auto pair = std::make_unique<Pair>(Pair{name, value});
  pairs_.add(pair.get());
  static_cast<void>(pair.release());
}

bool DebuggerArgList::removeArg(const EncodedString& name) {
  // NOLINTNEXTLINE(performance-unnecessary-copy-initialization): it may be the list's own.
  const EncodedString wanted = name;
  bool removed = false;
  for (unsigned int position = indexByName(wanted); position != 0; position = indexByName(wanted)) {
    delete pairs_[position - 1];
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

void DebuggerArgList::deleteAll() {
  for (const Pair* pair : pairs_) {
    delete pair;
  }
  pairs_.removeAll();
}
