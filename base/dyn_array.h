// Growable array for the recording path: capacity doubles (starting from max(capacity, 1)) until
// a request fits, elements are moved to the new allocation, and the capacity is kept when the
// array is emptied, so that a warmed-up record costs no allocation.
#pragma once

#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <new>
#include <type_traits>
#include <utility>

namespace kv {

template <class T>
class DynArray {
public:
    DynArray() = default;
    ~DynArray() {
        clear();
        std::free(data_);
    }
    DynArray(const DynArray &other) { append(other.data_, other.size_); }
    DynArray &operator=(const DynArray &other) {
        if (this != &other) {
            clear();
            append(other.data_, other.size_);
        }
        return *this;
    }
    DynArray(DynArray &&other) noexcept
        : data_(std::exchange(other.data_, nullptr)), size_(std::exchange(other.size_, 0)),
          capacity_(std::exchange(other.capacity_, 0)) {}
    DynArray &operator=(DynArray &&other) noexcept {
        if (this != &other) {
            clear();
            std::free(data_);
            data_ = std::exchange(other.data_, nullptr);
            size_ = std::exchange(other.size_, 0);
            capacity_ = std::exchange(other.capacity_, 0);
        }
        return *this;
    }

    T *data() { return data_; }
    const T *data() const { return data_; }
    uint32_t size() const { return size_; }
    uint32_t capacity() const { return capacity_; }
    bool empty() const { return size_ == 0; }
    T &operator[](uint32_t i) { return data_[i]; }
    const T &operator[](uint32_t i) const { return data_[i]; }
    T *begin() { return data_; }
    T *end() { return data_ + size_; }
    const T *begin() const { return data_; }
    const T *end() const { return data_ + size_; }
    T &back() { return data_[size_ - 1]; }

    void reserve(uint32_t required) {
        if (required <= capacity_) return;
        uint32_t capacity = capacity_ ? capacity_ : 1;
        while (capacity < required)
            capacity *= 2;
        T *fresh = static_cast<T *>(std::malloc(sizeof(T) * capacity));
        if (!fresh) std::abort();
        if constexpr (std::is_trivially_copyable_v<T>) {
            if (size_) std::memcpy(static_cast<void *>(fresh), data_, sizeof(T) * size_);
        } else {
            for (uint32_t i = 0; i < size_; ++i) {
                new (fresh + i) T(std::move(data_[i]));
                data_[i].~T();
            }
        }
        std::free(data_);
        data_ = fresh;
        capacity_ = capacity;
    }

    void push_back(const T &value) {
        if (size_ == capacity_) reserve(size_ + 1);
        new (data_ + size_) T(value);
        ++size_;
    }

    // Appends n elements copied from src (trivially copyable types only).
    inline __attribute__((always_inline)) void append(const T *src, uint32_t n) {
        if (n == 0) return;
        if (__builtin_expect(size_ + n > capacity_, 0)) reserve(size_ + n);
        if constexpr (std::is_trivially_copyable_v<T>) {
            std::memcpy(static_cast<void *>(data_ + size_), src, sizeof(T) * n);
        } else {
            for (uint32_t i = 0; i < n; ++i)
                new (data_ + size_ + i) T(src[i]);
        }
        size_ += n;
    }

    // Grows by n elements and returns a pointer to the first new one. Trivial types are left
    // uninitialised (the caller writes them), others are default-constructed.
    inline __attribute__((always_inline)) T *grow(uint32_t n) {
        if (__builtin_expect(size_ + n > capacity_, 0)) reserve(size_ + n);
        T *first = data_ + size_;
        if constexpr (!std::is_trivially_default_constructible_v<T>) {
            for (uint32_t i = 0; i < n; ++i)
                new (first + i) T();
        }
        size_ += n;
        return first;
    }

    void clear() {
        if constexpr (!std::is_trivially_destructible_v<T>) {
            for (uint32_t i = 0; i < size_; ++i)
                data_[i].~T();
        }
        size_ = 0;
    }

private:
    T *data_ = nullptr;
    uint32_t size_ = 0;
    uint32_t capacity_ = 0;
};

} // namespace kv
