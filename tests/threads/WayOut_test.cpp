#include <algorithm>
#include <atomic>
#include <csignal>
#include <dlfcn.h>
#include <initializer_list>
#include <unistd.h>
#include <vector>

#include <gtest/gtest.h>

#include "tests/threads/ThreadSupport.h"

// A function that calls the one it is given, with an exception table chosen at run time.
asm(R"(
        .text
        .type   callWithTable, @function
callWithTable:
        .cfi_startproc
        .cfi_personality 0x9b, tablePersonality
        .cfi_lsda 0x9b, exceptionTable
        subq    $8, %rsp
        .cfi_adjust_cfa_offset 8
        call    *%rdi
        addq    $8, %rsp
        .cfi_adjust_cfa_offset -8
        ret
        .cfi_adjust_cfa_offset 8
.LcleanUp:
        movl    $1, hasCleanedUp(%rip)
        movq    %rax, %rdi
        call    _Unwind_Resume@PLT
        .cfi_endproc
        .size   callWithTable, .-callWithTable

        .type   spinWithTable, @function
spinWithTable:
        .cfi_startproc
        .cfi_personality 0x9b, tablePersonality
        .cfi_lsda 0x9b, exceptionTable
        movl    $1, 4(%rdi)
.Lspin:
        pause
        cmpl    $0, (%rdi)
        je      .Lspin
        movl    $2, 4(%rdi)
        ret
.LspinCleanUp:
        subq    $8, %rsp
        movq    %rax, %rdi
        call    _Unwind_Resume@PLT
        .cfi_endproc
        .size   spinWithTable, .-spinWithTable

        .type   callWithoutUnwindInformation, @function
callWithoutUnwindInformation:
        subq    $8, %rsp
        call    *%rdi
        addq    $8, %rsp
        ret
        .size   callWithoutUnwindInformation, .-callWithoutUnwindInformation

        .data
        .p2align 3
tablePersonality:
        .quad   __gxx_personality_v0
exceptionTable:
        .quad   0
hasCleanedUp:
        .long   0
cleanUpOffsets:
        .byte   .LcleanUp - callWithTable
        .byte   .LspinCleanUp - spinWithTable
        .text
)");

extern "C" __attribute__((visibility("hidden"))) void callWithTable(void (*function)());
struct Spin {
  std::atomic<int> goOn = 0;
  std::atomic<int> place = 0;  // 1 inside of spinWithTable(), 2 when it is about to return
};

// Goes round and round until `goOn` is not 0.
extern "C" __attribute__((visibility("hidden"))) void spinWithTable(Spin* spin);
extern "C" __attribute__((visibility("hidden"))) void callWithoutUnwindInformation(
    void (*function)());
extern "C" __attribute__((visibility("hidden"))) const unsigned char* exceptionTable;
extern "C" __attribute__((visibility("hidden"))) int hasCleanedUp;
extern "C" __attribute__((visibility("hidden"))) const unsigned char cleanUpOffsets[2];

namespace {

using Bytes = std::vector<unsigned char>;

// Tables must lie in a file that is loaded.
unsigned char tablePlace[64];

// Whether a thread that is asked to end ends inside `function`; if not, it does behind.
bool endsInside(void (*function)(void (*)())) {
  std::atomic<bool> isBehind = false;
  runOnThread([&isBehind, function] {
    function([] {
      raise(SIGUSR2);
      for (int i = 0; i < 20; ++i) {
        usleep(1000);
      }
    });
    isBehind = true;
    for (;;) {
      usleep(1000);
    }
  });
  return !isBehind;
}

bool endsInside(const unsigned char* table) {
  exceptionTable = table;
  return endsInside(callWithTable);
}

void useTable(const Bytes& table) {
  std::copy(table.begin(), table.end(), tablePlace);
  exceptionTable = tablePlace;
}

bool endsInside(const Bytes& table) {
  useTable(table);
  return endsInside(callWithTable);
}

// A table with one row, which covers the first 100 bytes and has no clean-up.
Bytes tableOf(unsigned char encoding, unsigned numberSize) {
  Bytes table = {0xff, 0xff, encoding, static_cast<unsigned char>(3 * numberSize + 1)};
  for (const unsigned char number : Bytes{0, 100, 0}) {
    table.push_back(number);
    table.insert(table.end(), numberSize - 1, 0);
  }
  table.push_back(0);
  return table;
}

// A table of two rows: all before the clean-up needs it, the clean-up itself does not.
Bytes tableWithCleanUp(unsigned char offset) {
  return {0xff, 0xff, 0x01, 8, 0, offset, offset, 0, offset, 100, 0, 0};
}

}  // namespace

// The numbers of encodings are those of the Linux Standard Base, "DWARF Exception Header
// Encoding".

TEST(WayOut, ReadsTablesInEachFormatOfNumbers) {
  EXPECT_TRUE(endsInside(tableOf(0x01, 1)));  // ULEB128
  EXPECT_TRUE(endsInside(tableOf(0x02, 2)));  // 2 bytes
  EXPECT_TRUE(endsInside(tableOf(0x03, 4)));  // 4 bytes
  EXPECT_TRUE(endsInside(tableOf(0x04, 8)));  // 8 bytes
  EXPECT_TRUE(endsInside(tableOf(0x00, 8)));  // as an address
  EXPECT_TRUE(endsInside(tableOf(0x0a, 2)));  // the same with a sign
  EXPECT_TRUE(endsInside(tableOf(0x0b, 4)));
  EXPECT_TRUE(endsInside(tableOf(0x0c, 8)));
}

TEST(WayOut, ReadsHeadersOfAllKinds) {
  // The base of landing pads in 4 bytes.
  EXPECT_TRUE(endsInside(Bytes{0x03, 0, 0, 0, 0, 0xff, 0x01, 4, 0, 100, 0, 0}));
  // The place of a type table.
  EXPECT_TRUE(endsInside(Bytes{0xff, 0x03, 6, 0x01, 4, 0, 100, 0, 0}));
  // Two rows, the second of which counts.
  EXPECT_TRUE(endsInside(Bytes{0xff, 0xff, 0x01, 8, 0, 1, 0, 0, 1, 99, 0, 0}));
  // A number with more zeros in front than an address has bits.
  EXPECT_TRUE(endsInside(Bytes{0xff, 0xff, 0x01, 15, 0, 100, 0, 0x80, 0x80, 0x80, 0x80, 0x80, 0x80,
                               0x80, 0x80, 0x80, 0x80, 0x80, 0}));
}

TEST(WayOut, LetsACallCleanUp) {
  hasCleanedUp = 0;
  EXPECT_TRUE(endsInside(tableWithCleanUp(cleanUpOffsets[0])));
  EXPECT_EQ(hasCleanedUp, 1);
}

TEST(WayOut, LeavesAThreadAloneBetweenTwoCallsWhereACleanUpIsDue) {
  useTable(tableWithCleanUp(cleanUpOffsets[1]));
  StdThread::Termination termination;
  Spin spin;
  const StdThread* thread = startThread(
      [&spin] {
        spinWithTable(&spin);
        for (;;) {
          usleep(1000);
        }
      },
      &termination);
  waitUntil([&spin] { return spin.place == 1; });
  EXPECT_EQ(thread->requestTerminate(), 0);
  usleep(20000);  // the request comes many times
  spin.goOn = 1;
  EXPECT_EQ(termination.wait(0), 0);
  EXPECT_EQ(spin.place, 2);
}

TEST(WayOut, LeavesAThreadAloneInsideCodeWithoutUnwindInformation) {
  EXPECT_FALSE(endsInside(callWithoutUnwindInformation));
}

TEST(WayOut, LeavesAThreadAloneWhereATableListsNothing) {
  EXPECT_FALSE(endsInside(Bytes{0xff, 0xff, 0x01, 0}));
  // Before the call, and behind it.
  EXPECT_FALSE(endsInside(Bytes{0xff, 0xff, 0x01, 4, 0, 1, 0, 0}));
  EXPECT_FALSE(endsInside(Bytes{0xff, 0xff, 0x01, 4, 50, 10, 0, 0}));
}

TEST(WayOut, LeavesAThreadAloneWhereATableCannotBeRead) {
  // Padded to an address, and formats that do not exist.
  EXPECT_FALSE(endsInside(tableOf(0x50, 8)));
  EXPECT_FALSE(endsInside(tableOf(0x05, 1)));
  EXPECT_FALSE(endsInside(tableOf(0x07, 1)));
  EXPECT_FALSE(endsInside(Bytes{0x06, 0xff, 0x01, 4, 0, 100, 0, 0}));
  // Longer than all that is loaded.
  EXPECT_FALSE(endsInside(Bytes{0xff, 0xff, 0x01, 0xff, 0xff, 0xff, 0xff, 0xff, 0xff, 0xff, 0x7f}));
  // In the last byte of the program.
  dl_find_object program;
  ASSERT_EQ(_dl_find_object(tablePlace, &program), 0);
  EXPECT_FALSE(endsInside(static_cast<const unsigned char*>(program.dlfo_map_end) - 1));
  // In no file.
  const Bytes elsewhere = tableOf(0x01, 1);
  EXPECT_FALSE(endsInside(elsewhere.data()));
}
