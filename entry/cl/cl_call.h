// The OpenCL entry points: the call wrapper protocol of core/call.h with the call's status in place
// of an API error. A function returning cl_int returns its status; one with an errcode_ret stores it
// there, and when the application passes no errcode_ret the wrapper passes a status of its own, so
// that every call's status is known and recorded. The application's own pointer is what the record
// shows, and a null one is never written through.
#pragma once

#include "core/call.h"
#include "entry/cl/cl_capture.h"
#include "entry/cl/cl_hooks.h"
#include "entry/hooks.h"

#include <tuple>
#include <type_traits>

namespace kv {

// An info query: its last three parameters are the value buffer's size, the buffer and the
// location of the size the host states. Every OpenCL info query has this shape.
template <class... A>
struct IsInfoQuery : std::false_type {};
template <class A0, class... A>
struct IsInfoQuery<A0, A...> {
    using Params = std::tuple<A0, A...>;
    static constexpr size_t kCount = sizeof...(A) + 1;
    template <size_t I>
    using At = std::tuple_element_t<I, Params>;
    static constexpr bool value = [] {
        if constexpr (kCount < 3)
            return false;
        else
            return std::is_same_v<At<kCount - 3>, size_t> && std::is_same_v<At<kCount - 2>, void *> &&
                   std::is_same_v<At<kCount - 1>, size_t *>;
    }();
};

template <class F>
struct ClEntry {
    using Ret = typename F::Ret;
    using H = Hooks<F>;
    static_assert(!std::is_void_v<Ret>, "every OpenCL function returns a status, a handle or a pointer");

    template <class... A>
    static Ret call(A... args) {
        Settings &settings = fastSettings();
        const int32_t mode = settings.mode.load(std::memory_order_relaxed);
        if (KV_LIKELY(mode == kModeRecording || mode == kModeProfiling)) return wrapped(settings, args...);
        if (mode == kModeDisabled) return forward(args...);
        return Ret();
    }

private:
    // A host without the function: the application hears CL_INVALID_OPERATION instead of a jump
    // through a null entry.
    template <class... A>
    KV_NOINLINE static Ret missing(A... args) {
        static std::atomic<bool> reported{false};
        reportMissingHostFunction(F::name, reported);
        if constexpr (std::is_same_v<Ret, cl_int>) {
            return CL_INVALID_OPERATION;
        } else {
            if constexpr (F::statusArg >= 0) {
                if (auto *status = std::get<F::statusArg>(std::make_tuple(args...)))
                    *status = CL_INVALID_OPERATION;
            }
            return Ret();
        }
    }

    template <class... A>
    static Ret forward(A... args) {
        auto fn = SClHost::get().fn.*F::slot;
        if (KV_UNLIKELY(!fn)) return missing(args...);
        return fn(args...);
    }

    template <class... A>
    KV_NOINLINE static Ret wrapped(Settings &settings, A... args) {
        CallCtx c;
        c.id = F::id;
        ParamDesc params{nullptr, static_cast<uint32_t>(sizeof...(A))};
        setCurrentFunction(F::id);
        fillDecision(settings, F::id, c.d, &params);
        if (H::bypass(c, args...)) return forward(args...);

        c.error = CL_SUCCESS;
        Ret result{};
        if (c.d.callHost) {
            auto fn = SClHost::get().fn.*F::slot;
            if (KV_UNLIKELY(!fn)) return missing(args...);
            H::before(c, args...);
            cl_int ownStatus = CL_SUCCESS;
            std::tuple<A...> passed(args...);
            if constexpr (F::statusArg >= 0) {
                auto &location = std::get<F::statusArg>(passed);
                if (!location) location = &ownStatus;
            }
            // An info query without a size location still has its size asked for, so that the
            // record holds the bytes the host wrote rather than the whole buffer. The application
            // passed none and none of its memory is written.
            size_t ownSize = 0;
            if constexpr (IsInfoQuery<A...>::value) {
                constexpr size_t last = sizeof...(A) - 1;
                if (!std::get<last>(passed) && std::get<last - 1>(passed)) {
                    std::get<last>(passed) = &ownSize;
                    c.scratch[capture::kInfoStatedFlag] = 1;
                }
            }
            if constexpr (H::kReplacesHost)
                result = std::apply([&c](auto... passedArgs) { return H::host(c, passedArgs...); }, passed);
            else
                result = std::apply(fn, passed);
            if constexpr (std::is_same_v<Ret, cl_int>)
                c.error = static_cast<uint32_t>(result);
            else if constexpr (F::statusArg >= 0)
                c.error = static_cast<uint32_t>(*std::get<F::statusArg>(passed));
            if constexpr (IsInfoQuery<A...>::value) c.scratch[capture::kInfoStatedSize] = ownSize;
            c.failed = static_cast<cl_int>(c.error) != CL_SUCCESS;
        }
        H::after(c, result, args...);
        c.result = toSlot(result);
        if (c.d.record) {
            RecordHandle h = trace::begin(F::id);
            if (h) {
                c.record = &h;
                try {
                    h.u32(c.error);
                    rec::put<F::result>(h, result);
                    F::write(h, c, args...);
                } catch (...) {
                    c.record = nullptr;
                    trace::abandon(h);
                    reportUnrecorded(F::id);
                    H::done(c, result, args...);
                    return result;
                }
                c.record = nullptr;
            }
            trace::finish(h, &c.recordPosition);
        }
        H::done(c, result, args...);
        return result;
    }
};

} // namespace kv
