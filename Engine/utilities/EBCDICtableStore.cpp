#include "Engine/utilities/EBCDICtableStore.h"

#include <string_view>

#include "Engine/internal/ProcessWide.h"
#include "Engine/internal/Texts.h"

namespace {

constexpr std::size_t builtIn = 0;

bool isEmpty(const char* name) { return name == nullptr || *name == '\0'; }

}  // namespace

EBCDICtableStore& EBCDICtableStore::instance() {
  static constinit ProcessWide<EBCDICtableStore> store;
  return store.get([] { return new EBCDICtableStore; });
}

EBCDICtableStore::EBCDICtableStore() { tables_.push_back(std::make_unique<EBCDICtable>()); }

// The number of tables when none has the name.
std::size_t EBCDICtableStore::indexOf(const char* name) const {
  for (std::size_t i = tables_.size(); i != 0; --i) {
    if (tables_[i - 1]->getName().view() == name) {
      return i - 1;
    }
  }
  return tables_.size();
}

EBCDICtable* EBCDICtableStore::add(const List<EBCDICtable::ValuePair>& pairs, const char* name) {
  if (isEmpty(name)) {
    return nullptr;
  }
  const std::size_t index = indexOf(name);
  if (index == builtIn) {
    return tables_[builtIn].get();
  }
  // Before the old table goes: the name may be its own.
  auto table = std::make_unique<EBCDICtable>(pairs, name);
  if (index == tables_.size()) {
    tables_.emplace_back();
  }
  tables_[index] = std::move(table);
  return tables_[index].get();
}

EBCDICtable* EBCDICtableStore::find(const char* name) const {
  if (isEmpty(name)) {
    return tables_[builtIn].get();
  }
  const std::size_t index = indexOf(name);
  return index < tables_.size() ? tables_[index].get() : nullptr;
}

void EBCDICtableStore::remove(const char* name) {
  if (isEmpty(name)) {
    return;
  }
  const std::size_t index = indexOf(name);
  if (index != builtIn && index < tables_.size()) {
    tables_.erase(tables_.begin() + static_cast<std::ptrdiff_t>(index));
  }
}
