#include "state/context_state.h"

#include <algorithm>
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

GLenum textureTargetOfImage(GLenum imageTarget) {
    if (imageTarget >= GL_TEXTURE_CUBE_MAP_POSITIVE_X && imageTarget <= GL_TEXTURE_CUBE_MAP_NEGATIVE_Z)
        return GL_TEXTURE_CUBE_MAP;
    return imageTarget;
}

namespace {

// The faces a stencil call writes: [0] front, [1] back.
bool writesFront(GLenum face) {
    return face == GL_FRONT || face == GL_FRONT_AND_BACK;
}
bool writesBack(GLenum face) {
    return face == GL_BACK || face == GL_FRONT_AND_BACK;
}

using Uniforms = std::map<GLint, CEs2ContextState::SEs2Resources::Uniform>;

// The elements [from, from + count) of a kept value as a value of their own.
CEs2ContextState::SEs2Resources::Uniform elements(const CEs2ContextState::SEs2Resources::Uniform &value,
                                                  int64_t from, int64_t count) {
    CEs2ContextState::SEs2Resources::Uniform part = value;
    size_t perElement = value.words.size() / static_cast<size_t>(value.count);
    part.count = static_cast<GLsizei>(count);
    part.words.assign(value.words.begin() + static_cast<ptrdiff_t>(from * perElement),
                      value.words.begin() + static_cast<ptrdiff_t>((from + count) * perElement));
    return part;
}

// Takes the locations [first, end) out of the kept values, keeping what lies before and after.
void carveOut(Uniforms &uniforms, int64_t first, int64_t end) {
    std::vector<GLint> overlapping;
    auto it = uniforms.lower_bound(static_cast<GLint>(first));
    if (it != uniforms.begin()) {
        auto before = std::prev(it);
        if (int64_t(before->first) + std::max<GLsizei>(before->second.count, 1) > first)
            overlapping.push_back(before->first);
    }
    for (; it != uniforms.end() && it->first < end; ++it)
        overlapping.push_back(it->first);
    for (GLint key : overlapping) {
        auto node = uniforms.extract(key);
        const auto &value = node.mapped();
        int64_t count = value.count;
        if (count <= 0 || value.words.size() % static_cast<size_t>(count) != 0) continue;
        int64_t last = key + count;
        if (key < first) uniforms[key] = elements(value, 0, first - key);
        if (last > end) uniforms[static_cast<GLint>(end)] = elements(value, end - key, last - end);
    }
}

} // namespace

StateLock &stateLock() {
    static StateLock lock; // trivially destructible: usable until the process ends
    return lock;
}

namespace {
thread_local bool t_heldForSnapshot = false;
}

StateSnapshotLock::StateSnapshotLock() {
    stateLock().lock();
    t_heldForSnapshot = true;
}
StateSnapshotLock::~StateSnapshotLock() {
    t_heldForSnapshot = false;
    stateLock().unlock();
}

StateReadGuard::StateReadGuard() : taken_(!t_heldForSnapshot) {
    if (taken_) stateLock().lock();
}
StateReadGuard::~StateReadGuard() {
    if (taken_) stateLock().unlock();
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

// ---- Bindings -------------------------------------------------------------------------------------

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

CEs2ContextState::SEs2Resources::Texture *CEs2ContextState::boundTextureRecord(GLenum imageTarget) {
    GLenum target = textureTargetOfImage(imageTarget);
    GLuint name = boundTexture(target);
    if (name == 0) return nullptr;
    SEs2Resources::Texture &texture = shared().textures[name];
    if (!texture.target) texture.target = target;
    return &texture;
}

GLuint CEs2ContextState::uniformProgram() const {
    if (currentProgram != 0 || programPipelineBinding == 0) return currentProgram;
    auto pipeline = programPipelines.find(programPipelineBinding);
    return pipeline == programPipelines.end() ? 0 : pipeline->second.activeProgram;
}

// ---- Pipeline settings ----------------------------------------------------------------------------

void CEs2ContextState::setCapability(GLenum cap, bool enabled) {
    capabilities[cap] = enabled;
    for (auto it = indexedCapabilities.lower_bound({cap, 0});
         it != indexedCapabilities.end() && it->first.first == cap;)
        it = indexedCapabilities.erase(it);
}

void CEs2ContextState::setCapabilityIndexed(GLenum cap, GLuint index, bool enabled) {
    indexedCapabilities[{cap, index}] = enabled;
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

void CEs2ContextState::setBlendEquation(GLenum mode) {
    blendEquationSeparate = 0;
    blendEquationRgb = mode;
}

void CEs2ContextState::setBlendEquationSeparate(GLenum rgb, GLenum alpha) {
    blendEquationSeparate = 1;
    blendEquationRgb = rgb;
    blendEquationAlpha = alpha;
}

void CEs2ContextState::setBlendFunc(GLenum src, GLenum dst) {
    setBlendFuncSeparate(src, dst, src, dst);
}

void CEs2ContextState::setBlendFuncSeparate(GLenum srcRgb, GLenum dstRgb, GLenum srcAlpha, GLenum dstAlpha) {
    blendSrcRgb = srcRgb;
    blendDstRgb = dstRgb;
    blendSrcAlpha = srcAlpha;
    blendDstAlpha = dstAlpha;
}

void CEs2ContextState::setPolygonOffset(float factor, float units) {
    // Keyed on the factor by design: the pairs are addressed by the numeric values of
    // GL_POLYGON_OFFSET_FACTOR and GL_POLYGON_OFFSET_UNITS.
    if (factor == 32824.0f)
        polygonOffset[0] = units;
    else if (factor == 10752.0f)
        polygonOffset[1] = units;
}

void CEs2ContextState::setStencilFunc(GLenum face, GLenum func, GLint ref, GLuint mask) {
    for (int i = 0; i < 2; ++i) {
        if (i == 0 ? !writesFront(face) : !writesBack(face)) continue;
        stencilFunc[i] = func;
        stencilRef[i] = ref;
        stencilValueMask[i] = mask;
    }
}

void CEs2ContextState::setStencilMask(GLenum face, GLuint mask) {
    if (writesFront(face)) stencilWriteMask[0] = mask;
    if (writesBack(face)) stencilWriteMask[1] = mask;
}

void CEs2ContextState::setStencilOp(GLenum face, GLenum fail, GLenum depthFail, GLenum depthPass) {
    for (int i = 0; i < 2; ++i) {
        if (i == 0 ? !writesFront(face) : !writesBack(face)) continue;
        stencilFail[i] = fail;
        stencilDepthFail[i] = depthFail;
        stencilDepthPass[i] = depthPass;
    }
}

// ---- Vertex arrays --------------------------------------------------------------------------------

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
                                            const uint32_t *words) {
    AttributeRecord &attribute = currentVao().attributes[index];
    attribute.index = index;
    attribute.constantComponents = components;
    attribute.constantType = type;
    attribute.constantValues.assign(words, words + components);
    attribute.sourceBuffer = 0;
}

void CEs2ContextState::bindVertexBuffer(GLuint bindingIndex, GLuint buffer, int64_t offset, GLsizei stride) {
    BindingRecord &binding = currentVao().bindings[bindingIndex];
    binding.index = bindingIndex;
    binding.buffer = buffer;
    binding.offset = static_cast<uint64_t>(offset);
    binding.stride = static_cast<uint32_t>(stride);
    binding.clientPointer = nullptr;
}

void CEs2ContextState::setVertexAttribFormat(GLuint index, GLint size, GLenum type, GLboolean normalized,
                                             GLuint relativeOffset, bool integer) {
    AttributeRecord &attribute = currentVao().attributes[index];
    attribute.index = index;
    attribute.size = size;
    attribute.type = type;
    attribute.normalized = normalized ? 1 : 0;
    attribute.relativeOffset = relativeOffset;
    attribute.integer = integer ? 1 : 0;
}

void CEs2ContextState::setVertexAttribBinding(GLuint index, GLuint bindingIndex) {
    VaoRecord &vao = currentVao();
    vao.attributes[index].index = index;
    vao.attributeBinding[index] = bindingIndex;
}

void CEs2ContextState::setVertexBindingDivisor(GLuint bindingIndex, GLuint divisor) {
    BindingRecord &binding = currentVao().bindings[bindingIndex];
    binding.index = bindingIndex;
    binding.divisor = divisor;
}

void CEs2ContextState::setVertexAttribDivisor(GLuint index, GLuint divisor) {
    setVertexAttribBinding(index, index);
    setVertexBindingDivisor(index, divisor);
}

// ---- Framebuffers and renderbuffers -------------------------------------------------------------

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

void CEs2ContextState::fillSlot(GLenum target, GLenum attachment, GLenum objectType, GLuint name, GLint level,
                                GLenum textureTarget) {
    AttachmentSlot *slot = attachmentSlot(target, attachment);
    if (!slot) return;
    slot->objectType = objectType;
    slot->name = name;
    slot->level = level;
    // GL_TEXTURE_2D is what a slot without a target stands for: it leaves the earlier value.
    if (textureTarget != GL_TEXTURE_2D) slot->textureTarget = textureTarget;
    slot->layer = -1;
    slot->layered = false;
}

void CEs2ContextState::framebufferTexture2D(GLenum target, GLenum attachment, GLenum textureTarget,
                                            GLuint texture, GLint level) {
    fillSlot(target, attachment, GL_TEXTURE, texture, level, textureTarget);
}

void CEs2ContextState::framebufferRenderbuffer(GLenum target, GLenum attachment, GLenum renderbufferTarget,
                                               GLuint renderbuffer) {
    fillSlot(target, attachment, GL_RENDERBUFFER, renderbuffer, 0, renderbufferTarget);
}

void CEs2ContextState::framebufferTextureLayer(GLenum target, GLenum attachment, GLuint texture, GLint level,
                                               GLint layer) {
    AttachmentSlot *slot = attachmentSlot(target, attachment);
    if (!slot) return;
    auto known = shared().textures.find(texture);
    slot->objectType = GL_TEXTURE;
    slot->name = texture;
    slot->level = level;
    if (texture != 0 && known != shared().textures.end() && known->second.target)
        slot->textureTarget = known->second.target;
    slot->layer = layer;
    slot->layered = false;
}

void CEs2ContextState::framebufferTexture(GLenum target, GLenum attachment, GLuint texture, GLint level) {
    framebufferTextureLayer(target, attachment, texture, level, -1);
    if (AttachmentSlot *slot = attachmentSlot(target, attachment)) slot->layered = texture != 0;
}

void CEs2ContextState::setDrawBuffers(std::vector<GLenum> buffers) {
    if (drawFramebuffer != 0)
        framebuffers[drawFramebuffer].drawBuffers = std::move(buffers);
    else
        defaultDrawBuffers = std::move(buffers);
}

void CEs2ContextState::setReadBuffer(GLenum buffer) {
    if (readFramebuffer != 0)
        framebuffers[readFramebuffer].readBuffer = buffer;
    else
        defaultReadBuffer = buffer;
}

void CEs2ContextState::renderbufferStorage(GLsizei samples, GLenum internalFormat, GLsizei width,
                                           GLsizei height) {
    if (renderbufferBinding == 0) return;
    RenderbufferRecord &record = renderbuffers[renderbufferBinding];
    record.internalFormat = internalFormat;
    record.width = width;
    record.height = height;
    record.samples = samples;
}

// ---- Object deletion ------------------------------------------------------------------------------

void CEs2ContextState::detachEverywhere(GLenum objectType, GLuint name) {
    // Only the framebuffers bound to this context lose the attachment.
    for (GLuint bound : {drawFramebuffer, readFramebuffer}) {
        FramebufferRecord *fb = bound ? framebuffer(bound) : nullptr;
        if (!fb) continue;
        for (AttachmentSlot *slot : {&fb->depth, &fb->stencil, &fb->depthStencil})
            if (slot->objectType == objectType && slot->name == name) *slot = AttachmentSlot{};
        for (AttachmentSlot &slot : fb->color)
            if (slot.objectType == objectType && slot.name == name) slot = AttachmentSlot{};
    }
}

void CEs2ContextState::deleteBuffer(GLuint name) {
    if (name == 0) return;
    shared().buffers.erase(name);
    for (auto &binding : bufferBindings)
        if (binding.second == name) binding.second = 0;
    VaoRecord &vao = currentVao();
    if (vao.elementArrayBuffer == name) vao.elementArrayBuffer = 0;
    for (auto &binding : vao.bindings) {
        if (binding.second.buffer != name) continue;
        binding.second.buffer = 0;
        binding.second.offset = 0;
    }
    for (auto it = indexedBindings.begin(); it != indexedBindings.end();)
        it = it->second.buffer == name ? indexedBindings.erase(it) : std::next(it);
    auto forget = [name](std::map<GLuint, IndexedBinding> &buffers) {
        for (auto it = buffers.begin(); it != buffers.end();)
            it = it->second.buffer == name ? buffers.erase(it) : std::next(it);
    };
    forget(defaultTransformFeedback.buffers);
    for (auto &entry : shared().transformFeedbacks)
        forget(entry.second.buffers);
}

void CEs2ContextState::deleteTexture(GLuint name) {
    if (name == 0) return;
    shared().textures.erase(name);
    for (auto &unit : textureUnits)
        for (auto it = unit.second.begin(); it != unit.second.end();)
            it = it->second == name ? unit.second.erase(it) : std::next(it);
    detachEverywhere(GL_TEXTURE, name);
    for (auto it = imageUnits.begin(); it != imageUnits.end();)
        it = it->second.texture == name ? imageUnits.erase(it) : std::next(it);
}

void CEs2ContextState::deleteFramebuffer(GLuint name) {
    if (name == 0) return;
    framebuffers.erase(name);
    if (drawFramebuffer == name) drawFramebuffer = 0;
    if (readFramebuffer == name) readFramebuffer = 0;
}

void CEs2ContextState::deleteRenderbuffer(GLuint name) {
    if (name == 0) return;
    renderbuffers.erase(name);
    if (renderbufferBinding == name) renderbufferBinding = 0;
    detachEverywhere(GL_RENDERBUFFER, name);
}

void CEs2ContextState::deleteVertexArray(GLuint name) {
    if (name == 0) return;
    vaos.erase(name);
    if (currentVaoName == name) bindVertexArray(0);
}

void CEs2ContextState::deleteSampler(GLuint name) {
    if (name == 0) return;
    shared().samplers.erase(name);
    for (auto it = samplerBindings.begin(); it != samplerBindings.end();)
        it = it->second == name ? samplerBindings.erase(it) : std::next(it);
}

void CEs2ContextState::deleteQuery(GLuint name) {
    if (name == 0) return;
    shared().queries.erase(name);
    for (auto it = activeQueries.begin(); it != activeQueries.end();)
        it = it->second == name ? activeQueries.erase(it) : std::next(it);
}

void CEs2ContextState::deleteTransformFeedback(GLuint name) {
    if (name == 0) return;
    shared().transformFeedbacks.erase(name);
    if (transformFeedbackBinding == name) transformFeedbackBinding = 0;
}

void CEs2ContextState::deleteProgramPipeline(GLuint name) {
    if (name == 0) return;
    programPipelines.erase(name);
    if (programPipelineBinding == name) programPipelineBinding = 0;
}

// ---- Programs and shaders -------------------------------------------------------------------------

void CEs2ContextState::releaseShaderIfUnused(GLuint shader) {
    auto it = shared().shaders.find(shader);
    if (it == shared().shaders.end() || !it->second.deleted) return;
    for (const auto &program : shared().programs) {
        const auto &attached = program.second.shaders;
        if (std::find(attached.begin(), attached.end(), shader) != attached.end()) return;
    }
    shared().shaders.erase(it);
}

void CEs2ContextState::useProgram(GLuint program) {
    GLuint previous = currentProgram;
    currentProgram = program;
    programChanged = false;
    if (previous == 0 || previous == program) return;
    auto it = shared().programs.find(previous);
    if (it != shared().programs.end() && it->second.deleted) deleteProgram(previous);
}

void CEs2ContextState::deleteShader(GLuint name) {
    if (name == 0) return;
    auto it = shared().shaders.find(name);
    if (it == shared().shaders.end()) return;
    it->second.deleted = true;
    releaseShaderIfUnused(name);
}

void CEs2ContextState::deleteProgram(GLuint name) {
    if (name == 0) return;
    auto it = shared().programs.find(name);
    if (it == shared().programs.end()) return;
    if (currentProgram == name) {
        it->second.deleted = true;
        return;
    }
    std::vector<GLuint> attached = std::move(it->second.shaders);
    shared().programs.erase(it);
    for (GLuint shader : attached)
        releaseShaderIfUnused(shader);
}

void CEs2ContextState::attachShader(GLuint program, GLuint shader) {
    auto &attached = shared().programs[program].shaders;
    if (std::find(attached.begin(), attached.end(), shader) == attached.end()) attached.push_back(shader);
}

void CEs2ContextState::detachShader(GLuint program, GLuint shader) {
    auto it = shared().programs.find(program);
    if (it == shared().programs.end()) return;
    auto &attached = it->second.shaders;
    attached.erase(std::remove(attached.begin(), attached.end(), shader), attached.end());
    releaseShaderIfUnused(shader);
}

void CEs2ContextState::linkProgram(GLuint program) {
    // Linking gives the program new uniform storage: values, block bindings and the locations
    // handed out start over.
    auto &record = shared().programs[program];
    record.linked = true;
    record.uniforms.clear();
    record.uniformBlockBindings.clear();
    record.uniformNames.clear();
    record.uniformBlockNames.clear();
}

void CEs2ContextState::setUniform(GLuint program, GLint location, uint16_t call, GLsizei count,
                                  GLboolean transpose, const uint32_t *words, size_t wordCount) {
    if (program == 0) program = uniformProgram();
    if (program == 0 || location < 0 || count <= 0 || wordCount == 0) return;
    auto &uniforms = shared().programs[program].uniforms;
    // Kept values never overlap: a value of the same span at the same location is the only one
    // the new value covers, and it is overwritten in place (the common case: a uniform set again
    // every frame, with no allocation).
    auto it = uniforms.find(location);
    if (it == uniforms.end() || it->second.count != count) {
        carveOut(uniforms, location, int64_t(location) + count);
        it = uniforms.try_emplace(location).first;
    }
    SEs2Resources::Uniform &value = it->second;
    value.call = call;
    value.count = count;
    value.transpose = transpose;
    value.words.assign(words, words + wordCount);
}

// ---- Queries and transform feedback ---------------------------------------------------------------

void CEs2ContextState::beginQuery(GLenum target, GLuint query) {
    shared().queries[query].activeTarget = target;
    activeQueries[target] = query;
}

void CEs2ContextState::endQuery(GLenum target) {
    auto active = activeQueries.find(target);
    if (active == activeQueries.end()) return;
    auto query = shared().queries.find(active->second);
    if (query != shared().queries.end()) query->second.activeTarget = 0;
    activeQueries.erase(active);
}

CEs2ContextState::SEs2Resources::TransformFeedback &CEs2ContextState::currentTransformFeedback() {
    if (transformFeedbackBinding == 0) return defaultTransformFeedback;
    return shared().transformFeedbacks[transformFeedbackBinding];
}

} // namespace kv
