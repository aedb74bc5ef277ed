#include "support/pf.h"

#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>

#include <cerrno>
#include <charconv>
#include <cstdio>
#include <map>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "support/containers.h"
#include "support/elog.h"

// One name of a block: a scalar (block empty) or a nested block.
struct PfEntry {
    std::string text;
    std::unique_ptr<Pf> block;
};

struct Pf {
    std::map<std::string, PfEntry> entries;
};

namespace {

// --- One line ---

enum class LineKind { blank, close, open, scalar, error };

struct Line {
    LineKind kind = LineKind::blank;
    std::string name;
    std::string text;  // the scalar's value, or the error's wording
};

bool is_blank(char c) { return c == ' ' || c == '\t' || c == '\r' || c == '\f' || c == '\v'; }

bool ends_name(char c) { return is_blank(c) || c == '{' || c == '}' || c == '#' || c == '"'; }

size_t skip_blanks(std::string_view s, size_t i) {
    while (i < s.size() && is_blank(s[i])) ++i;
    return i;
}

// True when nothing but blanks and a comment follow position i.
bool rest_is_empty(std::string_view s, size_t i) {
    i = skip_blanks(s, i);
    return i == s.size() || s[i] == '#';
}

Line line_error(std::string text) { return Line{LineKind::error, "", std::move(text)}; }

// A quoted value starting at the opening quote s[i]; the closing quote may
// be followed only by blanks and a comment.
Line quoted_value(std::string_view s, size_t i, std::string name) {
    std::string value;
    for (++i; i < s.size(); ++i) {
        char c = s[i];
        if (c == '"') {
            if (!rest_is_empty(s, i + 1)) return line_error("text after the closing quote");
            return Line{LineKind::scalar, std::move(name), std::move(value)};
        }
        if (c == '\\') {
            if (i + 1 == s.size()) break;
            char next = s[++i];
            if (next != '"' && next != '\\')
                return line_error(std::string("bad escape '\\") + next + "' in quotes (only \\\" and \\\\)");
            c = next;
        }
        value += c;
    }
    return line_error("unterminated quote");
}

// An unquoted value: the rest of the line up to a comment, blanks trimmed.
// Braces and quotes inside it are refused: they almost always mean a block
// line or a closing brace got merged into a scalar line.
Line plain_value(std::string_view s, size_t i, std::string name) {
    size_t end = s.find('#', i);
    if (end == std::string_view::npos) end = s.size();
    while (end > i && is_blank(s[end - 1])) --end;
    std::string value(s.substr(i, end - i));
    if (value.find('}') != std::string::npos) return line_error("'}' must stand alone on its line");
    if (value.find('{') != std::string::npos)
        return line_error("'{' must end a line that holds only the block name");
    if (value.find('"') != std::string::npos)
        return line_error("'\"' inside an unquoted value (quote the whole value)");
    return Line{LineKind::scalar, std::move(name), std::move(value)};
}

// What one line of the file says.
Line classify_line(std::string_view s) {
    if (s.find('\0') != std::string_view::npos) return line_error("a NUL byte in the line");
    size_t i = skip_blanks(s, 0);
    if (i == s.size() || s[i] == '#') return Line{};
    if (s[i] == '}') {
        if (!rest_is_empty(s, i + 1)) return line_error("text after '}'");
        return Line{LineKind::close, "", ""};
    }
    if (s[i] == '{') return line_error("'{' without a block name");
    if (s[i] == '"') return line_error("a name cannot be quoted");
    size_t start = i;
    while (i < s.size() && !ends_name(s[i])) ++i;
    std::string name(s.substr(start, i - start));
    i = skip_blanks(s, i);
    if (i == s.size() || s[i] == '#') return Line{LineKind::scalar, std::move(name), ""};
    if (s[i] == '{') {
        if (!rest_is_empty(s, i + 1)) return line_error("'{' not at the end of the line");
        return Line{LineKind::open, std::move(name), ""};
    }
    if (s[i] == '"') return quoted_value(s, i, std::move(name));
    return plain_value(s, i, std::move(name));
}

// --- The whole text ---

constexpr size_t max_depth = 64;

struct OpenBlock {
    Pf *pf;
    std::string name;
    int line;
};

// Registers a syntax error at origin:line and returns -1.
int syntax_error(const char *who, const std::string &origin, int line, const std::string &what) {
    elog_log(0, "%s: %s:%d: %s\n", who, origin.c_str(), line, what.c_str());
    return -1;
}

// Applies one classified line to the stack of open blocks.
int apply_line(const char *who, const std::string &origin, int line_no, Line &line,
               std::vector<OpenBlock> &open) {
    Pf *current = open.back().pf;
    switch (line.kind) {
    case LineKind::blank:
        return 0;
    case LineKind::error:
        return syntax_error(who, origin, line_no, line.text);
    case LineKind::close:
        if (open.size() == 1) return syntax_error(who, origin, line_no, "'}' without an open block");
        open.pop_back();
        return 0;
    case LineKind::scalar:
        current->entries[line.name] = PfEntry{std::move(line.text), nullptr};
        return 0;
    case LineKind::open: {
        // Blocks are freed recursively: a bound on depth keeps a runaway
        // file from exhausting the stack.
        if (open.size() > max_depth)
            return syntax_error(who, origin, line_no, "blocks nested more than 64 deep");
        PfEntry &entry = current->entries[line.name];
        entry = PfEntry{"", std::make_unique<Pf>()};
        open.push_back(OpenBlock{entry.block.get(), line.name, line_no});
        return 0;
    }
    }
    return -1;
}

int parse_text(const char *who, std::string_view text, const std::string &origin, Pf **result) {
    // A byte-order mark left by a Windows editor is not part of the first name.
    if (text.substr(0, 3) == "\xEF\xBB\xBF") text.remove_prefix(3);
    auto root = std::make_unique<Pf>();
    std::vector<OpenBlock> open{OpenBlock{root.get(), "", 0}};
    int line_no = 0;
    size_t pos = 0;
    while (pos < text.size()) {
        size_t end = text.find('\n', pos);
        if (end == std::string_view::npos) end = text.size();
        Line line = classify_line(text.substr(pos, end - pos));
        if (apply_line(who, origin, ++line_no, line, open) < 0) return -1;
        pos = end + 1;
    }
    if (open.size() > 1) {
        const OpenBlock &last = open.back();
        return syntax_error(who, origin, last.line, "block '" + last.name + "' is never closed");
    }
    *result = root.release();
    return 0;
}

// --- Finding and reading the file ---

bool ends_with_pf(const std::string &s) { return s.size() >= 3 && s.compare(s.size() - 3, 3, ".pf") == 0; }

// The places to look for name, in order.
std::vector<std::string> candidates(const std::string &name) {
    if (name.find('/') == std::string::npos) {
        std::string file = ends_with_pf(name) ? name : name + ".pf";
        return {"./" + file, "/etc/" + file};
    }
    if (ends_with_pf(name)) return {name};
    return {name, name + ".pf"};
}

// Reads the whole file; false with errno set on failure.
bool read_file(const std::string &path, std::string *content) {
    FILE *f = fopen(path.c_str(), "rb");
    if (!f) return false;
    char chunk[4096];
    size_t n;
    while ((n = fread(chunk, 1, sizeof chunk, f)) > 0) content->append(chunk, n);
    bool ok = !ferror(f);
    int saved = errno;
    fclose(f);
    errno = saved;
    return ok;
}

// The first candidate that is a regular file, or "" after registering a
// message naming every place tried.
std::string find_file(const std::string &name) {
    std::string tried;
    for (const std::string &path : candidates(name)) {
        struct stat st;
        bool exists = stat(path.c_str(), &st) == 0;
        if (exists && S_ISREG(st.st_mode)) return path;
        tried += (tried.empty() ? "" : ", ") + path + (exists ? " (not a regular file)" : "");
    }
    elog_log(0, "pfread: no parameter file for '%s': tried %s\n", name.c_str(), tried.c_str());
    return "";
}

// --- Look-up helpers ---

const char *kind_of(const PfEntry &e) { return e.block ? "a block" : "a scalar"; }

int wrong_kind(const char *name, const PfEntry &e, const char *wanted) {
    elog_log(0, "parse_param: '%s' is %s, not %s\n", name, kind_of(e), wanted);
    return -1;
}

int store_int(const char *name, const PfEntry &e, int *result) {
    if (e.block) return wrong_kind(name, e, "a scalar");
    const std::string &s = e.text;
    size_t digits = (!s.empty() && (s[0] == '+' || s[0] == '-')) ? 1 : 0;
    bool whole = s.size() > digits && s.find_first_not_of("0123456789", digits) == std::string::npos;
    if (!whole) {
        elog_log(0, "parse_param: '%s' is not an integer: '%s'\n", name, s.c_str());
        return -1;
    }
    // from_chars takes a '-' but not a '+'.
    const char *first = s.data() + (s[0] == '+' ? 1 : 0);
    int value = 0;
    auto [ptr, ec] = std::from_chars(first, s.data() + s.size(), value);
    if (ec != std::errc() || ptr != s.data() + s.size()) {
        elog_log(0, "parse_param: '%s' is out of the int range: '%s'\n", name, s.c_str());
        return -1;
    }
    *result = value;
    return 0;
}

int store_string(const char *name, const PfEntry &e, char **result) {
    if (e.block) return wrong_kind(name, e, "a scalar");
    char *copy = strdup(e.text.c_str());
    if (!copy) {
        elog_log(1, "parse_param: strdup() error for '%s'\n", name);
        return -1;
    }
    *result = copy;
    return 0;
}

int store_arr(const char *name, const PfEntry &e, Arr **result) {
    if (!e.block) return wrong_kind(name, e, "a block");
    for (const auto &[key, inner] : e.block->entries) {
        if (inner.block) {
            elog_log(0, "parse_param: '%s' holds the block '%s'; only name/value pairs are allowed\n",
                     name, key.c_str());
            return -1;
        }
    }
    Arr *arr = newarr(nullptr);
    if (!arr) {
        elog_log(1, "parse_param: newarr() error for '%s'\n", name);
        return -1;
    }
    for (const auto &[key, inner] : e.block->entries) {
        char *copy = strdup(inner.text.c_str());
        if (!copy) {
            freearr(arr, free);
            elog_log(1, "parse_param: strdup() error for '%s'\n", name);
            return -1;
        }
        setarr(arr, key.c_str(), copy);
    }
    *result = arr;
    return 0;
}

int store_block(const char *name, const PfEntry &e, Pf **result) {
    if (!e.block) return wrong_kind(name, e, "a block");
    *result = e.block.get();
    return 0;
}

}  // namespace

int pfparse_text(const char *text, const char *origin, Pf **pf) {
    if (!text || !origin || !pf) {
        elog_log(0, "pfparse_text: null argument\n");
        return -1;
    }
    return parse_text("pfparse_text", text, origin, pf);
}

int pfread(const char *name, Pf **pf) {
    if (!name || !*name || !pf) {
        elog_log(0, "pfread: no parameter file name\n");
        return -1;
    }
    std::string path = find_file(name);
    if (path.empty()) return -1;
    std::string content;
    if (!read_file(path, &content)) {
        elog_log(1, "pfread: cannot read %s\n", path.c_str());
        return -1;
    }
    return parse_text("pfread", content, path, pf);
}

void pffree(Pf *pf) { delete pf; }

int parse_param(Pf *pf, const char *name, int type, int required, void *result) {
    if (!pf || !name || !result) {
        elog_log(0, "parse_param: null argument\n");
        return -1;
    }
    if (type != PF_INT && type != PF_STRING && type != PF_ARR && type != PF_BLOCK) {
        elog_log(0, "parse_param: '%s': unknown type code %d\n", name, type);
        return -1;
    }
    auto it = pf->entries.find(name);
    if (it == pf->entries.end()) {
        if (!required) return 0;
        elog_log(0, "parse_param: '%s' is missing\n", name);
        return -1;
    }
    const PfEntry &e = it->second;
    switch (type) {
    case PF_INT: return store_int(name, e, static_cast<int *>(result));
    case PF_STRING: return store_string(name, e, static_cast<char **>(result));
    case PF_ARR: return store_arr(name, e, static_cast<Arr **>(result));
    default: return store_block(name, e, static_cast<Pf **>(result));
    }
}
