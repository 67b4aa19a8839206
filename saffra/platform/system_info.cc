#include "saffra/platform/system_info.h"

#include <sys/syscall.h>
#include <sys/utsname.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>

extern char* program_invocation_short_name;

namespace saffra::system_info {

std::string osName() {
  utsname u{};
  if (uname(&u) != 0) return "Unknown";
  return u.sysname;
}

OSVersion parseOSVersion(const std::string& release) {
  OSVersion v;
  long* parts[] = {&v.major, &v.minor, &v.patch};
  std::size_t i = 0;
  for (long* part : parts) {
    if (i >= release.size() || release[i] < '0' || release[i] > '9') break;
    long value = 0;
    while (i < release.size() && release[i] >= '0' && release[i] <= '9' && value < 100000000) {
      value = value * 10 + (release[i] - '0');
      ++i;
    }
    *part = value;
    if (i >= release.size() || release[i] != '.') break;
    ++i;
  }
  return v;
}

OSVersion osVersion() {
  utsname u{};
  if (uname(&u) != 0) return {};
  return parseOSVersion(u.release);
}

std::string hostName() {
  char name[256] = {};
  if (gethostname(name, sizeof name - 1) != 0) return "localhost";
  return name;
}

std::string processName() {
  return program_invocation_short_name ? program_invocation_short_name : "saffra";
}

std::int64_t processId() { return static_cast<std::int64_t>(getpid()); }

std::int64_t threadId() { return static_cast<std::int64_t>(syscall(SYS_gettid)); }

std::string documentsFolderPath() {
  auto stripSlash = [](std::string path) {
    while (path.size() > 1 && path.back() == '/') path.pop_back();
    return path;
  };
  if (const char* data = std::getenv("XDG_DATA_HOME"); data && *data == '/') return stripSlash(data);
  if (const char* home = std::getenv("HOME"); home && *home) {
    return stripSlash(std::string(home) + "/.local/share");
  }
  char cwd[4096];
  if (getcwd(cwd, sizeof cwd)) return cwd;
  return ".";
}

}  // namespace saffra::system_info
