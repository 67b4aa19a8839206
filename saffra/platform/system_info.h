// Facts about the running system that the platform used to provide: the operating system and
// its version, the host's name, the process, and the user's documents folder.
#pragma once

#include <cstdint>
#include <string>

namespace saffra::system_info {

/// The operating system's version numbers; 0 where they cannot be read.
struct OSVersion {
  long major = 0;
  long minor = 0;
  long patch = 0;
};

/// The kernel's name, e.g. "Linux".
std::string osName();
/// The running kernel's version, e.g. {6, 1, 0} for "6.1.0-18-amd64".
OSVersion osVersion();
/// Parses a release text such as "6.1.0-18-amd64" (exposed for tests).
OSVersion parseOSVersion(const std::string& release);
/// The host's name, which stands for the device name.
std::string hostName();
/// The short name of the running program.
std::string processName();
std::int64_t processId();
std::int64_t threadId();

/// The folder that stands for the user's documents folder: $XDG_DATA_HOME, else
/// $HOME/.local/share, else the current directory. No separator at the end.
std::string documentsFolderPath();

}  // namespace saffra::system_info
