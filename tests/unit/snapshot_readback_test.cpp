// Packing of fetched texels for the snapshot's uploads: whatever float the driver gave for a stored
// depth or normalised value, the upload stores the same bits again. Drivers turn a 24-bit depth
// into a float in one of three ways, and a 32-bit upload of it back by a shift, by rounding or by
// truncation: every pairing is checked.
#include "entry/snapshot_readback.h"

#include <gtest/gtest.h>

#include <cmath>
#include <cstdint>
#include <cstring>
#include <vector>

namespace kv::snapshot {
namespace {

uint32_t bits(float f) {
    uint32_t w;
    std::memcpy(&w, &f, 4);
    return w;
}

// Four words per texel with the float in the red channel.
std::vector<uint32_t> reds(const std::vector<float> &values) {
    std::vector<uint32_t> out;
    for (float v : values) {
        out.push_back(bits(v));
        out.push_back(0);
        out.push_back(0);
        out.push_back(bits(1.0f));
    }
    return out;
}

ShaderLayout layoutOf(GLenum internalFormat, GLenum format = 0, GLenum type = 0) {
    ShaderLayout l;
    EXPECT_TRUE(shaderLayout(internalFormat, format, type, l)) << std::hex << internalFormat;
    return l;
}

TEST(SnapshotReadback, DepthValuesComeBackToTheStoredBits) {
    const ShaderLayout d24 = layoutOf(GL_DEPTH_COMPONENT24);
    EXPECT_EQ(d24.format, GLenum(GL_DEPTH_COMPONENT));
    EXPECT_EQ(d24.type, GLenum(GL_UNSIGNED_INT));
    const uint32_t max24 = (1u << 24) - 1;
    for (Depth24 conversion : {Depth24::Divided, Depth24::Multiplied, Depth24::PowerOfTwo}) {
        std::vector<float> values;
        std::vector<uint32_t> stored;
        for (uint32_t k = 0; k <= max24; k += (k < 4096 || k > max24 - 4096) ? 1 : 61) {
            stored.push_back(k);
            values.push_back(depth24Float(k, conversion));
        }
        const std::vector<uint8_t> packed = packTexels(d24, reds(values), {}, values.size(), conversion);
        ASSERT_EQ(packed.size(), values.size() * 4);
        const int c = static_cast<int>(conversion);
        // What a shader sees again: the same float (the few depths near 1.0 that one conversion
        // gives the same float are as good as each other).
        for (size_t i = 0; i < stored.size(); ++i) {
            uint32_t v;
            std::memcpy(&v, &packed[i * 4], 4);
            // v * (2^24 - 1) / (2^32 - 1), in exact integer arithmetic.
            const uint64_t scaled = uint64_t(v) * max24;
            const uint32_t shifted = v >> 8, rounded = uint32_t((scaled + 0x7FFFFFFFu) / 0xFFFFFFFFu),
                           truncated = uint32_t(scaled / 0xFFFFFFFFu);
            ASSERT_EQ(depth24Float(shifted, conversion), values[i])
                << "shifting driver, " << c << ", k " << stored[i];
            ASSERT_EQ(depth24Float(rounded, conversion), values[i])
                << "rounding driver, " << c << ", k " << stored[i];
            ASSERT_EQ(depth24Float(truncated, conversion), values[i]) << "truncating driver, " << c;
            if (conversion == Depth24::Divided) {
                ASSERT_EQ(shifted, stored[i]);
            }
        }
    }
    // The conversions differ where it matters: near 1.0.
    EXPECT_NE(depth24Float(max24 - 1, Depth24::Divided), depth24Float(max24 - 1, Depth24::PowerOfTwo));

    const ShaderLayout d16 = layoutOf(GL_DEPTH_COMPONENT, GL_DEPTH_COMPONENT, GL_UNSIGNED_SHORT);
    std::vector<float> values;
    for (uint32_t k = 0; k <= 0xFFFF; ++k)
        values.push_back(static_cast<float>(k) / 65535.0f);
    const std::vector<uint8_t> packed = packTexels(d16, reds(values), {}, values.size());
    for (uint32_t k = 0; k <= 0xFFFF; ++k) {
        uint16_t v;
        std::memcpy(&v, &packed[k * 2], 2);
        ASSERT_EQ(v, k);
    }
}

TEST(SnapshotReadback, DepthStencilAndPackedFormatsTakeEveryChannelInItsPlace) {
    // Depth and stencil together: 24 bits of depth above 8 of stencil; a float depth then a word
    // with the stencil in its low byte.
    const ShaderLayout ds = layoutOf(GL_DEPTH24_STENCIL8);
    EXPECT_TRUE(ds.withStencil);
    std::vector<uint8_t> packed = packTexels(ds, reds({1.0f, 0.0f}), {0x1A5u, 7u}, 2);
    uint32_t w[2];
    std::memcpy(w, packed.data(), 8);
    EXPECT_EQ(w[0], 0xFFFFFFA5u); // packed: the bits themselves
    EXPECT_EQ(w[1], 7u);
    const ShaderLayout ds32 = layoutOf(GL_DEPTH32F_STENCIL8);
    packed = packTexels(ds32, reds({0.25f}), {3u}, 1);
    ASSERT_EQ(packed.size(), 8u);
    float depth;
    std::memcpy(&depth, packed.data(), 4);
    std::memcpy(w, packed.data() + 4, 4);
    EXPECT_EQ(depth, 0.25f);
    EXPECT_EQ(w[0], 3u);

    // Luminance takes red, alpha takes alpha, luminance-alpha both; 5-6-5 packs in one short.
    const std::vector<uint32_t> texel = {bits(1.0f), bits(0.0f), bits(31.0f / 255.0f), bits(128.0f / 255.0f)};
    EXPECT_EQ(packTexels(layoutOf(GL_LUMINANCE, GL_LUMINANCE, GL_UNSIGNED_BYTE), texel, {}, 1),
              std::vector<uint8_t>({255}));
    EXPECT_EQ(packTexels(layoutOf(GL_ALPHA, GL_ALPHA, GL_UNSIGNED_BYTE), texel, {}, 1),
              std::vector<uint8_t>({128}));
    EXPECT_EQ(packTexels(layoutOf(GL_LUMINANCE_ALPHA, GL_LUMINANCE_ALPHA, GL_UNSIGNED_BYTE), texel, {}, 1),
              std::vector<uint8_t>({255, 128}));
    const std::vector<uint32_t> rgb = {bits(1.0f), bits(32.0f / 63.0f), bits(1.0f / 31.0f), bits(1.0f)};
    packed = packTexels(layoutOf(GL_RGB, GL_RGB, GL_UNSIGNED_SHORT_5_6_5), rgb, {}, 1);
    uint16_t s;
    std::memcpy(&s, packed.data(), 2);
    EXPECT_EQ(s, (31u << 11) | (32u << 5) | 1u);

    // Integers keep their bits; the application's upload format names the channels.
    const ShaderLayout rg = layoutOf(GL_RG32UI, GL_RG_INTEGER, GL_UNSIGNED_INT);
    packed = packTexels(rg, {0xDEADBEEFu, 0x12345678u, 0u, 1u}, {}, 1);
    ASSERT_EQ(packed.size(), 8u);
    std::memcpy(w, packed.data(), 8);
    EXPECT_EQ(w[0], 0xDEADBEEFu);
    EXPECT_EQ(w[1], 0x12345678u);

    // Formats the helper cannot give back are refused.
    ShaderLayout none;
    EXPECT_FALSE(shaderLayout(GL_RGBA, GL_RGBA, GL_HALF_FLOAT, none));
    EXPECT_FALSE(shaderLayout(GL_COMPRESSED_RGBA8_ETC2_EAC, 0, 0, none));
}

} // namespace
} // namespace kv::snapshot
