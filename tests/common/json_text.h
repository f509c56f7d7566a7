// Configuration texts written by the tests and the benchmarks.
#pragma once

#include <string>

namespace kv::test {

// `text` as a JSON string literal (paths and names: quotes and backslashes escaped).
inline std::string jsonQuoted(const std::string &text) {
    std::string out = "\"";
    for (char c : text) {
        if (c == '"' || c == '\\') out += '\\';
        out += c;
    }
    return out + "\"";
}

} // namespace kv::test
