// A program of known objects, for a debugger to look at when it stands in ready().

#include <cstring>
#include <memory>
#include <new>

#include "Engine/utilities/ByteString.h"
#include "Engine/utilities/CharString.h"
#include "Engine/utilities/DebuggerArgList.h"
#include "Engine/utilities/DebuggerBooleanSetting.h"
#include "Engine/utilities/DebuggerEnumSetting.h"
#include "Engine/utilities/DebuggerIntegerSetting.h"
#include "Engine/utilities/DebuggerListSetting.h"
#include "Engine/utilities/DebuggerPathSetting.h"
#include "Engine/utilities/DebuggerSettings.h"
#include "Engine/utilities/DebuggerStringSetting.h"
#include "Engine/utilities/DebuggerUnsignedSetting.h"
#include "Engine/utilities/EncodedString.h"
#include "Engine/utilities/FileName.h"
#include "Engine/utilities/IdList.h"
#include "Engine/utilities/List.h"
#include "Engine/utilities/OwningList.h"
#include "Engine/utilities/Properties.h"
#include "Engine/utilities/RWlock.h"
#include "Engine/utilities/Reference.h"
#include "Engine/utilities/ReferenceCounted.h"
#include "Engine/utilities/SearchList_HashTable.h"
#include "Engine/utilities/TimeDateStamp.h"
#include "Engine/utilities/UNIX/UNIX_Critical_Section.h"
#include "Engine/utilities/UNIX/UNIX_Event_Semaphore.h"

// Called like one of the library's settings.
struct DebuggerHostSetting {
  int only = 3;
};

namespace {

// The bytes of an object that nobody made, or that somebody wrote over.
template <class T>
class Damaged {
 public:
  explicit Damaged(unsigned char byte) noexcept { std::memset(bytes_, byte, sizeof bytes_); }
  const T& object() const noexcept { return *reinterpret_cast<const T*>(bytes_); }

 private:
  alignas(T) unsigned char bytes_[sizeof(T)];
};

struct Counted : ReferenceCounted {
  int content = 42;
};

struct Derived : EncodedString {
  explicit Derived(const EncodedString& text) : EncodedString(text) {}
  int more = 5;
};

struct Entry {
  EncodedString key;
  int number;
};

struct Pair {
  int first;
  bool second;
};

EncodedString utf8(const char* text) { return {text, EncodedString::utf8}; }

// Where a debugger stops; one frame up are the objects.
[[gnu::noinline]] void ready() { asm volatile("" ::: "memory"); }

template <class T>
struct DamagedPair {
  Damaged<T> zeroBytes{0};
  Damaged<T> otherBytes{0xA5};
  const T& zeros = zeroBytes.object();
  const T& others = otherBytes.object();
};

}  // namespace

int main() {
  const EncodedString text = utf8("Καλημέρα");
  const EncodedString empty;
  const EncodedString zeros("a\0b", 3, EncodedString::utf8);
  const EncodedString endsInZero("a\0", 2, EncodedString::utf8);
  const EncodedString onlyZero("", 1, EncodedString::utf8);
  const EncodedString invalid("\xC3(\xFF", EncodedString::utf8);
  const EncodedString quoted = utf8("say \"no\"\n\\");
  EncodedString movedFrom = utf8("gone");
  const EncodedString movedTo = static_cast<EncodedString&&>(movedFrom);
  EncodedString deleted = utf8("deleted");
  deleted.deleteBuffer();
  const EncodedString numbers = utf8("0123456789012345678901234567890123456789");
  const EncodedString great(L'x', 5000000);
  [[maybe_unused]] const EncodedString& reference = text;
  [[maybe_unused]] const EncodedString* const pointer = &text;
  const ByteString bytes("\x01\x7F\xFFtext\0", 8);
  const CharString wide(L"Ελ\0x", 4);
  CharString badCodeValue(L"a-b");
  badCodeValue[2] = static_cast<wchar_t>(-1);
  [[maybe_unused]] const StringBuffer<char>& base = text;
  [[maybe_unused]] const DebuggerHostSetting foreign;
  const Derived derived(utf8("base"));

  List<int> ints;
  for (int i = 1; i <= 5; ++i) {
    ints.add(i * i);
  }
  const List<int> noInts;
  const List<bool> roomForBools(3);
  List<Pair> pairs;
  pairs.add({7, true});
  List<const EncodedString*> strings;
  strings.add(&text);
  strings.add(nullptr);
  strings.add(&empty);
  List<const char*> literals;
  literals.add("one");
  List<const void*> addresses;
  addresses.add(nullptr);
  List<const EncodedString*> lost;
  lost.add(reinterpret_cast<const EncodedString*>(0x10));
  OwningList<FileName> owned;
  owned.add(std::make_unique<FileName>("lib/libx.so.6", EncodedString::utf8));
  IdList ids(3);
  ids.reserveId(2);
  ids.getNextId();

  const FileName file("lib/libx.a(shr.o)", EncodedString::utf8);
  const FileName bare("README", EncodedString::utf8);
  const FileName folder("lib/", EncodedString::utf8);
  const FileName noFile;

  const Reference<Counted> counted(new Counted);
  const Reference<Counted> other = counted;
  const Reference<Counted> nothing;

  DebuggerSettings& settings = *DebuggerSettings::instance();
  const auto control = DebuggerSetting::Changeable;
  static const DebuggerEnumSetting::EnumSettingItem colours[] = {
      {L"RED", 3}, {L"GREEN", 5}, {nullptr, 0}};
  static const DebuggerListSetting::ListSettingItem flags[] = {
      {L"A", 1, true}, {L"B", 0xF0, true}, {nullptr, 0, false}};
  constexpr int noIdentifier = 100000;
  DebuggerStringSetting string(utf8("A_STRING"), control, 1, noIdentifier, 0, 100);
  string.setValue(utf8("a value"));
  DebuggerPathSetting path(utf8("A_PATH"), control, 1, noIdentifier, 0, 100);
  path.setValue(utf8("/usr/lib:/lib"));
  DebuggerBooleanSetting boolean(utf8("A_BOOLEAN"), control, 1, noIdentifier);
  boolean.setValue(utf8("yes"));
  DebuggerIntegerSetting integer(utf8("AN_INTEGER"), control, 1, noIdentifier, -9, 9);
  integer.setValue(utf8("-7"));
  DebuggerUnsignedSetting number(utf8("AN_UNSIGNED"), control, 1, noIdentifier, 0, 0xFFFFFFFF);
  number.setValue(utf8("4294967295"));
  DebuggerEnumSetting choice(utf8("AN_ENUM"), control, colours, 1, noIdentifier);
  choice.setValue(utf8("green"));
  DebuggerListSetting list(utf8("A_LIST"), control, flags, 1, noIdentifier, 1);
  list.setValue(utf8("B,A"));
  const DebuggerIntegerSetting refused(utf8("REFUSED"), control, 1, noIdentifier, 1, 9);
  List<DebuggerSetting*> chosen;
  chosen.add(&integer);
  [[maybe_unused]] DebuggerSetting* const delayed = settings.getSetting(L"DEBUG_DELAY");

  DebuggerArgList arguments;
  arguments.addArg(utf8("-qhost"), utf8("here"));
  arguments.addArg(utf8("-qquiet"), EncodedString());
  Properties properties(nullptr);
  properties.setProperty(utf8("colour"), utf8("red"));
  properties.setProperty(utf8("size"), utf8("9"));
  SearchList_HashTable<Entry, EncodedString> table(1, 4, 1, nullptr);
  table.add({utf8("one"), 1});
  table.add({utf8("two"), 2});

  [[maybe_unused]] const TimeDateStamp unset;
  const TimeDateStamp unreadable("yesterday");
  TimeDateStamp stamp;
  stamp.time = 1706745599;
  UNIX_Critical_Section freeSection;
  UNIX_Critical_Section heldSection;
  heldSection.request(__FILE__, __LINE__);
  heldSection.request(__FILE__, __LINE__);
  RWlock freeLock(RWlockBase::NoPriority);
  RWlock readLock(RWlockBase::NoPriority);
  readLock.requestRead();
  readLock.requestRead();
  RWlock writeLock(RWlockBase::WriterPriority);
  writeLock.requestWrite();
  UNIX_Event_Semaphore closed;
  UNIX_Event_Semaphore open;
  open.post();

  const DamagedPair<EncodedString> badString;
  const DamagedPair<CharString> badWide;
  const DamagedPair<FileName> badFile;
  const DamagedPair<List<int>> badList;
  const DamagedPair<OwningList<FileName>> badOwned;
  const DamagedPair<IdList> badIds;
  const DamagedPair<Reference<Counted>> badReference;
  const DamagedPair<DebuggerIntegerSetting> badSetting;
  const DamagedPair<DebuggerSettings> badSettings;
  const DamagedPair<DebuggerArgList> badArguments;
  const DamagedPair<Properties> badProperties;
  const DamagedPair<TimeDateStamp> badStamp;
  const DamagedPair<UNIX_Critical_Section> badSection;
  const DamagedPair<RWlock> badLock;
  const DamagedPair<UNIX_Event_Semaphore> badEvent;

  ready();

  heldSection.release(__FILE__, __LINE__);
  heldSection.release(__FILE__, __LINE__);
  readLock.release();
  readLock.release();
  writeLock.release();
}
