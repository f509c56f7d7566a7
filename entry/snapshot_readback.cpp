#include "entry/snapshot_readback.h"

#include "host/hosts.h"

#include <algorithm>
#include <cmath>
#include <cstring>
#include <string>

namespace kv::snapshot {

namespace {

const GLESPPHostFns &gl() {
    return GLESPPHost::get().fn;
}

using Sample = ShaderLayout::Sample;
using Pack = ShaderLayout::Pack;

ShaderLayout make(Sample sample, Pack pack, GLenum format, GLenum type, uint8_t count,
                  std::initializer_list<uint8_t> channels = {0, 1, 2, 3}) {
    ShaderLayout l;
    l.sample = sample;
    l.pack = pack;
    l.format = format;
    l.type = type;
    l.channelCount = count;
    uint8_t i = 0;
    for (uint8_t c : channels)
        if (i < 4) l.channels[i++] = c;
    return l;
}

// Channels of an upload format, with the fetched channels they come from.
bool channelsOf(GLenum format, uint8_t &count, uint8_t (&from)[4]) {
    const uint8_t identity[4] = {0, 1, 2, 3};
    std::memcpy(from, identity, 4);
    switch (format) {
    case GL_RED:
    case GL_RED_INTEGER:
    case GL_LUMINANCE:
        count = 1;
        return true;
    case GL_ALPHA:
        count = 1;
        from[0] = 3;
        return true;
    case GL_LUMINANCE_ALPHA:
        count = 2;
        from[1] = 3;
        return true;
    case GL_RG:
    case GL_RG_INTEGER:
        count = 2;
        return true;
    case GL_RGB:
    case GL_RGB_INTEGER:
        count = 3;
        return true;
    case GL_RGBA:
    case GL_RGBA_INTEGER:
        count = 4;
        return true;
    default:
        return false;
    }
}

float wordFloat(uint32_t w) {
    float f;
    std::memcpy(&f, &w, 4);
    return f;
}

// Bits of a depth value in [0, 1] held in `bits` bits, as the driver stored them.
uint32_t depthBits(float depth, int bits) {
    const double scale = static_cast<double>((uint64_t(1) << bits) - 1);
    const double d = std::fmin(1.0, std::fmax(0.0, static_cast<double>(depth)));
    return static_cast<uint32_t>(std::llround(d * scale));
}

uint32_t depth24Upload(uint32_t k) {
    const uint64_t low = (255ull * k + 0xFFFFFEull) / 0xFFFFFFull; // rounded up, at most 255
    return (k << 8) + static_cast<uint32_t>(low);
}

// A fetched normalised channel as an integer of `bits` bits.
uint32_t unorm(uint32_t word, int bits) {
    return depthBits(wordFloat(word), bits);
}

template <class T>
void put(std::vector<uint8_t> &out, size_t &at, T value) {
    std::memcpy(&out[at], &value, sizeof(T));
    at += sizeof(T);
}

} // namespace

float depth24Float(uint32_t k, Depth24 conversion) {
    switch (conversion) {
    case Depth24::Divided:
        return static_cast<float>(static_cast<double>(k) / 16777215.0);
    case Depth24::Multiplied: {
        volatile float scale = 1.0f / 16777215.0f; // in float arithmetic, as a shader would
        return static_cast<float>(k) * scale;
    }
    case Depth24::PowerOfTwo:
        break;
    }
    return static_cast<float>(k) * (1.0f / 16777216.0f);
}

bool shaderLayout(GLenum internalFormat, GLenum format, GLenum type, ShaderLayout &out) {
    switch (internalFormat) {
    // Unsized formats: the upload is the application's own format and type.
    case GL_LUMINANCE:
    case GL_ALPHA:
    case GL_LUMINANCE_ALPHA:
    case GL_RGB:
    case GL_RGBA: {
        uint8_t count = 0, from[4];
        channelsOf(internalFormat, count, from);
        // An unsized format's storage follows the upload's type: the type stays.
        if (internalFormat == GL_RGB && type == GL_UNSIGNED_SHORT_5_6_5)
            out = make(Sample::Float, Pack::Short565, GL_RGB, type, 3);
        else if (internalFormat == GL_RGBA && type == GL_UNSIGNED_SHORT_4_4_4_4)
            out = make(Sample::Float, Pack::Short4444, GL_RGBA, type, 4);
        else if (internalFormat == GL_RGBA && type == GL_UNSIGNED_SHORT_5_5_5_1)
            out = make(Sample::Float, Pack::Short5551, GL_RGBA, type, 4);
        else if (type == GL_UNSIGNED_BYTE)
            out = make(Sample::Float, Pack::Unorm8, internalFormat, GL_UNSIGNED_BYTE, count,
                       {from[0], from[1], from[2], from[3]});
        else if (type == GL_FLOAT)
            out = make(Sample::Float, Pack::Float32, internalFormat, GL_FLOAT, count,
                       {from[0], from[1], from[2], from[3]});
        else
            return false;
        return true;
    }
    case GL_DEPTH_COMPONENT:
        if (type == GL_UNSIGNED_SHORT)
            out = make(Sample::Float, Pack::Depth16, format, type, 1);
        else if (type == GL_UNSIGNED_INT)
            out = make(Sample::Float, Pack::Depth24, format, type, 1);
        else
            return false;
        return true;
    case GL_DEPTH_STENCIL:
        out = make(Sample::Float, Pack::Depth24Stencil8, GL_DEPTH_STENCIL, GL_UNSIGNED_INT_24_8, 1);
        out.withStencil = true;
        return true;
    // Sized formats.
    case GL_RGB565:
    case GL_RGB5_A1:
    case GL_RGBA4:
        out = make(Sample::Float, Pack::Unorm8, internalFormat == GL_RGB565 ? GL_RGB : GL_RGBA,
                   GL_UNSIGNED_BYTE, internalFormat == GL_RGB565 ? 3 : 4);
        return true;
    case GL_R16F:
    case GL_R32F:
        out = make(Sample::Float, Pack::Float32, GL_RED, GL_FLOAT, 1);
        return true;
    case GL_RG16F:
    case GL_RG32F:
        out = make(Sample::Float, Pack::Float32, GL_RG, GL_FLOAT, 2);
        return true;
    case GL_RGB16F:
    case GL_RGB32F:
    case GL_R11F_G11F_B10F:
    case GL_RGB9_E5:
        out = make(Sample::Float, Pack::Float32, GL_RGB, GL_FLOAT, 3);
        return true;
    case GL_DEPTH_COMPONENT16:
        out = make(Sample::Float, Pack::Depth16, GL_DEPTH_COMPONENT, GL_UNSIGNED_SHORT, 1);
        return true;
    case GL_DEPTH_COMPONENT24:
        out = make(Sample::Float, Pack::Depth24, GL_DEPTH_COMPONENT, GL_UNSIGNED_INT, 1);
        return true;
    case GL_DEPTH_COMPONENT32F:
        out = make(Sample::Float, Pack::Depth32F, GL_DEPTH_COMPONENT, GL_FLOAT, 1);
        return true;
    case GL_DEPTH24_STENCIL8:
        out = make(Sample::Float, Pack::Depth24Stencil8, GL_DEPTH_STENCIL, GL_UNSIGNED_INT_24_8, 1);
        out.withStencil = true;
        return true;
    case GL_DEPTH32F_STENCIL8:
        out = make(Sample::Float, Pack::Depth32FStencil8, GL_DEPTH_STENCIL, GL_FLOAT_32_UNSIGNED_INT_24_8_REV,
                   1);
        out.withStencil = true;
        return true;
    case GL_STENCIL_INDEX8:
        out = make(Sample::Stencil, Pack::Stencil8, GL_STENCIL_INDEX, GL_UNSIGNED_BYTE, 1);
        return true;
    default:
        break;
    }
    // Integer formats: the upload's format and type follow from the internal format.
    struct Integer {
        GLenum internalFormat, format, type;
        uint8_t channels;
        Pack pack;
        bool isSigned;
    };
    static const Integer kIntegers[] = {
        {GL_R8UI, GL_RED_INTEGER, GL_UNSIGNED_BYTE, 1, Pack::Int8, false},
        {GL_RG8UI, GL_RG_INTEGER, GL_UNSIGNED_BYTE, 2, Pack::Int8, false},
        {GL_RGB8UI, GL_RGB_INTEGER, GL_UNSIGNED_BYTE, 3, Pack::Int8, false},
        {GL_R16UI, GL_RED_INTEGER, GL_UNSIGNED_SHORT, 1, Pack::Int16, false},
        {GL_RG16UI, GL_RG_INTEGER, GL_UNSIGNED_SHORT, 2, Pack::Int16, false},
        {GL_RGB16UI, GL_RGB_INTEGER, GL_UNSIGNED_SHORT, 3, Pack::Int16, false},
        {GL_RGBA16UI, GL_RGBA_INTEGER, GL_UNSIGNED_SHORT, 4, Pack::Int16, false},
        {GL_R32UI, GL_RED_INTEGER, GL_UNSIGNED_INT, 1, Pack::Int32, false},
        {GL_RG32UI, GL_RG_INTEGER, GL_UNSIGNED_INT, 2, Pack::Int32, false},
        {GL_RGB32UI, GL_RGB_INTEGER, GL_UNSIGNED_INT, 3, Pack::Int32, false},
        {GL_R8I, GL_RED_INTEGER, GL_BYTE, 1, Pack::Int8, true},
        {GL_RG8I, GL_RG_INTEGER, GL_BYTE, 2, Pack::Int8, true},
        {GL_RGB8I, GL_RGB_INTEGER, GL_BYTE, 3, Pack::Int8, true},
        {GL_RGBA8I, GL_RGBA_INTEGER, GL_BYTE, 4, Pack::Int8, true},
        {GL_R16I, GL_RED_INTEGER, GL_SHORT, 1, Pack::Int16, true},
        {GL_RG16I, GL_RG_INTEGER, GL_SHORT, 2, Pack::Int16, true},
        {GL_RGB16I, GL_RGB_INTEGER, GL_SHORT, 3, Pack::Int16, true},
        {GL_RGBA16I, GL_RGBA_INTEGER, GL_SHORT, 4, Pack::Int16, true},
        {GL_R32I, GL_RED_INTEGER, GL_INT, 1, Pack::Int32, true},
        {GL_RG32I, GL_RG_INTEGER, GL_INT, 2, Pack::Int32, true},
        {GL_RGB32I, GL_RGB_INTEGER, GL_INT, 3, Pack::Int32, true},
    };
    for (const Integer &i : kIntegers)
        if (i.internalFormat == internalFormat) {
            out = make(i.isSigned ? Sample::Int : Sample::Uint, i.pack, i.format, i.type, i.channels);
            return true;
        }
    return false;
}

std::vector<uint8_t> packTexels(const ShaderLayout &l, const std::vector<uint32_t> &texels,
                                const std::vector<uint32_t> &stencil, size_t count, Depth24 depth24) {
    // The stored 24 bits of a fetched depth: the k near it that the driver's conversion takes
    // to exactly that float.
    auto depth24Bits = [depth24](uint32_t word) -> uint32_t {
        const float d = wordFloat(word);
        const int64_t k0 = depthBits(d, 24);
        // Nearest first: where two depths give one float, either is as good as the other.
        for (int64_t step : {0, -1, 1, -2, 2}) {
            const int64_t k = k0 + step;
            if (k >= 0 && k <= 0xFFFFFF && depth24Float(static_cast<uint32_t>(k), depth24) == d)
                return static_cast<uint32_t>(k);
        }
        return static_cast<uint32_t>(k0);
    };
    size_t bytes = 0;
    switch (l.pack) {
    case Pack::Unorm8:
    case Pack::Int8:
        bytes = l.channelCount;
        break;
    case Pack::Int16:
        bytes = 2u * l.channelCount;
        break;
    case Pack::Short565:
    case Pack::Short4444:
    case Pack::Short5551:
        bytes = 2;
        break;
    case Pack::Float32:
    case Pack::Int32:
        bytes = 4u * l.channelCount;
        break;
    case Pack::Depth16:
        bytes = 2;
        break;
    case Pack::Depth24:
    case Pack::Depth32F:
    case Pack::Depth24Stencil8:
        bytes = 4;
        break;
    case Pack::Depth32FStencil8:
        bytes = 8;
        break;
    case Pack::Stencil8:
        bytes = 1;
        break;
    }
    std::vector<uint8_t> out(bytes * count);
    size_t at = 0;
    for (size_t i = 0; i < count; ++i) {
        const uint32_t *w = &texels[i * 4];
        const uint32_t s = i < stencil.size() ? stencil[i] & 0xFFu : 0u;
        switch (l.pack) {
        case Pack::Unorm8:
            for (uint8_t c = 0; c < l.channelCount; ++c) {
                const float f = std::fmin(1.0f, std::fmax(0.0f, wordFloat(w[l.channels[c]])));
                put<uint8_t>(out, at, static_cast<uint8_t>(std::lround(f * 255.0f)));
            }
            break;
        case Pack::Float32:
        case Pack::Int32:
            for (uint8_t c = 0; c < l.channelCount; ++c)
                put<uint32_t>(out, at, w[l.channels[c]]);
            break;
        case Pack::Int8:
            for (uint8_t c = 0; c < l.channelCount; ++c)
                put<uint8_t>(out, at, static_cast<uint8_t>(w[l.channels[c]]));
            break;
        case Pack::Int16:
            for (uint8_t c = 0; c < l.channelCount; ++c)
                put<uint16_t>(out, at, static_cast<uint16_t>(w[l.channels[c]]));
            break;
        case Pack::Depth16:
            put<uint16_t>(out, at, static_cast<uint16_t>(depthBits(wordFloat(w[0]), 16)));
            break;
        case Pack::Depth24: {
            // A 32-bit upload of a 24-bit depth: k in the top 24 bits and, below them, the least
            // value whose scaling back, v * (2^24 - 1) / (2^32 - 1), is not below k. A driver that
            // shifts, one that rounds and one that truncates the scaled value all store k.
            put<uint32_t>(out, at, depth24Upload(depth24Bits(w[0])));
            break;
        }
        case Pack::Depth32F:
            put<uint32_t>(out, at, w[0]);
            break;
        case Pack::Depth24Stencil8:
            put<uint32_t>(out, at, (depth24Bits(w[0]) << 8) | s);
            break;
        case Pack::Depth32FStencil8:
            put<uint32_t>(out, at, w[0]);
            put<uint32_t>(out, at, s);
            break;
        case Pack::Stencil8:
            put<uint8_t>(out, at, static_cast<uint8_t>(w[0]));
            break;
        case Pack::Short565:
            put<uint16_t>(
                out, at,
                static_cast<uint16_t>((unorm(w[0], 5) << 11) | (unorm(w[1], 6) << 5) | unorm(w[2], 5)));
            break;
        case Pack::Short4444:
            put<uint16_t>(out, at,
                          static_cast<uint16_t>((unorm(w[0], 4) << 12) | (unorm(w[1], 4) << 8) |
                                                (unorm(w[2], 4) << 4) | unorm(w[3], 4)));
            break;
        case Pack::Short5551:
            put<uint16_t>(out, at,
                          static_cast<uint16_t>((unorm(w[0], 5) << 11) | (unorm(w[1], 5) << 6) |
                                                (unorm(w[2], 5) << 1) | unorm(w[3], 1)));
            break;
        }
    }
    return out;
}

// ---- The helper program ---------------------------------------------------------------------------

namespace {

const GLenum kUnitTargets[4] = {GL_TEXTURE_2D, GL_TEXTURE_CUBE_MAP, GL_TEXTURE_3D, GL_TEXTURE_2D_ARRAY};
const GLenum kUnitBindings[4] = {GL_TEXTURE_BINDING_2D, GL_TEXTURE_BINDING_CUBE_MAP, GL_TEXTURE_BINDING_3D,
                                 GL_TEXTURE_BINDING_2D_ARRAY};
// The settings that would change or drop the helper's fragments.
const GLenum kCapabilities[] = {GL_SCISSOR_TEST,   GL_STENCIL_TEST,        GL_DEPTH_TEST,
                                GL_BLEND,          GL_CULL_FACE,           GL_RASTERIZER_DISCARD,
                                GL_DITHER,         GL_POLYGON_OFFSET_FILL, GL_SAMPLE_ALPHA_TO_COVERAGE,
                                GL_SAMPLE_COVERAGE};

const char *kVertexShader =
    "#version 300 es\n"
    "void main() {\n"
    "  vec2 p = vec2(float((gl_VertexID & 1) * 4 - 1), float((gl_VertexID & 2) * 2 - 1));\n"
    "  gl_Position = vec4(p, 0.0, 1.0);\n"
    "}\n";

std::string fragmentShader(GLenum target, Sample sample) {
    const char *prefix = sample == Sample::Int ? "i" : (sample == Sample::Float ? "" : "u");
    const char *kind = target == GL_TEXTURE_CUBE_MAP   ? "samplerCube"
                       : target == GL_TEXTURE_3D       ? "sampler3D"
                       : target == GL_TEXTURE_2D_ARRAY ? "sampler2DArray"
                                                       : "sampler2D";
    std::string s = "#version 300 es\nprecision highp float;\nprecision highp int;\n";
    s += std::string("uniform highp ") + prefix + kind + " tex;\n";
    s += "uniform int layer;\nuniform int face;\nlayout(location = 0) out highp uvec4 colour;\n";
    s += "void main() {\n  ivec2 p = ivec2(gl_FragCoord.xy);\n";
    s += std::string("  highp ") +
         (sample == Sample::Int     ? "ivec4"
          : sample == Sample::Float ? "vec4"
                                    : "uvec4") +
         " v;\n";
    if (target == GL_TEXTURE_CUBE_MAP) {
        // The direction through the texel's centre on the face.
        s += "  vec2 c = (vec2(p) + 0.5) / vec2(textureSize(tex, 0)) * 2.0 - 1.0;\n"
             "  vec3 d = face == 0 ? vec3(1.0, -c.y, -c.x) : face == 1 ? vec3(-1.0, -c.y, c.x)\n"
             "         : face == 2 ? vec3(c.x, 1.0, c.y) : face == 3 ? vec3(c.x, -1.0, -c.y)\n"
             "         : face == 4 ? vec3(c.x, -c.y, 1.0) : vec3(-c.x, -c.y, -1.0);\n"
             "  v = textureLod(tex, d, 0.0);\n";
    } else if (target == GL_TEXTURE_3D || target == GL_TEXTURE_2D_ARRAY) {
        s += "  v = texelFetch(tex, ivec3(p, layer), 0);\n";
    } else {
        s += "  v = texelFetch(tex, p, 0);\n";
    }
    s += sample == Sample::Float ? "  colour = floatBitsToUint(v);\n" : "  colour = uvec4(v);\n";
    s += "}\n";
    return s;
}

GLuint compile(GLenum type, const std::string &text) {
    GLuint shader = gl().glCreateShader(type);
    const GLchar *source = text.c_str();
    gl().glShaderSource(shader, 1, &source, nullptr);
    gl().glCompileShader(shader);
    GLint ok = 0;
    gl().glGetShaderiv(shader, GL_COMPILE_STATUS, &ok);
    if (!ok) {
        gl().glDeleteShader(shader);
        return 0;
    }
    return shader;
}

} // namespace

bool ShaderReader::usable() {
    if (checked_) return usable_;
    checked_ = true;
    while (gl().glGetError() != GL_NO_ERROR) {
    }
    GLint major = 0;
    gl().glGetIntegerv(GL_MAJOR_VERSION, &major);
    gl().glGetIntegerv(GL_MINOR_VERSION, &minor_);
    if (gl().glGetError() != GL_NO_ERROR || major < 3) return false;
    if (major > 3) minor_ = 9;
    // Drawing while transform feedback records would write into the application's buffers.
    GLint feedback = 0, paused = 0;
    gl().glGetIntegerv(GL_TRANSFORM_FEEDBACK_ACTIVE, &feedback);
    gl().glGetIntegerv(GL_TRANSFORM_FEEDBACK_PAUSED, &paused);
    if (feedback && !paused) return false;
    // A current program the application deleted goes for good once another program is used.
    gl().glGetIntegerv(GL_CURRENT_PROGRAM, &program_);
    if (program_) {
        GLint deleted = 0;
        gl().glGetProgramiv(static_cast<GLuint>(program_), GL_DELETE_STATUS, &deleted);
        if (deleted) return false;
    }
    gl().glGetIntegerv(GL_ACTIVE_TEXTURE, &activeTexture_);
    gl().glActiveTexture(GL_TEXTURE0);
    for (int i = 0; i < 4; ++i)
        gl().glGetIntegerv(kUnitBindings[i], &textures_[i]);
    gl().glGetIntegerv(GL_SAMPLER_BINDING, &sampler0_);
    gl().glGetIntegerv(GL_VERTEX_ARRAY_BINDING, &vaoBinding_);
    gl().glGetIntegerv(GL_DRAW_FRAMEBUFFER_BINDING, &drawFramebuffer_);
    gl().glGetIntegerv(GL_READ_FRAMEBUFFER_BINDING, &readFramebuffer_);
    gl().glGetIntegerv(GL_RENDERBUFFER_BINDING, &renderbufferBinding_);
    gl().glGetIntegerv(GL_VIEWPORT, viewport_);
    gl().glGetBooleanv(GL_COLOR_WRITEMASK, colorMask_);
    for (GLenum cap : kCapabilities)
        capabilities_.emplace_back(cap, gl().glIsEnabled(cap));
    if (minor_ >= 1) capabilities_.emplace_back(GL_SAMPLE_MASK, gl().glIsEnabled(GL_SAMPLE_MASK));
    for (auto &[cap, on] : capabilities_)
        if (on) gl().glDisable(cap);
    gl().glColorMask(GL_TRUE, GL_TRUE, GL_TRUE, GL_TRUE);

    gl().glGenVertexArrays(1, &vao_);
    gl().glBindVertexArray(vao_);
    // Nearest texels, no comparison: a depth texture gives its depth, whatever its own settings.
    gl().glGenSamplers(1, &sampler_);
    gl().glSamplerParameteri(sampler_, GL_TEXTURE_MIN_FILTER, GL_NEAREST);
    gl().glSamplerParameteri(sampler_, GL_TEXTURE_MAG_FILTER, GL_NEAREST);
    gl().glSamplerParameteri(sampler_, GL_TEXTURE_COMPARE_MODE, GL_NONE);
    gl().glSamplerParameteri(sampler_, GL_TEXTURE_WRAP_S, GL_CLAMP_TO_EDGE);
    gl().glSamplerParameteri(sampler_, GL_TEXTURE_WRAP_T, GL_CLAMP_TO_EDGE);
    gl().glSamplerParameteri(sampler_, GL_TEXTURE_WRAP_R, GL_CLAMP_TO_EDGE);
    gl().glBindSampler(0, sampler_);
    gl().glGenFramebuffers(1, &framebuffer_);
    gl().glGenRenderbuffers(1, &renderbuffer_);
    gl().glBindFramebuffer(GL_FRAMEBUFFER, framebuffer_);
    usable_ = gl().glGetError() == GL_NO_ERROR;
    return usable_;
}

GLuint ShaderReader::program(GLenum target, Sample sample) {
    for (auto &p : programs_)
        if (p.target == target && p.sample == sample) return p.name;
    GLuint vs = compile(GL_VERTEX_SHADER, kVertexShader);
    GLuint fs = compile(GL_FRAGMENT_SHADER, fragmentShader(target, sample));
    GLuint name = 0;
    if (vs && fs) {
        name = gl().glCreateProgram();
        gl().glAttachShader(name, vs);
        gl().glAttachShader(name, fs);
        gl().glLinkProgram(name);
        GLint ok = 0;
        gl().glGetProgramiv(name, GL_LINK_STATUS, &ok);
        if (!ok) {
            gl().glDeleteProgram(name);
            name = 0;
        }
    }
    if (vs) gl().glDeleteShader(vs);
    if (fs) gl().glDeleteShader(fs);
    programs_.push_back({target, sample, name});
    return name;
}

bool ShaderReader::prepareTarget(GLsizei width, GLsizei height) {
    gl().glBindFramebuffer(GL_FRAMEBUFFER, framebuffer_);
    if (width == targetWidth_ && height == targetHeight_) return true;
    gl().glBindRenderbuffer(GL_RENDERBUFFER, renderbuffer_);
    gl().glRenderbufferStorage(GL_RENDERBUFFER, GL_RGBA32UI, width, height);
    gl().glFramebufferRenderbuffer(GL_FRAMEBUFFER, GL_COLOR_ATTACHMENT0, GL_RENDERBUFFER, renderbuffer_);
    if (gl().glCheckFramebufferStatus(GL_FRAMEBUFFER) != GL_FRAMEBUFFER_COMPLETE) return false;
    targetWidth_ = width;
    targetHeight_ = height;
    return true;
}

bool ShaderReader::read(GLuint texture, GLenum target, GLenum imageTarget, GLint level, GLsizei width,
                        GLsizei height, GLsizei layers, Sample sample, std::vector<uint32_t> &out) {
    if (!usable()) return false;
    const bool stencil = sample == Sample::Stencil;
    if (stencil && minor_ < 1) return false; // the depth-stencil texture mode came with 3.1
    const GLuint name = program(target, stencil ? Sample::Uint : sample);
    if (!name || !prepareTarget(width, height)) return false;
    gl().glUseProgram(name);
    gl().glUniform1i(gl().glGetUniformLocation(name, "tex"), 0);
    gl().glViewport(0, 0, width, height);
    gl().glBindTexture(target, texture);
    // The texture's own settings that change what a fetch gives: its level range, its swizzle
    // and, for depth and stencil, which of the two it gives. Set for the read, then given back.
    std::vector<std::pair<GLenum, GLint>> saved = {
        {GL_TEXTURE_BASE_LEVEL, 0},       {GL_TEXTURE_MAX_LEVEL, 1000},    {GL_TEXTURE_SWIZZLE_R, GL_RED},
        {GL_TEXTURE_SWIZZLE_G, GL_GREEN}, {GL_TEXTURE_SWIZZLE_B, GL_BLUE}, {GL_TEXTURE_SWIZZLE_A, GL_ALPHA}};
    if (minor_ >= 1) saved.emplace_back(GL_DEPTH_STENCIL_TEXTURE_MODE, GL_DEPTH_COMPONENT);
    for (auto &[pname, value] : saved)
        gl().glGetTexParameteriv(target, pname, &value);
    gl().glTexParameteri(target, GL_TEXTURE_BASE_LEVEL, level);
    gl().glTexParameteri(target, GL_TEXTURE_MAX_LEVEL, level);
    gl().glTexParameteri(target, GL_TEXTURE_SWIZZLE_R, GL_RED);
    gl().glTexParameteri(target, GL_TEXTURE_SWIZZLE_G, GL_GREEN);
    gl().glTexParameteri(target, GL_TEXTURE_SWIZZLE_B, GL_BLUE);
    gl().glTexParameteri(target, GL_TEXTURE_SWIZZLE_A, GL_ALPHA);
    if (minor_ >= 1)
        gl().glTexParameteri(target, GL_DEPTH_STENCIL_TEXTURE_MODE,
                             stencil ? GL_STENCIL_INDEX : GL_DEPTH_COMPONENT);
    const size_t layerWords = static_cast<size_t>(width) * static_cast<size_t>(height) * 4;
    out.assign(layerWords * static_cast<size_t>(layers), 0);
    const GLint layerLocation = gl().glGetUniformLocation(name, "layer");
    const GLint faceLocation = gl().glGetUniformLocation(name, "face");
    if (target == GL_TEXTURE_CUBE_MAP)
        gl().glUniform1i(faceLocation, static_cast<GLint>(imageTarget - GL_TEXTURE_CUBE_MAP_POSITIVE_X));
    bool ok = true;
    for (GLsizei layer = 0; layer < layers && ok; ++layer) {
        if (layerLocation >= 0) gl().glUniform1i(layerLocation, layer);
        gl().glDrawArrays(GL_TRIANGLES, 0, 3);
        gl().glReadPixels(0, 0, width, height, GL_RGBA_INTEGER, GL_UNSIGNED_INT,
                          out.data() + layerWords * layer);
        ok = gl().glGetError() == GL_NO_ERROR;
    }
    for (auto &[pname, value] : saved)
        gl().glTexParameteri(target, pname, value);
    return ok;
}

Depth24 ShaderReader::depth24() {
    if (depthKnown_ || !usable()) return depth24_;
    depthKnown_ = true;
    // Texels of known depth, uploaded with the host's unpack state set aside, fetched, and
    // compared with what each conversion gives for them.
    const GLenum unpackNames[] = {GL_UNPACK_ALIGNMENT,   GL_UNPACK_ROW_LENGTH,   GL_UNPACK_SKIP_ROWS,
                                  GL_UNPACK_SKIP_PIXELS, GL_UNPACK_IMAGE_HEIGHT, GL_UNPACK_SKIP_IMAGES};
    GLint unpack[6], unpackBuffer = 0;
    for (int i = 0; i < 6; ++i) {
        gl().glGetIntegerv(unpackNames[i], &unpack[i]);
        gl().glPixelStorei(unpackNames[i], i == 0 ? 4 : 0);
    }
    gl().glGetIntegerv(GL_PIXEL_UNPACK_BUFFER_BINDING, &unpackBuffer);
    gl().glBindBuffer(GL_PIXEL_UNPACK_BUFFER, 0);
    const uint32_t probes[8] = {0xFFFFFFu, 0xFFFFFEu, 0xFFFFFDu, 0x800001u,
                                0x9ABCDEu, 0xC00001u, 0x3039u,   0xEFFFFFu};
    uint32_t known[8];
    for (int i = 0; i < 8; ++i)
        known[i] = depth24Upload(probes[i]);
    GLuint texture = 0;
    gl().glGenTextures(1, &texture);
    gl().glActiveTexture(GL_TEXTURE0);
    gl().glBindTexture(GL_TEXTURE_2D, texture);
    gl().glTexImage2D(GL_TEXTURE_2D, 0, GL_DEPTH_COMPONENT24, 8, 1, 0, GL_DEPTH_COMPONENT, GL_UNSIGNED_INT,
                      known);
    for (int i = 0; i < 6; ++i)
        gl().glPixelStorei(unpackNames[i], unpack[i]);
    gl().glBindBuffer(GL_PIXEL_UNPACK_BUFFER, static_cast<GLuint>(unpackBuffer));
    std::vector<uint32_t> out;
    if (read(texture, GL_TEXTURE_2D, GL_TEXTURE_2D, 0, 8, 1, 1, Sample::Float, out) && out.size() >= 32) {
        for (Depth24 conversion : {Depth24::Divided, Depth24::Multiplied, Depth24::PowerOfTwo}) {
            bool all = true;
            for (int i = 0; i < 8 && all; ++i)
                all = depth24Float(probes[i], conversion) == wordFloat(out[i * 4]);
            if (all) {
                depth24_ = conversion;
                break;
            }
        }
    }
    gl().glBindTexture(GL_TEXTURE_2D, static_cast<GLuint>(textures_[0]));
    gl().glDeleteTextures(1, &texture);
    return depth24_;
}

void ShaderReader::finish() {
    if (!checked_) return;
    checked_ = false;
    if (!usable_ && vao_ == 0 && capabilities_.empty()) return;
    for (auto &p : programs_)
        if (p.name) gl().glDeleteProgram(p.name);
    programs_.clear();
    gl().glUseProgram(static_cast<GLuint>(program_));
    gl().glActiveTexture(GL_TEXTURE0);
    for (int i = 0; i < 4; ++i)
        gl().glBindTexture(kUnitTargets[i], static_cast<GLuint>(textures_[i]));
    gl().glBindSampler(0, static_cast<GLuint>(sampler0_));
    gl().glActiveTexture(static_cast<GLenum>(activeTexture_));
    gl().glBindVertexArray(static_cast<GLuint>(vaoBinding_));
    gl().glBindFramebuffer(GL_DRAW_FRAMEBUFFER, static_cast<GLuint>(drawFramebuffer_));
    gl().glBindFramebuffer(GL_READ_FRAMEBUFFER, static_cast<GLuint>(readFramebuffer_));
    gl().glBindRenderbuffer(GL_RENDERBUFFER, static_cast<GLuint>(renderbufferBinding_));
    gl().glViewport(viewport_[0], viewport_[1], viewport_[2], viewport_[3]);
    gl().glColorMask(colorMask_[0], colorMask_[1], colorMask_[2], colorMask_[3]);
    for (auto &[cap, on] : capabilities_)
        if (on) gl().glEnable(cap);
    capabilities_.clear();
    if (vao_) gl().glDeleteVertexArrays(1, &vao_);
    if (sampler_) gl().glDeleteSamplers(1, &sampler_);
    if (framebuffer_) gl().glDeleteFramebuffers(1, &framebuffer_);
    if (renderbuffer_) gl().glDeleteRenderbuffers(1, &renderbuffer_);
    vao_ = sampler_ = framebuffer_ = renderbuffer_ = 0;
    targetWidth_ = targetHeight_ = 0;
    usable_ = false;
    depthKnown_ = false;
    while (gl().glGetError() != GL_NO_ERROR) {
    }
}

} // namespace kv::snapshot
