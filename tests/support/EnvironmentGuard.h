#pragma once

#include <optional>
#include <stdlib.h>
#include <string>

/// Sets or unsets one environment variable until the end of the scope.
class EnvironmentGuard {
 public:
  EnvironmentGuard(const char* name, const std::optional<std::string>& value) : name_(name) {
    if (const char* old = getenv(name); old != nullptr) {
      old_ = old;
    }
    put(value);
  }
  EnvironmentGuard(const EnvironmentGuard&) = delete;
  EnvironmentGuard& operator=(const EnvironmentGuard&) = delete;
  ~EnvironmentGuard() { put(old_); }

 private:
  void put(const std::optional<std::string>& value) {
    value ? setenv(name_.c_str(), value->c_str(), 1) : unsetenv(name_.c_str());
  }

  std::string name_;
  std::optional<std::string> old_;
};
