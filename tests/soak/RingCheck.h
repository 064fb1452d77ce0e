#pragma once

#include <cstdint>
#include <span>
#include <string>
#include <string_view>
#include <vector>

/// \file
/// Numbered lines in the ring of a trace: how they read, and whether all that must be there are,
/// whole and in their order.

/// The text of line `number`, from 1, of `writer`, from 1: of many lengths, and different from all
/// others in its first bytes and in its last.
std::string textOfLine(unsigned writer, unsigned long number);

/// The name of the thread that writes it, and the function that it names in the trace.
std::string nameOfWriter(unsigned writer);
inline constexpr const char* writerFunction = "void Writer::run()";

/// The text of the line that tells where the ring ends. It names no function.
inline std::string textOfMark(unsigned long number) { return "mark " + std::to_string(number); }

/// Looks through a ring again and again while it is filled.
class RingCheck {
 public:
  /// \param capacity of the ring, in bytes.
  /// \param margin   the most bytes that may be written behind a mark while the ring is read.
  RingCheck(unsigned writers, std::size_t capacity, std::size_t margin)
      : last_(writers), capacity_(capacity), margin_(margin) {}

  /// Checks every line of the ring but those that may be changing: no numbered ones are written
  /// meanwhile, but others may follow the mark.
  /// \param ring    all bytes from the rewind point on.
  /// \param mark    number of the line textOfMark() that was written behind the numbered ones.
  /// \param written how many lines each writer has written so far. All since the last check must
  ///   be there.
  void check(std::string_view ring, unsigned long mark, std::span<const unsigned long> written);

  struct Findings {
    unsigned long lines = 0;       ///< Numbered lines that were looked at, some of them twice.
    unsigned long others = 0;      ///< Of the library: threads that start and end, and the marks.
    unsigned long torn = 0;        ///< Lines that nobody wrote like this.
    unsigned long outOfOrder = 0;  ///< By number or by time.
    unsigned long missing = 0;
    unsigned long errors = 0;  ///< Lines of the types "ERROR" and "WARNING".
    std::string first;         ///< The first line that is wrong, with what is wrong with it.
  };
  [[nodiscard]] const Findings& findings() const { return findings_; }

 private:
  void checkLine(std::string_view line);
  void checkOrder(std::string_view line);
  void checkNumbered(std::string_view line, std::string_view body);
  void note(unsigned long& kind, const char* what, std::string_view line, unsigned long n = 1);

  struct Writer {
    unsigned long checked = 0;  // up to this number by the checks before
    unsigned long newest = 0;   // in this check
  };
  std::vector<Writer> last_;
  std::size_t capacity_;
  std::size_t margin_;
  std::int64_t time_ = -1;  // of the line before, in microseconds of the day
  Findings findings_;
};
