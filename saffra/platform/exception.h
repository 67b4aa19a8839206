// The base of every exception the library raises: a name (the class name of the failure, or a
// platform name such as "NSRangeException"), a reason text and an empty user-info dictionary.
#pragma once

#include <exception>
#include <map>
#include <string>

namespace saffra {

/// A named failure with a reason; what() returns the reason.
class Exception : public std::exception {
 public:
  Exception(std::string name, std::string reason)
      : name_(std::move(name)), reason_(std::move(reason)) {}

  const std::string& name() const { return name_; }
  const std::string& reason() const { return reason_; }
  /// Always empty; kept for the shape of the platform exception.
  const std::map<std::string, std::string>& userInfo() const { return userInfo_; }
  const char* what() const noexcept override { return reason_.c_str(); }

 private:
  std::string name_;
  std::string reason_;
  std::map<std::string, std::string> userInfo_;
};

}  // namespace saffra
