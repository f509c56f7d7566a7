#include "analysis/shader_rewrite.h"

#include <cstring>

namespace kv::analysis {

namespace {
const char kDiscard[] = "discard";
const char kRaiseAndReturn[] = "b_vandor_ostrek = true; return";
const char kFlagDeclaration[] = "bool b_vandor_ostrek = false;\n";
const char kMain[] = "main";
const char kOriginalMain[] = "pellum_kast_original_main_trimbel_osk";
const char kDefaultMagenta[] = "gl_FragColor = vec4(1.0,0.0,1.0,1.0);\n";

bool space(char c) {
    return c == ' ' || c == '\t' || c == '\n' || c == '\r' || c == '\v' || c == '\f';
}
bool blank(char c) {
    return c == ' ' || c == '\t';
}

// Where a discard may stand alone: white space, the end of a statement, or what was a comment.
bool discardBoundary(char c) {
    return space(c) || c == ';' || c == '/';
}

const char *const kOutputTypes[] = {
    "bool",   "bvec2", "bvec3",  "bvec4",  "float",  "int",    "ivec2",  "ivec3",  "ivec4",  "mat2",
    "mat3",   "mat4",  "mat2x2", "mat2x3", "mat2x4", "mat3x2", "mat3x3", "mat3x4", "mat4x2", "mat4x3",
    "mat4x4", "uint",  "uvec2",  "uvec3",  "uvec4",  "vec2",   "vec3",   "vec4",
};
bool outputType(const std::string &word) {
    for (const char *t : kOutputTypes)
        if (word == t) return true;
    return false;
}

// The next word of `text` from `pos` (white space skipped first), up to white space or the end.
std::string nextWord(const std::string &text, size_t &pos) {
    while (pos < text.size() && space(text[pos]))
        ++pos;
    const size_t start = pos;
    while (pos < text.size() && !space(text[pos]))
        ++pos;
    return text.substr(start, pos - start);
}

// Replaces each discard that stands alone; false when there is none.
bool replaceDiscards(std::string &text) {
    bool replaced = false;
    const size_t n = sizeof kDiscard - 1;
    for (size_t at = text.find(kDiscard); at != std::string::npos; at = text.find(kDiscard, at)) {
        const size_t after = at + n;
        const bool before = at == 0 || discardBoundary(text[at - 1]);
        if (!before || after >= text.size() || !discardBoundary(text[after])) {
            at = after;
            continue;
        }
        // The flag and the return go in braces up to the statement's end: in the common
        // "if (a < 0.5) discard;" the return would otherwise leave every fragment's main early.
        const size_t end = text.find(';', after);
        std::string replacement = kRaiseAndReturn;
        if (end != std::string::npos) {
            text.insert(end + 1, "}");
            replacement = "{" + replacement;
        }
        text.replace(at, n, replacement);
        at += replacement.size();
        replaced = true;
    }
    return replaced;
}

void renameMain(std::string &text) {
    const size_t n = sizeof kMain - 1;
    for (size_t at = text.find(kMain); at != std::string::npos; at = text.find(kMain, at)) {
        const size_t after = at + n;
        const bool before = at == 0 || space(text[at - 1]);
        if (before && after < text.size() && (space(text[after]) || text[after] == '(')) {
            text.replace(at, n, kOriginalMain);
            at += sizeof kOriginalMain - 1;
        } else {
            at = after;
        }
    }
}

// Splits off a leading version line (with its new line) from the rest of the text.
void splitVersion(const std::string &text, std::string *version, std::string *body) {
    size_t p = 0;
    while (p < text.size() && space(text[p]))
        ++p;
    size_t q = p;
    if (q < text.size() && text[q] == '#') {
        ++q;
        while (q < text.size() && blank(text[q]))
            ++q;
        if (text.compare(q, 7, "version") == 0) {
            const size_t nl = text.find('\n', q);
            if (nl == std::string::npos) {
                *version = text.substr(p) + "\n";
                body->clear();
            } else {
                *version = text.substr(p, nl + 1 - p);
                *body = text.substr(nl + 1);
            }
            return;
        }
    }
    version->clear();
    *body = text;
}
} // namespace

std::string withoutComments(const std::string &source) {
    std::string text = source;
    size_t pos = 0;
    while ((pos = text.find('/', pos)) != std::string::npos) {
        if (pos + 1 >= text.size()) break;
        if (text[pos + 1] == '/') {
            const size_t nl = text.find('\n', pos);
            text.erase(pos, nl == std::string::npos ? std::string::npos : nl - pos);
        } else if (text[pos + 1] == '*') {
            const size_t close = text.find("*/", pos + 2);
            if (close == std::string::npos) {
                ++pos;
                continue;
            }
            text.erase(pos, close + 2 - pos);
        } else {
            ++pos;
        }
    }
    return text;
}

int shaderVersionClass(const std::string &text) {
    // The first line that, after any white space (new lines included), holds "#", white space,
    // "version", white space and the version itself.
    for (size_t line = 0; line <= text.size();) {
        size_t p = line;
        while (p < text.size() && space(text[p]))
            ++p;
        if (p < text.size() && text[p] == '#') {
            size_t q = p + 1;
            while (q < text.size() && space(text[q]))
                ++q;
            if (text.compare(q, 7, "version") == 0 && q + 7 < text.size() && space(text[q + 7])) {
                q += 7;
                while (q < text.size() && space(text[q]))
                    ++q;
                std::string version;
                for (; q < text.size() && text[q] != '\n'; ++q)
                    if (!space(text[q])) version += text[q];
                if (version == "310es") return 2;
                if (version == "300es") return 1;
                if (version == "100" || version == "100es") return 0;
                return -1;
            }
        }
        const size_t nl = text.find('\n', line);
        if (nl == std::string::npos) break;
        line = nl + 1;
    }
    return 0;
}

std::string magentaAssignments(const std::string &body) {
    std::string assignments;
    for (size_t at = body.find("out"); at != std::string::npos; at = body.find("out", at + 3)) {
        if (at == 0 || !space(body[at - 1]) || at + 3 >= body.size() || !space(body[at + 3])) continue;
        size_t pos = at + 3;
        std::string type;
        for (;;) {
            const std::string word = nextWord(body, pos);
            if (word.empty() || word.find(';') != std::string::npos) break;
            if (word == "lowp" || word == "mediump" || word == "highp") continue;
            if (outputType(word)) {
                type = word;
                break;
            }
        }
        if (type.empty()) continue;
        while (pos < body.size() && space(body[pos]))
            ++pos;
        const size_t start = pos;
        while (pos < body.size() && !space(body[pos]) && body[pos] != ';')
            ++pos;
        const std::string name = body.substr(start, pos - start);
        if (name.empty()) continue;
        if (type == "vec4")
            assignments += name + " = vec4(1.0,0.0,1.0,1.0);\n";
        else if (type == "vec3")
            assignments += name + " = vec3(1.0,0.0,1.0);\n";
        else
            assignments += name + " = " + type + "(1.0);\n";
    }
    return assignments.empty() ? kDefaultMagenta : assignments;
}

bool DiscardRewriter::rewrite(const std::string &source, std::string *out) {
    std::string text = withoutComments(source);
    if (text.find(kDiscard) == std::string::npos || !replaceDiscards(text)) return false;
    renameMain(text);
    std::string version, body;
    splitVersion(text, &version, &body);
    if (!made_) {
        wrapper_ = std::string("\nvoid main()\n{\n\t") + kOriginalMain + "();\n\tif(b_vandor_ostrek)\n\t\t" +
                   magentaAssignments(body) + "}\n";
        made_ = true;
    }
    *out = version + kFlagDeclaration + body + wrapper_;
    return true;
}

DiscardRewriter &processRewriter() {
    static DiscardRewriter *rewriter = new DiscardRewriter(); // kept to the very end of the process
    return *rewriter;
}

} // namespace kv::analysis
