#include "programs/enginetrace/Messages.h"

#include <iterator>

namespace {

constexpr MessageRow rows[] = {
    {1, 1, "usage: enginetrace [options] file|folder|- ..."},
    {1, 2, "Shows the lines of traces in the order in which they were written."},
    {1, 3, "Options:"},

    {2, 1, "only lines of these types, such as ERROR,GMH"},
    {2, 2, "no lines of these types"},
    {2, 3, "only errors and warnings"},
    {2, 4, "only lines of this thread"},
    {2, 5, "only lines of functions that match, such as 'Std*::run'"},
    {2, 6, "only lines in which this is found"},
    {2, 7, "--grep takes capital and small letters for the same"},
    {2, 8, "only these processes, each by its role, its number or both"},
    {2, 9, "only lines from then on: 12:23, 2026-11-22 12:23:41.5, or 5m before the end"},
    {2, 10, "only lines up to then"},
    {2, 11, "this many lines behind each one that is found, too"},
    {2, 12, "this many lines before each one that is found, too"},
    {2, 13, "this many lines around each one that is found, too"},
    {2, 14, "only the first lines that are found"},
    {2, 15, "only the last lines that are found"},
    {2, 16, "go on with each line that is written, until interrupted"},
    {2, 17, "the date in front of each time"},
    {2, 18, "colours: always, never or auto, which is at a terminal"},
    {2, 19, "at a terminal, show all in the pager that PAGER names"},
    {2, 20, "an object of JSON for each line"},
    {2, 21, "the JSON that timeline viewers read"},
    {2, 22, "write a page for the browser"},
    {2, 23, "tell about each process, its types, threads, errors and silences"},
    {2, 24, "tell this"},
    {2, 25, "tell the version"},

    {3, 1, "no file is named, see enginetrace --help"},
    {3, 2, "%s: invalid option, see enginetrace --help"},
    {3, 3, "%s needs a value, see enginetrace --help"},
    {3, 4, "%s takes no value, see enginetrace --help"},
    {3, 5, "%s %s: invalid value, see enginetrace --help"},
    {3, 6, "%s %s: invalid pattern (%s)"},
    {3, 7, "%s and %s do not go together, see enginetrace --help"},
    {3, 8, "%s: is a trace and is not written over"},

    {4, 1, "%s: not a trace"},
    {4, 2, "%s: %s"},
    {4, 3, "%s: no file in this folder ends in .trc"},
    {4, 4, "standard output: %s"},
    {4, 5, "the memory is exhausted"},

    {5, 1, "lines left out because the ring's seam has cut them: %llu"},
    {5, 2, "bytes left out because they could not be read or are no lines: %llu"},
    {5, 3, "the order of the lines is not certain: %s"},
    {5, 4, "the dates of the lines are not certain: %s"},
    {5, 5, "lines were written over before they could be shown: %s"},
    {5, 6, "reading: %u %%"},
};
static_assert(std::size(rows) == static_cast<std::size_t>(Message::reading) + 1);

}  // namespace

const ProgramMessages programMessages = {"enginetrace", "trace", rows};
