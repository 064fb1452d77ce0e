#include "tests/soak/ProcessState.h"

#include <algorithm>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string_view>
#include <system_error>
#include <unistd.h>

#include "tests/support/TemporaryFolder.h"

namespace {

namespace fs = std::filesystem;

bool isNumber(std::string_view text) {
  return !text.empty() && text.find_first_not_of("0123456789") == std::string_view::npos;
}

// The names of a folder's entries that are numbers.
std::vector<int> numbersIn(const char* folder) {
  std::vector<int> numbers;
  for (const fs::directory_entry& entry : fs::directory_iterator(folder)) {
    const std::string name = entry.path().filename().string();
    if (isNumber(name)) {
      numbers.push_back(std::atoi(name.c_str()));
    }
  }
  return numbers;
}

// What "/proc/.../stat" tells: "12 (name) S 11 ...", where the name may hold anything.
struct Status {
  std::string name;
  char state = '?';
  int parent = 0;
};

Status statusOf(const std::string& folder) {
  Status status;
  std::ifstream stream(folder + "/stat");
  std::string text;
  std::getline(stream, text, '\0');  // which bears a process that goes while it is read
  const std::size_t begin = text.find('(');
  const std::size_t end = text.rfind(')');
  if (begin != std::string::npos && end != std::string::npos && end + 4 < text.size()) {
    status.name = text.substr(begin + 1, end - begin - 1);
    status.state = text[end + 2];
    status.parent = std::atoi(text.c_str() + end + 4);
  }
  return status;
}

std::map<int, Status> childrenNow() {
  std::map<int, Status> children;
  const int self = getpid();
  for (const int process : numbersIn("/proc")) {
    Status status = statusOf("/proc/" + std::to_string(process));
    if (status.parent == self) {
      children.emplace(process, std::move(status));
    }
  }
  return children;
}

std::map<int, std::string> descriptorsNow() {
  std::map<int, std::string> descriptors;
  for (const int descriptor : numbersIn("/proc/self/fd")) {
    std::error_code error;
    const fs::path target = fs::read_symlink("/proc/self/fd/" + std::to_string(descriptor), error);
    if (!error) {  // else it was that of the folder itself, or has been closed meanwhile
      descriptors.emplace(descriptor, target.string());
    }
  }
  return descriptors;
}

unsigned long medianOf(std::vector<unsigned long> values) {
  const auto middle = values.begin() + static_cast<std::ptrdiff_t>(values.size() / 2);
  std::nth_element(values.begin(), middle, values.end());
  return *middle;
}

void tellNew(std::string& text, const char* kind, const std::map<int, std::string>& before,
             const std::map<int, std::string>& now) {
  for (const auto& [number, name] : now) {
    if (const auto known = before.find(number); known == before.end() || known->second != name) {
      text += std::string(kind) + " " + std::to_string(number) + ": " + name + "\n";
    }
  }
}

}  // namespace

Usage usageNow() {
  Usage usage;
  const std::string memory = contentsOf("/proc/self/statm");
  const std::size_t blank = std::min(memory.find(' '), memory.size() - 1);
  usage.resident = std::strtoul(memory.c_str() + blank, nullptr, 10) *
                   static_cast<unsigned long>(sysconf(_SC_PAGESIZE)) / 1024;
  usage.descriptors = descriptorsNow().size();
  usage.threads = numbersIn("/proc/self/task").size();
  for (const auto& [process, status] : childrenNow()) {
    ++usage.children;
    usage.zombies += status.state == 'Z' ? 1 : 0;
  }
  return usage;
}

Belongings belongingsNow() {
  Belongings belongings;
  belongings.descriptors = descriptorsNow();
  for (const int thread : numbersIn("/proc/self/task")) {
    belongings.threads.emplace(thread, statusOf("/proc/self/task/" + std::to_string(thread)).name);
  }
  for (const auto& [process, status] : childrenNow()) {
    belongings.children.emplace(process, status.name + (status.state == 'Z' ? ", a zombie" : ""));
  }
  return belongings;
}

std::string leftovers(const Belongings& before, const Belongings& now) {
  std::string text;
  tellNew(text, "descriptor", before.descriptors, now.descriptors);
  tellNew(text, "thread", before.threads, now.threads);
  tellNew(text, "child", before.children, now.children);
  return text;
}

std::vector<Thirds> thirdsOf(const std::vector<Usage>& looks, const Margin& margin) {
  std::vector<Thirds> thirds;
  const auto third = static_cast<std::ptrdiff_t>(looks.size() / 3);
  if (third < 3) {
    return thirds;
  }
  const auto median = [&](std::ptrdiff_t fromEnd, auto value) {
    std::vector<unsigned long> values;
    std::transform(looks.end() - fromEnd, looks.end() - fromEnd + third, std::back_inserter(values),
                   value);
    return medianOf(std::move(values));
  };
  const auto add = [&](const char* name, unsigned long allowed, auto value) {
    thirds.push_back({name, median(2 * third, value), median(third, value), allowed});
  };
#if !defined(__SANITIZE_ADDRESS__) && !defined(__SANITIZE_THREAD__)
  // Sanitizers keep memory that was freed, and note what was done with it.
  add("kB resident", margin.resident, [](const Usage& usage) { return usage.resident; });
#endif
  add("descriptors", margin.descriptors, [](const Usage& usage) { return usage.descriptors; });
  add("threads", margin.threads, [](const Usage& usage) { return usage.threads; });
  add("children", margin.children, [](const Usage& usage) { return usage.children; });
  return thirds;
}
