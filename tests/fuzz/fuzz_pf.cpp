// Fuzz target: the parameter-file reader. The input is a file that pfread
// reads by path, as the relay reads its korvane.pf; what parses is walked, two
// blocks deep, with every parse_param code on the names the relay and the
// sample files use. Beyond "no crash, no leak": a required look-up that
// succeeds fills its result, and a scalar is an integer exactly when its
// text is a whole decimal number in int range.
#include <unistd.h>

#include <cctype>
#include <cerrno>
#include <climits>

#include "support/containers.h"
#include "support/elog.h"
#include "support/pf.h"
#include "wire.h"

namespace {

const char *const kNames[] = {"default", "mode", "device", "baud", "flow", "q330_ip_address",
                              "port_translations", "other", "note", "5330", "x", ""};

// One file per process, in memory if possible (a disk flushes every rewrite).
char scratch[64];
bool nul_in_file;  // a NUL byte ends a copied text, not the value, which then is no number

void probe(Pf *pf, const char *name, int depth) {
    for (int req = 0; req <= 1; req++) {
        int value = 0;
        char *text = nullptr, *end = nullptr;
        Arr *arr = nullptr;
        Pf *block = nullptr;
        const bool is_int = parse_param(pf, name, PF_INT, req, &value) == 0;
        if (parse_param(pf, name, PF_STRING, req, &text) == 0 && req) FUZZ_CHECK(text != nullptr);
        errno = 0;
        const long v = text && !std::isspace(static_cast<unsigned char>(*text)) ? std::strtol(text, &end, 10) : 0;
        const bool decimal = end && end != text && !*end && !errno && v >= INT_MIN && v <= INT_MAX;
        FUZZ_CHECK(!req || !text || nul_in_file || (is_int == decimal && (!is_int || v == value)));
        std::free(text);
        if (parse_param(pf, name, PF_ARR, req, &arr) == 0 && req) FUZZ_CHECK(arr != nullptr);
        freearr(arr, std::free);
        if (parse_param(pf, name, PF_BLOCK, req, &block) == 0 && req) FUZZ_CHECK(block != nullptr);
        if (block && req && depth < 2)  // one pass only, so nestings do not multiply the work
            for (const char *inner : kNames) probe(block, inner, depth + 1);
    }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size) {
    if (!scratch[0]) {
        std::snprintf(scratch, sizeof scratch, "%s/korvane-fuzz-pf-XXXXXX.pf",
                      access("/dev/shm", W_OK) == 0 ? "/dev/shm" : "/tmp");
        FUZZ_CHECK(close(mkstemps(scratch, 3)) == 0);
        std::atexit([] { unlink(scratch); });
    }
    nul_in_file = size && std::memchr(data, 0, size);
    std::FILE *f = std::fopen(scratch, "wb");
    FUZZ_CHECK(f && (size == 0 || std::fwrite(data, 1, size, f) == size) && std::fclose(f) == 0);
    Pf *pf = nullptr;
    if (pfread(scratch, &pf) == 0) {
        for (const char *name : kNames) probe(pf, name, 0);
        pffree(pf);
    }
    elog_clear_register(0);  // the register is per thread and would grow with every input
    return 0;
}
