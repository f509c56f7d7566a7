// The OpenCL family in the call wrapper protocol of core/call.h: its entry points are
// Entry<ClApi, F>, and what differs from the other families is the status policy below. A call's
// status stands where other families record an error: a function returning cl_int returns it; one
// with an errcode_ret stores it there, and when the application passes no errcode_ret the wrapper
// passes a location of its own, so that every call's status is known and recorded. The
// application's own pointer is what the record shows, and a null one is never written through.
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

// The status of an OpenCL call: returned, or stored through errcode_ret.
struct ClStatus {
    // A host without the function: the application hears CL_INVALID_OPERATION instead of a jump
    // through a null entry.
    template <class F, class... A>
    static typename F::Ret missing(A... args) {
        using Ret = typename F::Ret;
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

    // The status is known whether or not errors are checked: it comes with the call.
    template <class F, class Host, class... A>
    static typename F::Ret call(CallCtx &c, bool, Host &&host, A... args) {
        using Ret = typename F::Ret;
        static_assert(!std::is_void_v<Ret>, "every OpenCL function returns a status, a handle or a pointer");
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
        Ret result = std::apply(host, passed);
        if constexpr (std::is_same_v<Ret, cl_int>)
            c.error = static_cast<uint32_t>(result);
        else if constexpr (F::statusArg >= 0)
            c.error = static_cast<uint32_t>(*std::get<F::statusArg>(passed));
        if constexpr (IsInfoQuery<A...>::value) c.scratch[capture::kInfoStatedSize] = ownSize;
        c.failed = static_cast<cl_int>(c.error) != CL_SUCCESS;
        return result;
    }
};

// The OpenCL host table. The driver keeps no error between calls, and the profiler does not see
// OpenCL calls.
struct ClApi {
    using Status = ClStatus;
    static constexpr uint32_t kSuccess = CL_SUCCESS;
    static constexpr bool kChecksContext = false;
    static constexpr bool kProfiled = false;
    static const SClHost &host() { return SClHost::get(); }
    static void clearLastError() {}
    static void takeStrayError() {}
};

} // namespace kv
