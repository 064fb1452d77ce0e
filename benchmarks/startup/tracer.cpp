#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <iterator>
#include <random>

#include "Engine/utilities/StdThread.h"
#include "Engine/utilities/TraceFlags.h"

/// \file
/// Usage: tracer MEGABYTES
/// A process of two threads that traces, where its environment says so, so much and a little more.

namespace {

// How often of a hundred, and a text with a number and a name.
struct Kind {
  TraceType type;
  const char* function;
  unsigned line;
  unsigned share;
  const char* format;
};

constexpr Kind kinds[] = {
    {TraceType::gmh, "void GMH_Handler::handle(const Message&)", 231, 35,
     "message %u to \"%s\" handled, 1 more in the queue"},
    {TraceType::agent, "int StdPipe::read(void*, unsigned int, unsigned int)", 46, 30,
     "%u bytes from \"%s\""},
    {TraceType::dbx, "bool Breakpoints::set(const Address&, unsigned int)", 812, 24,
     "breakpoint %u at 0x00007f3a5c21e480 in \"%s\": set, enabled, 0 hits, no condition"},
    {TraceType::wz4, "void Session::step()", 97, 10, "step %u in \"%s\": the frame is the same"},
    {TraceType::error, "int StdPipe::write(const void*, unsigned int) const", 118, 1,
     "::write() of %u bytes to \"%s\" failed with errno 32."},
};

constexpr const char* names[] = {"main", "a.out", "libc.so.6", "/usr/lib/x86_64-linux-gnu/ld.so"};

// Of the time and the thread, which stand in front.
constexpr std::size_t stampLength = 26;

void trace(std::uint64_t bytes, unsigned seed) {
  std::minstd_rand random(seed);
  for (std::uint64_t written = 0; written < bytes;) {
    const Kind* kind = kinds;
    for (unsigned place = static_cast<unsigned>(random() % 100); place >= kind->share; ++kind) {
      place -= kind->share;
    }
    const auto number = static_cast<unsigned>(random() % 100'000);
    const char* const name = names[random() % std::size(names)];
    char text[200];
    const int length = std::snprintf(text, sizeof text, kind->format, number, name);
    CUL_TRACE(kind->type, kind->function, kind->line, "%s", text);
    written += stampLength + std::strlen(kind->function) + static_cast<std::size_t>(length);
  }
}

class Worker final : public StdThread {
 public:
  Worker(std::uint64_t bytes, Termination* termination)
      : StdThread("worker", 0, termination), bytes_(bytes) {}
  void run() override { trace(bytes_, 2); }

 private:
  std::uint64_t bytes_;
};

}  // namespace

int main(int argc, char** argv) {
  if (argc != 2) {
    return 2;
  }
  const std::uint64_t bytes = std::strtoull(argv[1], nullptr, 10) << 20;
  StdThread::Termination termination;
  (new Worker(bytes / 2, &termination))->start_thread(0);
  trace(bytes / 2, 1);
  return termination.wait(0);
}
