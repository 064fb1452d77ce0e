#pragma once

#include <algorithm>
#include <array>
#include <iterator>
#include <span>
#include <string_view>

#include "Engine/internal/SettingRow.h"
#include "Engine/internal/Tables.h"
#include "Engine/utilities/AssertionMode.h"
#include "Engine/utilities/DebuggerSettingsHKORV.h"

/// \file
/// All settings there are. A new one goes behind the last of its table, in a slot that has never
/// been used: the first free one, and one more in DebuggerSettingsHKORV::slots.
///
/// The order of the rows is that in which settings are made and read the environment.

struct SettingTables {
  using EnumItem = DebuggerEnumSetting::EnumSettingItem;
  using ListItem = DebuggerListSetting::ListSettingItem;
  using Group = SettingRow::Group;
  using Slot = SettingRow::Slot;
  using Limits = SettingRow::Limits;
  using enum DebuggerSetting::SettingControl;

  /// The languages of the program that is debugged.
  enum Language : unsigned {
    noLanguage = 0,
    c = 1,
    cpp = 2,
    pli = 4,
    rpg = 5,
    cobol = 6,
    fortran = 11,
    upc = 15,
    x10 = 16
  };

  static constexpr ListItem languagesSteppedInto[] = {sets(L"C", 1U << c),
                                                      sets(L"C++", 1U << cpp),
                                                      sets(L"CPP", 1U << cpp),
                                                      sets(L"PL/I", 1U << pli),
                                                      sets(L"PLI", 1U << pli),
                                                      sets(L"RPG", 1U << rpg),
                                                      sets(L"COBOL", 1U << cobol),
                                                      sets(L"FORTRAN", 1U << fortran),
                                                      sets(L"UPC", 1U << upc),
                                                      sets(L"X10", 1U << x10),
                                                      sets(L"ALL", ~0U),
                                                      sets(L"NONE", 0),
                                                      {}};

  enum StepBit : unsigned { stepsDeep = 1, stepsIntoIncludes = 2 };

  static constexpr ListItem stepItems[] = {sets(L"INCLUDE", stepsIntoIncludes),
                                           clears(L"NOINCLUDE", stepsIntoIncludes),
                                           sets(L"DEEP", stepsDeep),
                                           clears(L"SHALLOW", stepsDeep),
                                           {}};

  static constexpr ListItem assertionItems[] = {sets(L"EXCEPTION", assertionThrows),
                                                clears(L"NOEXCEPTION", assertionThrows),
                                                sets(L"POPUP", assertionPrints),
                                                clears(L"NOPOPUP", assertionPrints),
                                                {}};

  enum SourceCheckBit : unsigned { checksDate = 1, checksContent = 2 };

  static constexpr ListItem sourceCheckItems[] = {sets(L"DATE", checksDate),
                                                  clears(L"NODATE", checksDate),
                                                  sets(L"CONTENT", checksContent),
                                                  clears(L"NOCONTENT", checksContent),
                                                  {}};

  static constexpr EnumItem sourceFilters[] = {
      {L"ALL", 0}, {L"ASSEMBLER", 0}, {L"SOURCE", 1}, {L"ALL_SOURCE", 2}, {}};

  // The first name ends with a blank, so that "NONE", which is stripped before it is compared, does
  // not match it. The default is refused, and only "0" sets no language: kept for user interfaces,
  // which show these names and values (docs/contract.md).
  static constexpr EnumItem languages[] = {
      {L"NONE ", noLanguage}, {L"C", c},     {L"C++", cpp}, {L"CPP", cpp},
      {L"PL/I", pli},         {L"PLI", pli}, {L"RPG", rpg}, {L"COBOL", cobol},
      {L"FORTRAN", fortran},  {L"UPC", upc}, {L"X10", x10}, {}};

  static constexpr EnumItem consoles[] = {{L"REMOTE", 0}, {L"GUI", 1}, {L"LOCAL", 2}, {}};
  static constexpr EnumItem forkModes[] = {{L"PARENT", 0}, {L"BOTH", 1}, {L"BOTHRUN", 2}, {}};
  static constexpr EnumItem execModes[] = {{L"STOP", 0}, {L"RUN", 1}, {}};

  static constexpr Slot debugDelay{13};
  static constexpr const wchar_t* askConfiguration = nullptr;
  static constexpr Limits anyNumber = {0, 65535};
  static constexpr Limits portNumber = {256, 65535};
  static constexpr Limits waitingTime = {10, 65535};

  /// The row of "ASSERTION", a setting that is needed before there is a registry, too.
  static constexpr SettingRow assertion = listRow(L"ASSERTION", Listable1 | Carried16, Group::none,
                                                  Slot{1}, L"NOEXCEPTION,NOPOPUP", assertionItems);

  /// Those that every platform has.
  static constexpr SettingRow common[] = {
      stringRow(L"FILE_CACHE", Listable1 | Changeable, Group{16}, Slot{21}, L""),
      stringRow(L"ADDR", Listable1 | Carried16, Group{1}, Slot{0}, L""),
      pathRow(L"PATH", Listable | Changeable, Group{2}, Slot{5}, L""),
      stringRow(L"KORVDUMP", Listable1 | Carried16, Group{3}, Slot{6}, L""),
      stringRow(L"TRACE", Listable1 | Carried16, Group{4}, Slot{7}, L""),
      stringRow(L"SIGSTOP", Listable1 | Carried16, Group::none, Slot{36}, L""),
      withHostDefault(listRow(L"SOURCESTEP", Listable | Changeable, Group{5}, Slot{40},
                              L"COBOL,PLI,X10,FORTRAN,RPG", languagesSteppedInto, true),
                      L"ALL"),
      listRow(L"STEP_DEBUG", Listable | Changeable, Group{8}, Slot{41}, L"INCLUDE,SHALLOW",
              stepItems),
      assertion,
      listRow(L"SOURCE_CHECK", Listable1 | Carried16, Group{9}, Slot{39}, L"NODATE,NOCONTENT",
              sourceCheckItems, true),
      booleanRow(L"AUTOMATED_TEST_MODE", Listable | Hidden | Changeable, Group::none, Slot{2},
                 L"FALSE"),
      booleanRow(L"ASYNC_MODE", Listable1 | Hidden | Carried16, Group{10}, Slot{9}, L"FALSE"),
      booleanRow(L"ARRAY_REPCHANGE", Listable | Changeable, Group{11}, Slot{8}, L"FALSE"),
      booleanRow(L"DEFERRED_LOCALS", Listable | Hidden | Changeable, Group::none, Slot{15},
                 L"TRUE"),
      booleanRow(L"DEFERRED_MONITORS", Listable | Hidden | Changeable, Group::none, Slot{16},
                 L"TRUE"),
      booleanRow(L"HIDE_TXMN_PHANTOM_SIG_TRAP", Listable | Hidden | Changeable, Group::none,
                 Slot{17}, L"TRUE"),
      booleanRow(L"DISASM_NOHEX", Listable1 | Carried16, Group{14}, Slot{18}, L"FALSE"),
      booleanRow(L"HIDE_RUNTIME_THREADS", Listable | Changeable, Group{15}, Slot{23}, L"TRUE"),
      booleanRow(L"HIDE_SYSTEM_THREADS", Listable1 | Hidden | Carried16, Group::none, Slot{24},
                 L"TRUE"),
      booleanRow(L"KERNEL_OVERRIDE", Listable1 | Hidden | Carried16, Group::none, Slot{25},
                 L"FALSE"),
      booleanRow(L"METADEBUG", Listable1 | Hidden | Carried16, Group::none, Slot{27}, L"TRUE"),
      booleanRow(L"NOSTEP_OVERRIDE", Listable1 | Hidden | Carried16, Group::none, Slot{28},
                 L"FALSE"),
      booleanRow(L"POWER_STEP", Listable | Changeable, Group{22}, Slot{31}, L"FALSE"),
      booleanRow(L"PRELOAD_DEBUGGEE", Listable1 | Carried16, Group{23}, Slot{32}, L"FALSE"),
      booleanRow(L"COBOL_OO", Listable | Changeable, Group{12}, Slot{11}, L"FALSE"),
      unsignedRow(L"AUTOMONITOR_AFTER", Listable | Changeable, Group{18}, Slot{3}, L"1", anyNumber),
      unsignedRow(L"AUTOMONITOR_BEFORE", Listable | Changeable, Group{19}, Slot{4}, L"2",
                  anyNumber),
      unsignedRow(L"DEBUG_DELAY", Listable | Hidden | Changeable, Group::none, debugDelay, L"0",
                  anyNumber),
      unsignedRow(L"DEBUG_INFO_KEEP", Listable | Changeable, Group{21}, Slot{14}, L"10", anyNumber),
      unsignedRow(L"PLATFORM_ID", Listable1 | Hidden | Carried16, Group::none, Slot{30}, L"0",
                  anyNumber),
      unsignedRow(L"UIPORT", Listable1 | Hidden | Carried16, Group::none, Slot{44}, L"8001",
                  portNumber),
      unsignedRow(L"TAB", Listable1 | Carried16, Group{25}, Slot{42}, L"8", Limits{1, 8}),
      unsignedRow(L"TABGRID", Listable1 | Carried16, Group{26}, Slot{43}, L"8", Limits{2, 20}),
      unsignedRow(L"REPLY_TIMEOUT", Listable1 | Hidden | Carried16, Group::none, Slot{33}, L"50",
                  waitingTime),
      unsignedRow(L"NOTIFY_TIMEOUT", Listable1 | Hidden | Carried16, Group::none, Slot{29}, L"100",
                  waitingTime),
      enumRow(L"SOURCE_FILTER", Listable | Changeable, Group{7}, Slot{38}, askConfiguration,
              sourceFilters),
      enumRow(L"LANGUAGE", Listable1 | Changeable, Group{6}, Slot{19}, L"NONE", languages),
      booleanRow(L"DEBUG_ARANGE", Hidden, Group::none, Slot{45}, L"TRUE"),
      booleanRow(L"DEBUG_FRAME", Hidden, Group::none, Slot{46}, L"TRUE"),
      booleanRow(L"MULTIBKPT", Listable | Changeable, Group{33}, Slot{37}, L"FALSE"),
      withHostDefault(unsignedRow(L"MEMORY_CACHE_TIMEOUT", Listable | Changeable, Group{34},
                                  Slot{26}, L"50", anyNumber),
                      L"10000")};

  /// Those that only this platform has.
  static constexpr SettingRow platform[] = {
      pathRow(L"RUNTIME_MODULES", Listable | Changeable, Group{32}, Slot{34}, L""),
      unsignedRow(L"SHOWSELF_TIMEOUT", Listable | Changeable, Group{27}, Slot{35}, L"10",
                  anyNumber),
      enumRow(L"CONSOLE", Listable | Carried32 | Changeable, Group{28}, Slot{12}, L"REMOTE",
              consoles),
      enumRow(L"FORK", Listable | Changeable, Group{29}, Slot{22}, L"BOTH", forkModes),
      enumRow(L"EXEC", Listable | Changeable, Group{30}, Slot{20}, L"STOP", execModes),
      booleanRow(L"TXMN_STEP", Listable | Changeable, Group{13}, Slot{10}, L"TRUE")};

  // The defaults of "HRDM_PORT" and "SOCKET_DESCRIPTOR" are out of their ranges, so that both stay
  // 0, which tells the engine that no port was given, until somebody gives one.

  /// Those of the connection to a remote host.
  static constexpr SettingRow host[] = {
      unsignedRow(L"HXT_PORT", Listable1 | Carried16, Group::none, Slot{47}, L"8002", portNumber),
      unsignedRow(L"HRDM_PORT", Listable1 | Carried16, Group::none, Slot{51}, L"0", portNumber),
      secret(
          stringRow(L"HRDM_KEY", Listable1 | Carried16, Group::none, Slot{49}, L"", Limits{0, 8})),
      stringRow(L"HRDM_HOST", Listable1 | Carried16, Group::none, Slot{50}, L""),
      booleanRow(L"LISTING_DEBUG", Listable1 | Carried16, Group::none, Slot{48}, L"0"),
      booleanRow(L"MACRA_LISTING", Listable1 | Carried16, Group::none, Slot{54}, L"0"),
      unsignedRow(L"SOCKET_DESCRIPTOR", Listable1 | Carried16, Group::none, Slot{52}, L"",
                  portNumber),
      unsignedRow(L"PROBE_TIMEOUT", Listable1 | Changeable, Group::none, Slot{53}, L"2000",
                  Limits{0, 30000})};
};

/// The row of a setting that does not belong to the connection to a remote host; null when there
/// is none of that identifier.
[[nodiscard]] inline const SettingRow* rowOfAnyHost(unsigned identifier) noexcept {
  const SettingRow* const row = rowOf(SettingTables::common, identifier);
  return row != nullptr ? row : rowOf(SettingTables::platform, identifier);
}

/// The rows of all tables.
inline constexpr auto allSettingRows = [] {
  std::array<const SettingRow*, std::size(SettingTables::common) +
                                    std::size(SettingTables::platform) +
                                    std::size(SettingTables::host)>
      rows = {};
  auto next = rows.begin();
  for (const std::span<const SettingRow> table :
       {std::span<const SettingRow>(SettingTables::common),
        std::span<const SettingRow>(SettingTables::platform),
        std::span<const SettingRow>(SettingTables::host)}) {
    for (const SettingRow& row : table) {
      *next++ = &row;
    }
  }
  return rows;
}();

static_assert(std::ranges::all_of(allSettingRows,
                                  [](const SettingRow* row) {
                                    return static_cast<unsigned>(row->slot) <
                                           DebuggerSettingsHKORV::slots;
                                  }),
              "a setting has no slot in the registry: see DebuggerSettingsHKORV::slots");
static_assert(areDifferentBy(allSettingRows, [](const SettingRow* row) { return row->slot; }),
              "two settings have one slot");
static_assert(areDifferentBy(allSettingRows,
                             [](const SettingRow* row) { return std::wstring_view(row->name); }),
              "two settings have one name");
