#include "tests/enginetrace/Browser.h"

#include <cerrno>
#include <csignal>
#include <fcntl.h>
#include <poll.h>
#include <stdexcept>
#include <sys/wait.h>
#include <unistd.h>
#include <vector>

namespace {

using nlohmann::json;

constexpr int answerLimit = 60'000;  // ms

// The descriptors that the browser reads and writes with --remote-debugging-pipe.
constexpr int browserReads = 3;
constexpr int browserWrites = 4;

[[noreturn]] void becomeBrowser(int reads, int writes, const std::string& profile) {
  // Away from the two numbers first.
  const int in = fcntl(reads, F_DUPFD, 10);
  const int out = fcntl(writes, F_DUPFD, 10);
  dup2(in, browserReads);
  dup2(out, browserWrites);
  close(in);
  close(out);
  const int null = open("/dev/null", O_RDWR);
  dup2(null, STDIN_FILENO);
  dup2(null, STDOUT_FILENO);
  dup2(null, STDERR_FILENO);
  setenv("HOME", profile.c_str(), 1);
  unsetenv("LD_PRELOAD");  // what watches our locks
  const std::string data = "--user-data-dir=" + profile;
  // The sandbox is refused to root, and in many a container to everybody.
  execl(CUL_BROWSER, CUL_BROWSER, "--no-sandbox", "--disable-gpu", "--disable-dev-shm-usage",
        "--hide-scrollbars", "--remote-debugging-pipe", data.c_str(), nullptr);
  _exit(127);
}

}  // namespace

void Browser::start() {
  int toBrowser[2];
  int fromBrowser[2];
  if (pipe2(toBrowser, O_CLOEXEC) != 0 || pipe2(fromBrowser, O_CLOEXEC) != 0) {
    throw std::runtime_error("pipe2() failed");
  }
  process_ = fork();
  if (process_ == 0) {
    setpgid(0, 0);
    becomeBrowser(toBrowser[0], fromBrowser[1], profile_.path());
  }
  setpgid(process_, process_);
  close(toBrowser[0]);
  close(fromBrowser[1]);
  to_ = toBrowser[1];
  from_ = fromBrowser[0];
}

// The browser has ended when none of its processes has the pipe any more.
void Browser::end() {
  kill(-process_, SIGKILL);
  waitpid(process_, nullptr, 0);
  close(to_);
  char rest[4096];
  while (read(from_, rest, sizeof rest) > 0) {
  }
  close(from_);
}

Browser::Browser(const std::string& file, Size size, const std::string& scheme) {
  start();
  try {
    const json target = call("Target.createTarget", {{"url", "about:blank"}});
    session_ = call("Target.attachToTarget",
                    {{"targetId", target["targetId"]}, {"flatten", true}})["sessionId"];
    call("Page.enable");
    call("Runtime.enable");
    call("Network.enable");
    call("Emulation.setDeviceMetricsOverride", {{"width", size.width},
                                                {"height", size.height},
                                                {"deviceScaleFactor", 1},
                                                {"mobile", false}});
    call("Emulation.setEmulatedMedia",
         {{"features", {{{"name", "prefers-color-scheme"}, {"value", scheme}}}}});
    call("Page.navigate", {{"url", "file://" + file}});
    waitFor("document.body?.dataset.ready !== undefined");
  } catch (...) {
    end();
    throw;
  }
}

Browser::~Browser() { end(); }

// Messages are JSON, each with a zero behind it.
json Browser::receive() {
  for (;;) {
    const std::size_t zero = received_.find('\0');
    if (zero != std::string::npos) {
      json message = json::parse(received_.substr(0, zero));
      received_.erase(0, zero + 1);
      return message;
    }
    pollfd readable = {from_, POLLIN, 0};
    if (poll(&readable, 1, answerLimit) <= 0) {
      throw std::runtime_error("the browser does not answer");
    }
    std::vector<char> bytes(1 << 16);
    const ssize_t n = read(from_, bytes.data(), bytes.size());
    if (n <= 0) {
      throw std::runtime_error("the browser has ended");
    }
    received_.append(bytes.data(), static_cast<std::size_t>(n));
  }
}

void Browser::note(const json& event) {
  const std::string method = event.value("method", "");
  if (method == "Runtime.exceptionThrown" || method == "Runtime.consoleAPICalled") {
    complaints_ += event["params"].dump() + '\n';
  } else if (method == "Network.requestWillBeSent") {
    const std::string url = event["params"]["request"]["url"];
    requests_ += event["params"]["type"] == "Document" ? "" : url + '\n';
  }
}

json Browser::call(const std::string& method, const json& parameters) {
  json message = {{"id", ++calls_}, {"method", method}, {"params", json::object()}};
  if (!parameters.is_null()) {
    message["params"] = parameters;
  }
  if (!session_.empty()) {
    message["sessionId"] = session_;
  }
  const std::string text = message.dump();
  // A pipe without reader ends the test by SIGPIPE no less than an exception would.
  if (write(to_, text.c_str(), text.size() + 1) != static_cast<ssize_t>(text.size() + 1)) {
    throw std::runtime_error("the browser does not listen");
  }
  for (;;) {
    json answer = receive();
    if (answer.value("id", 0) != calls_) {
      note(answer);
    } else if (answer.contains("error")) {
      throw std::runtime_error(method + ": " + answer["error"].dump());
    } else {
      return answer["result"];
    }
  }
}

json Browser::valueOf(const std::string& expression) {
  const json answer =
      call("Runtime.evaluate",
           {{"expression", expression}, {"returnByValue", true}, {"awaitPromise", true}});
  if (answer.contains("exceptionDetails")) {
    throw std::runtime_error(expression + ": " + answer["exceptionDetails"].dump());
  }
  return answer["result"].value("value", json());
}

void Browser::waitFor(const std::string& expression) {
  for (int tries = 0; tries < 600; ++tries) {
    // The page gets on with its work meanwhile.
    if (valueOf("new Promise(resolve => setTimeout(() => resolve(Boolean(" + expression +
                ")), 50))") == true) {
      return;
    }
  }
  throw std::runtime_error("never: " + expression);
}

void Browser::press(const std::string& key) {
  json event = {{"type", key.size() == 1 ? "keyDown" : "rawKeyDown"}, {"key", key}};
  if (key.size() == 1) {
    event["text"] = key;
  }
  call("Input.dispatchKeyEvent", event);
  call("Input.dispatchKeyEvent", {{"type", "keyUp"}, {"key", key}});
}

void Browser::type(const std::string& text) { call("Input.insertText", {{"text", text}}); }

void Browser::mouse(const std::string& type, double x, double y, const json& more) {
  json event = {{"type", type}, {"x", x}, {"y", y}};
  if (more.is_object()) {
    event.update(more);
  }
  call("Input.dispatchMouseEvent", event);
}

void Browser::turnWheel(double x, double y, double deltaX, double deltaY) {
  mouse("mouseWheel", x, y, {{"deltaX", deltaX}, {"deltaY", deltaY}});
}

void Browser::drag(double fromX, double fromY, double toX, double toY) {
  const json left = {{"button", "left"}, {"buttons", 1}, {"clickCount", 1}};
  mouse("mouseMoved", fromX, fromY);
  mouse("mousePressed", fromX, fromY, left);
  mouse("mouseMoved", (fromX + toX) / 2, (fromY + toY) / 2, left);
  mouse("mouseMoved", toX, toY, left);
  mouse("mouseReleased", toX, toY, left);
}

void Browser::click(double x, double y) { drag(x, y, x, y); }

std::string Browser::screenshot() {
  const std::string text = call("Page.captureScreenshot", {{"format", "png"}})["data"];
  constexpr std::string_view digits =
      "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
  std::string bytes;
  unsigned value = 0;
  int bits = 0;
  for (const char c : text) {
    const std::size_t digit = digits.find(c);
    if (digit == std::string_view::npos) {
      break;
    }
    value = value << 6 | static_cast<unsigned>(digit);
    bits += 6;
    if (bits >= 8) {
      bits -= 8;
      bytes += static_cast<char>(value >> bits & 0xFF);
    }
  }
  return bytes;
}
