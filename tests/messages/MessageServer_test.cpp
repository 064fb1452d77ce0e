#include <climits>
#include <cstdio>
#include <dlfcn.h>
#include <memory>
#include <new>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include <gmock/gmock.h>

#include "Engine/utilities/StdException.h"
#include "Engine/utilities/msgserv/LibraryMessageServer.h"
#include "Engine/utilities/msgserv/XPG4MsgServer.h"

#include "tests/support/Child.h"
#include "tests/support/EnvironmentGuard.h"
#include "tests/support/TracedChild.h"
#include "tests/threads/ThreadSupport.h"

namespace {

using testing::HasSubstr;
using testing::Not;

const std::string folder = CUL_TEST_LIBRARIES;

constexpr const char* place =
    "Engine/utilities/msgserv/LibraryMessageServer - "
    "LibraryMessageServer::LibraryMessageServer(const ByteString&, const char*)";

ChildOptions childWith(std::map<std::string, std::string> environment,
                       std::vector<std::string> arguments = {}) {
  environment["LD_LIBRARY_PATH"] = folder;
  return {.environment = std::move(environment), .arguments = std::move(arguments)};
}

std::string absentLibrary(const std::string& file) {
  return file + ": cannot open shared object file: No such file or directory\n";
}

std::string absentEntry(const std::string& catalog, const std::string& entry) {
  return folder + "/lib" + catalog + ".so: undefined symbol: " + entry + "\n";
}

// What a failed assertion prints, without the line of the source.
std::string withoutLines(std::string text) {
  const std::string end = std::string(place) + "(";
  for (size_t at = text.find(end); at != std::string::npos; at = text.find(end, at + 1)) {
    const size_t first = at + end.size();
    text.erase(first, text.find(')', first) - first);
  }
  return text;
}

std::string printedAssertion(const std::string& expression) {
  return std::string("\nAssertion failure - ") + place + "(): " + expression + "\n";
}

const char* localeOf(const std::optional<std::string>& lang) {
  const EnvironmentGuard guard("LANG", lang);
  return LibraryMessageServer::getMessageLocale();
}

const std::vector<std::pair<std::string, std::string>> localesByName = {
    {"", "en_US"},      {"d", "en_US"},       {"z", "en_US"},           {"en", "en_US"},
    {"de", "de_DE"},    {"es", "es_ES"},      {"fr", "fr_FR"},          {"it", "it_IT"},
    {"ja", "ja_JP"},    {"ko", "ko_KR"},      {"pt", "pt_BR"},          {"zh", "zh_CN"},
    {"en_US", "en_US"}, {"de_DE", "de_DE"},   {"es_ES", "es_ES"},       {"fr_FR", "fr_FR"},
    {"it_IT", "it_IT"}, {"ja_JP", "ja_JP"},   {"ko_KR", "ko_KR"},       {"pt_BR", "pt_BR"},
    {"zh_TW", "zh_TW"}, {"zh_CN", "zh_CN"},   {"DE_at.UTF-8", "de_DE"}, {"dE", "de_DE"},
    {"Fr_CA", "fr_FR"}, {"pt_PT", "pt_BR"},   {"en_GB.UTF-8", "en_US"}, {"zh_TW.UTF-8", "zh_TW"},
    {"zh_HK", "zh_TW"}, {"ZH_TW", "zh_TW"},   {"Zh_HK.Big5", "zh_TW"},  {"zh_TWx", "zh_TW"},
    {"zh_SG", "zh_CN"}, {"zh_tw", "zh_CN"},   {"ZH_tw", "zh_CN"},       {"zh_T", "zh_CN"},
    {"zh-TW", "zh_CN"}, {"zh_H", "zh_CN"},    {"zh_hk", "zh_CN"},       {"C", "en_US"},
    {"POSIX", "en_US"}, {"C.UTF-8", "en_US"}, {"sv_SE.UTF-8", "en_US"}, {" de", "en_US"},
    {"d e", "en_US"},   {"germany", "en_US"}, {"deutsch", "de_DE"},     {"\xc3\x84_DE", "en_US"},
};

// A server of a test's own, which tells when it goes.
class TrackedServer : public SystemMessageServer {
 public:
  explicit TrackedServer(bool& isGone) : isGone_(isGone) {}
  TrackedServer(const TrackedServer&) = delete;
  TrackedServer& operator=(const TrackedServer&) = delete;
  ~TrackedServer() override { isGone_ = true; }

  [[nodiscard]] EncodedString getMessage(int, int) const override { return {}; }
  [[nodiscard]] ByteString getRawMessage(int, int) const override { return {}; }

 private:
  bool& isGone_;
};

}  // namespace

TEST(SystemMessageServer, HasItsTwoOperationsInFrontOfTheDestructor) {
  EXPECT_EQ(virtualSlot(&XPG4MsgServer::SystemMessageServer::getMessage), 0U);
  EXPECT_EQ(virtualSlot(&XPG4MsgServer::SystemMessageServer::getRawMessage), 1U);
  EXPECT_EQ(virtualSlot(&LibraryMessageServer::getMessage), 0U);
  EXPECT_EQ(virtualSlot(&XPG4MsgServer::getRawMessage), 1U);
  bool isGone = false;
  alignas(TrackedServer) std::byte room[sizeof(TrackedServer)];
  void* const server = new (room) TrackedServer(isGone);
  void (**table)(void*) = nullptr;
  __builtin_memcpy(&table, room, sizeof table);
  table[2](server);
  EXPECT_TRUE(isGone);
}

TEST(LibraryMessageServer, TakesTheLocaleFromLangByItsFirstTwoLetters) {
  for (const auto& [name, locale] : localesByName) {
    EXPECT_EQ(localeOf(name), locale) << name;
  }
  EXPECT_STREQ(localeOf(std::nullopt), "en_US");
}

TEST(LibraryMessageServer, AsksNoOtherVariableForTheLocale) {
  const EnvironmentGuard all("LC_ALL", "de_DE.UTF-8");
  const EnvironmentGuard messages("LC_MESSAGES", "fr_FR.UTF-8");
  const EnvironmentGuard language("LANGUAGE", "ja");
  EXPECT_STREQ(localeOf("it_IT"), "it_IT");
  EXPECT_STREQ(localeOf(std::nullopt), "en_US");
}

CUL_CHILD(ServeAllNames) {
  for (const auto& [name, locale] : localesByName) {
    const LibraryMessageServer server(ByteString("wobndbg"), name.c_str());
    EXPECT_EQ(server.getMessage(1, 1).view(), locale) << name;
  }
}

TEST(LibraryMessageServer, GivesTheCatalogTheLocaleThatTheRequestedNameChooses) {
  // The environment has no say.
  const ChildResult r = runChild("ServeAllNames", childWith({{"LANG", "ko_KR"}}));
  EXPECT_EQ(r.status, 0) << r.out;
  EXPECT_EQ(r.err, "");
}

CUL_CHILD(ServeTheEnvironment) {
  const LibraryMessageServer server(ByteString("wobndbg"), nullptr);
  EXPECT_EQ(server.getMessage(1, 1).view(), childArguments().at(0));
}

TEST(LibraryMessageServer, GivesTheCatalogTheLocaleOfTheEnvironmentWhenNoneIsRequested) {
  EXPECT_EQ(runChild("ServeTheEnvironment", childWith({}, {"en_US"})).status, 0);
  EXPECT_EQ(runChild("ServeTheEnvironment", childWith({{"LANG", "pt_PT"}}, {"pt_BR"})).status, 0);
}

CUL_CHILD(ServeTexts) {
  const XPG4MsgServer server("de_DE", "dbg");
  const XPG4MsgServer::SystemMessageServer& texts = server;
  EXPECT_EQ(texts.getMessage(1, 2).view(), "Gr\u00fc\u00dfe, \u4e16\u754c");
  EXPECT_EQ(texts.getMessage(1, 2).charCount(), 9U);
  EXPECT_EQ(texts.getRawMessage(1, 2).view(), "Gr\u00fc\u00dfe, \u4e16\u754c");
  // As they stand in the catalog, whatever they are.
  EXPECT_EQ(texts.getRawMessage(1, 3).view(), "\xff\x80 is no UTF-8");
  EXPECT_EQ(texts.getMessage(1, 3).view(), "\xff\x80 is no UTF-8");
  EXPECT_EQ(texts.getMessage(1, 4).view(), "");
  EXPECT_EQ(texts.getRawMessage(1, 4).view(), "");
  EXPECT_EQ(texts.getMessage(INT_MIN, INT_MAX).view(), "the least and the greatest");
  EXPECT_EQ(texts.getRawMessage(INT_MIN, INT_MAX).view(), "the least and the greatest");
}

TEST(XPG4MsgServer, GivesTextsAsUtf8AndAsTheirBytes) {
  const ChildResult r = runChild("ServeTexts", childWith({}));
  EXPECT_EQ(r.status, 0) << r.out;
  EXPECT_EQ(r.err, "");
}

CUL_CHILD(ServeNothing) {
  const XPG4MsgServer server("de_DE", "dbg");
  for (const auto& [set, number] : {std::pair{1, 5}, {2, 1}, {0, 0}, {-1, -1}}) {
    EXPECT_EQ(server.getMessage(set, number).length(), 0U);
    EXPECT_EQ(server.getRawMessage(set, number).length(), 0U);
  }
}

TEST(XPG4MsgServer, GivesAnEmptyTextForAMissingMessage) {
  const ChildResult r = runChild("ServeNothing", childWith({{"QVX_DBG_ASSERTION", "EXCEPTION"}}));
  EXPECT_EQ(r.status, 0) << r.out;
  EXPECT_EQ(r.err, "");
}

CUL_CHILD(KeepTheLibrary) {
  const std::string file = folder + "/libwobndbg.so";
  EXPECT_EQ(dlopen(file.c_str(), RTLD_NOW | RTLD_NOLOAD), nullptr);
  { const XPG4MsgServer server("ja_JP", "dbg"); }
  EXPECT_NE(dlopen(file.c_str(), RTLD_NOW | RTLD_NOLOAD), nullptr);
  const auto getMessage =
      reinterpret_cast<const char* (*)(int, int)>(dlsym(RTLD_DEFAULT, "getMessage"));
  ASSERT_NE(getMessage, nullptr);
  EXPECT_STREQ(getMessage(1, 1), "ja_JP");
}

TEST(XPG4MsgServer, LeavesTheLibraryLoadedForAllToSee) {
  const ChildResult r = runChild("KeepTheLibrary", childWith({}));
  EXPECT_EQ(r.status, 0) << r.out;
}

// Prints what became of a server of the catalog that the arguments name.
CUL_CHILD(TryCatalog) {
  try {
    const LibraryMessageServer server(ByteString(childArguments().at(0).c_str()), "de_DE");
    const EncodedString text = server.getMessage(1, 1);
    EXPECT_EQ(server.getRawMessage(1, 1).view(), text.view());
    std::printf("made, <%s>", text.view().data());
  } catch (const StdException& e) {
    EXPECT_EQ(e.fileName.view(), place);
    EXPECT_EQ(e.status, -1);
    EXPECT_GT(e.line, 0U);
    std::printf("thrown, %s", e.text.view().data());
  }
}

ChildResult tryCatalog(const std::string& catalog, const std::string& assertion) {
  ChildResult r = runChild("TryCatalog", childWith({{"QVX_DBG_ASSERTION", assertion}}, {catalog}));
  EXPECT_EQ(r.status, 0) << r.out;
  r.err = withoutLines(r.err);
  return r;
}

TEST(LibraryMessageServer, IsEmptyWithoutALibraryWhenAssertionsDoNotThrow) {
  const std::string error = absentLibrary("libabsent.so");
  const ChildResult quiet = tryCatalog("absent", "NOEXCEPTION,NOPOPUP");
  EXPECT_EQ(quiet.out, "made, <>");
  EXPECT_EQ(quiet.err, error + error);
  const ChildResult printing = tryCatalog("absent", "NOEXCEPTION,POPUP");
  EXPECT_EQ(printing.out, "made, <>");
  EXPECT_EQ(printing.err, error + printedAssertion("!!setMessageLanguage") + error +
                              printedAssertion("!!_messageRetriever"));
}

TEST(LibraryMessageServer, IsNotMadeWithoutALibraryWhenAssertionsThrow) {
  const ChildResult quiet = tryCatalog("absent", "EXCEPTION,NOPOPUP");
  EXPECT_EQ(quiet.out, "thrown, !!setMessageLanguage");
  EXPECT_EQ(quiet.err, absentLibrary("libabsent.so"));
  const ChildResult printing = tryCatalog("absent", "EXCEPTION,POPUP");
  EXPECT_EQ(printing.out, "thrown, !!setMessageLanguage");
  EXPECT_EQ(printing.err, absentLibrary("libabsent.so") + printedAssertion("!!setMessageLanguage"));
}

TEST(LibraryMessageServer, ServesACatalogThatHasNoLanguagesToChooseFrom) {
  const std::string error = absentEntry("catalogWithoutLanguages", "setMessageLang");
  const ChildResult quiet = tryCatalog("catalogWithoutLanguages", "");
  EXPECT_EQ(quiet.out, "made, <in its only language>");
  EXPECT_EQ(quiet.err, error);
  EXPECT_EQ(tryCatalog("catalogWithoutLanguages", "POPUP").err,
            error + printedAssertion("!!setMessageLanguage"));
  EXPECT_EQ(tryCatalog("catalogWithoutLanguages", "EXCEPTION").out, "thrown, !!setMessageLanguage");
}

TEST(LibraryMessageServer, CallsNoMissingRetriever) {
  const std::string error = absentEntry("catalogWithoutMessages", "getMessage");
  const ChildResult quiet = tryCatalog("catalogWithoutMessages", "");
  EXPECT_EQ(quiet.out, "made, <>");
  EXPECT_EQ(quiet.err, error);
  EXPECT_EQ(tryCatalog("catalogWithoutMessages", "POPUP").err,
            error + printedAssertion("!!_messageRetriever"));
  const ChildResult throwing = tryCatalog("catalogWithoutMessages", "EXCEPTION");
  EXPECT_EQ(throwing.out, "thrown, !!_messageRetriever");
  EXPECT_EQ(throwing.err, error);
}

TEST(LibraryMessageServer, ServesACatalogThatRefusesTheLanguage) {
  const ChildResult r = tryCatalog("catalogRefusing", "EXCEPTION,POPUP");
  EXPECT_EQ(r.out, "made, <in its own language>");
  EXPECT_EQ(r.err, "");
}

TEST(LibraryMessageServer, TakesNamesOfAnyLength) {
  const std::string longName = std::string().append(5000, 'n');
  const std::string error =
      "lib" + longName + ".so: cannot open shared object file: File name too long\n";
  EXPECT_EQ(tryCatalog(longName, "").err, error + error);
  EXPECT_EQ(tryCatalog("", "").err, absentLibrary("lib.so") + absentLibrary("lib.so"));
}

CUL_CHILD(TryName) {
  const bool isNull = childArguments().empty();
  const XPG4MsgServer server("de_DE", isNull ? nullptr : childArguments()[0].c_str());
  EXPECT_EQ(server.getMessage(1, 1).length(), 0U);
  EXPECT_EQ(server.getRawMessage(1, 1).length(), 0U);
}

TEST(XPG4MsgServer, PutsWobnInFrontOfTheName) {
  const auto errorsFor = [](const std::vector<std::string>& arguments) {
    const ChildResult r = runChild("TryName", childWith({}, arguments));
    EXPECT_EQ(r.status, 0) << r.out;
    return r.err;
  };
  EXPECT_EQ(errorsFor({"absent"}),
            absentLibrary("libwobnabsent.so") + absentLibrary("libwobnabsent.so"));
  EXPECT_EQ(errorsFor({""}), absentLibrary("libwobn.so") + absentLibrary("libwobn.so"));
  EXPECT_EQ(errorsFor({}), absentLibrary("libwobn.so") + absentLibrary("libwobn.so"));
}

CUL_CHILD(ThrowOutOfAServer) { EXPECT_THROW(XPG4MsgServer("de_DE", "absent"), StdException); }

TEST(XPG4MsgServer, IsNotMadeWhenItsServerIsNot) {
  const ChildResult r =
      runChild("ThrowOutOfAServer", childWith({{"QVX_DBG_ASSERTION", "EXCEPTION"}}));
  EXPECT_EQ(r.status, 0) << r.out;
  EXPECT_EQ(r.err, absentLibrary("libwobnabsent.so"));
}

CUL_CHILD(TraceCatalog) {
  const std::vector<std::string>& arguments = childArguments();
  const LibraryMessageServer server(ByteString(arguments.at(0).c_str()),
                                    arguments.size() < 2 ? nullptr : arguments[1].c_str());
}

std::string tracedBy(const std::vector<std::string>& arguments,
                     const std::map<std::string, std::string>& environment = {}) {
  const TracedChildResult r = runTracedChild("TraceCatalog", childWith(environment, arguments));
  EXPECT_EQ(r.child.status, 0) << r.child.out;
  return r.trace;
}

// The text of the one line that is about the catalog.
std::string lineOf(const std::string& trace) {
  const std::string start = ")****: LibraryMessageServer::LibraryMessageServer(";
  EXPECT_EQ(occurrences(trace, start), 1U);
  const size_t text = trace.find("): ", trace.find(start) + start.size()) + 3;
  return trace.substr(text, trace.find('\n', text) - text);
}

TEST(LibraryMessageServer, TracesTheCatalogTheLanguagesAndWhetherItCouldBeSet) {
  EXPECT_EQ(lineOf(tracedBy({"wobndbg", "DE_at.UTF-8"})),
            "catalog=wobndbg; requested=DE_at.UTF-8, actual=de_DE; success=1");
  EXPECT_EQ(lineOf(tracedBy({"wobndbg", ""})),
            "catalog=wobndbg; requested=, actual=en_US; success=1");
  EXPECT_EQ(lineOf(tracedBy({"wobndbg"})),
            "catalog=wobndbg; requested=NULL, actual=en_US; success=1");
  EXPECT_EQ(lineOf(tracedBy({"wobndbg"}, {{"LANG", "zh_HK"}})),
            "catalog=wobndbg; requested=NULL, actual=zh_TW; success=1");
  EXPECT_EQ(lineOf(tracedBy({"catalogRefusing", "fr"})),
            "catalog=catalogRefusing; requested=fr, actual=fr_FR; success=0");
  EXPECT_EQ(lineOf(tracedBy({"absent", "fr"})),
            "catalog=absent; requested=fr, actual=fr_FR; success=0");
}

TEST(LibraryMessageServer, TracesFailedAssertionsAroundTheLine) {
  const std::string trace = tracedBy({"absent", "fr"});
  const std::string assertion =
      "**ERROR: Engine/utilities/msgserv/LibraryMessageServer - "
      "LibraryMessageServer::LibraryMessageServer(";
  EXPECT_EQ(occurrences(trace, assertion), 2U);
  const size_t setter = trace.find("): !!setMessageLanguage\n");
  const size_t line = trace.find("catalog=absent;");
  const size_t retriever = trace.find("): !!_messageRetriever\n");
  ASSERT_NE(retriever, std::string::npos);
  EXPECT_LT(setter, line);
  EXPECT_LT(line, retriever);
}

TEST(LibraryMessageServer, TracesNothingElseWhenAllIsThere) {
  EXPECT_THAT(tracedBy({"wobndbg", "fr"}), Not(HasSubstr("!!")));
}
