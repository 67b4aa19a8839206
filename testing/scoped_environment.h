// Sets and unsets process environment variables for the duration of a test and restores every
// variable it touched when it goes out of scope. Setting "TZ" also switches the local time zone.
#pragma once

#include <cstdlib>
#include <ctime>
#include <initializer_list>
#include <map>
#include <string>
#include <utility>

#include "saffra/platform/nullable.h"

namespace saffra {

/// Environment changes undone on destruction. Not thread-safe (the environment is global).
class ScopedEnvironment {
 public:
  /// Every variable the library reads, unset, then `values` applied (absent = unset).
  explicit ScopedEnvironment(std::initializer_list<std::pair<std::string, OptString>> values = {}) {
    for (const char* name : kLibraryVariables) {
      set(name, std::nullopt);
      set(std::string("bamboo_") + name, std::nullopt);
    }
    for (const auto& [name, value] : values) set(name, value);
  }
  ~ScopedEnvironment() {
    for (const auto& [name, value] : saved_) apply(name, value);
  }
  ScopedEnvironment(const ScopedEnvironment&) = delete;
  ScopedEnvironment& operator=(const ScopedEnvironment&) = delete;

  /// Sets `name` to `value`, or unsets it when `value` is absent.
  void set(const std::string& name, const OptString& value) {
    if (!saved_.count(name)) {
      const char* old = std::getenv(name.c_str());
      saved_[name] = old ? OptString(old) : std::nullopt;
    }
    apply(name, value);
  }

 private:
  static constexpr const char* kLibraryVariables[] = {
      "QUORVANT_API_KEY",       "QUORVANT_SERVER_URL",      "QUORVANT_BRANCH",
      "QUORVANT_PARENT_BRANCH", "QUORVANT_BASELINE_BRANCH", "QUORVANT_BATCH_ID",
      "QUORVANT_BATCH_NAME",    "QUORVANT_BATCH_SEQUENCE",  "QUORVANT_DONT_CLOSE_BATCHES"};

  static void apply(const std::string& name, const OptString& value) {
    if (value) {
      ::setenv(name.c_str(), value->c_str(), 1);
    } else {
      ::unsetenv(name.c_str());
    }
    if (name == "TZ") ::tzset();
  }

  std::map<std::string, OptString> saved_;
};

}  // namespace saffra
