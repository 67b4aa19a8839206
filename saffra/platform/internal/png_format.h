// Constants of the PNG format shared by the library's encoder and the service's decoder.
#pragma once

#include <cstdint>

namespace saffra::png {

/// The eight bytes every PNG file starts with.
inline constexpr std::uint8_t kPngSignature[8] = {0x89, 'P', 'N', 'G', '\r', '\n', 0x1A, '\n'};

/// The chunk in which the library's encoder lists the bands its rows were compressed in ("sfRB":
/// ancillary, private, and not safe to copy, as it describes the image data). Its body holds,
/// band after band from the top, the band's rows and the bytes of its deflate blocks, each a
/// 32-bit big-endian number; the first band's blocks follow the zlib header, the last band's
/// are followed by the Adler-32. Each band's blocks refer to no byte before the band, the first
/// row of each band is filtered with None or Sub, and every band but the last ends on a byte
/// boundary right after a stored block. Decoders that do not know the chunk skip it.
inline constexpr char kBandChunkType[] = "sfRB";

}  // namespace saffra::png
