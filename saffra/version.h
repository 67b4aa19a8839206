// The library's exported version symbols (C linkage) and its own semantic version.
#pragma once

extern "C" {
/// The number 1.0.
extern const double SaffraImagesVersionNumber;
/// "@(#)PROGRAM:SaffraImages  PROJECT:Quorvant-1" followed by a line feed.
extern const unsigned char SaffraImagesVersionString[];
}

namespace saffra {

/// The library's semantic version, e.g. "1.0.0" (what the agent id reports).
const char* libraryVersion();

}  // namespace saffra
