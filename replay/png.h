// Frames as PNG files (libpng).
#pragma once

#include <cstdint>
#include <string>

namespace kv::replay {

// Writes RGBA pixels read back from OpenGL (rows bottom up) as a PNG file, top row first.
bool writePng(const std::string &path, int32_t width, int32_t height, const uint8_t *rgbaBottomUp,
              std::string *error);

} // namespace kv::replay
