#include "link/textdump.h"

#include <cstdio>
#include <string>

// The backslash letter of the four control characters that dumps show, or 0.
static char escape_letter(unsigned char c) {
    switch (c) {
    case '\n': return 'n';
    case '\r': return 'r';
    case '\t': return 't';
    case '\b': return 'b';
    default: return 0;
    }
}

void dump_escaped(const char *verb, const unsigned char *data, int n) {
    std::string out = std::string(verb) + " " + std::to_string(n) + " bytes: ";
    for (int i = 0; i < n; i++) {
        if (dump_printable(data[i])) {
            out += static_cast<char>(data[i]);
        } else if (char letter = escape_letter(data[i])) {
            out += '\\';
            out += letter;
        }
    }
    out += '\n';
    // One fwrite, so a dump is not interleaved with other stdout output.
    fwrite(out.data(), 1, out.size(), stdout);
    fflush(stdout);
}

void dump_raw(const unsigned char *data, int n) {
    std::string out;
    for (int i = 0; i < n; i++) {
        if (dump_printable(data[i]) || escape_letter(data[i])) out += static_cast<char>(data[i]);
    }
    fwrite(out.data(), 1, out.size(), stdout);
    fflush(stdout);
}
