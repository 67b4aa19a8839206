// Settings files for the saffra command's subcommands: `name = value` lines whose names are the
// subcommand's long options without their dashes.
#pragma once

#include <optional>
#include <string>
#include <string_view>

namespace CLI {
class App;
}

namespace saffra::cli {

/// Gives the options of `command` the values set in a settings file. Each non-blank line is
/// `name = value` or a comment starting with `#`; a `#` after blanks ends an unquoted value, and
/// a value in double quotes is taken as it stands. A name may repeat for an option that takes
/// several values. Options that already have a value (from the command line or their
/// environment variable) keep it and ignore the file. Returns nothing on success, else one
/// message naming the file and, for a bad line, its number.
std::optional<std::string> applyConfigFile(CLI::App& command, const std::string& path);

/// Like applyConfigFile, with the file's contents given; `fileName` is used in messages.
std::optional<std::string> applyConfigText(CLI::App& command, std::string_view text,
                                           const std::string& fileName);

}  // namespace saffra::cli
