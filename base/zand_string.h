// The library's own byte string: owning, always 0-terminated, with printf-style formatting.
#pragma once

#include <cstdarg>
#include <string>

namespace kv {

class CZandString {
public:
    static constexpr size_t npos = std::string::npos;

    CZandString() = default;
    CZandString(const char *text) : s_(text ? text : "") {}
    CZandString(const char *text, size_t n) : s_(text, n) {}
    CZandString(std::string text) : s_(std::move(text)) {}

    static CZandString format(const char *fmt, ...) __attribute__((format(printf, 1, 2)));
    static CZandString vformat(const char *fmt, va_list args);

    const char *c_str() const { return s_.c_str(); }
    size_t size() const { return s_.size(); }
    bool empty() const { return s_.empty(); }
    const std::string &str() const { return s_; }
    size_t find(const char *what, size_t from = 0) const { return s_.find(what, from); }
    size_t find(char what, size_t from = 0) const { return s_.find(what, from); }
    CZandString substr(size_t pos, size_t n = npos) const { return CZandString(s_.substr(pos, n)); }
    CZandString &append(const char *text) {
        s_.append(text);
        return *this;
    }
    CZandString &append(const char *text, size_t n) {
        s_.append(text, n);
        return *this;
    }
    CZandString &operator+=(const CZandString &other) {
        s_ += other.s_;
        return *this;
    }
    CZandString &operator+=(const char *text) { return append(text); }
    // Replaces every occurrence of `from` by `to`, starting again after each replacement.
    CZandString &replaceAll(const char *from, const char *to);
    bool operator==(const CZandString &other) const { return s_ == other.s_; }
    bool operator!=(const CZandString &other) const { return s_ != other.s_; }
    bool operator<(const CZandString &other) const { return s_ < other.s_; }
    char operator[](size_t i) const { return s_[i]; }
    void clear() { s_.clear(); }

private:
    std::string s_;
};

} // namespace kv
