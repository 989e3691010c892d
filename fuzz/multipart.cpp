/* Any bytes as a multipart form.
 *
 * Input: length of the boundary, the boundary, the body. */
#include "fuzz/memoryfile.h"
#include "genhtml/ghi.h"

namespace {

/** Bytes 0 to 2 are escaped: a 2 stands before a byte 3 to 5 everywhere, and 1 nowhere. Only in uploads: text fields
 *  are decoded, and may hold any byte. */
void check_upload(const char *value) {
    for (; *value != '\0'; value++) {
        FUZZ_REQUIRE(*value != 1);
        if (*value != 2) continue;
        value++;
        FUZZ_REQUIRE(*value >= 3 && *value <= 5);
    }
}

}  // namespace

int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    static MemoryFile file;
    become_a_silent_process();
    Input input(data, size);
    const Bytes first = input.take(input.u8());
    const std::string boundary(first.begin(), first.end());
    file.hold(input.take_rest());

    const OwnedFile stream = file.open();
    genhtml::read_form(stream.get(), boundary.c_str());

    size_t bytes = 0;
    genhtml::for_each_pair(genhtml::input_table(), [&](const char *key, const char *value) {
        FUZZ_REQUIRE(!genhtml::is_own_name(key));
        const std::string type_key = std::string(key) + "_MIMETYPE";
        char *type = nullptr;
        if (ghInFetch(type_key.c_str(), &type)) check_upload(value);
        bytes += strlen(key) + strlen(value);
    });
    FUZZ_REQUIRE(bytes == genhtml::input_bytes());
    FUZZ_REQUIRE(bytes <= 8 * size);  // escaped twice as long, names three times
    genhtml::forget_input();
    return 0;
}
