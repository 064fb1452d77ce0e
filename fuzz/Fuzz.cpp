#include "fuzz/Fuzz.h"

#include <algorithm>
#include <csignal>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <deque>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include "Engine/utilities/Iconv.h"

#include "tests/support/TemporaryFolder.h"

void fuzzCheckFailed(const char* condition, const char* file, int line) {
  // Not through `stderr`, which a fuzzer may have turned elsewhere.
  dprintf(2, "%s:%d: does not hold: %s\n", file, line, condition);
  std::abort();
}

unsigned char FuzzInput::byte() {
  if (rest_.empty()) {
    return 0;
  }
  const auto result = static_cast<unsigned char>(rest_.front());
  rest_.remove_prefix(1);
  return result;
}

unsigned FuzzInput::choice(unsigned count) {
  const unsigned value = byte();
  return (value >= '0' ? value - '0' : value) % count;
}

unsigned FuzzInput::word() {
  unsigned result = 0;
  for (int i = 0; i < 4; ++i) {
    result = result << 8 | byte();
  }
  return result;
}

std::string FuzzInput::text(char separator) {
  const size_t end = rest_.find(separator);
  std::string result(rest_.substr(0, end));
  rest_.remove_prefix(end == std::string_view::npos ? rest_.size() : end + 1);
  return result;
}

std::string FuzzInput::rest() {
  std::string result(rest_);
  rest_ = {};
  return result;
}

ExactBytes::ExactBytes(std::string_view bytes)
    : data_(new char[bytes.size()]), size_(static_cast<unsigned>(bytes.size())) {
  // Of no bytes there may be a null pointer, which memcpy() does not take.
  std::copy(bytes.begin(), bytes.end(), data_.get());
}

std::string bytesOf(const EncodedString& text) { return std::string(text.view()); }

std::string bytesOf(const ByteString& bytes) { return std::string(bytes.view()); }

std::string bytesOf(const CharString& text) { return bytesOf(text.encoded()); }

EncodedString utf8Text(std::string_view bytes) {
  const ExactBytes exact(bytes);
  return {exact.data(), exact.size(), EncodedString::utf8};
}

std::string upToZero(std::string_view bytes) {
  return std::string(bytes.substr(0, bytes.find('\0')));
}

CharString wideText(std::string_view bytes) {
  CharString result;
  const ExactBytes exact(bytes);
  if (utf8Text(bytes).isValid()) {
    result.loadFrom(exact.data(), exact.size(), EncodedString::utf8);
    return result;
  }
  result.makeBuffer(exact.size());
  for (unsigned i = 1; i <= exact.size(); ++i) {
    result[i] = static_cast<unsigned char>(bytes[i - 1]);
  }
  return result;
}

FuzzVariable::FuzzVariable(const char* name, const std::string& value) : name_(name) {
  setenv(name, value.c_str(), 1);
}

FuzzVariable::~FuzzVariable() { unsetenv(name_); }

void keepConversions(const char* codePage) {
  static std::deque<IconvDescriptor> descriptors;
  descriptors.emplace_back("UTF-8", codePage);
  descriptors.emplace_back(codePage, "UTF-8");
}

MemoryFile::MemoryFile()
    : descriptor_(memfd_create("fuzz", MFD_CLOEXEC)),
      path_("/proc/self/fd/" + std::to_string(descriptor_)) {
  FUZZ_CHECK(descriptor_ >= 0);
}

std::string MemoryFile::bytes() const {
  struct stat status = {};
  FUZZ_CHECK(fstat(descriptor_, &status) == 0);
  std::string result(static_cast<size_t>(status.st_size), '\0');
  FUZZ_CHECK(pread(descriptor_, result.data(), result.size(), 0) == status.st_size);
  return result;
}

void MemoryFile::assign(std::string_view bytes) const {
  FUZZ_CHECK(ftruncate(descriptor_, 0) == 0);
  FUZZ_CHECK(pwrite(descriptor_, bytes.data(), bytes.size(), 0) ==
             static_cast<ssize_t>(bytes.size()));
}

const std::string& fuzzFolder() {
  static const TemporaryFolder folder;
  return folder.path();
}

extern "C" int LLVMFuzzerInitialize(int* argc, char*** argv);
extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size);

extern "C" int LLVMFuzzerInitialize(int* /*argc*/, char*** /*argv*/) {
  // The library has taken the fatal signals when it was loaded; the fuzzer, which wants to
  // save the input that raised one, only takes what is free.
  for (const int signal :
       {SIGABRT, SIGBUS, SIGFPE, SIGHUP, SIGILL, SIGINT, SIGSEGV, SIGTERM, SIGTRAP}) {
    std::signal(signal, SIG_DFL);
  }
  // The environment of the caller has no say.
  for (char* const* variable = environ; *variable != nullptr;) {
    const std::string_view text = *variable;
    if (text.starts_with("QVX_DBG_") || text.starts_with("WZ4_DBG_") ||
        text.starts_with("GDIA_ID=")) {
      unsetenv(std::string(text.substr(0, text.find('='))).c_str());
    } else {
      ++variable;
    }
  }
  setenv("QVX_DBG_CODEPAGE", "UTF-8", 1);
  setUpFuzzing();
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  FuzzInput input({reinterpret_cast<const char*>(data), size});
  fuzz(input);
  return 0;
}
