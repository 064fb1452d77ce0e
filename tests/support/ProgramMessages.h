#pragma once

#include <iterator>
#include <sstream>
#include <string>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

#include "programs/common/Messages.h"
#include "programs/messagecompiler/MessageSource.h"
#include "tests/support/TemporaryFolder.h"

/// \file
/// The message sources of a program, for the tests of its messages, which have its Messages.cpp.

/// The locales of the build's list in its order, with their names in English.
inline std::vector<std::pair<std::string, std::string>> listedLanguages(const std::string& list) {
  std::istringstream words(list);
  std::vector<std::pair<std::string, std::string>> result;
  for (std::string locale, name; words >> locale >> name;) {
    result.emplace_back(locale, name);
  }
  return result;
}

/// \param sources the folder of this project's sources.
inline Messages messagesOf(const std::string& sources, const std::string& locale) {
  const std::string file =
      sources + "/programs/" + programMessages.program + "/messages/" + locale + ".msg";
  return parseMessages(contentsOf(file), file);
}

/// The places of all messages.
inline std::vector<MessageId> idsIn(const Messages& messages) {
  std::vector<MessageId> ids;
  for (const auto& entry : messages) {
    ids.push_back(entry.first);
  }
  return ids;
}

/// Expects that the texts of the base language are those that are compiled in.
inline void expectBaseIsCompiledIn(const std::string& sources) {
  const Messages base = messagesOf(sources, "en_US");
  EXPECT_EQ(base.size(), programMessages.rows.size());
  for (const MessageRow& row : programMessages.rows) {
    const auto found = base.find({row.set, row.number});
    ASSERT_NE(found, base.end()) << row.english;
    EXPECT_EQ(found->second.text, row.english);
  }
}

/// Expects the locales of a table of a test to be those of the build's list, each with all
/// messages.
template <class Languages>
void expectAllLanguages(const Languages& languages, const std::string& sources,
                        const std::string& list) {
  std::vector<std::string> listed;
  for (const auto& language : listedLanguages(list)) {
    listed.push_back(language.first);
    EXPECT_TRUE(idsIn(messagesOf(sources, language.first)) == idsIn(messagesOf(sources, "en_US")))
        << language.first;
  }
  std::vector<std::string> tried;
  for (const auto& language : languages) {
    tried.emplace_back(language.locale);
  }
  EXPECT_EQ(tried, listed);
}
