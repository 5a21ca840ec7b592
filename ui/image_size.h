// The width and height of a picture from the first bytes of its file, for
// the reading view's <img> tags: PNG, GIF, JPEG, BMP and WebP.
#pragma once

#include <cstddef>
#include <string_view>

namespace trv {

// Bytes of a picture's start that ReadImageSize needs at most (JPEG keeps its
// size behind its other header segments).
inline constexpr size_t kImageHeadBytes = 64 * 1024;

// False when the bytes are none of the formats above, are cut short before
// the size, or give a size of 0.
bool ReadImageSize(std::string_view head, int* width, int* height);

}  // namespace trv
