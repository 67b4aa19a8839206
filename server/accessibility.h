// The colour-contrast check of accessibility regions.
#pragma once

#include <string_view>
#include <vector>

#include "saffra/platform/image.h"
#include "server/match_settings.h"

namespace saffra::server {

/// The contrast ratio (1 to 21) between the lightest and the darkest colour in `rect` of the
/// image, with colours composed over white. An area outside the image gives 1.
double contrastRatio(const Image& image, const PixelRect& rect);

/// The lowest contrast a region of the given type ("RegularText", "LargeText", "BoldText",
/// "GraphicalObject") needs at the level ("AA" or "AAA"; anything else counts as "AA").
/// "IgnoreContrast" needs none (0).
double requiredContrast(std::string_view regionType, std::string_view level);

/// True when every region reaches the contrast its type needs at the level.
bool contrastPasses(const Image& image, const std::vector<AccessibilityRegion>& regions,
                    std::string_view level);

}  // namespace saffra::server
