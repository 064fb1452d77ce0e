#pragma once

/// \file
/// The signals as this process was started with them: what its starter had ignored, as
/// `nohup` and a shell do for some, is ignored by the program too that it starts. The library
/// handles and ignores signals of its own from its loading on, but SIGHUP and SIGTERM: those keep
/// their meaning.

/// Ignores the signals that were ignored at the start of the process and gives all others
/// their default action. For a forked child, in which no other thread runs.
void setStartSignals() noexcept;

/// Gives one signal the action back that it had at the start of the process.
void setStartSignal(int signal) noexcept;
