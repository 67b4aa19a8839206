// The one logger of the library. Every message becomes the line "[QuorvantSaffra] message",
// which the default sink writes to standard error after a time stamp and process header
// ("2024-03-05 14:07:09.123456+0100 program[pid:tid] "). There are no levels and no switch, but
// the sink can be replaced: tests capture lines, applications route them to their own logging.
// Two bare lines of the library go to a separate system-log sink without the prefix.
#pragma once

#include <functional>
#include <string>
#include <memory>
#include <string_view>
#include <vector>

#include "saffra/platform/format.h"
#include "saffra/platform/nullable.h"

namespace saffra {

/// Writes the library's log lines.
class Logger {
 public:
  /// Receives one finished line, without a line break.
  using Sink = std::function<void(const std::string& line)>;

  /// Logs "[QuorvantSaffra] " followed by the message ("(null)" when absent).
  static void log(const OptString& message);
  /// Formats the message (see saffra::format) and logs it.
  template <class... Args>
  static void logWithFormat(std::string_view fmt, const Args&... args) {
    log(format(fmt, args...));
  }

  /// Writes a bare line to the system-log sink (no prefix).
  static void systemLog(const std::string& line);
  template <class... Args>
  static void systemLogWithFormat(std::string_view fmt, const Args&... args) {
    systemLog(format(fmt, args...));
  }

  /// Replaces the sink of prefixed lines; an empty function restores standard error.
  /// Returns the sink that was installed before.
  static Sink setSink(Sink sink);
  /// Replaces the sink of bare system-log lines; an empty function restores standard error.
  static Sink setSystemLogSink(Sink sink);

  /// The header the default sinks put before each line.
  static std::string header();
};

/// Collects every line logged while it lives (both sinks), for tests and tools.
class LogCapture {
 public:
  LogCapture();
  ~LogCapture();
  LogCapture(const LogCapture&) = delete;
  LogCapture& operator=(const LogCapture&) = delete;

  /// The prefixed lines logged so far.
  std::vector<std::string> lines() const;
  /// The bare system-log lines so far.
  std::vector<std::string> systemLines() const;
  /// True when some prefixed line equals "[QuorvantSaffra] " + message.
  bool contains(const std::string& message) const;

 private:
  struct State;
  std::shared_ptr<State> state_;
  Logger::Sink previous_;
  Logger::Sink previousSystem_;
};

}  // namespace saffra
