// Reference-counted pointer whose payload is owned by a polymorphic holder. The count is a plain
// counter: copies are only made under the locks of their users (context creation).
#pragma once

#include <utility>

namespace kv {

template <class T>
class SharedPtr {
    struct HolderBase {
        virtual ~HolderBase() = default;
        long count = 1;
        T *object = nullptr;
    };
    template <class U>
    struct Holder final : HolderBase {
        explicit Holder(U *p) { this->object = p; }
        ~Holder() override { delete static_cast<U *>(this->object); }
    };

public:
    SharedPtr() = default;
    template <class U>
    explicit SharedPtr(U *object) : holder_(object ? new Holder<U>(object) : nullptr) {}
    SharedPtr(const SharedPtr &other) : holder_(other.holder_) {
        if (holder_) ++holder_->count;
    }
    SharedPtr(SharedPtr &&other) noexcept : holder_(std::exchange(other.holder_, nullptr)) {}
    SharedPtr &operator=(SharedPtr other) noexcept {
        std::swap(holder_, other.holder_);
        return *this;
    }
    ~SharedPtr() { release(); }

    T *get() const { return holder_ ? holder_->object : nullptr; }
    T *operator->() const { return get(); }
    T &operator*() const { return *get(); }
    explicit operator bool() const { return get() != nullptr; }
    long useCount() const { return holder_ ? holder_->count : 0; }
    void reset() {
        release();
        holder_ = nullptr;
    }

private:
    void release() {
        if (holder_ && --holder_->count == 0) delete holder_;
    }
    HolderBase *holder_ = nullptr;
};

template <class T, class... Args>
SharedPtr<T> makeShared(Args &&...args) {
    return SharedPtr<T>(new T(std::forward<Args>(args)...));
}

} // namespace kv
