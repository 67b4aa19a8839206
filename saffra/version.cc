#include "saffra/version.h"

extern "C" {
const double SaffraImagesVersionNumber = 1.0;
const unsigned char SaffraImagesVersionString[] = "@(#)PROGRAM:SaffraImages  PROJECT:Quorvant-1\n";
}

namespace saffra {

const char* libraryVersion() { return SAFFRA_VERSION; }

}  // namespace saffra
