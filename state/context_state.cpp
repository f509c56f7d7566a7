#include "state/context_state.h"

#include <cstring>

namespace kv {

uint32_t componentTypeSize(GLenum type) {
    switch (type) {
    case GL_BYTE:
    case GL_UNSIGNED_BYTE:
        return 1;
    case GL_SHORT:
    case GL_UNSIGNED_SHORT:
    case GL_HALF_FLOAT:
    case GL_HALF_FLOAT_OES:
    case GL_UNSIGNED_SHORT_4_4_4_4:
    case GL_UNSIGNED_SHORT_5_5_5_1:
    case GL_UNSIGNED_SHORT_5_6_5:
        return 2;
    case GL_INT:
    case GL_UNSIGNED_INT:
    case GL_FLOAT:
    case GL_FIXED:
    case GL_UNSIGNED_INT_2_10_10_10_REV:
    case GL_INT_2_10_10_10_REV:
    case GL_UNSIGNED_INT_24_8:
    case GL_UNSIGNED_INT_10F_11F_11F_REV:
    case GL_UNSIGNED_INT_5_9_9_9_REV:
        return 4;
    case GL_FLOAT_32_UNSIGNED_INT_24_8_REV:
        return 8;
    default:
        return 0;
    }
}

platform::Mutex &stateLock() {
    static platform::Mutex *lock = new platform::Mutex();
    return *lock;
}

CEs2ContextState::CEs2ContextState() : resources_() {
    static const Pair stores[10] = {
        {GL_PACK_ALIGNMENT, 4},      {GL_UNPACK_ALIGNMENT, 4},  {GL_UNPACK_SKIP_IMAGES, 0},
        {GL_UNPACK_IMAGE_HEIGHT, 0}, {GL_UNPACK_ROW_LENGTH, 0}, {GL_UNPACK_SKIP_ROWS, 0},
        {GL_UNPACK_SKIP_PIXELS, 0},  {GL_PACK_ROW_LENGTH, 0},   {GL_PACK_SKIP_ROWS, 0},
        {GL_PACK_SKIP_PIXELS, 0},
    };
    std::memcpy(pixelStores, stores, sizeof(stores));
    hints[0] = {GL_GENERATE_MIPMAP_HINT, GL_DONT_CARE};
    hints[1] = {GL_FRAGMENT_SHADER_DERIVATIVE_HINT, GL_DONT_CARE};
    vaos[0];
}

CEs2ContextState::~CEs2ContextState() = default;

void CEs2ContextState::initialise(uint32_t apiVersion) {
    apiVersion_ = apiVersion;
    if (apiVersion == 2) {
        pixelStoreCount = 2;
        hintCount = 2;
    } else if (apiVersion >= 3 && apiVersion <= 5) {
        pixelStoreCount = 10;
        hintCount = 2;
    }
}

GLuint &CEs2ContextState::bufferBinding(GLenum target) {
    if (target == GL_ELEMENT_ARRAY_BUFFER) return currentVao().elementArrayBuffer;
    return bufferBindings[target];
}

GLuint CEs2ContextState::framebufferBinding(GLenum target) const {
    if (target == GL_READ_FRAMEBUFFER) return readFramebuffer;
    if (target == GL_DRAW_FRAMEBUFFER || target == GL_FRAMEBUFFER) return drawFramebuffer;
    return 0;
}

void CEs2ContextState::bindFramebuffer(GLenum target, GLuint name) {
    if (target == GL_READ_FRAMEBUFFER) {
        readFramebuffer = name;
    } else if (target == GL_DRAW_FRAMEBUFFER) {
        drawFramebuffer = name;
    } else if (target == GL_FRAMEBUFFER) {
        readFramebuffer = drawFramebuffer = name;
    } else {
        return;
    }
    if (name != 0) framebuffers[name];
}

void CEs2ContextState::bindTexture(GLenum target, GLuint name) {
    textureUnits[activeTexture - GL_TEXTURE0][target] = name;
}

GLuint CEs2ContextState::boundTexture(GLenum target) {
    auto unit = textureUnits.find(activeTexture - GL_TEXTURE0);
    if (unit == textureUnits.end()) return 0;
    auto it = unit->second.find(target);
    return it == unit->second.end() ? 0 : it->second;
}

void CEs2ContextState::setPixelStore(GLenum pname, GLint value) {
    for (uint32_t i = 0; i < pixelStoreCount; ++i) {
        if (pixelStores[i].name == pname) {
            pixelStores[i].value = value;
            return;
        }
    }
}

GLint CEs2ContextState::pixelStore(GLenum pname) const {
    for (uint32_t i = 0; i < pixelStoreCount; ++i)
        if (pixelStores[i].name == pname) return pixelStores[i].value;
    return pname == GL_PACK_ALIGNMENT || pname == GL_UNPACK_ALIGNMENT ? 4 : 0;
}

void CEs2ContextState::setHint(GLenum target, GLenum mode) {
    for (uint32_t i = 0; i < hintCount; ++i) {
        if (hints[i].name == target) {
            hints[i].value = static_cast<GLint>(mode);
            return;
        }
    }
}

VaoRecord &CEs2ContextState::currentVao() {
    return vaos[currentVaoName];
}

void CEs2ContextState::bindVertexArray(GLuint name) {
    currentVaoName = name;
    vaos[name];
}

void CEs2ContextState::setVertexAttribPointer(GLuint index, GLint size, GLenum type, GLboolean normalized,
                                              GLsizei stride, const void *pointer, bool integer) {
    VaoRecord &vao = currentVao();
    AttributeRecord &attribute = vao.attributes[index];
    attribute.index = index;
    attribute.normalized = normalized ? 1 : 0;
    attribute.size = size;
    attribute.type = type;
    attribute.relativeOffset = 0;
    attribute.integer = integer ? 1 : 0;
    vao.attributeBinding[index] = index;
    uint32_t effectiveStride =
        stride != 0 ? static_cast<uint32_t>(stride) : static_cast<uint32_t>(size) * componentTypeSize(type);
    GLuint buffer = bufferBinding(GL_ARRAY_BUFFER);
    BindingRecord &binding = vao.bindings[index];
    binding.index = index;
    binding.buffer = buffer;
    binding.offset = buffer != 0 ? static_cast<uint64_t>(reinterpret_cast<uintptr_t>(pointer)) : 0;
    binding.stride = effectiveStride;
    binding.clientPointer = nullptr;
    if (buffer == 0) binding.clientPointer = pointer;
}

void CEs2ContextState::setConstantAttribute(GLuint index, uint32_t components, GLenum type,
                                            const void *values) {
    AttributeRecord &attribute = currentVao().attributes[index];
    attribute.index = index;
    attribute.constantComponents = components;
    attribute.constantType = type;
    attribute.constantValues.assign(components, 0);
    if (values) std::memcpy(attribute.constantValues.data(), values, components * 4u);
    attribute.sourceBuffer = 0;
}

FramebufferRecord *CEs2ContextState::framebuffer(GLuint name) {
    auto it = framebuffers.find(name);
    return it == framebuffers.end() ? nullptr : &it->second;
}

AttachmentSlot *CEs2ContextState::attachmentSlot(GLenum target, GLenum attachment) {
    GLuint name = framebufferBinding(target);
    FramebufferRecord *fb = name ? framebuffer(name) : nullptr;
    if (!fb) return nullptr;
    if (attachment == GL_DEPTH_ATTACHMENT) return &fb->depth;
    if (attachment == GL_STENCIL_ATTACHMENT) return &fb->stencil;
    if (attachment == GL_DEPTH_STENCIL_ATTACHMENT) return &fb->depthStencil;
    if (attachment >= GL_COLOR_ATTACHMENT0 && attachment < GL_COLOR_ATTACHMENT0 + 16)
        return &fb->color[attachment - GL_COLOR_ATTACHMENT0];
    return nullptr;
}

} // namespace kv
