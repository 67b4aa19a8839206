// The one place where the service compares a step's image with its baseline. It maps the
// step's matching settings onto the comparison and hands back the verdict and, for a mismatch,
// a diff image (the baseline dimmed with the differences marked).
#pragma once

#include <memory>

#include "saffra/platform/image.h"
#include "server/match_settings.h"

namespace saffra::server {

/// The verdict of one comparison.
struct MatchOutcome {
  bool matches = false;
  /// Present for a mismatch when a diff image could be made.
  std::shared_ptr<Image> diff;
};

/// Compares `current` with `baseline` at the settings' match level, honouring its regions.
MatchOutcome matchImages(const Image& baseline, const Image& current,
                         const MatchSettings& settings);

}  // namespace saffra::server
