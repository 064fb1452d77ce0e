#include "tests/programs/HostAtTerminal.h"

void startHost(Terminal& terminal, std::vector<std::string> words, TerminalOptions options) {
  words.insert(words.begin(), {host, "--"});
  options.environment["TERM"] = "xterm";
  terminal.startProgram(words, options);
}

void startHostedShell(Terminal& terminal, const std::string& script,
                      const TerminalOptions& options) {
  startHost(terminal, {"sh", "-c", script}, options);
}

bool isRaw(const Terminal& terminal) { return (terminal.modes().c_lflag & (ICANON | ISIG)) == 0; }

bool hasModesOf(const Terminal& terminal, const termios& modes) {
  const termios now = terminal.modes();
  return now.c_lflag == modes.c_lflag && now.c_iflag == modes.c_iflag &&
         now.c_oflag == modes.c_oflag;
}
