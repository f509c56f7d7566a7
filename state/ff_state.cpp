#include "state/ff_state.h"

#include "api/api.h"
#include "state/context_state.h"

#include <algorithm>
#include <cmath>
#include <cstring>
#include <string>

namespace kv {

namespace {

// OpenGL ES 1 names (the library does not include the ES1 header).
constexpr GLenum kModelview = 0x1700, kProjection = 0x1701, kTexture = 0x1702;
constexpr GLenum kVertexArray = 0x8074, kNormalArray = 0x8075, kColorArray = 0x8076, kTexCoordArray = 0x8078,
                 kPointSizeArray = 0x8B9C, kMatrixIndexArray = 0x8844, kWeightArray = 0x86AD;
constexpr GLenum kAmbient = 0x1200, kDiffuse = 0x1201, kSpecular = 0x1202, kPosition = 0x1203,
                 kSpotDirection = 0x1204, kSpotExponent = 0x1205, kSpotCutoff = 0x1206,
                 kConstantAttenuation = 0x1207, kLinearAttenuation = 0x1208, kQuadraticAttenuation = 0x1209,
                 kEmission = 0x1600, kShininess = 0x1601, kAmbientAndDiffuse = 0x1602;
constexpr GLenum kLight0 = 0x4000, kClipPlane0 = 0x3000, kTexture2D = 0x0DE1;
constexpr GLenum kFogDensity = 0x0B62, kFogStart = 0x0B63, kFogEnd = 0x0B64, kFogMode = 0x0B65,
                 kFogColor = 0x0B66;
constexpr GLenum kLightModelTwoSide = 0x0B52, kLightModelAmbient = 0x0B53;
constexpr GLenum kPointSizeMin = 0x8126, kPointSizeMax = 0x8127, kPointFadeThreshold = 0x8128,
                 kPointDistanceAttenuation = 0x8129;
constexpr GLenum kTextureEnvColor = 0x2201, kRgbScale = 0x8573, kAlphaScale = 0x0D1C;
constexpr GLenum kMatrixPalette = 0x8840, kRenderbuffer = 0x8D41, kTextureObject = 0x1702;

// The extension functions whose state apply() keeps.
constexpr uint16_t kCurrentPaletteMatrixOES = 4011, kLoadPaletteFromModelViewMatrixOES = 4012,
                   kMatrixIndexPointerOES = 4013, kWeightPointerOES = 4014, kBindRenderbufferOES = 4016,
                   kDeleteRenderbuffersOES = 4017, kRenderbufferStorageOES = 4019, kBindFramebufferOES = 4022,
                   kDeleteFramebuffersOES = 4023, kFramebufferTexture2DOES = 4026,
                   kFramebufferRenderbufferOES = 4027;

// How a call passes its values: as floats, as 16.16 fixed-point numbers, or as integers.
enum class Kind { Float, Fixed, Int };

float slotFloat(uint64_t slot) {
    float f;
    uint32_t bits = static_cast<uint32_t>(slot);
    std::memcpy(&f, &bits, sizeof(f));
    return f;
}

float fixedToFloat(int32_t x) {
    return static_cast<float>(x) / 65536.0f;
}

// A value as the state keeps it. Values that name enums (or flags) are taken as they are in the
// fixed-point forms: the API does not scale them.
float toFloat(Kind kind, uint32_t word, bool enumValued) {
    switch (kind) {
    case Kind::Float:
        return slotFloat(word);
    case Kind::Fixed:
        return enumValued ? static_cast<float>(static_cast<int32_t>(word))
                          : fixedToFloat(static_cast<int32_t>(word));
    case Kind::Int:
    default:
        return static_cast<float>(static_cast<int32_t>(word));
    }
}

bool enumValuedEnvironment(GLenum pname) {
    return pname != kTextureEnvColor && pname != kRgbScale && pname != kAlphaScale;
}

CFFContextState::Matrix multiplied(const CFFContextState::Matrix &a, const CFFContextState::Matrix &b) {
    CFFContextState::Matrix r{};
    for (int col = 0; col < 4; ++col)
        for (int row = 0; row < 4; ++row) {
            float sum = 0;
            for (int k = 0; k < 4; ++k)
                sum += a[k * 4 + row] * b[col * 4 + k];
            r[col * 4 + row] = sum;
        }
    return r;
}

} // namespace

CFFContextState::Matrix CFFContextState::identity() {
    return Matrix{1, 0, 0, 0, 0, 1, 0, 0, 0, 0, 1, 0, 0, 0, 0, 1};
}

uint32_t CFFContextState::ClientArray::elementBytes() const {
    return static_cast<uint32_t>(std::max(size, 0)) * componentTypeSize(type);
}

uint32_t CFFContextState::ClientArray::step() const {
    return stride > 0 ? static_cast<uint32_t>(stride) : elementBytes();
}

CFFContextState::CFFContextState() : resources_(new SEs1Resources()) {
    normalArray.size = 3;
    pointSizeArray.size = 1;
    matrixIndexArray.size = 0;
    matrixIndexArray.type = GL_UNSIGNED_BYTE;
    weightArray.size = 0;
    // Light 0 is white; the others have black diffuse and specular parts.
    lights[0].diffuse = {1, 1, 1, 1};
    lights[0].specular = {1, 1, 1, 1};
    for (Light &l : lights) {
        l.position.value = {0, 0, 1, 0};
        l.spotDirection.value = {0, 0, -1, 0};
    }
    capabilities[GL_DITHER] = true;
    capabilities[0x0BA1 /* GL_NORMALIZE */] = false;
    capabilities[0x0BC0 /* GL_ALPHA_TEST */] = false;
    capabilities[0x0B50 /* GL_LIGHTING */] = false;
    capabilities[0x0B60 /* GL_FOG */] = false;
    hints[0x0C50 /* GL_PERSPECTIVE_CORRECTION_HINT */] = GL_DONT_CARE;
    hints[0x0C51 /* GL_POINT_SMOOTH_HINT */] = GL_DONT_CARE;
    hints[0x0C52 /* GL_LINE_SMOOTH_HINT */] = GL_DONT_CARE;
    hints[0x0C54 /* GL_FOG_HINT */] = GL_DONT_CARE;
    hints[GL_GENERATE_MIPMAP_HINT] = GL_DONT_CARE;
}

std::vector<CFFContextState::Matrix> &CFFContextState::currentStack() {
    if (matrixMode == kProjection) return projectionStack;
    if (matrixMode == kMatrixPalette) {
        std::vector<Matrix> &stack = palette[currentPaletteMatrix];
        if (stack.empty()) stack.push_back(identity());
        return stack;
    }
    if (matrixMode == kTexture) return activeUnit().matrixStack;
    return modelviewStack;
}

CFFContextState::Matrix &CFFContextState::currentMatrix() {
    return currentStack().back();
}

void CFFContextState::multiply(const Matrix &m) {
    Matrix &current = currentMatrix();
    current = multiplied(current, m);
}

CFFContextState::ClientArray *CFFContextState::array(uint32_t key) {
    switch (key) {
    case kFFVertexArray:
        return &vertexArray;
    case kFFNormalArray:
        return &normalArray;
    case kFFColorArray:
        return &colorArray;
    case kFFPointSizeArray:
        return &pointSizeArray;
    case kFFMatrixIndexArray:
        return &matrixIndexArray;
    case kFFWeightArray:
        return &weightArray;
    default:
        if (key >= kFFTexCoordArray && key < kFFTexCoordArray + kTextureUnits)
            return &units[key - kFFTexCoordArray].texCoordArray;
        return nullptr;
    }
}

GLuint CFFContextState::bufferBinding(GLenum target) const {
    if (target == GL_ARRAY_BUFFER) return arrayBuffer;
    if (target == GL_ELEMENT_ARRAY_BUFFER) return elementArrayBuffer;
    return 0;
}

void CFFContextState::texEnv(GLenum target, GLenum pname, const float *v, uint32_t n) {
    std::array<float, 4> value{};
    std::copy(v, v + std::min<uint32_t>(n, 4), value.begin());
    activeUnit().environment[{target, pname}] = value;
}

void CFFContextState::light(GLenum which, GLenum pname, const float *v, uint32_t n) {
    if (which < kLight0 || which >= kLight0 + kLights || n == 0) return;
    Light &l = lights[which - kLight0];
    auto four = [&](std::array<float, 4> &to) { std::copy(v, v + std::min<uint32_t>(n, 4), to.begin()); };
    switch (pname) {
    case kAmbient:
        four(l.ambient);
        break;
    case kDiffuse:
        four(l.diffuse);
        break;
    case kSpecular:
        four(l.specular);
        break;
    case kPosition:
        four(l.position.value);
        l.position.modelview = modelviewStack.back();
        break;
    case kSpotDirection:
        four(l.spotDirection.value);
        l.spotDirection.modelview = modelviewStack.back();
        break;
    case kSpotExponent:
        l.spotExponent = v[0];
        break;
    case kSpotCutoff:
        l.spotCutoff = v[0];
        break;
    case kConstantAttenuation:
        l.constantAttenuation = v[0];
        break;
    case kLinearAttenuation:
        l.linearAttenuation = v[0];
        break;
    case kQuadraticAttenuation:
        l.quadraticAttenuation = v[0];
        break;
    default:
        break;
    }
}

void CFFContextState::material(GLenum pname, const float *v, uint32_t n) {
    if (n == 0) return;
    auto four = [&](std::array<float, 4> &to) { std::copy(v, v + std::min<uint32_t>(n, 4), to.begin()); };
    switch (pname) {
    case kAmbient:
        four(materialAmbient);
        break;
    case kDiffuse:
        four(materialDiffuse);
        break;
    case kAmbientAndDiffuse:
        four(materialAmbient);
        four(materialDiffuse);
        break;
    case kSpecular:
        four(materialSpecular);
        break;
    case kEmission:
        four(materialEmission);
        break;
    case kShininess:
        materialShininess = v[0];
        break;
    default:
        break;
    }
}

void CFFContextState::fog(GLenum pname, const float *v, uint32_t n) {
    if (n == 0) return;
    switch (pname) {
    case kFogMode:
        fogMode = static_cast<GLenum>(v[0]);
        break;
    case kFogDensity:
        fogDensity = v[0];
        break;
    case kFogStart:
        fogStart = v[0];
        break;
    case kFogEnd:
        fogEnd = v[0];
        break;
    case kFogColor:
        std::copy(v, v + std::min<uint32_t>(n, 4), fogColor.begin());
        break;
    default:
        break;
    }
}

void CFFContextState::pointParameter(GLenum pname, const float *v, uint32_t n) {
    if (n == 0) return;
    switch (pname) {
    case kPointSizeMin:
        pointSizeMin = v[0];
        break;
    case kPointSizeMax:
        pointSizeMax = v[0];
        break;
    case kPointFadeThreshold:
        pointFadeThreshold = v[0];
        break;
    case kPointDistanceAttenuation:
        std::copy(v, v + std::min<uint32_t>(n, 3), pointDistanceAttenuation.begin());
        break;
    default:
        break;
    }
}

void CFFContextState::lightModel(GLenum pname, const float *v, uint32_t n) {
    if (n == 0) return;
    if (pname == kLightModelTwoSide) lightModelTwoSide = v[0] != 0;
    if (pname == kLightModelAmbient) std::copy(v, v + std::min<uint32_t>(n, 4), lightModelAmbient.begin());
}

uint16_t CFFContextState::coreEquivalent(uint16_t id) {
    // Made once from the catalogue's names: the OES fixed-point functions are the ES1 functions'
    // names with the suffix.
    static const std::map<uint16_t, uint16_t> equivalents = [] {
        std::map<uint16_t, uint16_t> byId;
        std::map<std::string, uint16_t> es1;
        for (uint16_t es1Id = 3000; es1Id <= 3145; ++es1Id)
            if (const char *name = api::functionName(es1Id)) es1[name] = es1Id;
        for (uint16_t extId = 4042; extId <= 4080; ++extId) {
            const char *name = api::functionName(extId);
            if (!name) continue;
            std::string core(name);
            if (core.size() < 4 || core.compare(core.size() - 3, 3, "OES") != 0) continue;
            core.resize(core.size() - 3);
            auto found = es1.find(core);
            if (found != es1.end()) byId[extId] = found->second;
        }
        return byId;
    }();
    if (id < 4000) return id;
    auto found = equivalents.find(id);
    return found == equivalents.end() ? id : found->second;
}

bool CFFContextState::changesState(uint16_t id) {
    id = coreEquivalent(id);
    if (id >= 4000) {
        switch (id) {
        case kCurrentPaletteMatrixOES:
        case kLoadPaletteFromModelViewMatrixOES:
        case kMatrixIndexPointerOES:
        case kWeightPointerOES:
        case kBindRenderbufferOES:
        case kDeleteRenderbuffersOES:
        case kRenderbufferStorageOES:
        case kBindFramebufferOES:
        case kDeleteFramebuffersOES:
        case kFramebufferTexture2DOES:
        case kFramebufferRenderbufferOES:
            return true;
        default:
            return false;
        }
    }
    switch (id) {
    case 3009: // glClear
    case 3024: // glCompressedTexSubImage2D
    case 3026: // glCopyTexSubImage2D
    case 3036: // glDrawArrays
    case 3037: // glDrawElements
    case 3040: // glFinish
    case 3041: // glFlush
    case 3053: // glGenBuffers
    case 3054: // glGenTextures
    case 3114: // glReadPixels
    case 3140: // glTexSubImage2D
        return false;
    default:
        // The queries: glGetBooleanv ... glGetTexParameterxv, glIsBuffer, glIsEnabled, glIsTexture.
        return !(id >= 3049 && id <= 3070) && !(id >= 3072 && id <= 3074);
    }
}

uint64_t CFFContextState::pointedBytes(uint16_t id, const uint64_t *args, uint32_t *argument) {
    id = coreEquivalent(id);
    const GLenum pname = static_cast<GLenum>(args[1]);
    auto values = [](GLenum p) -> uint64_t {
        switch (p) {
        case kAmbient:
        case kDiffuse:
        case kSpecular:
        case kPosition:
        case kEmission:
        case kAmbientAndDiffuse:
        case kLightModelAmbient:
        case kFogColor:
        case kTextureEnvColor:
        case GL_TEXTURE_BORDER_COLOR:
            return 16;
        case kSpotDirection:
        case kPointDistanceAttenuation:
            return 12;
        default:
            return 4;
        }
    };
    switch (id) {
    case 3007: // glBufferData
        *argument = 2;
        return args[2] ? args[1] : 0;
    case 3008: // glBufferSubData
        *argument = 3;
        return args[2];
    case 3016: // glClipPlanef
    case 3017:
        *argument = 1;
        return 16;
    case 3028: // glDeleteBuffers
    case 3029: // glDeleteTextures
    case kDeleteRenderbuffersOES:
    case kDeleteFramebuffersOES:
        *argument = 1;
        return static_cast<int32_t>(args[0]) > 0 ? static_cast<uint64_t>(static_cast<int32_t>(args[0])) * 4
                                                 : 0;
    case 3043: // glFogfv
    case 3045:
    case 3076: // glLightModelfv
    case 3078:
    case 3105: // glPointParameterfv
    case 3107:
        *argument = 1;
        return values(static_cast<GLenum>(args[0]));
    case 3080: // glLightfv
    case 3082:
    case 3090: // glMaterialfv
    case 3092:
    case 3128: // glTexEnvfv
    case 3130:
    case 3132:
    case 3135: // glTexParameterfv
    case 3137:
    case 3139:
        *argument = 2;
        return values(pname);
    case 3086: // glLoadMatrixf
    case 3087:
    case 3094: // glMultMatrixf
    case 3095:
        *argument = 0;
        return 64;
    default:
        return 0;
    }
}

void CFFContextState::deleteNames(uint16_t id, const uint32_t *names, uint32_t count) {
    SEs1Resources &objects = shared();
    // What a deleted texture or renderbuffer was attached to loses it, as in the driver (where the
    // attachment leaves only the bound framebuffer; the others keep a name the driver no longer
    // draws to, which a later attachment replaces).
    auto detach = [&](GLenum type, GLuint name) {
        for (auto &framebuffer : objects.framebuffers)
            for (auto &attachment : framebuffer.second.attachments)
                if (attachment.second.type == type && attachment.second.name == name &&
                    framebuffer.first == framebufferBinding)
                    attachment.second = SEs1Resources::Attachment{};
    };
    for (uint32_t k = 0; k < count; ++k) {
        const GLuint name = names[k];
        if (!name) continue;
        switch (id) {
        case 3028: // glDeleteBuffers
            objects.buffers.erase(name);
            if (arrayBuffer == name) arrayBuffer = 0;
            if (elementArrayBuffer == name) elementArrayBuffer = 0;
            break;
        case 3029: // glDeleteTextures
            objects.textures.erase(name);
            for (TextureUnit &u : units)
                if (u.binding2D == name) u.binding2D = 0;
            detach(kTextureObject, name);
            break;
        case kDeleteRenderbuffersOES:
            objects.renderbuffers.erase(name);
            if (renderbufferBinding == name) renderbufferBinding = 0;
            detach(kRenderbuffer, name);
            break;
        case kDeleteFramebuffersOES:
            objects.framebuffers.erase(name);
            if (framebufferBinding == name) framebufferBinding = 0;
            break;
        default:
            break;
        }
    }
}

void CFFContextState::apply(uint16_t id, const uint64_t *a, const void *data, uint64_t bytes) {
    id = coreEquivalent(id);
    auto f = [&](int i) { return slotFloat(a[i]); };
    auto x = [&](int i) { return fixedToFloat(static_cast<int32_t>(a[i])); };
    auto e = [&](int i) { return static_cast<GLenum>(a[i]); };
    auto i32 = [&](int i) { return static_cast<GLint>(a[i]); };
    const auto *words = static_cast<const uint32_t *>(data);
    const uint32_t wordCount = data ? static_cast<uint32_t>(bytes / 4) : 0;
    // The values a vector call points at, as the state keeps them.
    auto vector = [&](Kind kind, bool enumValued, float *out) {
        for (uint32_t k = 0; k < wordCount && k < 16; ++k)
            out[k] = toFloat(kind, words[k], enumValued);
        return wordCount;
    };
    auto matrix = [&](Kind kind, Matrix &m) {
        if (wordCount < 16) return false;
        for (int k = 0; k < 16; ++k)
            m[k] = toFloat(kind, words[k], false);
        return true;
    };
    auto setArray = [&](ClientArray &arr, GLint size, GLenum type, GLsizei stride, uint64_t pointer) {
        arr.size = size;
        arr.type = type;
        arr.stride = stride;
        arr.pointer = reinterpret_cast<const void *>(static_cast<uintptr_t>(pointer));
        arr.buffer = arrayBuffer;
    };
    auto clientState = [&](GLenum array, bool on) {
        switch (array) {
        case kVertexArray:
            vertexArray.enabled = on;
            break;
        case kNormalArray:
            normalArray.enabled = on;
            break;
        case kColorArray:
            colorArray.enabled = on;
            break;
        case kTexCoordArray:
            clientUnit().texCoordArray.enabled = on;
            break;
        case kPointSizeArray:
            pointSizeArray.enabled = on;
            break;
        case kMatrixIndexArray:
            matrixIndexArray.enabled = on;
            break;
        case kWeightArray:
            weightArray.enabled = on;
            break;
        default:
            break;
        }
    };
    auto capability = [&](GLenum cap, bool on) {
        if (cap == kTexture2D)
            activeUnit().enabled2D = on;
        else
            capabilities[cap] = on;
    };
    auto frustum = [&](float l, float r, float b, float t, float n, float fa) {
        if (l == r || b == t || n == fa) return;
        Matrix m{};
        m[0] = 2 * n / (r - l);
        m[5] = 2 * n / (t - b);
        m[8] = (r + l) / (r - l);
        m[9] = (t + b) / (t - b);
        m[10] = -(fa + n) / (fa - n);
        m[11] = -1;
        m[14] = -2 * fa * n / (fa - n);
        multiply(m);
    };
    auto ortho = [&](float l, float r, float b, float t, float n, float fa) {
        if (l == r || b == t || n == fa) return;
        Matrix m = identity();
        m[0] = 2 / (r - l);
        m[5] = 2 / (t - b);
        m[10] = -2 / (fa - n);
        m[12] = -(r + l) / (r - l);
        m[13] = -(t + b) / (t - b);
        m[14] = -(fa + n) / (fa - n);
        multiply(m);
    };
    auto rotate = [&](float angle, float rx, float ry, float rz) {
        float len = std::sqrt(rx * rx + ry * ry + rz * rz);
        if (len == 0) return;
        rx /= len, ry /= len, rz /= len;
        const float rad = angle * 3.14159265358979323846f / 180.0f;
        const float c = std::cos(rad), s = std::sin(rad), t = 1 - c;
        Matrix m = identity();
        m[0] = t * rx * rx + c;
        m[1] = t * rx * ry + s * rz;
        m[2] = t * rx * rz - s * ry;
        m[4] = t * rx * ry - s * rz;
        m[5] = t * ry * ry + c;
        m[6] = t * ry * rz + s * rx;
        m[8] = t * rx * rz + s * ry;
        m[9] = t * ry * rz - s * rx;
        m[10] = t * rz * rz + c;
        multiply(m);
    };
    auto scale = [&](float sx, float sy, float sz) {
        Matrix m = identity();
        m[0] = sx, m[5] = sy, m[10] = sz;
        multiply(m);
    };
    auto translate = [&](float tx, float ty, float tz) {
        Matrix m = identity();
        m[12] = tx, m[13] = ty, m[14] = tz;
        multiply(m);
    };
    float v[16] = {};
    Matrix m{};
    switch (id) {
    case 3001:
        activeTexture = e(0);
        break;
    case 3002:
        alphaFunc = e(0), alphaRef = f(1);
        break;
    case 3003:
        alphaFunc = e(0), alphaRef = x(1);
        break;
    case 3004:
        if (e(0) == GL_ARRAY_BUFFER) arrayBuffer = static_cast<GLuint>(a[1]);
        if (e(0) == GL_ELEMENT_ARRAY_BUFFER) elementArrayBuffer = static_cast<GLuint>(a[1]);
        if (a[1]) shared().buffers[static_cast<GLuint>(a[1])];
        break;
    case 3005:
        if (e(0) == kTexture2D) activeUnit().binding2D = static_cast<GLuint>(a[1]);
        if (a[1]) shared().textures[static_cast<GLuint>(a[1])].target = e(0);
        break;
    case 3006:
        blendSrc = e(0), blendDst = e(1);
        break;
    case 3007: { // glBufferData(target, size, data, usage)
        GLuint name = bufferBinding(e(0));
        if (!name) break;
        SEs1Resources::Buffer &buffer = shared().buffers[name];
        buffer.usage = e(3);
        const uint64_t size = static_cast<int64_t>(a[1]) > 0 ? a[1] : 0;
        buffer.contents.assign(static_cast<size_t>(size), 0);
        if (data && bytes == size && size)
            std::memcpy(buffer.contents.data(), data, static_cast<size_t>(size));
        break;
    }
    case 3008: { // glBufferSubData(target, offset, size, data)
        GLuint name = bufferBinding(e(0));
        if (!name || !data) break;
        std::vector<uint8_t> &contents = shared().buffers[name].contents;
        const uint64_t offset = a[1];
        if (offset <= contents.size() && bytes <= contents.size() - offset)
            std::memcpy(contents.data() + offset, data, static_cast<size_t>(bytes));
        break;
    }
    case 3010:
        clearColor = {f(0), f(1), f(2), f(3)};
        break;
    case 3011:
        clearColor = {x(0), x(1), x(2), x(3)};
        break;
    case 3012:
        clearDepth = f(0);
        break;
    case 3013:
        clearDepth = x(0);
        break;
    case 3014:
        clearStencil = i32(0);
        break;
    case 3015:
        clientActiveTexture = e(0);
        break;
    case 3016:
    case 3017:
        if (e(0) >= kClipPlane0 && e(0) < kClipPlane0 + kClipPlanes &&
            vector(id == 3016 ? Kind::Float : Kind::Fixed, false, v) >= 4) {
            EyeValue &plane = clipPlanes[e(0) - kClipPlane0];
            std::copy(v, v + 4, plane.value.begin());
            plane.modelview = modelviewStack.back();
        }
        break;
    case 3018:
        currentColor = {f(0), f(1), f(2), f(3)};
        break;
    case 3019:
        currentColor = {static_cast<uint8_t>(a[0]) / 255.0f, static_cast<uint8_t>(a[1]) / 255.0f,
                        static_cast<uint8_t>(a[2]) / 255.0f, static_cast<uint8_t>(a[3]) / 255.0f};
        break;
    case 3020:
        currentColor = {x(0), x(1), x(2), x(3)};
        break;
    case 3021:
        colorMask = {a[0] != 0, a[1] != 0, a[2] != 0, a[3] != 0};
        break;
    case 3022:
        setArray(colorArray, i32(0), e(1), i32(2), a[3]);
        break;
    case 3023:   // glCompressedTexImage2D(target, level, internalformat, width, height, border, size, data)
    case 3025:   // glCopyTexImage2D(target, level, internalformat, x, y, width, height, border)
    case 3133: { // glTexImage2D(target, level, internalformat, width, height, border, format, type, data)
        GLuint name = activeUnit().binding2D;
        if (!name) break;
        SEs1Resources::Level &level = shared().textures[name].levels[i32(1)];
        level.internalFormat = e(2);
        level.width = id == 3025 ? i32(5) : i32(3);
        level.height = id == 3025 ? i32(6) : i32(4);
        level.compressed = id == 3023;
        level.format = id == 3133 ? e(6) : e(2);
        level.type = id == 3133 ? e(7) : GL_UNSIGNED_BYTE;
        break;
    }
    case 3027:
        cullFace = e(0);
        break;
    case 3028:
    case 3029:
    case kDeleteRenderbuffersOES:
    case kDeleteFramebuffersOES:
        deleteNames(id, words, std::min<uint32_t>(wordCount, static_cast<uint32_t>(std::max(i32(0), 0))));
        break;
    case 3030:
        depthFunc = e(0);
        break;
    case 3031:
        depthMask = a[0] != 0;
        break;
    case 3032:
        depthRange[0] = f(0), depthRange[1] = f(1);
        break;
    case 3033:
        depthRange[0] = x(0), depthRange[1] = x(1);
        break;
    case 3034:
        capability(e(0), false);
        break;
    case 3035:
        clientState(e(0), false);
        break;
    case 3038:
        capability(e(0), true);
        break;
    case 3039:
        clientState(e(0), true);
        break;
    case 3042:
        v[0] = f(1);
        fog(e(0), v, 1);
        break;
    case 3044:
        v[0] = toFloat(Kind::Fixed, static_cast<uint32_t>(a[1]), e(0) == kFogMode);
        fog(e(0), v, 1);
        break;
    case 3043:
    case 3045:
        fog(e(0), v, vector(id == 3043 ? Kind::Float : Kind::Fixed, e(0) == kFogMode, v));
        break;
    case 3046:
        frontFace = e(0);
        break;
    case 3047:
        frustum(f(0), f(1), f(2), f(3), f(4), f(5));
        break;
    case 3048:
        frustum(x(0), x(1), x(2), x(3), x(4), x(5));
        break;
    case 3071:
        hints[e(0)] = e(1);
        break;
    case 3075:
        v[0] = f(1);
        lightModel(e(0), v, 1);
        break;
    case 3077:
        v[0] = toFloat(Kind::Fixed, static_cast<uint32_t>(a[1]), e(0) == kLightModelTwoSide);
        lightModel(e(0), v, 1);
        break;
    case 3076:
    case 3078:
        lightModel(e(0), v, vector(id == 3076 ? Kind::Float : Kind::Fixed, e(0) == kLightModelTwoSide, v));
        break;
    case 3079:
        v[0] = f(2);
        light(e(0), e(1), v, 1);
        break;
    case 3081:
        v[0] = x(2);
        light(e(0), e(1), v, 1);
        break;
    case 3080:
    case 3082:
        light(e(0), e(1), v, vector(id == 3080 ? Kind::Float : Kind::Fixed, false, v));
        break;
    case 3083:
        lineWidth = f(0);
        break;
    case 3084:
        lineWidth = x(0);
        break;
    case 3085:
        currentMatrix() = identity();
        break;
    case 3086:
    case 3087:
        if (matrix(id == 3086 ? Kind::Float : Kind::Fixed, m)) currentMatrix() = m;
        break;
    case 3088:
        logicOp = e(0);
        break;
    case 3089:
        v[0] = f(2);
        material(e(1), v, 1);
        break;
    case 3091:
        v[0] = x(2);
        material(e(1), v, 1);
        break;
    case 3090:
    case 3092:
        material(e(1), v, vector(id == 3090 ? Kind::Float : Kind::Fixed, false, v));
        break;
    case 3093:
        matrixMode = e(0);
        break;
    case 3094:
    case 3095:
        if (matrix(id == 3094 ? Kind::Float : Kind::Fixed, m)) multiply(m);
        break;
    case 3096:
    case 3097: {
        const GLenum unit = e(0) - GL_TEXTURE0;
        if (unit < kTextureUnits)
            units[unit].texCoord = id == 3096 ? std::array<float, 4>{f(1), f(2), f(3), f(4)}
                                              : std::array<float, 4>{x(1), x(2), x(3), x(4)};
        break;
    }
    case 3098:
        currentNormal = {f(0), f(1), f(2)};
        break;
    case 3099:
        currentNormal = {x(0), x(1), x(2)};
        break;
    case 3100:
        setArray(normalArray, 3, e(0), i32(1), a[2]);
        break;
    case 3101:
        ortho(f(0), f(1), f(2), f(3), f(4), f(5));
        break;
    case 3102:
        ortho(x(0), x(1), x(2), x(3), x(4), x(5));
        break;
    case 3103:
        if (e(0) == GL_PACK_ALIGNMENT) packAlignment = i32(1);
        if (e(0) == GL_UNPACK_ALIGNMENT) unpackAlignment = i32(1);
        break;
    case 3104:
        v[0] = f(1);
        pointParameter(e(0), v, 1);
        break;
    case 3106:
        v[0] = x(1);
        pointParameter(e(0), v, 1);
        break;
    case 3105:
    case 3107:
        pointParameter(e(0), v, vector(id == 3105 ? Kind::Float : Kind::Fixed, false, v));
        break;
    case 3108:
        pointSize = f(0);
        break;
    case 3109:
        pointSize = x(0);
        break;
    case 3110:
        polygonOffsetFactor = f(0), polygonOffsetUnits = f(1);
        break;
    case 3111:
        polygonOffsetFactor = x(0), polygonOffsetUnits = x(1);
        break;
    case 3112: {
        std::vector<Matrix> &stack = currentStack();
        if (stack.size() > 1) stack.pop_back();
        break;
    }
    case 3113: {
        std::vector<Matrix> &stack = currentStack();
        stack.push_back(stack.back());
        break;
    }
    case 3115:
        rotate(f(0), f(1), f(2), f(3));
        break;
    case 3116:
        rotate(x(0), x(1), x(2), x(3));
        break;
    case 3117:
        sampleCoverageValue = f(0), sampleCoverageInvert = a[1] != 0;
        break;
    case 3118:
        sampleCoverageValue = x(0), sampleCoverageInvert = a[1] != 0;
        break;
    case 3119:
        scale(f(0), f(1), f(2));
        break;
    case 3120:
        scale(x(0), x(1), x(2));
        break;
    case 3121:
        scissor[0] = i32(0), scissor[1] = i32(1), scissor[2] = i32(2), scissor[3] = i32(3);
        break;
    case 3122:
        shadeModel = e(0);
        break;
    case 3123:
        stencilFunc = e(0), stencilRef = i32(1), stencilValueMask = static_cast<GLuint>(a[2]);
        break;
    case 3124:
        stencilWriteMask = static_cast<GLuint>(a[0]);
        break;
    case 3125:
        stencilFail = e(0), stencilDepthFail = e(1), stencilDepthPass = e(2);
        break;
    case 3126:
        setArray(clientUnit().texCoordArray, i32(0), e(1), i32(2), a[3]);
        break;
    case 3127:
        v[0] = f(2);
        texEnv(e(0), e(1), v, 1);
        break;
    case 3129:
        v[0] = static_cast<float>(i32(2));
        texEnv(e(0), e(1), v, 1);
        break;
    case 3131:
        v[0] = toFloat(Kind::Fixed, static_cast<uint32_t>(a[2]), enumValuedEnvironment(e(1)));
        texEnv(e(0), e(1), v, 1);
        break;
    case 3128:
    case 3130:
    case 3132: {
        const Kind kind = id == 3128 ? Kind::Float : id == 3130 ? Kind::Int : Kind::Fixed;
        texEnv(e(0), e(1), v, vector(kind, enumValuedEnvironment(e(1)), v));
        break;
    }
    case 3134:
    case 3136:
    case 3138:
    case 3135:
    case 3137:
    case 3139: {
        GLuint name = e(0) == kTexture2D ? activeUnit().binding2D : 0;
        if (!name) break;
        std::array<float, 4> value{};
        if (id == 3134)
            value[0] = f(2);
        else if (id == 3136 || id == 3138) // fixed-point texture parameters are enums or flags
            value[0] = static_cast<float>(i32(2));
        else
            vector(id == 3135 ? Kind::Float : Kind::Int, true, value.data());
        shared().textures[name].parameters[e(1)] = value;
        break;
    }
    case 3141:
        translate(f(0), f(1), f(2));
        break;
    case 3142:
        translate(x(0), x(1), x(2));
        break;
    case 3143:
        setArray(vertexArray, i32(0), e(1), i32(2), a[3]);
        break;
    case 3144:
        viewport[0] = i32(0), viewport[1] = i32(1), viewport[2] = i32(2), viewport[3] = i32(3);
        break;
    case 3145:
        setArray(pointSizeArray, 1, e(0), i32(1), a[2]);
        break;
    case kCurrentPaletteMatrixOES:
        currentPaletteMatrix = static_cast<GLuint>(a[0]);
        break;
    case kLoadPaletteFromModelViewMatrixOES: {
        std::vector<Matrix> &stack = palette[currentPaletteMatrix];
        if (stack.empty()) stack.push_back(identity());
        stack.back() = modelviewStack.back();
        break;
    }
    case kMatrixIndexPointerOES:
        setArray(matrixIndexArray, i32(0), e(1), i32(2), a[3]);
        break;
    case kWeightPointerOES:
        setArray(weightArray, i32(0), e(1), i32(2), a[3]);
        break;
    case kBindRenderbufferOES:
        renderbufferBinding = static_cast<GLuint>(a[1]);
        if (renderbufferBinding) shared().renderbuffers[renderbufferBinding];
        break;
    case kRenderbufferStorageOES:
        if (renderbufferBinding) {
            SEs1Resources::Renderbuffer &r = shared().renderbuffers[renderbufferBinding];
            r.internalFormat = e(1), r.width = i32(2), r.height = i32(3);
        }
        break;
    case kBindFramebufferOES:
        framebufferBinding = static_cast<GLuint>(a[1]);
        if (framebufferBinding) shared().framebuffers[framebufferBinding];
        break;
    case kFramebufferTexture2DOES: // (target, attachment, textarget, texture, level)
        if (framebufferBinding) {
            SEs1Resources::Attachment &at = shared().framebuffers[framebufferBinding].attachments[e(1)];
            at = SEs1Resources::Attachment{};
            if (a[3]) at = {kTextureObject, static_cast<GLuint>(a[3]), e(2), i32(4)};
        }
        break;
    case kFramebufferRenderbufferOES: // (target, attachment, renderbuffertarget, renderbuffer)
        if (framebufferBinding) {
            SEs1Resources::Attachment &at = shared().framebuffers[framebufferBinding].attachments[e(1)];
            at = SEs1Resources::Attachment{};
            if (a[3]) at = {kRenderbuffer, static_cast<GLuint>(a[3]), 0, 0};
        }
        break;
    default:
        break;
    }
}

} // namespace kv
