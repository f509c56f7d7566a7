#include "replay/png.h"

#include <png.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <vector>

namespace kv::replay {

namespace {

void onError(png_structp png, png_const_charp message) {
    auto *error = static_cast<std::string *>(png_get_error_ptr(png));
    if (error) *error = message ? message : "libpng failed";
    png_longjmp(png, 1);
}

void onWarning(png_structp, png_const_charp) {}

// Everything libpng may leave through its error handler, with no local state to lose on the way.
bool encode(png_structp png, png_infop info, std::FILE *file, int32_t width, int32_t height,
            png_bytepp rows) {
    if (setjmp(png_jmpbuf(png)) != 0) return false;
    png_init_io(png, file);
    // Level 1: frames are written while a replay runs.
    png_set_compression_level(png, 1);
    png_set_IHDR(png, info, static_cast<png_uint_32>(width), static_cast<png_uint_32>(height), 8,
                 PNG_COLOR_TYPE_RGB_ALPHA, PNG_INTERLACE_NONE, PNG_COMPRESSION_TYPE_DEFAULT,
                 PNG_FILTER_TYPE_DEFAULT);
    png_write_info(png, info);
    png_write_image(png, rows);
    png_write_end(png, nullptr);
    return true;
}

} // namespace

bool writePng(const std::string &path, int32_t width, int32_t height, const uint8_t *rgbaBottomUp,
              std::string *error) {
    std::string why;
    if (width <= 0 || height <= 0 || !rgbaBottomUp) {
        if (error) *error = "no pixels";
        return false;
    }
    std::FILE *file = std::fopen(path.c_str(), "wb");
    if (!file) {
        if (error) *error = std::string("cannot be written (") + std::strerror(errno) + ")";
        return false;
    }
    png_structp png = png_create_write_struct(PNG_LIBPNG_VER_STRING, &why, onError, onWarning);
    png_infop info = png ? png_create_info_struct(png) : nullptr;
    std::vector<png_bytep> rows(static_cast<size_t>(height));
    for (int32_t y = 0; y < height; ++y)
        rows[static_cast<size_t>(y)] = const_cast<png_bytep>(
            rgbaBottomUp + static_cast<size_t>(height - 1 - y) * static_cast<size_t>(width) * 4);
    bool ok = png && info && encode(png, info, file, width, height, rows.data());
    if (!ok && why.empty()) why = "libpng could not be started";
    png_destroy_write_struct(png ? &png : nullptr, info ? &info : nullptr);
    if (std::fclose(file) != 0 && ok) {
        ok = false;
        why = "cannot be written";
    }
    if (!ok && error) *error = why;
    return ok;
}

} // namespace kv::replay
