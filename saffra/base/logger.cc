#include "saffra/base/logger.h"

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <mutex>

#include "saffra/platform/date.h"
#include "saffra/platform/system_info.h"

namespace saffra {

namespace {

std::mutex& sinkMutex() {
  static std::mutex m;
  return m;
}
Logger::Sink& customSink() {
  static Logger::Sink s;
  return s;
}
Logger::Sink& customSystemSink() {
  static Logger::Sink s;
  return s;
}

void writeToStandardError(const std::string& line) {
  std::string text = Logger::header() + line + "\n";
  std::fwrite(text.data(), 1, text.size(), stderr);
}

void deliver(Logger::Sink& sink, const std::string& line) {
  Logger::Sink target;
  {
    std::lock_guard<std::mutex> lock(sinkMutex());
    target = sink;
  }
  if (target) {
    target(line);
  } else {
    writeToStandardError(line);
  }
}

}  // namespace

void Logger::log(const OptString& message) {
  deliver(customSink(), format("%@ %@", "[QuorvantSaffra]", message));
}

void Logger::systemLog(const std::string& line) {
  deliver(customSystemSink(), line);
}

Logger::Sink Logger::setSink(Sink sink) {
  std::lock_guard<std::mutex> lock(sinkMutex());
  std::swap(customSink(), sink);
  return sink;
}

Logger::Sink Logger::setSystemLogSink(Sink sink) {
  std::lock_guard<std::mutex> lock(sinkMutex());
  std::swap(customSystemSink(), sink);
  return sink;
}

std::string Logger::header() {
  static const DateFormatter formatter("yyyy-MM-dd HH:mm:ss.SSSSSSZ");
  return formatter.stringFromDate(std::chrono::system_clock::now()) + " " +
         system_info::processName() + "[" + std::to_string(system_info::processId()) + ":" +
         std::to_string(system_info::threadId()) + "] ";
}

struct LogCapture::State {
  mutable std::mutex mutex;
  std::vector<std::string> lines;
  std::vector<std::string> systemLines;
};

LogCapture::LogCapture() : state_(std::make_shared<State>()) {
  auto state = state_;
  previous_ = Logger::setSink([state](const std::string& line) {
    std::lock_guard<std::mutex> lock(state->mutex);
    state->lines.push_back(line);
  });
  previousSystem_ = Logger::setSystemLogSink([state](const std::string& line) {
    std::lock_guard<std::mutex> lock(state->mutex);
    state->systemLines.push_back(line);
  });
}

LogCapture::~LogCapture() {
  Logger::setSink(std::move(previous_));
  Logger::setSystemLogSink(std::move(previousSystem_));
}

std::vector<std::string> LogCapture::lines() const {
  std::lock_guard<std::mutex> lock(state_->mutex);
  return state_->lines;
}

std::vector<std::string> LogCapture::systemLines() const {
  std::lock_guard<std::mutex> lock(state_->mutex);
  return state_->systemLines;
}

bool LogCapture::contains(const std::string& message) const {
  const std::string wanted = "[QuorvantSaffra] " + message;
  std::lock_guard<std::mutex> lock(state_->mutex);
  return std::find(state_->lines.begin(), state_->lines.end(), wanted) != state_->lines.end();
}

}  // namespace saffra
