#pragma once

#include <sys/types.h>

#include "Engine/utilities/Export.h"

/// \file
/// The processes of the machine and their argument lists, as two functions in the form of a
/// process-table call.
///
/// A caller walks the table by calling getprocs64() with the same index until it returns -1:
/// \code
///   procentry64 entry;
///   pid_t index = 0;
///   while (getprocs64(&entry, sizeof entry, nullptr, 0, &index, 1) == 1) {
///     char arguments[4096];
///     if (getargs(&entry, sizeof entry, arguments, sizeof arguments) == 0) { ... }
///   }
/// \endcode
/// Processes come and go while the table is walked. A walk also ends at a process that the
/// index names and that has ended meanwhile, and where anything but a process follows one in
/// the folder /proc, of which only the one entry behind is looked at (the kernel lists all
/// processes behind everything else). One that wants to see all starts again from 0. Each call
/// opens the folder anew, and looks at once where the kernel has the process that the index names:
/// a walk costs in proportion to the processes. Only the first call of a walk, the last one, and
/// one for a process that is not there read from the start.
///
/// Nothing is kept between calls but the caller's index: any thread may call, on its own index
/// and buffers. Nothing is thrown; failures are traced under "ERROR".

/// One process. The caller owns it.
struct procentry64 {
  pid_t processId;  ///< 32 bits; written by getprocs64(), read by getargs().
};

/// The files of a process, of which nothing is told.
struct fdsinfo {};

/// Finds the next process of a walk.
/// \param entries   where the process is stored.
/// \param entrySize not looked at.
/// \param files     not looked at, may be null.
/// \param fileSize  not looked at.
/// \param index     the place of the walk: 0 for the first process, otherwise the identifier of
///                  the one to be found. Set to the identifier of the process that is the
///                  very next entry of the folder; where that is none, to the found identifier
///                  plus 1, whether or not processes come further behind.
/// \param count     not looked at: one process is stored at most.
/// \return 1 with one process stored; -1 when there is no such process, when /proc cannot be
///         read (traced) or when `entries` or `index` is null.
extern "C" CUL_EXPORT int getprocs64(procentry64* entries, int entrySize, fdsinfo* files,
                                     int fileSize, pid_t* index, int count);

/// Copies the arguments of a process, each with its zero byte behind it, and one zero byte more.
/// A process without any, such as a thread of the kernel, gives an empty text.
/// \param entry     the process.
/// \param entrySize not looked at.
/// \param buffer    where the arguments are stored.
/// \param length    size of `buffer` in bytes. At most `length` - 1 bytes of arguments are
///                  stored. When that many are there, the end of the list has not been seen, and
///                  it is traced under "WARNING" as one that may be cut.
/// \return 0; -1 when the list cannot be opened (traced), when `length` is 0 or less, or when
///         `entry` or `buffer` is null: then nothing is written. Also -1 when the process goes
///         while its list is read (traced): then `buffer` may have some of it, without an end.
extern "C" CUL_EXPORT int getargs(procentry64* entry, int entrySize, char* buffer, int length);
