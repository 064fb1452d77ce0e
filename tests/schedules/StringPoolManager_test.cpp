#include "Engine/utilities/StringPoolManager.h"

#include <array>
#include <atomic>
#include <cstddef>
#include <cstring>
#include <memory>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

#include "Engine/utilities/ByteString.h"
#include "Engine/utilities/EncodedString.h"

#include "tests/schedules/Schedules.h"

namespace {

constexpr unsigned largest = 80;  // some blocks are the heap's

// A block of the pool, full of one byte as long as somebody has it.
struct Block {
  unsigned char* bytes = nullptr;
  unsigned size = 0;
  unsigned char filling = 0;
};

Block take(unsigned size, unsigned char filling) {
  auto* const bytes = static_cast<unsigned char*>(StringPoolManager::instance().getBuffer(size));
  std::memset(bytes, filling, size);
  return {bytes, size, filling};
}

bool isWhole(const Block& block) {
  for (unsigned i = 0; i < block.size; ++i) {
    if (block.bytes[i] != block.filling) {
      return false;
    }
  }
  return true;
}

// Gives a block back, with what it must not hold any more when somebody has it still.
void give(const Block& block) {
  EXPECT_TRUE(isWhole(block)) << "somebody else has this block of " << block.size << " bytes";
  std::memset(block.bytes, 0xFF, block.size);
  StringPoolManager::instance().freeBuffer(block.bytes, block.size);
}

// Where threads leave blocks for others.
class Exchange {
 public:
  ~Exchange() {
    for (auto& place : places_) {
      leave(place.exchange(nullptr));
    }
  }

  // Puts one down, and takes what was there.
  std::unique_ptr<Block> swap(unsigned place, std::unique_ptr<Block> block) {
    return std::unique_ptr<Block>(
        places_[place % places_.size()].exchange(block.release(), std::memory_order_acq_rel));
  }

 private:
  static void leave(Block* block) {
    if (block != nullptr) {
      give(*block);
      delete block;
    }
  }

  std::array<std::atomic<Block*>, 8> places_ = {};
};

// Bytes on the lists of each family: 8, 16, 32 and 64, and 24 and 48.
std::array<unsigned, 2> freeBytes() {
  std::array<unsigned, 2> bytes = {};
  for (const unsigned size : {8U, 16U, 32U, 64U}) {
    bytes[0] += size * StringPoolManager::instance().freeBlocks(size);
  }
  for (const unsigned size : {24U, 48U}) {
    bytes[1] += size * StringPoolManager::instance().freeBlocks(size);
  }
  return bytes;
}

void takeAndGive(Chance chance, Exchange& exchange, unsigned char filling) {
  std::vector<Block> own;
  const unsigned most = 1 + chance.below(150);  // more than a thread keeps
  for (unsigned i = 0; i < 400; ++i) {
    switch (chance.below(8)) {
      case 0:
      case 1:
      case 2:
        if (own.size() < most) {
          own.push_back(take(1 + chance.below(largest), filling));
        }
        break;
      case 3:
        // Many of one class at once, so that batches go to the lists and come from them.
        for (unsigned size = 1 + chance.below(largest), n = chance.below(100); n != 0; --n) {
          own.push_back(take(size, filling));
        }
        break;
      case 4:
        if (!own.empty()) {
          auto block = std::make_unique<Block>(own.back());
          own.pop_back();
          block = exchange.swap(chance.below(8), std::move(block));
          if (block != nullptr) {
            EXPECT_TRUE(isWhole(*block));
            own.push_back(*block);
          }
        }
        break;
      case 5:
        for (; own.size() > most / 2; own.pop_back()) {
          give(own.back());
        }
        break;
      default:
        if (!own.empty()) {
          std::swap(own[chance.below(static_cast<unsigned>(own.size()))], own.back());
          give(own.back());
          own.pop_back();
        }
    }
  }
  for (const Block& block : own) {
    give(block);
  }
}

}  // namespace

TEST(ScheduledStringPoolManager, GivesNoBlockToTwoAndLosesNone) {
  underSchedules(25, [](const Schedule& schedule) {
    const std::array<unsigned, 2> before = freeBytes();
    {
      Exchange exchange;
      schedule.onThreads(2 + schedule.chance().below(4), [&](unsigned thread) {
        takeAndGive(schedule.chance(thread), exchange, static_cast<unsigned char>(thread));
      });
    }
    // Only whole chunks have come from the heap, and everything is free again: also what those
    // threads kept that have ended.
    const std::array<unsigned, 2> after = freeBytes();
    EXPECT_EQ((after[0] - before[0]) % 8128, 0U);
    EXPECT_EQ((after[1] - before[1]) % 8160, 0U);
  });
}

TEST(ScheduledEncodedString, IsCopiedAssignedAndConvertedAlikeOnAllThreads) {
  const EncodedString shared(
      "Gr\xC3\xBC\xC3\x9F"
      "e, \xE4\xB8\x96\xE7\x95\x8C, of more than a block",
      EncodedString::utf8);
  const EncodedString shared2("ab", EncodedString::utf8);
  const EncodedString twice("abab", EncodedString::utf8);
  underSchedules(25, [&](const Schedule& schedule) {
    std::array<std::atomic<EncodedString*>, 4> places = {};
    schedule.onThreads(2 + schedule.chance().below(4), [&](unsigned thread) {
      Chance chance = schedule.chance(thread);
      EncodedString own(shared);
      for (unsigned i = 0; i < 60; ++i) {
        switch (chance.below(5)) {
          case 0:
            own = chance.oneIn(2) ? shared : shared2;
            break;
          case 1: {
            const EncodedString native(shared.convert(EncodedString::slashU),
                                       EncodedString::slashU);
            EXPECT_TRUE(native == shared);
            break;
          }
          case 2:
            own = shared2;
            own += shared2;
            EXPECT_EQ(own.length(), 4U);
            break;
          default: {
            // One that another thread made is changed and ends here.
            auto made = std::make_unique<EncodedString>(own);
            EXPECT_TRUE(*made == own);
            const std::unique_ptr<EncodedString> other(
                places[chance.below(4)].exchange(made.release(), std::memory_order_acq_rel));
            if (other != nullptr) {
              EXPECT_TRUE(*other == shared || *other == shared2 || *other == twice);
              const unsigned length = other->length() + shared2.length();
              *other += shared2;
              EXPECT_EQ(other->length(), length);
              own = *other;
              own = chance.oneIn(2) ? shared : shared2;
            }
          }
        }
      }
    });
    for (auto& place : places) {
      delete place.exchange(nullptr);
    }
  });
}
