/* Any text as a file of template variables, and as a file of tags.
 *
 * Input: the file. */
#include "fuzz/variables.h"
#include "foundation/paa.h"
#include "fuzz/memoryfile.h"
#include "genhtml/ghi.h"

namespace {

void check_key_file(PAA_S *table) {
    genhtml::for_each_pair(table, [](const char *key, const char *value) {
        FUZZ_REQUIRE(*key != '\0' && *key != '#' && strlen(key) < 4096 && strlen(value) < 4096);
        for (; *key != '\0'; key++) FUZZ_REQUIRE(!genhtml::is_white(*key));
    });
}

void check_tags(PAA_S *table, size_t size) {
    size_t bytes = 0;
    genhtml::for_each_pair(table, [&](const char *key, const char *value) {
        bytes += strlen(key) + strlen(value);
        for (; *key != '\0'; key++) FUZZ_REQUIRE(process_isalnum(*key) || *key == '_');
    });
    FUZZ_REQUIRE(bytes <= size);
}

}  // namespace

int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    static MemoryFile file;
    become_a_silent_process();
    file.hold(Bytes(data, data + size));

    PAA_S *table = ghsReadArray(nullptr, file.path());
    FUZZ_REQUIRE(table != nullptr && ghsErrno == 0);
    check_key_file(table);
    const uint32_t count = table->count;
    FUZZ_REQUIRE(ghsReadArray(table, file.path()) == table && table->count == count);  // the same keys once more
    paaDestroy(table);

    FUZZ_REQUIRE(ghsReadConfig(file.path()) == 0);
    check_key_file(genhtml::variables.table);
    forget_variables();

    table = ghBMLToArray(nullptr, file.path());
    FUZZ_REQUIRE(table != nullptr);
    check_tags(table, size);
    paaDestroy(table);
    return 0;
}
