// Checks PNG files as the steps of one visual test and prints the outcome.
//
//   QUORVANT_API_KEY=... check_screenshots [--server URL] first.png second.png ...
//
// Without --server the address comes from QUORVANT_SERVER_URL, else the public service.
#include <cstdio>
#include <string>
#include <vector>

#include "saffra/saffra.h"

int main(int argc, char** argv) {
  std::string server;
  std::vector<std::string> files;
  for (int i = 1; i < argc; ++i) {
    std::string arg = argv[i];
    if (arg == "--server" && i + 1 < argc) {
      server = argv[++i];
    } else {
      files.push_back(arg);
    }
  }
  if (files.empty()) {
    std::fprintf(stderr, "usage: check_screenshots [--server URL] image.png...\n");
    return 2;
  }

  saffra::Saffra session(server.empty() ? saffra::OptString() : saffra::OptString(server));
  try {
    session.openWithApplicationName("Example app", "Screenshots from the command line");
    for (const auto& file : files) {
      auto image = saffra::Image::fromPNGFile(file);
      const bool same = session.checkImage(image, file);
      std::printf("%s: %s\n", file.c_str(), same ? "as expected" : "differs");
    }
    std::optional<saffra::Error> error;
    auto results = session.closeWithThrow(false, &error);
    std::printf("%s\n", results ? results->description().c_str() : "no results");
    if (error) std::printf("%s\n", error->localizedDescription.c_str());
    return error ? 1 : 0;
  } catch (const saffra::Exception& e) {
    session.abortIfNotClosed();
    std::fprintf(stderr, "%s: %s\n", e.name().c_str(), e.reason().c_str());
    return 1;
  }
}
