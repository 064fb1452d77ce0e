#include <cstddef>

#include "Engine/utilities/CUL_SemaphoreError.h"
#include "Engine/utilities/DebuggerEnumSetting.h"
#include "Engine/utilities/DebuggerIntegerSetting.h"
#include "Engine/utilities/DebuggerListSetting.h"
#include "Engine/utilities/DebuggerNumericSetting.h"
#include "Engine/utilities/DebuggerPathSetting.h"
#include "Engine/utilities/DebuggerSetting.h"
#include "Engine/utilities/DebuggerSettings.h"
#include "Engine/utilities/DebuggerStringSetting.h"
#include "Engine/utilities/DebuggerUnsignedSetting.h"
#include "Engine/utilities/EBCDICtable.h"
#include "Engine/utilities/ElapsedTime.h"
#include "Engine/utilities/FileName.h"
#include "Engine/utilities/FixedMemoryPool.h"
#include "Engine/utilities/HeapMemoryAllocator.h"
#include "Engine/utilities/IdList.h"
#include "Engine/utilities/List.h"
#include "Engine/utilities/ListImplementation.h"
#include "Engine/utilities/MD5.h"
#include "Engine/utilities/OpenFiles.h"
#include "Engine/utilities/Pool.h"
#include "Engine/utilities/PoolArea.h"
#include "Engine/utilities/PoolMemoryAllocator.h"
#include "Engine/utilities/ProcessTable.h"
#include "Engine/utilities/ProcessWaiter.h"
#include "Engine/utilities/Properties.h"
#include "Engine/utilities/RWlock.h"
#include "Engine/utilities/ReferenceCounted.h"
#include "Engine/utilities/RunningThreads.h"
#include "Engine/utilities/SearchListMemoryManager.h"
#include "Engine/utilities/SpawnedProcess.h"
#include "Engine/utilities/StdException.h"
#include "Engine/utilities/StdPipe.h"
#include "Engine/utilities/StdThread.h"
#include "Engine/utilities/StringBuffer.h"
#include "Engine/utilities/StringPoolManager.h"
#include "Engine/utilities/ThreadHandle.h"
#include "Engine/utilities/ThreadListener.h"
#include "Engine/utilities/ThreadManager.h"
#include "Engine/utilities/TimeDateStamp.h"
#include "Engine/utilities/TraceFlags.h"
#include "Engine/utilities/TraceImplementation.h"
#include "Engine/utilities/UNIX/UNIXStdioPipes.h"
#include "Engine/utilities/UNIX/UNIX_Critical_Section.h"
#include "Engine/utilities/UNIX/UNIX_Engine_Loader.h"
#include "Engine/utilities/UNIX/UNIX_Event_Semaphore.h"
#include "Engine/utilities/UNIX/UNIX_Installpath.h"
#include "Engine/utilities/UNIX/UNIX_Mutex.h"
#include "Engine/utilities/UTF8Converter.h"
#include "Engine/utilities/WorkerThread.h"
#include "Engine/utilities/msgserv/LibraryMessageServer.h"
#include "Engine/utilities/msgserv/XPG4MsgServer.h"
#include "Engine/utilities/signals.h"
#include "Engine/utilities/workstation/TraceStack.h"

// The layouts of docs/contract.md: what moves does not compile. Nothing here runs.
//
// An explicit instantiation may name private fields and types. Virtual operations cannot be pinned
// like this, since no compiler looks into pointers to them in a constant expression: the tests of
// their classes do, see tests/support/VirtualSlot.h.

namespace {

template <class Class, std::size_t offset, std::size_t actual>
struct FixedField {
  static_assert(actual == offset, "the contract fixes where this field is");
};

template <class Class, std::size_t size>
struct FixedSize {
  static_assert(sizeof(Class) == size, "the contract fixes the size of this class");
};

// Both compilers lay classes with virtual operations out like any others.
#pragma GCC diagnostic ignored "-Winvalid-offsetof"

// `field` is `offset` bytes into an object of `Class`.
#define FIXED_FIELD(Class, field, offset) \
  template struct FixedField<Class, offset, offsetof(Class, field)>

// An object of `Class` has `size` bytes.
#define FIXED_SIZE(Class, size) template struct FixedSize<Class, size>

FIXED_SIZE(StringBuffer<char>, 24);
FIXED_FIELD(StringBuffer<char>, buffer, 8);
FIXED_FIELD(StringBuffer<char>, len, 16);

FIXED_SIZE(StringPoolManager, 112);
FIXED_FIELD(StringPoolManager, freeLists_, 0);
FIXED_FIELD(StringPoolManager, lock_, 48);

FIXED_SIZE(StdException, 56);
FIXED_FIELD(StdException, text, 0);
FIXED_FIELD(StdException, fileName, 24);
FIXED_FIELD(StdException, line, 48);
FIXED_FIELD(StdException, status, 52);

FIXED_SIZE(Pool, 64);
FIXED_FIELD(Pool, allocated, 0);
FIXED_FIELD(Pool, increment, 8);
FIXED_FIELD(Pool, initialSize, 16);
FIXED_FIELD(Pool, first, 24);
FIXED_FIELD(Pool, current, 32);
FIXED_FIELD(Pool, name, 40);
FIXED_FIELD(Pool, allocator_, 48);

FIXED_SIZE(PoolArea, 48);
FIXED_FIELD(PoolArea, previous, 0);
FIXED_FIELD(PoolArea, next, 8);
FIXED_FIELD(PoolArea, buffer, 16);
FIXED_FIELD(PoolArea, name, 24);
FIXED_FIELD(PoolArea, size, 32);
FIXED_FIELD(PoolArea, used, 40);

FIXED_SIZE(PoolMemoryAllocator, 16);
FIXED_FIELD(PoolMemoryAllocator, pool_, 8);

FIXED_SIZE(HeapMemoryAllocator, 8);

FIXED_SIZE(FixedMemoryPool, 16);
FIXED_FIELD(FixedMemoryPool, cellSize_, 0);
FIXED_FIELD(FixedMemoryPool, blockSize_, 4);
FIXED_FIELD(FixedMemoryPool, free_, 8);

FIXED_SIZE(ListImplementation, 24);
FIXED_FIELD(ListImplementation, allocator, 0);
FIXED_FIELD(ListImplementation, count, 8);
FIXED_FIELD(ListImplementation, capacity, 12);
FIXED_FIELD(ListImplementation, elementSize_, 16);
FIXED_FIELD(ListImplementation, growth_, 18);

FIXED_SIZE(List<void*>, 32);
FIXED_FIELD(List<void*>, implementation_, 0);
FIXED_FIELD(List<void*>, elements_, 24);

FIXED_SIZE(IdList, 40);
FIXED_FIELD(IdList, directCount, 0);
FIXED_FIELD(IdList, elements_, 8);

using PropertyList = SearchList<Properties::HashElement, EncodedString>;
FIXED_SIZE(PropertyList, 24);
FIXED_FIELD(PropertyList, count_, 8);
FIXED_FIELD(PropertyList, duplicatesAllowed_, 12);
FIXED_FIELD(PropertyList, stamp_, 16);

FIXED_FIELD(Properties::Table, cursor_, 24);
FIXED_FIELD(Properties::Table, memory_, 64);
FIXED_FIELD(Properties::Table, buckets_, 96);
FIXED_FIELD(Properties::Table, bucketCount_, 104);

FIXED_SIZE(Properties::HashElement, 56);
FIXED_FIELD(Properties::HashElement, key, 8);
FIXED_FIELD(Properties::HashElement, value, 32);

FIXED_SIZE(SearchList_HashNode<Properties::HashElement>, 64);
FIXED_FIELD(SearchList_HashNode<Properties::HashElement>, next, 0);
FIXED_FIELD(SearchList_HashNode<Properties::HashElement>, element, 8);

FIXED_SIZE(SearchListMemoryManager, 32);
FIXED_FIELD(SearchListMemoryManager, blocks_, 0);
FIXED_FIELD(SearchListMemoryManager, free_, 8);
FIXED_FIELD(SearchListMemoryManager, elementSize_, 16);
FIXED_FIELD(SearchListMemoryManager, elementsPerBlock_, 18);
FIXED_FIELD(SearchListMemoryManager, heap_, 24);

FIXED_SIZE(OpenFiles, 32);

FIXED_SIZE(FileName, 32);
FIXED_FIELD(FileName, hash, 20);
FIXED_FIELD(FileName, basePosition, 24);
FIXED_FIELD(FileName, extensionPosition, 26);
FIXED_FIELD(FileName, memberPosition, 28);
FIXED_FIELD(FileName, hashValid, 30);

FIXED_SIZE(UTF8Converter, 24);
FIXED_FIELD(UTF8Converter, toNative, 0);
FIXED_FIELD(UTF8Converter, toUTF8, 8);
FIXED_FIELD(UTF8Converter, codepage, 16);

FIXED_SIZE(EBCDICtable::ValuePair, 4);
FIXED_FIELD(EBCDICtable::ValuePair, ucs, 0);
FIXED_FIELD(EBCDICtable::ValuePair, ebcdic, 2);

FIXED_SIZE(EBCDICtable, 1624);
FIXED_FIELD(EBCDICtable, dbcsPairs, 0);
FIXED_FIELD(EBCDICtable, upperPairs, 32);
FIXED_FIELD(EBCDICtable, name, 64);
FIXED_FIELD(EBCDICtable, toUCSTable, 88);
FIXED_FIELD(EBCDICtable, fromUCS7Table, 1112);

FIXED_SIZE(MD5, 16);
FIXED_FIELD(MD5, digest, 0);

FIXED_SIZE(TimeDateStamp, 8);
FIXED_FIELD(TimeDateStamp, time, 0);

FIXED_SIZE(ElapsedTime, 16);
FIXED_FIELD(ElapsedTime, start, 0);
FIXED_FIELD(ElapsedTime, text, 8);

FIXED_SIZE(UNIX_Installpath, 32);
FIXED_FIELD(UNIX_Installpath, installLocation_, 8);

FIXED_SIZE(StdThread, 296);
FIXED_FIELD(StdThread, recoveryPoint_, 8);
FIXED_FIELD(StdThread, name_, 208);
FIXED_FIELD(StdThread, slots_, 232);
FIXED_FIELD(StdThread, threadId_, 264);
FIXED_FIELD(StdThread, termination_, 272);
FIXED_FIELD(StdThread, stackSize_, 280);
FIXED_FIELD(StdThread, blockCount_, 284);
FIXED_FIELD(StdThread, started_, 286);
FIXED_FIELD(StdThread, recoveryArmed_, 287);
FIXED_FIELD(StdThread, terminationPending_, 288);

FIXED_SIZE(StdThread::NamedSlot, 24);
FIXED_FIELD(StdThread::NamedSlot, key, 0);
FIXED_FIELD(StdThread::NamedSlot, value, 8);
FIXED_FIELD(StdThread::NamedSlot, keyLength, 16);

FIXED_SIZE(StdThread::Termination, 16);
FIXED_FIELD(StdThread::Termination, threadId_, 0);
FIXED_FIELD(StdThread::Termination, thread_, 8);

FIXED_SIZE(RunningThreads, 96);
FIXED_FIELD(RunningThreads, threads_, 0);
FIXED_FIELD(RunningThreads, lock_, 32);

FIXED_SIZE(UNIX_Mutex, 48);
FIXED_FIELD(UNIX_Mutex, mutex_, 8);

FIXED_SIZE(UNIX_Critical_Section, 64);
FIXED_FIELD(UNIX_Critical_Section, owner_, 48);
FIXED_FIELD(UNIX_Critical_Section, count_, 56);

FIXED_SIZE(RWlock, 136);
FIXED_FIELD(RWlock, priority_, 0);
FIXED_FIELD(RWlock, holders_, 8);
FIXED_FIELD(RWlock, _mutex, 40);
FIXED_FIELD(RWlock, _cond, 80);
FIXED_FIELD(RWlock, writersWaiting_, 128);
FIXED_FIELD(RWlock, readersWaiting_, 130);

FIXED_SIZE(RWlock::Holder, 16);
FIXED_FIELD(RWlock::Holder, thread, 0);
FIXED_FIELD(RWlock::Holder, readCount, 8);
FIXED_FIELD(RWlock::Holder, writeCount, 10);

FIXED_FIELD(UNIX_Event_Semaphore, mutex_, 8);
FIXED_FIELD(UNIX_Event_Semaphore, condition_, 56);
FIXED_FIELD(UNIX_Event_Semaphore, posted_, 104);

FIXED_SIZE(UNIX_Event_Semaphore::MsecTime, 8);
FIXED_FIELD(UNIX_Event_Semaphore::MsecTime, milliseconds_, 0);

FIXED_SIZE(UNIX_Event_Semaphore::WaitInstance, 32);
FIXED_FIELD(UNIX_Event_Semaphore::WaitInstance, semaphore_, 0);
FIXED_FIELD(UNIX_Event_Semaphore::WaitInstance, deadline_, 8);
FIXED_FIELD(UNIX_Event_Semaphore::WaitInstance, timer_, 16);
FIXED_FIELD(UNIX_Event_Semaphore::WaitInstance, expired_, 24);

FIXED_SIZE(UNIX_Event_Semaphore::MillisecondTimer, 392);
FIXED_FIELD(UNIX_Event_Semaphore::MillisecondTimer, lock_, 296);
FIXED_FIELD(UNIX_Event_Semaphore::MillisecondTimer, pending_, 360);

FIXED_SIZE(CUL_SemaphoreError, 56);

FIXED_SIZE(ReferenceCounted, 16);
FIXED_FIELD(ReferenceCounted, referenceCount_, 8);

FIXED_SIZE(ThreadListener, 224);
FIXED_FIELD(ThreadListener, semaphore_, 16);
FIXED_FIELD(ThreadListener, worker_, 136);
FIXED_FIELD(ThreadListener, threadId_, 144);
FIXED_FIELD(ThreadListener, result_, 152);
FIXED_FIELD(ThreadListener, lock_, 160);

FIXED_SIZE(WorkerThread, 400);
FIXED_FIELD(WorkerThread, listener_, 296);
FIXED_FIELD(WorkerThread, result_, 312);
FIXED_FIELD(WorkerThread, workerId_, 320);
FIXED_FIELD(WorkerThread, state_, 328);
FIXED_FIELD(WorkerThread, lock_, 336);

FIXED_SIZE(ThreadHandle, 232);
FIXED_FIELD(ThreadHandle, manager_, 224);

FIXED_FIELD(ThreadManager, handles_, 0);
FIXED_FIELD(ThreadManager, allEnded_, 32);
FIXED_FIELD(ThreadManager, lock_, 144);

FIXED_SIZE(SignalOccurred, 4);
FIXED_FIELD(SignalOccurred, signal_, 0);

FIXED_SIZE(TraceStack, 16);
FIXED_FIELD(TraceStack, whereis_, 0);
FIXED_FIELD(TraceStack, lookedUp_, 8);

FIXED_SIZE(TraceStack::FRAME, 16);
FIXED_FIELD(TraceStack::FRAME, address, 0);
FIXED_FIELD(TraceStack::FRAME, next, 8);

FIXED_SIZE(TraceFlags, 28);
FIXED_FIELD(TraceFlags, bytes, 0);

FIXED_FIELD(TraceImplementation, flags, 0);
FIXED_FIELD(TraceImplementation, excludeList_, 32);
FIXED_FIELD(TraceImplementation, includeList_, 64);
FIXED_FIELD(TraceImplementation, ownedBuffer_, 96);
FIXED_FIELD(TraceImplementation, startCounter_, 104);
FIXED_FIELD(TraceImplementation, outputName_, 112);
FIXED_FIELD(TraceImplementation, lock_, 136);
FIXED_FIELD(TraceImplementation, startTime_, 200);
FIXED_FIELD(TraceImplementation, output_, 208);
FIXED_FIELD(TraceImplementation, rewindPoint_, 216);
FIXED_FIELD(TraceImplementation, sizeLimit_, 220);
FIXED_FIELD(TraceImplementation, currentSize_, 224);
FIXED_FIELD(TraceImplementation, pauseCount_, 228);
FIXED_FIELD(TraceImplementation, state_, 232);
FIXED_FIELD(TraceImplementation, reopenInChild_, 236);

FIXED_FIELD(DebuggerSetting, name_, 8);
FIXED_FIELD(DebuggerSetting, value_, 32);
FIXED_FIELD(DebuggerSetting, group_, 56);
FIXED_FIELD(DebuggerSetting, identifier_, 60);
FIXED_FIELD(DebuggerSetting, type_, 64);
FIXED_FIELD(DebuggerSetting, control_, 68);

FIXED_FIELD(DebuggerNumericSetting, number_, 80);

FIXED_FIELD(DebuggerStringSetting, minLength_, 78);
FIXED_FIELD(DebuggerStringSetting, maxLength_, 80);

FIXED_FIELD(DebuggerPathSetting, paths_, 88);

FIXED_FIELD(DebuggerIntegerSetting, minimum_, 84);
FIXED_FIELD(DebuggerIntegerSetting, maximum_, 88);

FIXED_FIELD(DebuggerUnsignedSetting, minimum_, 84);
FIXED_FIELD(DebuggerUnsignedSetting, maximum_, 88);

FIXED_FIELD(DebuggerEnumSetting, names_, 88);
FIXED_FIELD(DebuggerEnumSetting, numbers_, 120);

FIXED_SIZE(DebuggerEnumSetting::EnumSettingItem, 16);
FIXED_FIELD(DebuggerEnumSetting::EnumSettingItem, name, 0);
FIXED_FIELD(DebuggerEnumSetting::EnumSettingItem, number, 8);

FIXED_FIELD(DebuggerListSetting, names_, 88);
FIXED_FIELD(DebuggerListSetting, masks_, 120);
FIXED_FIELD(DebuggerListSetting, setFlags_, 152);
FIXED_FIELD(DebuggerListSetting, acceptsAllAndNone_, 184);

FIXED_SIZE(DebuggerListSetting::ListSettingItem, 16);
FIXED_FIELD(DebuggerListSetting::ListSettingItem, name, 0);
FIXED_FIELD(DebuggerListSetting::ListSettingItem, mask, 8);
FIXED_FIELD(DebuggerListSetting::ListSettingItem, sets, 12);

FIXED_FIELD(DebuggerSettings, listeners_, 8);
FIXED_FIELD(DebuggerSettings, settings_, 40);

FIXED_SIZE(StdPipe, 12);
FIXED_FIELD(StdPipe, readHandle_, 0);
FIXED_FIELD(StdPipe, writeHandle_, 4);
FIXED_FIELD(StdPipe, reserved_, 8);

FIXED_SIZE(UNIXStdioPipes, 72);
FIXED_FIELD(UNIXStdioPipes, slaveName_, 8);
FIXED_FIELD(UNIXStdioPipes, savedAttributes_, 32);
FIXED_FIELD(UNIXStdioPipes, savedWindowSize_, 40);
FIXED_FIELD(UNIXStdioPipes, masterHandle_, 48);
FIXED_FIELD(UNIXStdioPipes, slaveHandle_, 52);
FIXED_FIELD(UNIXStdioPipes, inputCopy_, 56);
FIXED_FIELD(UNIXStdioPipes, outputCopy_, 60);
FIXED_FIELD(UNIXStdioPipes, errorCopy_, 64);
FIXED_FIELD(UNIXStdioPipes, noConsole_, 68);
FIXED_FIELD(UNIXStdioPipes, inputIsTerminal_, 69);
FIXED_FIELD(UNIXStdioPipes, outputIsTerminal_, 70);
FIXED_FIELD(UNIXStdioPipes, errorIsTerminal_, 71);

FIXED_SIZE(SpawnedProcess, 16);
FIXED_FIELD(SpawnedProcess, waiter_, 0);
FIXED_FIELD(SpawnedProcess, sharesParentConsoleIO_, 8);
FIXED_FIELD(SpawnedProcess, inheritsFileDescriptors_, 12);

FIXED_SIZE(ProcessWaiter, 16);
FIXED_FIELD(ProcessWaiter, process_, 8);

FIXED_FIELD(UNIX_Engine_Loader, modules_, 8);

FIXED_SIZE(UNIX_Engine_Loader::Module, 16);
FIXED_FIELD(UNIX_Engine_Loader::Module, handle, 0);
FIXED_FIELD(UNIX_Engine_Loader::Module, name, 8);

FIXED_FIELD(procentry64, processId, 0);

FIXED_SIZE(LibraryMessageServer, 16);
FIXED_FIELD(LibraryMessageServer, messageRetriever, 8);

FIXED_SIZE(XPG4MsgServer, 16);
FIXED_FIELD(XPG4MsgServer, server, 8);

}  // namespace
