#include "tests/support/browser.h"

#include <fcntl.h>
#include <poll.h>
#include <unistd.h>

#include <array>
#include <filesystem>
#include <fstream>
#include <stdexcept>

#include "tests/support/bytes.h"

using nlohmann::json;

namespace {

constexpr const char* kProgram = "/usr/bin/chromium-headless-shell";
constexpr int kPatience = 60'000;  // milliseconds; the machine may have a lot else to do
constexpr int kWidth = 1360;

struct Pipe {
  Pipe() {
    std::array<int, 2> ends{};
    if (pipe2(ends.data(), O_CLOEXEC) != 0) throw std::runtime_error("pipe2 failed");
    out = Descriptor(ends[0]);
    in = Descriptor(ends[1]);
  }
  Descriptor out;
  Descriptor in;
};

std::string FromBase64(const std::string& text) {
  std::string bytes;
  unsigned bits = 0;
  int count = 0;
  for (const char c : text) {
    constexpr std::string_view kDigits =
        "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
    const std::size_t digit = kDigits.find(c);
    if (digit == std::string_view::npos) break;
    bits = bits << 6 | static_cast<unsigned>(digit);
    count += 6;
    if (count < 8) continue;
    count -= 8;
    bytes += static_cast<char>(bits >> count & 0xff);
  }
  return bytes;
}

}  // namespace

bool Browser::IsInstalled() {
  return std::filesystem::exists(kProgram);
}

Browser::Browser(bool scripts) {
  Pipe commands;
  Pipe answers;
  ChildProcess::Options options;
  options.output_file = directory_.File("output");
  // The browser reads from descriptor 3 and writes to 4.
  options.in_child = [&] {
    const int in = fcntl(commands.out.get(), F_DUPFD_CLOEXEC, 10);
    const int out = fcntl(answers.in.get(), F_DUPFD_CLOEXEC, 10);
    dup2(in, 3);
    dup2(out, 4);
    return 0;
  };
  process_ = std::make_unique<ChildProcess>(
      std::vector<std::string>{kProgram, "--remote-debugging-pipe", "--no-sandbox", "--disable-gpu",
                               "--disable-dev-shm-usage", "--hide-scrollbars",
                               "--user-data-dir=" + directory_.File("profile"),
                               "--window-size=" + std::to_string(kWidth) + ",900"},
      options);
  to_ = std::move(commands.in);
  from_ = std::move(answers.out);
  const json target = Call("Target.createTarget", {{"url", "about:blank"}});
  session_ = Call("Target.attachToTarget", {{"targetId", target.at("targetId")}, {"flatten", true}})
                 .at("sessionId");
  for (const char* domain : {"Page", "Runtime", "Log"}) Call(std::string(domain) + ".enable");
  if (!scripts) Call("Emulation.setScriptExecutionDisabled", {{"value", true}});
}

json Browser::Receive() {
  for (;;) {
    const std::size_t end = received_.find('\0');
    if (end != std::string::npos) {
      json message = json::parse(received_.substr(0, end));
      received_.erase(0, end + 1);
      return message;
    }
    pollfd readable{from_.get(), POLLIN, 0};
    std::array<char, 65536> part{};
    const ssize_t size =
        poll(&readable, 1, kPatience) == 1 ? read(from_.get(), part.data(), part.size()) : 0;
    if (size <= 0)
      throw std::runtime_error("no answer of the browser: " + directory_.Read("output"));
    received_.append(part.data(), static_cast<std::size_t>(size));
  }
}

json Browser::Call(const std::string& method, const json& parameters) {
  json call{{"id", ++calls_}, {"method", method}};
  call["params"] = parameters.is_null() ? json::object() : parameters;
  if (!session_.empty()) call["sessionId"] = session_;
  WriteAll(to_.get(), call.dump() + '\0');
  for (;;) {
    const json message = Receive();
    if (message.value("id", 0) == calls_) {
      if (message.contains("error")) throw std::runtime_error(method + ": " + message.dump());
      return message.at("result");
    }
    const std::string event = message.value("method", "");
    if (event == "Page.loadEventFired") ++loaded_;
    if (event == "Runtime.exceptionThrown" || event == "Log.entryAdded") {
      complaints_.push_back(message.at("params").dump());
    }
  }
}

void Browser::Open(const std::string& address) {
  const int before = loaded_;
  const json result = Call("Page.navigate", {{"url", address}});
  if (result.contains("errorText")) throw std::runtime_error(result.dump());
  // To another place of the same page nothing is loaded.
  if (!result.contains("loaderId")) return;
  if (!Eventually([&] { return Evaluate("1") == 1 && loaded_ > before; })) {
    throw std::runtime_error(address + " was not loaded");
  }
}

json Browser::Evaluate(const std::string& expression) {
  const json result =
      Call("Runtime.evaluate",
           {{"expression", expression}, {"returnByValue", true}, {"awaitPromise", true}});
  if (result.contains("exceptionDetails")) throw std::runtime_error(result.dump());
  return result.at("result").value("value", json());
}

bool Browser::Becomes(const std::string& expression) {
  const auto holds = [&] {
    try {
      return Evaluate(expression) == true;
    } catch (const std::runtime_error&) {
      return false;  // in the middle of the way from one page to another
    }
  };
  return Eventually(holds, std::chrono::seconds(30));
}

void Browser::Prefer(const std::string& feature, const std::string& value) {
  Call("Emulation.setEmulatedMedia",
       {{"features", json::array({{{"name", feature}, {"value", value}}})}});
}

void Browser::Photograph(const std::string& file) {
  const auto resize = [this](int height) {
    Call("Emulation.setDeviceMetricsOverride",
         {{"width", kWidth}, {"height", height}, {"deviceScaleFactor", 1}, {"mobile", false}});
  };
  resize(1);  // a page is no lower than its window
  resize(Evaluate("document.documentElement.scrollHeight").get<int>());
  const std::string picture =
      Call("Page.captureScreenshot", {{"format", "png"}}).at("data").get<std::string>();
  std::ofstream(file, std::ios::binary) << FromBase64(picture);
}
