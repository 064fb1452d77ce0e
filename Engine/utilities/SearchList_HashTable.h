#pragma once

#include <cstddef>
#include <cstring>
#include <memory>

#include "Engine/utilities/Cursor.h"
#include "Engine/utilities/Export.h"
#include "Engine/utilities/ListHeap.h"
#include "Engine/utilities/SearchList.h"
#include "Engine/utilities/SearchListManagedMemory.h"
#include "Engine/utilities/SearchListMemoryManager.h"

/// \file
/// A search list that keeps its elements in chains by the hashes of their keys.
///
/// An `Element` can be copied and has a member `key`, which is a `Key` or compares with one;
/// a `Key` has hashValue(). The hash modulo the bucket count chooses the chain. The bucket
/// count is fixed, so that chains grow with the number of elements: see SearchList_HashPrime.
/// A table without elements takes no memory; what it once took it keeps until it ends.
///
/// **Order.** Cursors visit the buckets in ascending order, and within a bucket the element
/// added last comes first.
///
/// **Cursors and changes.** An element never moves. Adding leaves all cursors where they are,
/// except that the first element added to a new table finds none that stands anywhere.
/// Removing one element leaves the cursors on others where they are; those on it stand
/// nowhere, until its storage is used again in the same bucket: then they stand on the new
/// element. removeAll() leaves every cursor nowhere. A cursor must not outlive its table.
///
/// The elements are aligned to 8 bytes. Not copyable, not thread-safe, see SearchList.

template <class Element, class Key>
class SearchList_HashTable;

/// A stored element, linked to the next one of its chain.
template <class Element>
struct SearchList_HashNode : SearchListManagedMemory {
  /// A copy of `source` in front of `following`, which may be null.
  SearchList_HashNode(SearchList_HashNode* following, const Element& source)
      : next(following), element(source) {}

  SearchList_HashNode* next;  ///< Null at the end of the chain.
  Element element;            ///< The table's own copy.
};

/// A position in a SearchList_HashTable.
template <class Element, class Key>
class CUL_EXPORT Cursor_HashTable : public Cursor<Element, Key> {
 public:
  /// A cursor that stands nowhere.
  explicit Cursor_HashTable(SearchList_HashTable<Element, Key>& table) noexcept : table_(&table) {}
  /// A cursor of the same table at the same position.
  Cursor_HashTable(const Cursor_HashTable&) = default;
  Cursor_HashTable& operator=(const Cursor_HashTable&) = delete;
  ~Cursor_HashTable() override = default;

  bool first() override;
  bool last() override;
  bool next() override;
  bool previous() override;
  [[nodiscard]] Element* element() const override;
  [[nodiscard]] std::unique_ptr<Cursor<Element, Key>> clone() const override;
  void leave() noexcept override { stamp_ = nowhere; }

  /// Whether both belong to the same table and stand on the same element or both nowhere.
  [[nodiscard]] bool operator==(const Cursor_HashTable& other) const {
    return table_ == other.table_ && element() == other.element();
  }
  [[nodiscard]] bool operator!=(const Cursor_HashTable& other) const { return !(*this == other); }

 private:
  friend class SearchList_HashTable<Element, Key>;
  using Node = SearchList_HashNode<Element>;

  static constexpr int nowhere = -2;

  [[nodiscard]] bool isPositioned() const noexcept;
  void place(unsigned int bucket, Node* node) noexcept;
  bool placeAtHeadFrom(unsigned int bucket) noexcept;
  bool placeAtTailBelow(unsigned int bucket) noexcept;

  SearchList_HashTable<Element, Key>* table_;
  Node* node_ = nullptr;
  unsigned int bucket_ = 0;
  int stamp_ = nowhere;
  unsigned int removals_ = 0;  // Of the table, when the cursor was placed.
};

template <class Element, class Key>
class CUL_EXPORT SearchList_HashTable : public SearchList<Element, Key> {
 public:
  /// An empty table.
  /// \param buckets           0 counts as 1.
  /// \param elementsPerBlock  elements that memory is taken for at once, at least 1 and at
  ///                          most 65535; what lies outside counts as the nearer of the two.
  /// \param duplicatesAllowed 0: keys are unique.
  /// \param heap              where blocks and buckets come from, null for the free store;
  ///                          must outlive the table.
  SearchList_HashTable(unsigned int buckets, unsigned int elementsPerBlock, int duplicatesAllowed,
                       ListHeap* heap)
      : SearchList<Element, Key>(duplicatesAllowed),
        cursor_(*this),
        memory_(heap, nodeSize(), clampedToShort(elementsPerBlock)),
        bucketCount_(buckets == 0 ? 1 : buckets) {}
  ~SearchList_HashTable() override;

  bool add(const Element& element) override;
  Element* find(const Key& key) override;
  bool remove(const Key& key) override;
  bool remove(Cursor<Element, Key>& position) override;
  void removeAll() noexcept override;
  [[nodiscard]] Cursor_HashTable<Element, Key>& cursor() noexcept override { return cursor_; }

 private:
  friend class Cursor_HashTable<Element, Key>;

  using Node = SearchList_HashNode<Element>;

  // Asked for when the element is complete, which it needs not be for the class.
  static constexpr unsigned short nodeSize() noexcept {
    static_assert(sizeof(Node) <= 65532, "an element's size has 16 bits");
    static_assert(alignof(Node) <= 8, "elements are aligned to 8 bytes");
    return sizeof(Node);
  }

  static constexpr unsigned short clampedToShort(unsigned int n) noexcept {
    return n < 0xFFFF ? static_cast<unsigned short>(n) : 0xFFFF;
  }

  [[nodiscard]] unsigned int bucketOf(const Key& key) const {
    return key.hashValue() % bucketCount_;
  }
  [[nodiscard]] Node* nodeIn(unsigned int bucket, const Key& key) const;
  void makeBuckets();
  bool removeNode(unsigned int bucket, const Node* node) noexcept;
  void destroy(Node* node) noexcept;
  void destroyAll() noexcept;

  Cursor_HashTable<Element, Key> cursor_;
  SearchListMemoryManager memory_;
  // Owned, of the memory manager's heap; raw because the engine knows the field (docs/contract.md).
  Node** buckets_ = nullptr;
  unsigned int bucketCount_;
  unsigned int removals_ = 0;  // Of single elements, ever; tells cursors to look twice.
};

template <class Element, class Key>
SearchList_HashTable<Element, Key>::~SearchList_HashTable() {
  destroyAll();
  putBack(memory_.heap(), buckets_);
}

template <class Element, class Key>
bool SearchList_HashTable<Element, Key>::add(const Element& element) {
  if (this->duplicatesAllowed_ == 0 && this->find(element.key) != nullptr) {
    return false;
  }
  if (buckets_ == nullptr) {
    makeBuckets();
  }
  const unsigned int bucket = bucketOf(element.key);
  Node* const node = new (memory_) Node(buckets_[bucket], element);
  buckets_[bucket] = node;
  ++this->count_;
  cursor_.place(bucket, node);
  return true;
}

template <class Element, class Key>
Element* SearchList_HashTable<Element, Key>::find(const Key& key) {
  if (this->count_ == 0) {
    return nullptr;
  }
  const unsigned int bucket = bucketOf(key);
  Node* const node = nodeIn(bucket, key);
  if (node == nullptr) {
    return nullptr;
  }
  cursor_.place(bucket, node);
  return &node->element;
}

template <class Element, class Key>
bool SearchList_HashTable<Element, Key>::remove(const Key& key) {
  if (this->count_ == 0) {
    return false;
  }
  const unsigned int bucket = bucketOf(key);
  const Node* const node = nodeIn(bucket, key);
  if (node == nullptr) {
    return false;
  }
  return removeNode(bucket, node);
}

template <class Element, class Key>
bool SearchList_HashTable<Element, Key>::remove(Cursor<Element, Key>& position) {
  const Element* const element = position.element();
  if (element == nullptr || this->count_ == 0) {
    return false;
  }
  const unsigned int bucket = bucketOf(element->key);
  for (const Node* node = buckets_[bucket]; node != nullptr; node = node->next) {
    if (&node->element == element) {
      position.leave();
      return removeNode(bucket, node);
    }
  }
  return false;
}

template <class Element, class Key>
void SearchList_HashTable<Element, Key>::removeAll() noexcept {
  destroyAll();
  this->count_ = 0;
  this->invalidateCursors();
}

// The first element of a chain that has the key.
template <class Element, class Key>
auto SearchList_HashTable<Element, Key>::nodeIn(unsigned int bucket, const Key& key) const
    -> Node* {
  Node* node = buckets_[bucket];
  while (node != nullptr && !(node->element.key == key)) {
    node = node->next;
  }
  return node;
}

template <class Element, class Key>
void SearchList_HashTable<Element, Key>::makeBuckets() {
  const std::size_t size = std::size_t{bucketCount_} * sizeof(Node*);
  buckets_ = static_cast<Node**>(std::memset(getFrom(memory_.heap(), size), 0, size));
  this->invalidateCursors();
}

// Removes a node of the chain.
template <class Element, class Key>
bool SearchList_HashTable<Element, Key>::removeNode(unsigned int bucket,
                                                    const Node* node) noexcept {
  Node** link = &buckets_[bucket];
  while (*link != node) {
    link = &(*link)->next;
  }
  if (cursor_.node_ == node) {
    cursor_.leave();
  }
  Node* const removed = *link;
  *link = removed->next;
  --this->count_;
  ++removals_;
  destroy(removed);
  return true;
}

template <class Element, class Key>
void SearchList_HashTable<Element, Key>::destroy(Node* node) noexcept {
  node->~Node();
  memory_.releaseElement(node);
}

template <class Element, class Key>
void SearchList_HashTable<Element, Key>::destroyAll() noexcept {
  if (this->count_ == 0) {
    return;
  }
  for (unsigned int bucket = 0; bucket != bucketCount_; ++bucket) {
    while (buckets_[bucket] != nullptr) {
      Node* const node = buckets_[bucket];
      buckets_[bucket] = node->next;
      destroy(node);
    }
  }
}

template <class Element, class Key>
bool Cursor_HashTable<Element, Key>::first() {
  leave();
  return table_->count_ != 0 && placeAtHeadFrom(0);
}

template <class Element, class Key>
bool Cursor_HashTable<Element, Key>::last() {
  leave();
  return table_->count_ != 0 && placeAtTailBelow(table_->bucketCount_);
}

template <class Element, class Key>
bool Cursor_HashTable<Element, Key>::next() {
  if (!isPositioned()) {
    return false;
  }
  if (node_->next != nullptr) {
    place(bucket_, node_->next);
    return true;
  }
  return placeAtHeadFrom(bucket_ + 1);
}

template <class Element, class Key>
bool Cursor_HashTable<Element, Key>::previous() {
  if (!isPositioned()) {
    return false;
  }
  Node* node = table_->buckets_[bucket_];
  if (node == node_) {
    return placeAtTailBelow(bucket_);
  }
  while (node->next != node_) {
    node = node->next;
  }
  place(bucket_, node);
  return true;
}

template <class Element, class Key>
Element* Cursor_HashTable<Element, Key>::element() const {
  return isPositioned() ? &node_->element : nullptr;
}

template <class Element, class Key>
std::unique_ptr<Cursor<Element, Key>> Cursor_HashTable<Element, Key>::clone() const {
  return std::make_unique<Cursor_HashTable<Element, Key>>(*this);
}

// After removals of single elements the node may be gone: it is compared, not followed.
template <class Element, class Key>
bool Cursor_HashTable<Element, Key>::isPositioned() const noexcept {
  if (stamp_ != table_->stamp_) {
    return false;
  }
  if (removals_ == table_->removals_) {
    return true;
  }
  const Node* node = table_->buckets_[bucket_];
  while (node != nullptr && node != node_) {
    node = node->next;
  }
  return node != nullptr;
}

template <class Element, class Key>
void Cursor_HashTable<Element, Key>::place(unsigned int bucket, Node* node) noexcept {
  node_ = node;
  bucket_ = bucket;
  stamp_ = table_->stamp_;
  removals_ = table_->removals_;
}

// To the first element of the buckets from `bucket` on.
template <class Element, class Key>
bool Cursor_HashTable<Element, Key>::placeAtHeadFrom(unsigned int bucket) noexcept {
  for (; bucket != table_->bucketCount_; ++bucket) {
    if (table_->buckets_[bucket] != nullptr) {
      place(bucket, table_->buckets_[bucket]);
      return true;
    }
  }
  leave();
  return false;
}

// To the last element of the buckets below `bucket`.
template <class Element, class Key>
bool Cursor_HashTable<Element, Key>::placeAtTailBelow(unsigned int bucket) noexcept {
  while (bucket != 0) {
    Node* node = table_->buckets_[--bucket];
    if (node != nullptr) {
      while (node->next != nullptr) {
        node = node->next;
      }
      place(bucket, node);
      return true;
    }
  }
  leave();
  return false;
}
