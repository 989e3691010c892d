/* The public records whose size must not depend on the language: shared by the C and the C++ half of the test. */
#ifndef TESTS_SYSTEM_C_HEADERS_H
#define TESTS_SYSTEM_C_HEADERS_H

#include <stddef.h>

#define C_HEADERS_RECORDS(RECORD) \
    RECORD(PROCESS_S)             \
    RECORD(PAA_S)                 \
    RECORD(PAA_ENTRY_S)           \
    RECORD(PacketAddress)         \
    RECORD(RA_SERVER_S)           \
    RECORD(RA_SESSION_S)          \
    RECORD(RA_CLIENT_S)           \
    RECORD(RA_REQUEST_S)

struct RecordSize {
    const char *name;
    size_t size;
};

#ifdef __cplusplus
extern "C"
#else
extern
#endif
    const struct RecordSize c_record_sizes[];

#endif
