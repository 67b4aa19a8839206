// Feeds arbitrary bytes as a service reply into the reply records and writes them back. Reading
// must never crash or throw; writing may only fail with the documented
// "NSInvalidArgumentException" (an absent required value, or a number JSON cannot hold). Reading
// what was written and writing it again must give the same text.
#include <cstdint>
#include <cstdlib>
#include <optional>
#include <string>
#include <string_view>

#include "saffra/base/logger.h"
#include "saffra/platform/exception.h"
#include "saffra/platform/json.h"
#include "saffra/service/match_window_data.h"
#include "saffra/service/running_session.h"
#include "saffra/service/test_results.h"

namespace {

using saffra::Exception;
using saffra::Json;

// The wire text of a record, or nothing when writing failed the documented way.
template <class Make>
std::optional<std::string> written(Make make) {
  try {
    return saffra::json::write(make());
  } catch (const Exception& e) {
    if (e.name() != "NSInvalidArgumentException") throw;
    return std::nullopt;
  }
}

void checkTestResults(const Json& reply) {
  saffra::TestResults results(reply);
  (void)results.description();
  (void)results.isPassed();
  if (results.stepsInfo()) {
    for (const auto& step : *results.stepsInfo()) (void)step->description();
  }
  auto first = written([&] { return results.dictionary(); });
  if (!first) return;

  // The written form reads back into a record that writes the same text again (after the first
  // pass has dropped what does not travel under its own key).
  auto again = saffra::json::parse(*first);
  if (!again) std::abort();
  auto second = written([&] { return saffra::TestResults(*again).dictionary(); });
  if (!second) std::abort();
  auto third =
      written([&] { return saffra::TestResults(*saffra::json::parse(*second)).dictionary(); });
  if (third != second) std::abort();
}

void checkNested(const Json& value) {
  (void)written([&] { return saffra::DefaultMatchSettings(value).dictionary(); });
  (void)written([&] { return saffra::StepInfo(value).dictionary(); });
  saffra::TestAccessibilityStatus accessibility(value);
  (void)saffra::TestResults::hostDisplaySizeFromDictionary(value);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  static const bool quiet = [] {
    saffra::Logger::setSink([](const std::string&) {});
    return true;
  }();
  (void)quiet;

  auto reply = saffra::json::parse(std::string_view(reinterpret_cast<const char*>(data), size));
  if (!reply) return 0;

  checkTestResults(*reply);

  saffra::RunningSession session(*reply);
  (void)session.sessionIdText();

  saffra::MatchResult match(*reply);
  (void)written([&] { return match.dictionary(); });

  // Each member as a nested record, as a reply would carry it.
  if (reply->is_object()) {
    for (const auto& [key, value] : reply->items()) checkNested(value);
  }
  return 0;
}
