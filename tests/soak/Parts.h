#pragma once

#include <string>

#include "tests/soak/Work.h"

/// \file
/// The parts of the soak. Each runs until its work is over and leaves nothing behind then: no
/// thread, no child, no descriptor, no file.

/// Sixteen threads write numbered lines to the ring of the trace. After every round, which fits
/// into the ring, each line that stands there is read: every line that is written is looked at.
/// \param file of the trace, which is open.
void writeTraceLines(Work& work, const std::string& file);

/// Programs are started by several threads at once, waited for and their status looked at.
void startProcesses(Work& work);

/// Threads that end by themselves, and threads that are asked to: in a sleep, a wait for an event,
/// a wait for a lock, a read, and between two steps of what they compute. Under the thread
/// sanitizer, which keeps signals back while a thread waits, all end by themselves.
void startThreads(Work& work);

/// Children are forked off this process, busy as it is, and use strings, lists, settings and a
/// trace of their own.
/// \param folder of the traces, whose configuration has the type "CHILD".
void forkChildren(Work& work, const std::string& folder);

/// Debuggees are started on consoles of their own, talked to, and hung up. Standard input and
/// standard output of this process must be a terminal.
void hangUpConsoles(Work& work);

/// Strings of all types and sizes are made and converted by one thread, and looked at and deleted
/// by another.
void passStrings(Work& work);
