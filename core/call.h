// The call wrapper protocol, written once: every exported entry point is an instance of Entry.
//
//   mode 0 (disabled)      call the host function, nothing else
//   modes 1 and 2          decide; call the host; learn the call's status; run the function's hooks
//                          (state updates, answers the library changes); write the call record
//   any other mode         return without calling anything
//
// How a call's status is learnt is the API's status policy (Api::Status): OpenGL ES and EGL ask the
// driver for its error after the call (QueriedError); OpenCL hands it back as the result or through
// errcode_ret (entry/cl/cl_call.h).
// What is special about one function lives in a specialisation of Hooks<F> (entry/*/hooks_*.h);
// what its record holds is generated from the API description (F::write).
#pragma once

#include "core/functions_autogen.h"
#include "core/call_types.h"
#include "core/manager.h"
#include "core/profiling.h"
#include "core/settings.h"
#include "base/slots.h"
#include "host/hosts.h"
#include "trace/trace_writer.h"

#include <atomic>
#include <type_traits>

namespace kv {

// Fills the decision every wrapper starts from: whether to call the host, check its error,
// record, and record data. Under the profiler the argument slots are filled so it can veto a call.
void fillDecision(Settings &settings, uint16_t id, CallDecision &d, ParamDesc *params);
// What runs once, before the first OpenCL call recorded with its data (the OpenCL family installs
// the writer of the platform description).
void setOpenClInitialisation(void (*initialise)());
// Says that a call could not be recorded (its record was dropped after an exception).
void reportUnrecorded(uint16_t id);

// The per-API last error values (the host's error after the latest call of that API).
extern uint32_t g_lastErrorEs1;
extern uint32_t g_lastErrorEs2;

// Set once the application holds an OpenGL ES function that does not pass through the library (a
// host address handed out by eglGetProcAddress): from then on an error such a call left in the
// driver is taken before each wrapped call, so that it is neither taken for the wrapped call's own
// nor lost to the application.
extern std::atomic<bool> g_unwrappedGlCalls;
// Moves an error the driver holds into the current context's pending error (entry/gles).
void takeStrayGlError();

// Reports, once per function, that the host library has no such function; the call then has no
// effect and is answered with nothing.
void reportMissingHostFunction(const char *name, std::atomic<bool> &reported);

// The API a host table belongs to: how to reach it and what its errors look like.
struct GlesApi {
    static constexpr uint32_t kSuccess = GL_NO_ERROR;
    static constexpr bool kChecksContext = false;
    static const GLESPPHost &host() { return GLESPPHost::get(); }
    static void takeStrayError() {
        if (KV_UNLIKELY(g_unwrappedGlCalls.load(std::memory_order_relaxed))) takeStrayGlError();
    }
    static void clearLastError() { g_lastErrorEs2 = 0; }
    static uint32_t queryError() { return host().fn.glGetError(); }
    static bool failed(uint32_t error) { return error != GL_NO_ERROR; }
    // Keeps the error for the application's own glGetError, which the check consumed.
    static void noteError(uint32_t error) {
        g_lastErrorEs2 = error;
        if (KV_UNLIKELY(error != GL_NO_ERROR)) keepError(error);
    }
    static void keepError(uint32_t error);
};

struct EglApi {
    static constexpr uint32_t kSuccess = EGL_SUCCESS;
    static constexpr bool kChecksContext = false;
    static const SEglHost &host() { return SEglHost::get(); }
    static void clearLastError() {}
    // Every EGL call of the application passes through the library (unknown EGL functions are
    // handed out as forwarding stubs), so the driver never holds an error the library has not seen.
    static void takeStrayError() {}
    static uint32_t queryError() { return static_cast<uint32_t>(host().fn.eglGetError()); }
    static bool failed(uint32_t error) { return error != EGL_SUCCESS; }
    // EGL reports the error of the latest call of the thread; the library answers eglGetError
    // from its own copy, since the check consumed the host's.
    static void noteError(uint32_t error);
};

// OpenGL ES 1.x. Its entry points have a two-way switch: pass-through forwards, every other mode
// runs the wrapper. After a successful call the fixed-function state of the context is updated
// from the arguments (entry/es1).
struct Es1Api {
    static constexpr uint32_t kSuccess = GL_NO_ERROR;
    static constexpr bool kChecksContext = false;
    static constexpr bool kTwoWay = true;
    static const SEs1Host &host() { return SEs1Host::get(); }
    // A function the library does not wrap (a host address from eglGetProcAddress) leaves its error
    // in the driver; the check after the next ES1 call takes it for the application as its own.
    static void takeStrayError() {}
    static void clearLastError() { g_lastErrorEs1 = 0; }
    static uint32_t queryError() {
        auto getError = host().fn.glGetError;
        return getError ? getError() : GL_NO_ERROR;
    }
    static bool failed(uint32_t error) { return error != GL_NO_ERROR; }
    static void noteError(uint32_t error);
    // The fixed-function state update of a successful call (state/ff_state.h).
    static void track(CallCtx &c, const uint64_t *args);
    // An extension function called on an OpenGL ES 1 context (entry/es1): what its record needs
    // from before the call (the contents of a mapping being given back), and, after it, the error
    // check and the fixed-function state update, as for the ES1 functions themselves.
    static void extensionBefore(CallCtx &c, const uint64_t *args);
    static void extensionAfter(CallCtx &c, const uint64_t *args, uint64_t result);
    template <class F, class... A>
    static void track(CallCtx &c, A... args) {
        if (c.failed) return;
        const uint64_t slots[sizeof...(A) + 1] = {toSlot(args)...};
        track(c, slots);
    }
};

template <class Api, class = void>
struct TwoWay : std::false_type {};
template <class Api>
struct TwoWay<Api, std::void_t<decltype(Api::kTwoWay)>> : std::bool_constant<Api::kTwoWay> {};

// Whether the profiler sees the API's calls (all but OpenCL's, which it does not count or edit).
template <class Api, class = void>
struct Profiled : std::true_type {};
template <class Api>
struct Profiled<Api, std::void_t<decltype(Api::kProfiled)>> : std::bool_constant<Api::kProfiled> {};

// The status policy of the APIs whose driver keeps an error to be asked for after the call.
template <class Api>
struct QueriedError {
    // A host without the function: the call has no effect and is answered with nothing.
    template <class F, class... A>
    static typename F::Ret missing(A...) {
        return typename F::Ret();
    }
    // Makes the host call (`host(args...)`) and, when `check`, takes the error it left; the
    // application's own glGetError / eglGetError is then answered from the copy kept here.
    template <class F, class Host, class... A>
    static auto call(CallCtx &c, bool check, Host &&host, A... args) {
        auto result = host(args...);
        if (check) {
            c.error = Api::queryError();
            c.failed = Api::failed(c.error);
            Api::noteError(c.error);
        }
        return result;
    }
};

template <class Api, class = void>
struct StatusOf {
    using type = QueriedError<Api>;
};
template <class Api>
struct StatusOf<Api, std::void_t<typename Api::Status>> {
    using type = typename Api::Status;
};

// No value, for functions that return nothing.
struct Void {};

template <class T>
using ValueOf = std::conditional_t<std::is_void_v<T>, Void, T>;

// The default hooks: nothing special.
struct HookDefaults {
    // True when the call is to go to the host untouched and unrecorded.
    template <class... A>
    static bool bypass(CallCtx &, A...) {
        return false;
    }
    // Before the host call (only when the host is called).
    template <class... A>
    static void before(CallCtx &, A...) {}
    // After the host call and the error check: state updates and changed answers.
    template <class R, class... A>
    static void after(CallCtx &, R &, A...) {}
    // After the record is written.
    template <class R, class... A>
    static void done(CallCtx &, R &, A...) {}
    // When set, Hooks::host(ctx, args...) replaces the host call.
    static constexpr bool kReplacesHost = false;
    // Cleared for a call after which the driver can hold no error of its own (the error query
    // itself): the check after it would only ask the driver again.
    static constexpr bool kChecksError = true;
};

template <class F>
struct Hooks : HookDefaults {};

// The function whose hooks a function runs: itself, or, for an extension function that is an alias
// of a core function, that core function (entry/ext/ext_functions_autogen.h names them).
template <class F>
struct HookTarget {
    using type = F;
};

// Writes the record of one call of F: its error (c.error), its result and its arguments. A record
// that cannot be made (memory ran out in a capture) is dropped whole and the lock given back, and
// the answer is false: the application gets its answer either way.
template <class F, class R, class... A>
bool writeRecord(CallCtx &c, const R &result, A... args) {
    RecordHandle h = trace::begin(F::id);
    if (h) {
        c.record = &h;
        try {
            h.u32(c.error);
            if constexpr (F::result != api::Type::None) rec::put<F::result>(h, result);
            F::write(h, c, args...);
        } catch (...) {
            c.record = nullptr;
            trace::abandon(h);
            reportUnrecorded(F::id);
            return false;
        }
        c.record = nullptr;
    }
    trace::finish(h, &c.recordPosition);
    return true;
}

template <class Api, class F, class Status = typename StatusOf<Api>::type>
struct Entry {
    using Ret = typename F::Ret;
    using Value = ValueOf<Ret>;
    using H = Hooks<typename HookTarget<F>::type>;

    template <class... A>
    static Ret call(A... args) {
        Settings &settings = fastSettings();
        const int32_t mode = settings.mode.load(std::memory_order_relaxed);
        if constexpr (TwoWay<Api>::value) {
            if (mode == kModeDisabled) return forward(args...);
            return wrapped(settings, args...);
        }
        if (KV_LIKELY(mode == kModeRecording || mode == kModeProfiling)) return wrapped(settings, args...);
        if (mode == kModeDisabled) return forward(args...);
        return Ret();
    }

private:
    // A host table entry is null when the host lacks the function: such a slot is never jumped
    // through.
    template <class... A>
    KV_NOINLINE static Ret missing(A... args) {
        static std::atomic<bool> reported{false};
        reportMissingHostFunction(F::name, reported);
        return Status::template missing<F>(args...);
    }

    template <class... A>
    static Ret forward(A... args) {
        auto fn = Api::host().fn.*F::slot;
        if (KV_UNLIKELY(!fn)) return missing(args...);
        return fn(args...);
    }

    template <class... A>
    static Value callHost(CallCtx &c, A... args) {
        if constexpr (H::kReplacesHost) {
            return H::host(c, args...);
        } else if constexpr (std::is_void_v<Ret>) {
            (Api::host().fn.*F::slot)(args...);
            return Value{};
        } else {
            return (Api::host().fn.*F::slot)(args...);
        }
    }

    template <class... A>
    KV_NOINLINE static Ret wrapped(Settings &settings, A... args) {
        CallCtx c;
        c.id = F::id;
        // The arguments as slots are for the profiler only; without one they are not made.
        uint64_t slots[sizeof...(A) + 1];
        ParamDesc params{slots, static_cast<uint32_t>(sizeof...(A))};
        if (Profiled<Api>::value && KV_UNLIKELY(settings.profilingEnabled)) {
            uint32_t i = 0;
            ((slots[i++] = toSlot(args)), ...);
        }
        setCurrentFunction(F::id);
        fillDecision(settings, F::id, c.d, &params);
        if (H::bypass(c, args...)) return forward(args...);
        if constexpr (Api::kChecksContext) {
            // Extension functions: no current context, or one whose driver lacks the extension,
            // skips the call.
            if (!Api::template admit<F>(c)) return Ret();
        }
        // Whether the call has the shadow state and the error handling of an OpenGL ES 2/3 or EGL
        // call; an extension function on an OpenGL ES 1 context has those of the ES1 functions
        // (Es1Api::extensionBefore / extensionAfter) instead.
        const bool tracked = !Api::kChecksContext || !c.es1;
        [[maybe_unused]] uint64_t es1Args[sizeof...(A) + 1];
        if constexpr (Api::kChecksContext) {
            if (!tracked) {
                uint32_t i = 0;
                ((es1Args[i++] = toSlot(args)), ...);
            }
        }

        Api::clearLastError();
        c.error = Api::kSuccess;
        Value result{};
        // Under the profiler: an override may keep the call from the driver.
        const bool profiled = Profiled<Api>::value && KV_UNLIKELY(c.d.profiler != nullptr);
        if (profiled && c.d.callHost) c.d.callHost = c.d.profiler->preCall(F::id, params);
        if (c.d.callHost) {
            if constexpr (!H::kReplacesHost) {
                if (KV_UNLIKELY(!(Api::host().fn.*F::slot))) return missing(args...);
            }
            Api::takeStrayError();
            if (tracked) H::before(c, args...);
            if constexpr (Api::kChecksContext) {
                if (!tracked) Es1Api::extensionBefore(c, es1Args);
            }
            result = Status::template call<F>(
                c, H::kChecksError && c.d.checkErrors && tracked,
                [&c](auto... passed) { return callHost(c, passed...); }, args...);
            if constexpr (Api::kChecksContext) {
                if (!tracked) {
                    uint64_t resultSlot = 0;
                    if constexpr (!std::is_void_v<Ret>) resultSlot = toSlot(result);
                    Es1Api::extensionAfter(c, es1Args, resultSlot);
                }
            }
        } else if constexpr (F::result == api::Type::EglBoolean) {
            // A call recorded without reaching the driver (the render-state snapshot) answers as
            // the driver would have: EGL_TRUE.
            result = EGL_TRUE;
        }
        if (tracked) H::after(c, result, args...);
        if (profiled) {
            uint64_t resultSlot = 0;
            if constexpr (!std::is_void_v<Ret>) resultSlot = toSlot(result);
            c.d.profiler->postCall(F::id, params, resultSlot, c.failed, c.d.callHost);
        }
        if constexpr (TwoWay<Api>::value) {
            if (c.d.callHost) Api::template track<F>(c, args...);
        }
        if constexpr (!std::is_void_v<Ret>) c.result = toSlot(result);
        if (c.d.record && !writeRecord<F>(c, result, args...)) {
            H::done(c, result, args...);
            if constexpr (!std::is_void_v<Ret>)
                return result;
            else
                return;
        }
        if (tracked) H::done(c, result, args...);
        if constexpr (!std::is_void_v<Ret>) return result;
    }
};

} // namespace kv
