#include <array>
#include <barrier>
#include <fcntl.h>
#include <functional>
#include <memory>
#include <string>
#include <unistd.h>

#include "Engine/utilities/Descriptor.h"
#include "Engine/utilities/StdThread.h"
#include "Engine/utilities/TraceFlags.h"
#include "Engine/utilities/TraceImplementation.h"

#include "tests/soak/Parts.h"
#include "tests/soak/RingCheck.h"

namespace {

constexpr unsigned writers = 16;
// So many that those of a round, of 128 bytes on average, fill no more than three quarters of the
// ring, which is the smallest there is.
constexpr unsigned long linesInARound = 700;
constexpr std::size_t ringSize = 2 * 1048576;
// Each thread may have one line of its life on its way, of a hundred bytes, when the trace is
// paused.
constexpr std::size_t linesOnTheirWay = 32768;

// What the writers share: rounds, behind each of which the last of them looks at the ring.
class Rounds {
 public:
  Rounds(Work& work, const std::string& file)
      : work_(work),
        file_(open(file.c_str(), O_RDONLY | O_CLOEXEC)),
        start_(traceImplementation()->setRewindPoint()),
        check_(writers, ringSize, linesOnTheirWay),
        barrier_(writers, Behind(*this)) {}

  // Whether there is one more.
  bool next() {
    barrier_.arrive_and_wait();
    return goesOn_;
  }

 private:
  class Behind {
   public:
    explicit Behind(Rounds& rounds) : rounds_(&rounds) {}
    void operator()() noexcept { rounds_->finish(); }

   private:
    Rounds* rounds_;
  };

  void finish() noexcept;
  void look();

  Work& work_;
  Descriptor file_;
  const unsigned start_;
  RingCheck check_;
  RingCheck::Findings known_;
  std::string ring_;
  unsigned long round_ = 0;
  bool goesOn_ = true;
  std::barrier<Behind> barrier_;
};

// Lines that other threads begin while the ring is being read are dropped.
class TracePause {
 public:
  TracePause() { traceImplementation()->pause(true); }
  TracePause(const TracePause&) = delete;
  TracePause& operator=(const TracePause&) = delete;
  ~TracePause() { traceImplementation()->pause(false); }
};

void Rounds::look() {
  taggedTrace(nullptr, 0, "AGENT", "%s", textOfMark(round_).c_str());
  {
    const TracePause pause;
    ring_.resize(ringSize);
    const ssize_t size = pread(file_.get(), ring_.data(), ring_.size(), start_);
    if (size < 0) {
      work_.wrong("rings could not be read");
      return;
    }
    ring_.resize(static_cast<std::size_t>(size));
  }
  const std::array<unsigned long, writers> written = [this] {
    std::array<unsigned long, writers> numbers = {};
    numbers.fill(round_ * linesInARound);
    return numbers;
  }();
  check_.check(ring_, round_, written);
  const RingCheck::Findings& found = check_.findings();
  const auto report = [&](const char* what, unsigned long number, unsigned long known) {
    if (number > known) {
      work_.wrong(what, found.first, number - known);
    }
  };
  report("torn", found.torn, known_.torn);
  report("out of order", found.outOfOrder, known_.outOfOrder);
  report("missing", found.missing, known_.missing);
  report("errors", found.errors, known_.errors);
  known_ = found;
}

void Rounds::finish() noexcept {
  if (round_ != 0) {
    look();
    work_.done(writers * linesInARound);
  }
  ++round_;
  goesOn_ = work_.goesOn();
}

class Writer : public StdThread {
 public:
  Writer(unsigned number, Rounds& rounds, Termination& end)
      : StdThread(nameOfWriter(number).c_str(), 0, &end), number_(number), rounds_(rounds) {}

  void run() override {
    unsigned long line = 0;
    while (rounds_.next()) {
      for (unsigned long i = 0; i < linesInARound; ++i) {
        ++line;
        CUL_TRACE(TraceType::agent, writerFunction, number_, "%s",
                  textOfLine(number_, line).c_str());
      }
    }
  }

 private:
  const unsigned number_;
  Rounds& rounds_;
};

}  // namespace

void writeTraceLines(Work& work, const std::string& file) {
  Rounds rounds(work, file);
  std::array<StdThread::Termination, writers> ends;
  for (unsigned i = 0; i < writers; ++i) {
    (new Writer(i + 1, rounds, ends[i]))->start_thread(0);
  }
  for (const StdThread::Termination& end : ends) {
    if (end.wait(0) != 0) {
      work.wrong("writers could not be waited for");
    }
  }
}
