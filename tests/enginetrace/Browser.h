#pragma once

#include <map>
#include <nlohmann/json.hpp>
#include <string>
#include <sys/types.h>

#include "tests/support/TemporaryFolder.h"

/// \file
/// A real browser without a window, and what a user does with it.

/// A page in Chromium's headless shell, which is spoken to through two pipes by the DevTools
/// protocol. What goes wrong throws std::runtime_error, and so does an answer that does not come.
class Browser {
 public:
  struct Size {
    int width;
    int height;
  };

  /// Opens a file and waits until its page says that it is ready.
  /// \param scheme of colours: "light" or "dark".
  Browser(const std::string& file, Size size, const std::string& scheme = "light");
  Browser(const Browser&) = delete;
  Browser& operator=(const Browser&) = delete;
  ~Browser();

  /// The value of an expression of JavaScript in the page; promises are waited for.
  nlohmann::json valueOf(const std::string& expression);

  /// Waits until an expression is true.
  void waitFor(const std::string& expression);

  void press(const std::string& key);
  void type(const std::string& text);
  void turnWheel(double x, double y, double deltaX, double deltaY);
  void drag(double fromX, double fromY, double toX, double toY);
  void click(double x, double y);

  /// A picture of the page, as a PNG file has it.
  std::string screenshot();

  /// What the page has complained of.
  const std::string& complaints() const { return complaints_; }

  /// What the page has asked the network for, but for the page itself.
  const std::string& requests() const { return requests_; }

 private:
  nlohmann::json call(const std::string& method, const nlohmann::json& parameters = {});
  nlohmann::json receive();
  void note(const nlohmann::json& event);
  void mouse(const std::string& type, double x, double y, const nlohmann::json& more = {});
  void start();
  void end();

  TemporaryFolder profile_;
  pid_t process_ = -1;
  int to_ = -1;
  int from_ = -1;
  int calls_ = 0;
  std::string session_;
  std::string received_;
  std::string complaints_;
  std::string requests_;
};
