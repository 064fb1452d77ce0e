#include "Messages.h"

#include <iterator>

namespace {

constexpr MessageRow rows[] = {
    {1, 1, "%s: not found"},
    {1, 2, "module %s cannot be loaded; the trace tells why"},
    {1, 3, "there are no windows here: the console is at this terminal"},
    {1, 4, "the program ended with status %d"},
    {1, 5, "the program was ended by the signal %s"},
    {1, 6, "%s at %s(%u)"},
    {1, 7, "failure"},

    {2, 1, "usage: enginehost [options] [--] program [argument...]"},
    {2, 2, "Runs a program, on a console of its own when called at a terminal."},
    {2, 3, "Options, each with its shortest form:"},
    {2, 4, "Settings, each given in the environment as %s and its name:"},
    {2, 5, "attaching is for the engine"},
    {2, 6, "%s: invalid option or value, see enginehost -?"},

    {3, 1, "%s takes nothing but --json"},
    {3, 2, "%s=\"%s\" is refused: %s"},
    {3, 3, "it is not %u to %u characters long"},
    {3, 4, "it is not within %s"},
    {3, 5, "it is none of %s"},
    {3, 6, "%s is no variable of the debugger; the nearest is %s"},
    {3, 7, "NAME"},
    {3, 8, "TYPE"},
    {3, 9, "PERMITTED"},
    {3, 10, "DEFAULT"},
    {3, 11, "VALUE"},
    {3, 12, "FROM"},

    {4, 1, "the processes cannot be read; the trace tells why"},
    {4, 2, "PROCESS"},
    {4, 3, "ARGUMENTS"},
    {4, 4, "-properties takes a file and at most one key"},
    {4, 5, "-convert takes two code pages"},
    {4, 6, "%s: unknown code page"},
    {4, 7, "standard input: %s"},
    {4, 8, "standard output: %s"},
    {4, 9, "standard output cannot be written"},
    {4, 10, "it is no regular file"},
    {4, 11, "it has a line of more than %u MB"},
};
static_assert(std::size(rows) == static_cast<std::size_t>(Message::lineTooLong) + 1);

}  // namespace

const ProgramMessages programMessages = {"enginehost", "host", rows};
