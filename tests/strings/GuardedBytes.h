#pragma once

#include <cstring>
#include <string_view>
#include <sys/mman.h>
#include <unistd.h>

#include <gtest/gtest.h>

/// Memory that ends exactly where an unreadable page begins: who reads or writes one byte
/// too many dies.
class GuardedBytes {
 public:
  /// `size` bytes, at most a page, filled with 0xEE.
  explicit GuardedBytes(size_t size)
      : page_(static_cast<size_t>(sysconf(_SC_PAGESIZE))),
        map_(static_cast<char*>(
            mmap(nullptr, 2 * page_, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0))),
        data_(map_ + page_ - size) {
    if (mprotect(map_ + page_, page_, PROT_NONE) != 0) {
      ADD_FAILURE() << "mprotect failed";
    }
    std::memset(map_, 0xEE, page_);
  }
  /// A copy of `bytes`, without a terminator.
  explicit GuardedBytes(std::string_view bytes) : GuardedBytes(bytes.size()) {
    std::memcpy(data_, bytes.data(), bytes.size());
  }
  GuardedBytes(const GuardedBytes&) = delete;
  GuardedBytes& operator=(const GuardedBytes&) = delete;
  ~GuardedBytes() { munmap(map_, 2 * page_); }

  char* data() const { return data_; }

 private:
  size_t page_;
  char* map_;
  char* data_;
};
