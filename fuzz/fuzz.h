/* What the fuzz targets share. A target is one function that takes any bytes whatever and comes back; what must hold
 * it asserts with FUZZ_REQUIRE. It is run by libFuzzer, or by corpus_main.cpp over the files of its corpus. */
#ifndef FUZZ_FUZZ_H
#define FUZZ_FUZZ_H

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "packet/bytereader.h"
#include "process/velproc.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size);

/** Ends the program, with the condition, if that doesn't hold. Not assert: it holds in every kind of build. */
#define FUZZ_REQUIRE(condition)                                                            \
    do {                                                                                   \
        if (!(condition)) {                                                                \
            fprintf(stderr, "%s:%d: does not hold: %s\n", __FILE__, __LINE__, #condition); \
            abort();                                                                       \
        }                                                                                  \
    } while (false)

using Bytes = std::vector<uint8_t>;  // a heap block of exactly its size: a byte beyond it is found

/** Takes an input apart. Missing bytes are zero. */
class Input : public ByteReader {
public:
    Input(const uint8_t *data, size_t size) : ByteReader(data, static_cast<int>(size)) {}

    Bytes take(int count) {
        int taken = 0;
        const uint8_t *start = bytes(count, &taken);
        return Bytes(start, start + taken);
    }
    Bytes take_rest() { return take(left()); }
    bool is_empty() const { return left() == 0; }
};

/** What process_init would have set, for a process that says nothing. */
inline void become_a_silent_process() {
    static char name[] = "fuzz";
    process_context.name = name;
    process_context.running = 1;
    process_context.silent = 1;
}

#endif
