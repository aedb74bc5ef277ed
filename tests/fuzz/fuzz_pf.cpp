// Fuzz target: the parameter-file reader. The input is written to a file that
// pfread reads by path, as the relay reads its korvane.pf; whatever parses is
// then walked with every parse_param code on the names the relay and the
// sample files use, two blocks deep, and freed.
//
// Properties checked beyond "no crash, no leak": pfread and parse_param
// fill what a required look-up asks for; an integer look-up that succeeds
// agrees with the string look-up of the same name; an Arr look-up yields a
// string for every key.
#include "support/containers.h"
#include "support/elog.h"
#include "support/pf.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "fuzz_check.h"

namespace {

const char *const kNames[] = {"default", "mode", "device", "baud", "flow",
                              "q330_ip_address", "port_translations", "other", "note",
                              "5330", "x", ""};

// One file per process, rewritten for every input, in memory when the
// machine offers it: on a disk file system rewriting a truncated file forces a
// flush on every close, which would cut the fuzzer's speed tenfold. A plain
// array, so the path outlives the static destructors for the exit handler.
char scratch[64];

void remove_scratch() { unlink(scratch); }

const char *scratch_path() {
    if (!scratch[0]) {
        std::snprintf(scratch, sizeof scratch, "%s/korvane-fuzz-pf-XXXXXX.pf",
                      access("/dev/shm", W_OK) == 0 ? "/dev/shm" : "/tmp");
        int fd = mkstemps(scratch, 3);
        FUZZ_CHECK(fd >= 0);
        close(fd);
        std::atexit(remove_scratch);
    }
    return scratch;
}

void write_scratch(const std::uint8_t *data, std::size_t size) {
    int fd = open(scratch_path(), O_WRONLY | O_TRUNC);
    FUZZ_CHECK(fd >= 0);
    std::size_t done = 0;
    while (done < size) {
        ssize_t n = write(fd, data + done, size - done);
        FUZZ_CHECK(n > 0 || (n < 0 && errno == EINTR));
        if (n > 0) done += static_cast<std::size_t>(n);
    }
    close(fd);
}

// An Arr of malloc'ed strings: every key must map to a string.
void check_arr(Arr *arr) {
    Tbl *keys = keysarr(arr);
    FUZZ_CHECK(keys != nullptr);
    for (int i = 0; i < maxtbl(keys); i++) {
        auto *key = static_cast<const char *>(gettbl(keys, i));
        FUZZ_CHECK(key != nullptr);
        FUZZ_CHECK(getarr(arr, key) != nullptr);
    }
    freetbl(keys, nullptr);
    freearr(arr, std::free);
}

// An int look-up that succeeds must read the same text as a decimal integer.
void check_int_against_string(Pf *pf, const char *name, int value) {
    char *text = nullptr;
    FUZZ_CHECK(parse_param(pf, name, PF_STRING, 1, &text) >= 0);
    FUZZ_CHECK(text != nullptr);
    char *end = nullptr;
    errno = 0;
    long parsed = std::strtol(text, &end, 10);
    FUZZ_CHECK(end != text && errno == 0 && parsed == value);
    std::free(text);
}

void walk(Pf *pf, int depth);

// Every type code on one name, required and not.
void probe(Pf *pf, const char *name, int depth) {
    for (int required = 0; required <= 1; required++) {
        int value = 0;
        if (parse_param(pf, name, PF_INT, required, &value) >= 0 && required)
            check_int_against_string(pf, name, value);

        char *text = nullptr;
        int rc = parse_param(pf, name, PF_STRING, required, &text);
        FUZZ_CHECK(rc < 0 || !required || text != nullptr);
        std::free(text);

        Arr *arr = nullptr;
        rc = parse_param(pf, name, PF_ARR, required, &arr);
        FUZZ_CHECK(rc < 0 || !required || arr != nullptr);
        if (arr) check_arr(arr);

        Pf *block = nullptr;
        rc = parse_param(pf, name, PF_BLOCK, required, &block);
        FUZZ_CHECK(rc < 0 || !required || block != nullptr);
        // Blocks are walked once (the required pass), to keep deep
        // nestings from multiplying the work.
        if (block && required && depth < 2) walk(block, depth + 1);
    }
}

void walk(Pf *pf, int depth) {
    for (const char *name : kNames) probe(pf, name, depth);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size) {
    write_scratch(data, size);
    Pf *pf = nullptr;
    int rc = pfread(scratch_path(), &pf);
    if (rc == 0) {
        FUZZ_CHECK(pf != nullptr);
        walk(pf, 0);
        pffree(pf);
    }
    // The register is per thread and would otherwise grow with every input.
    elog_clear_register(0);
    return 0;
}
