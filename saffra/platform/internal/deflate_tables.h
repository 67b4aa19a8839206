// The fixed tables of the deflate format (RFC 1951), shared by the PNG writer's compressor and
// the inflater. Internal: not part of the public API.
#pragma once

#include <cstdint>

namespace saffra::deflate {

/// The shortest length of each length code (257 + index) and its number of extra bits.
inline constexpr std::uint16_t kLengthBase[29] = {3,  4,  5,  6,   7,   8,   9,   10,  11, 13,
                                                  15, 17, 19, 23,  27,  31,  35,  43,  51, 59,
                                                  67, 83, 99, 115, 131, 163, 195, 227, 258};
inline constexpr std::uint8_t kLengthExtra[29] = {0, 0, 0, 0, 0, 0, 0, 0, 1, 1, 1, 1, 2, 2, 2,
                                                  2, 3, 3, 3, 3, 4, 4, 4, 4, 5, 5, 5, 5, 0};
/// The shortest distance of each distance code and its number of extra bits.
inline constexpr std::uint16_t kDistanceBase[30] = {
    1,   2,   3,   4,   5,   7,    9,    13,   17,   25,   33,   49,   65,    97,    129,
    193, 257, 385, 513, 769, 1025, 1537, 2049, 3073, 4097, 6145, 8193, 12289, 16385, 24577};
inline constexpr std::uint8_t kDistanceExtra[30] = {0, 0, 0,  0,  1,  1,  2,  2,  3,  3,
                                                    4, 4, 5,  5,  6,  6,  7,  7,  8,  8,
                                                    9, 9, 10, 10, 11, 11, 12, 12, 13, 13};
/// The order in which a dynamic block lists the code lengths of the code-length alphabet.
inline constexpr std::uint8_t kCodeLengthOrder[19] = {16, 17, 18, 0, 8,  7, 9,  6, 10, 5,
                                                      11, 4,  12, 3, 13, 2, 14, 1, 15};

}  // namespace saffra::deflate
