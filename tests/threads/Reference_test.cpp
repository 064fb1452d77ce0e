#include "Engine/utilities/Reference.h"

#include <atomic>
#include <memory>
#include <thread>
#include <type_traits>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

#include "Engine/utilities/ReferenceCounted.h"

#include "tests/threads/ThreadSupport.h"

namespace {

class Base : public ReferenceCounted {
 public:
  explicit Base(std::atomic<int>& gone) : gone_(gone) {}
  ~Base() override { ++gone_; }
  int number = 5;

 private:
  std::atomic<int>& gone_;
};

class Derived : public Base {
 public:
  explicit Derived(std::atomic<int>& gone) : Base(gone), text_(new int[100]) {}

 private:
  std::unique_ptr<int[]> text_;  // lost unless the virtual destructor runs
};

class Node : public Base {
 public:
  using Base::Base;
  Reference<Node> next;
};

}  // namespace

TEST(ReferenceCounted, HasItsOperationsBehindTheDestructorsAndOne32BitField) {
  EXPECT_EQ(virtualSlot(&ReferenceCounted::addReference), 2U);
  EXPECT_EQ(virtualSlot(&ReferenceCounted::removeReference), 3U);
  EXPECT_TRUE(std::has_virtual_destructor_v<ReferenceCounted>);
  EXPECT_EQ(sizeof(ReferenceCounted), sizeof(void*) + alignof(void*));
}

TEST(ReferenceCounted, StartsWithoutAReferenceAndGoesWithItsLast) {
  std::atomic<int> gone = 0;
  const Base* object = new Derived(gone);
  EXPECT_EQ(object->referenceCount(), 0U);
  object->addReference();
  object->addReference();
  EXPECT_EQ(object->referenceCount(), 2U);
  object->removeReference();
  EXPECT_EQ(object->referenceCount(), 1U);
  EXPECT_EQ(gone, 0);
  object->removeReference();
  EXPECT_EQ(gone, 1);
}

TEST(Reference, HoldsOnePointer) { EXPECT_EQ(sizeof(Reference<Base>), sizeof(void*)); }

TEST(Reference, MayHoldNothing) {
  const Reference<Base> nothing;
  const Reference<Base> null(nullptr);
  EXPECT_FALSE(nothing);
  EXPECT_FALSE(null);
  EXPECT_EQ(nothing.get(), nullptr);
  EXPECT_TRUE(nothing == null);
  Reference<Base> copy(null);
  EXPECT_FALSE(copy);
  copy = nothing;
  EXPECT_FALSE(copy);
}

TEST(Reference, AddsAReferenceWhenCopiedAndRemovesItWhenDestroyed) {
  std::atomic<int> gone = 0;
  {
    const Reference<Base> first(new Base(gone));
    EXPECT_EQ(first->referenceCount(), 1U);
    {
      const std::vector<Reference<Base>> copies{first};
      const Reference<Base> third(copies[0].get());
      EXPECT_EQ(first->referenceCount(), 3U);
    }
    EXPECT_EQ(first->referenceCount(), 1U);
    EXPECT_EQ(gone, 0);
  }
  EXPECT_EQ(gone, 1);
}

TEST(Reference, GivesItsReferenceAwayWhenMoved) {
  std::atomic<int> gone = 0;
  Reference<Base> first(new Base(gone));
  const Reference<Base> second(std::move(first));
  EXPECT_FALSE(first);
  EXPECT_EQ(second->referenceCount(), 1U);
  EXPECT_TRUE(std::is_nothrow_move_constructible_v<Reference<Base>>);
}

TEST(Reference, LetsItsOldObjectGoWhenAssigned) {
  std::atomic<int> firstGone = 0;
  std::atomic<int> secondGone = 0;
  Reference<Base> reference(new Base(firstGone));
  const Reference<Base> other(new Base(secondGone));
  reference = other;
  EXPECT_EQ(firstGone, 1);
  EXPECT_EQ(other->referenceCount(), 2U);
  reference = Reference<Base>();
  EXPECT_EQ(other->referenceCount(), 1U);
  EXPECT_EQ(secondGone, 0);
  Reference<Base> moved(other);
  reference = std::move(moved);
  EXPECT_FALSE(moved);
  EXPECT_EQ(other->referenceCount(), 2U);
}

TEST(Reference, MayBeAssignedToItself) {
  std::atomic<int> gone = 0;
  Reference<Base> reference(new Base(gone));
  const Reference<Base>& same = reference;
  reference = same;
  EXPECT_EQ(gone, 0);
  EXPECT_EQ(reference->referenceCount(), 1U);
}

TEST(Reference, MayBeAssignedFromInsideWhatItHolds) {
  std::atomic<int> gone = 0;
  Reference<Node> head(new Node(gone));
  head->next = Reference<Node>(new Node(gone));
  const Node* const second = head->next.get();
  head = head->next;
  EXPECT_EQ(head.get(), second);
  EXPECT_EQ(gone, 1);
}

TEST(Reference, ReachesItsObject) {
  std::atomic<int> gone = 0;
  const Reference<Base> reference(new Base(gone));
  EXPECT_TRUE(reference);
  reference->number = 6;
  EXPECT_EQ((*reference).number, 6);
  EXPECT_EQ(&*reference, reference.get());
}

TEST(Reference, ConvertsToAReferenceToABaseClassOnly) {
  std::atomic<int> gone = 0;
  const Reference<Derived> derived(new Derived(gone));
  const Reference<Base> base = derived;
  EXPECT_EQ(base.get(), derived.get());
  EXPECT_EQ(derived->referenceCount(), 2U);
  const bool convertsDown = std::is_convertible_v<Reference<Base>, Reference<Derived>>;
  EXPECT_FALSE(convertsDown);
}

TEST(Reference, EqualsReferencesToTheSameObject) {
  std::atomic<int> gone = 0;
  const Reference<Derived> one(new Derived(gone));
  const Reference<Base> same(one);
  const Reference<Base> other(new Base(gone));
  EXPECT_TRUE(one == same);
  EXPECT_TRUE(same == one);
  EXPECT_FALSE(one == other);
  EXPECT_TRUE(same != other);
  EXPECT_TRUE(other != Reference<Base>());
}

TEST(Reference, IsCountedRightByManyThreadsAtOnce) {
  std::atomic<int> gone = 0;
  {
    const Reference<Base> shared(new Derived(gone));
    std::vector<std::thread> threads;
    threads.reserve(8);
    for (int i = 0; i < 8; ++i) {
      threads.emplace_back([own = shared] {
        for (int n = 0; n < 5000; ++n) {
          Reference<Base> copy(own);
          ASSERT_EQ(copy->number, 5);
          copy = own;
        }
      });
    }
    for (std::thread& thread : threads) {
      thread.join();
    }
    threads.clear();
    EXPECT_EQ(shared->referenceCount(), 1U);
  }
  EXPECT_EQ(gone, 1);
}

TEST(Reference, OfManyThreadsTheLastDeletesAfterAllOthersHaveWritten) {
  for (int round = 0; round < 200; ++round) {
    std::atomic<int> gone = 0;
    std::vector<int> seen(4);
    class Written : public Base {
     public:
      Written(std::atomic<int>& count, std::vector<int>& sums) : Base(count), sums_(sums) {}
      // Reads what the threads wrote, without a lock.
      ~Written() override {
        for (const int value : values) {
          sums_[0] += value;
        }
      }
      int values[4] = {};

     private:
      std::vector<int>& sums_;
    };
    Reference<Written> shared(new Written(gone, seen));
    std::vector<std::thread> threads;
    threads.reserve(4);
    for (int i = 0; i < 4; ++i) {
      threads.emplace_back([i, own = shared]() mutable {
        own->values[i] = i + 1;
        own = Reference<Written>();
      });
    }
    shared = Reference<Written>();
    for (std::thread& thread : threads) {
      thread.join();
    }
    EXPECT_EQ(gone, 1);
    EXPECT_EQ(seen[0], 10);
  }
}
