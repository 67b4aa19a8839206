// The one place where the service uses the comparison engine (saffra::compare): it maps a
// step's matching settings onto the engine's options and hands back the verdict and, for a
// mismatch, a diff image (the baseline faded with the differences marked), and checks the
// contrast of the step's accessibility regions.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <span>
#include <string>

#include "saffra/platform/image.h"
#include "server/image_cache.h"
#include "server/match_settings.h"

namespace saffra::compare {
struct CompareResult;
}

namespace saffra::server {

class PixelPool;

/// The verdict of one comparison.
struct MatchOutcome {
  bool matches = false;
  /// For a mismatch: the engine's findings, from which diffImage draws.
  std::shared_ptr<const compare::CompareResult> comparison;
};

/// Compares `current` with `baseline` at the settings' match level, honouring its regions.
MatchOutcome matchImages(const Image& baseline, const Image& current,
                         const MatchSettings& settings);

/// An upload decoded and compared with its baseline.
struct DecodedMatch {
  std::shared_ptr<const Image> current;
  MatchOutcome outcome;
};

/// Decodes the PNG `upload` into `pool`'s buffers and compares it with `baseline` like
/// matchImages, the comparison following the decoding band by band on other threads. Bands of
/// the upload that are the baseline file's very bytes are copied from the baseline and not
/// compared. `beside` is other work for the calling thread, run once while the decoding goes on
/// (see PixelPool::decode). Throws Exception "InvalidImageException" for an upload that is not
/// a PNG.
DecodedMatch decodeAndMatch(PixelPool& pool, std::span<const std::uint8_t> upload,
                            const DecodedImage& baseline, const MatchSettings& settings,
                            const std::function<void()>& beside = {});

/// The diff image of a mismatch found by matchImages with this baseline: the baseline faded
/// with the differences marked; nullptr when the comparison found a match. Made only on request,
/// since a mismatch that is not recorded (a retry) needs none and making one takes longer than the
/// comparison.
std::shared_ptr<Image> diffImage(const Image& baseline, const MatchOutcome& outcome);

/// Where a mismatch found by matchImages differs, for the results pages: {"pixels": counted
/// differing pixels, "boxes": [[left, top, width, height], ...] top to bottom (at most
/// `maxBoxes`), "moreBoxes": how many were left out} or {"sizesDiffer": true}. Nothing for a
/// match.
std::optional<Json> changesOf(const MatchOutcome& outcome, std::size_t maxBoxes = 200);

/// The contrast check of a step's accessibility regions.
struct AccessibilityVerdict {
  bool passed = true;
  /// The level checked: "AA" or "AAA" ("None" in the settings is checked as "AA").
  std::string level;
};

/// Checks the contrast of the settings' accessibility regions in `image`; nothing when the
/// settings have no such regions.
std::optional<AccessibilityVerdict> checkAccessibility(const Image& image,
                                                       const MatchSettings& settings);

}  // namespace saffra::server
