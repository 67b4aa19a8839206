#include "saffra/images/general_utils.h"

#include <algorithm>
#include <chrono>
#include <thread>

namespace saffra {

void GeneralUtils::sleep(std::uint64_t seconds) {
  // Clamped so that the conversion to nanoseconds cannot overflow.
  constexpr std::uint64_t kLongest = std::uint64_t{1} << 32;
  std::this_thread::sleep_for(std::chrono::seconds(std::min(seconds, kLongest)));
}

}  // namespace saffra
