#pragma once

/// Gives up the lines that the calling thread is in the middle of, and with them the lock of
/// the trace, which other threads would wait for in vain. For a jump out of a signal handler
/// that skips the rest of a trace call, as when a text to be traced lies at a bad address.
void abandonTraceLines() noexcept;
