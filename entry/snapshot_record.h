// Writing one snapshot record: a call that made an object or set a value, written by the
// function's own record writer (fn::X::write) as if the application had made it, without reaching
// the driver. Shared by the ES2/3 and the ES1 snapshots.
#pragma once

#include "core/call.h"
#include "state/egl_state.h"

#include <memory>
#include <utility>

namespace kv::snapshot {

// A record of F with the given error and result, written as the wrapper writes it.
template <class F, class R, class... A>
void callR(uint32_t error, R result, A... args) {
    CallCtx c;
    c.id = F::id;
    c.d.record = true;
    c.d.recordData = true;
    c.error = error;
    if constexpr (F::result != api::Type::None) c.result = toSlot(result);
    writeRecord<F>(c, result, args...);
}

// An OpenGL ES call that succeeded and returns nothing.
template <class F, class... A>
void record(A... args) {
    callR<F>(GL_NO_ERROR, Void{}, args...);
}

// glGen* of one name.
template <class F>
void genOne(GLuint name) {
    record<F>(1, &name);
}

// The thread's view of which context is current, moved for the records of another context: the
// record writers size what they copy (texture rows, for example) from the current context's shadow.
struct CurrentFor {
    egl::ThreadState &t;
    std::shared_ptr<egl::ContextRecord> saved;
    CurrentFor(egl::ThreadState &thread, std::shared_ptr<egl::ContextRecord> context)
        : t(thread), saved(thread.current) {
        t.current = std::move(context);
    }
    ~CurrentFor() { t.current = std::move(saved); }
};

} // namespace kv::snapshot
