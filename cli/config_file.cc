#include "cli/config_file.h"

#include <cerrno>
#include <cstddef>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <map>
#include <string>
#include <vector>

#include <CLI/CLI.hpp>

namespace saffra::cli {

namespace {

// A settings file is a few lines of text; anything far larger is the wrong file (or a device
// that never ends) and is refused before it is read whole.
constexpr std::size_t kMaxConfigBytes = 1 << 20;

struct Setting {
  std::size_t line = 0;
  std::string name;
  std::string value;
};

bool isBlank(char c) {
  return c == ' ' || c == '\t';
}

std::string_view trim(std::string_view s) {
  while (!s.empty() && isBlank(s.front())) s.remove_prefix(1);
  while (!s.empty() && (isBlank(s.back()) || s.back() == '\r')) s.remove_suffix(1);
  return s;
}

bool isNameChar(char c) {
  return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') || c == '-' ||
         c == '_' || c == '.';
}

// Splits one line into a setting. Returns false with `error` set for a line that is neither a
// setting nor a comment; a blank or comment line gives true with an empty name.
bool parseLine(std::string_view line, Setting& setting, std::string& error) {
  line = trim(line);
  if (line.empty() || line.front() == '#') return true;
  const std::size_t equals = line.find('=');
  if (equals == std::string_view::npos) {
    error = "expected \"name = value\"";
    return false;
  }
  const std::string_view name = trim(line.substr(0, equals));
  if (name.empty()) {
    error = "expected a name before \"=\"";
    return false;
  }
  for (char c : name) {
    if (!isNameChar(c)) {
      error = "\"" + std::string(name) + "\" is not a setting name";
      return false;
    }
  }
  std::string_view value = trim(line.substr(equals + 1));
  if (!value.empty() && value.front() == '"') {
    const std::size_t close = value.find('"', 1);
    if (close == std::string_view::npos) {
      error = "the value of \"" + std::string(name) + "\" has no closing quote";
      return false;
    }
    const std::string_view rest = trim(value.substr(close + 1));
    if (!rest.empty() && rest.front() != '#') {
      error = "unexpected text after the quoted value of \"" + std::string(name) + "\"";
      return false;
    }
    setting.value = std::string(value.substr(1, close - 1));
  } else {
    for (std::size_t i = 0; i < value.size(); ++i) {
      if (value[i] == '#' && (i == 0 || isBlank(value[i - 1]))) {
        value = trim(value.substr(0, i));
        break;
      }
    }
    if (value.empty()) {
      error = "\"" + std::string(name) + "\" has no value";
      return false;
    }
    setting.value = std::string(value);
  }
  setting.name = std::string(name);
  return true;
}

}  // namespace

std::optional<std::string> applyConfigText(CLI::App& command, std::string_view text,
                                           const std::string& fileName) {
  auto failure = [&](std::size_t line, const std::string& message) {
    return fileName + ":" + std::to_string(line) + ": " + message;
  };

  // Editors on some systems start a UTF-8 file with a byte order mark.
  if (text.substr(0, 3) == "\xEF\xBB\xBF") text.remove_prefix(3);
  // Read every line first, so that a bad line anywhere is reported before any value is used.
  std::vector<Setting> settings;
  std::size_t lineNumber = 0;
  while (!text.empty() || lineNumber == 0) {
    ++lineNumber;
    const std::size_t end = text.find('\n');
    const std::string_view line = text.substr(0, end);
    text = end == std::string_view::npos ? std::string_view() : text.substr(end + 1);
    Setting setting;
    std::string error;
    if (!parseLine(line, setting, error)) return failure(lineNumber, error);
    if (setting.name.empty()) continue;
    setting.line = lineNumber;
    settings.push_back(std::move(setting));
  }

  // Options given before the file was read (on the command line, or through their environment
  // variable) keep their values.
  std::map<CLI::Option*, bool> givenBefore;
  std::map<CLI::Option*, std::size_t> firstLine;
  for (const Setting& setting : settings) {
    CLI::Option* option = command.get_option_no_throw("--" + setting.name);
    if (option == nullptr || !option->check_lname(setting.name)) {
      return failure(setting.line, "unknown setting \"" + setting.name +
                                       "\" (the names are the long options of \"" +
                                       command.get_name() + "\", without \"--\")");
    }
    if (!option->get_configurable() || option == command.get_help_ptr()) {
      return failure(setting.line, "\"" + setting.name + "\" cannot be set in a settings file");
    }
    if (givenBefore.try_emplace(option, !option->empty()).first->second) continue;
    auto [first, isFirst] = firstLine.try_emplace(option, setting.line);
    if (!isFirst && option->get_items_expected_max() <= 1) {
      return failure(setting.line, "\"" + setting.name + "\" is set already, on line " +
                                       std::to_string(first->second));
    }
    // Each value is checked as it is added, so that a bad one is reported at its own line; a
    // repeated name adds a value to an option that takes several.
    try {
      if (option->get_expected_min() == 0) {
        option->add_result(option->get_flag_value(setting.name, setting.value));
      } else {
        option->add_result(setting.value);
      }
      option->run_callback();
    } catch (const CLI::Error& e) {
      return failure(setting.line, "bad value for \"" + setting.name + "\": " + e.what());
    }
  }
  return std::nullopt;
}

std::optional<std::string> applyConfigFile(CLI::App& command, const std::string& path) {
  const std::string cannotRead = "cannot read the settings file " + path + ": ";
  std::error_code error;
  if (std::filesystem::is_directory(path, error)) return cannotRead + "it is a folder";
  std::ifstream in(path, std::ios::binary);
  if (!in) return cannotRead + std::strerror(errno);
  std::string text(kMaxConfigBytes + 1, '\0');
  in.read(text.data(), static_cast<std::streamsize>(text.size()));
  if (in.bad()) return cannotRead + std::strerror(errno);
  text.resize(static_cast<std::size_t>(in.gcount()));
  if (text.size() > kMaxConfigBytes) {
    return "the settings file " + path + " is larger than 1 MB; is it the right file?";
  }
  return applyConfigText(command, text, path);
}

}  // namespace saffra::cli
