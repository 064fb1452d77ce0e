// What gdb has to know of the library's types where the library itself is stripped. A program that
// only uses a class with virtual functions has no description of it.
//
// Compiled for its debug information; nothing of it is loaded into a program.

#include "Engine/utilities/ByteString.h"
#include "Engine/utilities/CharString.h"
#include "Engine/utilities/DebuggerArgList.h"
#include "Engine/utilities/DebuggerBooleanSetting.h"
#include "Engine/utilities/DebuggerEnumSetting.h"
#include "Engine/utilities/DebuggerIntegerSetting.h"
#include "Engine/utilities/DebuggerListSetting.h"
#include "Engine/utilities/DebuggerPathSetting.h"
#include "Engine/utilities/DebuggerSettings.h"
#include "Engine/utilities/DebuggerSettingsHKORV.h"
#include "Engine/utilities/DebuggerStringSetting.h"
#include "Engine/utilities/DebuggerUnsignedSetting.h"
#include "Engine/utilities/EncodedString.h"
#include "Engine/utilities/FileName.h"
#include "Engine/utilities/IdList.h"
#include "Engine/utilities/Properties.h"
#include "Engine/utilities/RWlock.h"
#include "Engine/utilities/ReferenceCounted.h"
#include "Engine/utilities/TimeDateStamp.h"
#include "Engine/utilities/UNIX/UNIX_Critical_Section.h"
#include "Engine/utilities/UNIX/UNIX_Event_Semaphore.h"

// With the nodes of the table, too.
template class SearchList_HashTable<Properties::HashElement, EncodedString>;

// Each type that libcul-gdb.py shows and that is no template.
struct CulTypes {
  ByteString* byteString;
  CharString* charString;
  EncodedString* encodedString;
  FileName* fileName;
  IdList* idList;
  ReferenceCounted* referenceCounted;
  DebuggerBooleanSetting* booleanSetting;
  DebuggerEnumSetting* enumSetting;
  DebuggerIntegerSetting* integerSetting;
  DebuggerListSetting* listSetting;
  DebuggerPathSetting* pathSetting;
  DebuggerStringSetting* stringSetting;
  DebuggerUnsignedSetting* unsignedSetting;
  DebuggerSettingsHKORV* settings;
  DebuggerArgList* argList;
  Properties* properties;
  TimeDateStamp* timeDateStamp;
  UNIX_Critical_Section* criticalSection;
  RWlock* rwLock;
  UNIX_Event_Semaphore* eventSemaphore;
};

extern CulTypes culTypes;
CulTypes culTypes = {};
