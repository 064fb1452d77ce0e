#pragma once

#include <span>

#include "Engine/utilities/DebuggerArgList.h"
#include "Engine/utilities/EncodedString.h"
#include "Engine/utilities/Export.h"
#include "Engine/utilities/OwningList.h"

/// \file
/// The command line of a debugger process, taken apart once at start-up.
///
/// A command line holds the debugger's own options, which begin with "-", then the name of
/// the debuggee (the program to be debugged) and the debuggee's arguments:
/// \code
///   debugger [options] name [arguments]     starts the debuggee
///   debugger [options] -- [arguments]       everything behind "--" (or "-s") is arguments
///   debugger [options] -qpid=1234           attaches to a running process
/// \endcode
///
/// **Options.** Each has a row in the table options(), whose order counts: an argument
/// selects the first row that it names, whole or abbreviated down to the row's minimum, with
/// its case. Only rows that this program recognises take part. Some rows have a minimum of
/// 1, so that what no earlier row claims falls to them: "-q", and even "-", is "-qsocketfd".
/// The two options "--" (the whole argument) and "-a" (see attach()) are known without the
/// table.
///
/// **Values.** Where the table allows it, a value is attached with "=", as in "-qhost=name";
/// "-qhost=" is an empty value. Without a "=" the next argument is the value and is used up,
/// as in "-qhost name", unless it is empty or begins with "-": then the value is empty. An
/// option that takes no "=" may have a value behind a blank inside the same argument, as
/// "-p- text" in quotes; it never takes the next argument, and with a "=" ("-qquiet=1") it is no
/// option at all but an invalid argument. So is one that takes "=" with a blank in its place.
///
/// **Quotes.** The object made by instance() takes the double quotes and the backslashes of
/// quoting off every argument up to the debuggee's name, see unquote(), before it is looked at.
/// The debuggee's arguments keep theirs and are quoted again as needed, see
/// debuggeeArguments(). addDebuggerArg() by itself takes nothing off.
///
/// **Start-up key.** A key may carry an argument of its own behind a blank:
/// "-startupKey=KEY argument" as one argument.
///
/// **What is wrong** is collected and not reported: invalidArguments() holds, in the order
/// met, options that match no row, options whose value is bad (a process id that is empty, a
/// "-qdaemon" that is neither yes nor no), and what an attached debugger has no use for.
/// Options with a bad value are in the argument list as well.
///
/// **Life.** The process's object is made by instance(argc, argv) on the main thread before
/// a second thread exists, and never destroyed. Reading it is for any thread from then on.
/// Bad input never throws.

class CharString;

class CUL_EXPORT DebuggerParameters {
 public:
  /// What an option means. Options of the same meaning share a value.
  enum ParmType : int {
    parmEnd = 1,
    parmHelp = 2,
    parmPid = 3,
    parmI = 4,
    parmP = 5,
    parmCache = 6,
    parmConsole = 7,
    parmDisplay = 8,
    parmDxplLevel = 9,
    parmDxplDump = 10,
    parmHost = 11,
    parmSerial = 12,
    parmLang = 13,
    parmQuiet = 15,
    parmRunTo = 16,
    parmTeamUser = 17,
    parmDepth = 18,
    parmTrace = 19,
    parmStartupKey = 21,
    parmS = 22,
    parmSci = 24,
    parmHrdmHost = 25,
    parmHrdmPort = 26,
    parmHrdmKey = 27,
    parmHPort = 28,
    parmDebugLoc = 29,
    parmDaemon = 30,
    parmExecBy = 31,
    parmSecure = 32,
    parmKeystoreLoc = 33,
    parmKeystorePass = 34,
    parmCheckAllCerts = 35,
    parmSocketFd = 36,
    parmProbePid = 37,
    parmDownloadZip = 38,
    parmHProtocol = 39,
    parmFallbackUnencrypted = 40
  };

  /// A row of the option table, which several programs share.
  struct Option {
    const wchar_t* name;     ///< The option as it is given in full, as in "-help".
    unsigned char programs;  ///< The programs that recognise it; this library is bit 0.
    bool valueWithEquals;    ///< A value follows "="; else a blank in the same argument.
    bool further;            ///< Kept for the other programs.
    unsigned char minimum;   ///< Least number of characters of an abbreviation.
    ParmType type;           ///< What the option means; rows of one type are synonyms.

    /// Whether the parser of this library lets the row take part.
    [[nodiscard]] constexpr bool isRecognised() const noexcept { return (programs & 1) != 0; }
  };

  /// \name Access
  /// The process's object. The first call makes it, as a UNIXDebuggerParameters; later calls
  /// ignore the arguments.
  /// @{
  static DebuggerParameters* instance(int argc, char** argv);
  static DebuggerParameters* instance(int argc, char const** argv);
  static DebuggerParameters* instance(int argc, signed char** argv);
  static DebuggerParameters* instance(int argc, unsigned char** argv);
  /// @}

  /// The object made before. When there is none: null, after a failed assertion, which may
  /// throw, see AssertionFail().
  [[nodiscard]] static DebuggerParameters* instance();

  /// The object made before, or null.
  [[nodiscard]] static DebuggerParameters* instancePointer() noexcept;

  DebuggerParameters(const DebuggerParameters&) = delete;
  DebuggerParameters& operator=(const DebuggerParameters&) = delete;
  virtual ~DebuggerParameters();

  /// All rows of the option table, in their order.
  [[nodiscard]] static std::span<const Option> options() noexcept;

  /// The name in the first row of that type; empty when there is none.
  [[nodiscard]] static EncodedString parmName(ParmType type);

  /// The value recorded for an option of that type; empty when it was not given. Of several
  /// the last one of one name counts, and of several names the one that the table has first.
  [[nodiscard]] EncodedString parm(ParmType type) const;

  /// Whether `arg` is one of the debugger's own options: it begins with "-", and the
  /// debugger's arguments have not ended.
  [[nodiscard]] bool isDebuggerArg(const CharString& arg) const;

  /// Takes in one argument. What is no option becomes the debuggee's name and ends the
  /// debugger's arguments; what comes after their end is one more argument of the debuggee.
  /// In an attached debugger both are invalid arguments.
  /// \param arg  the argument.
  /// \param next the argument that follows, empty when there is none.
  /// \return how many arguments were used: 2 when the value was taken from `next`, else 1.
  unsigned int addDebuggerArg(const CharString& arg, const CharString& next);

  /// The text of the process id to attach to; empty when not attaching. It is given as
  /// "-qpid=1234", "-qpid 1234" or "-a1234" and recorded as "-qpid". Only the first "-a" of a
  /// debugger that is not attached yet is taken.
  [[nodiscard]] EncodedString attach() const;

  /// The start-up key without its argument; empty when none was given.
  [[nodiscard]] EncodedString startupKey() const;

  /// The start-up key's argument. Empty when no key was given; "JETCLIP" for a key "CLIP"
  /// without argument.
  [[nodiscard]] EncodedString startupKeyArg() const;

  /// The debuggee's name without its quotes; the text of the process id when attaching.
  [[nodiscard]] const EncodedString& debuggeeName() const noexcept { return debuggeeName_; }

  /// The debuggee's arguments as one text, separated by a blank, each quoted when needed, see
  /// CharString::makeToken(). An empty one leaves nothing but the blanks around it.
  [[nodiscard]] const EncodedString& debuggeeArguments() const noexcept {
    return debuggeeArguments_;
  }

  /// The number of elements of the argument vector, its first one included, before the
  /// debuggee's arguments: all when there are none.
  [[nodiscard]] int argumentsUsed() const noexcept { return argumentsUsed_; }

  /// The absolute path of the debugger's own program; empty when it is not known.
  [[nodiscard]] const EncodedString& debuggerName() const noexcept { return debuggerName_; }

  /// The options given, under their full names.
  [[nodiscard]] const DebuggerArgList& debuggerArguments() const noexcept {
    return debuggerArguments_;
  }

  /// What could not be used; the texts belong to this object.
  [[nodiscard]] const List<EncodedString*>& invalidArguments() const noexcept {
    return invalidArguments_.list();
  }

  /// Whether "-qquiet" was given.
  [[nodiscard]] bool quiet() const noexcept { return quiet_; }
  /// Whether "-help" or "-?" was given.
  [[nodiscard]] bool helpRequested() const noexcept { return helpRequested_; }
  /// Whether "-qdaemon" said yes, the last time.
  [[nodiscard]] bool daemon() const noexcept { return daemon_; }
  /// Whether "-qdownloadzip" was given with a value other than "no", the last time.
  [[nodiscard]] bool downloadWanted() const noexcept { return downloadWanted_; }
  /// Whether "-qdownloadzip" was ever given the value "force".
  [[nodiscard]] bool downloadForced() const noexcept { return downloadForced_; }

  /// Writes the parsed command line to the trace, whatever kinds of lines are switched on as
  /// long as there is a trace at all. Eight asterisks stand for the values of options with a
  /// secret, "-qkeystorepass" and "-qhrdmkey", mistyped names included: in any case, with or
  /// without the "q", cut short or gone on with behind the first letters of their last word, or
  /// one slip away (a letter missing, too many or wrong, or two neighbours exchanged). What
  /// follows the whole name without a separator may be the value, too. And, when one of them
  /// lacks its value, they stand for all that may have been meant as such: the debuggee's name
  /// and the other invalid arguments.
  void diagnosticDump() const;

  /// What a word says: 1 for "yes", "YES" or "Yes" and 0 for "no", "NO" or "No", each also
  /// abbreviated to one letter; 2 for anything else, the empty text included.
  [[nodiscard]] static int yesNo(CharString& text);

  /// The text without its double quotes. A backslash in front of a double quote, or between
  /// double quotes in front of a backslash, is dropped as well and makes that character
  /// ordinary; other backslashes stay.
  [[nodiscard]] static CharString unquote(const CharString& text);

 protected:
  DebuggerParameters() = default;

  /// Notes an argument that nobody understands.
  void addInvalidArgument(const EncodedString& text);

  EncodedString debuggerName_;                  ///< See debuggerName().
  DebuggerArgList debuggerArguments_;           ///< See debuggerArguments().
  EncodedString debuggeeName_;                  ///< See debuggeeName().
  EncodedString debuggeeArguments_;             ///< See debuggeeArguments().
  OwningList<EncodedString> invalidArguments_;  ///< See invalidArguments().
  int argumentsUsed_ = 0;                       ///< See argumentsUsed().
  EncodedString startupKey_;                    ///< The start-up key with its argument.
  bool quiet_ = false;                          ///< See quiet().
  bool helpRequested_ = false;                  ///< See helpRequested().
  bool attach_ = false;                         ///< Whether there is a process to attach to.
  bool daemon_ = false;                         ///< See daemon().
  bool endOfDebuggerArguments_ = false;         ///< Whether all that follows is the debuggee's.
  bool downloadWanted_ = false;                 ///< See downloadWanted().
  bool downloadForced_ = false;                 ///< See downloadForced().

 private:
  unsigned int addOption(const Option& option, const CharString& arg, CharString& value,
                         const CharString& next);
  bool use(ParmType type, CharString& value);
  bool attachTo(const CharString& processId);
  void addOtherArg(const CharString& arg);
};
