#include "saffra/platform/uuid.h"

#include <uuid/uuid.h>

namespace saffra {

std::string newUUIDString() {
  uuid_t id;
  uuid_generate_random(id);
  char text[37];
  uuid_unparse_upper(id, text);
  return std::string(text, 36);
}

}  // namespace saffra
