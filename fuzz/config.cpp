/* Any text as a configuration file, for both readers and the two calls that read piece by piece.
 *
 * Input: size of the buffer for paragraphs, then the file. */
#include "foundation/config.h"
#include "fuzz/memoryfile.h"

namespace {

void walk_lists(PAA_S *table) {
    for (auto *key = static_cast<char *>(paaFirst(table, nullptr)); key != nullptr;) {
        const std::string name = key;
        const int count = config_nvalues(table, name.c_str());
        FUZZ_REQUIRE(count >= 1);
        for (int index = 0; index < count; ++index) {
            const char *value = config_value(table, name.c_str(), index);
            FUZZ_REQUIRE(value != nullptr && strlen(value) < 4096);
        }
        FUZZ_REQUIRE(config_value(table, name.c_str(), count) == nullptr);
        key = static_cast<char *>(paaNext(table, nullptr));
    }
    FUZZ_REQUIRE(config_nvalues(table, "no such key") == 0);
}

void read_lists(const MemoryFile &file) {
    PAA_S *table = config_read(nullptr, file.path());
    if (table == nullptr) return;
    walk_lists(table);
    FUZZ_REQUIRE(config_read(table, file.path()) == table);  // once more: every list gets twice as long
    walk_lists(table);
    FUZZ_REQUIRE(config_free(table) == 0);
}

void read_single_values(const MemoryFile &file) {
    PAA_S *table = config_read2paa(nullptr, file.path());
    if (table == nullptr) return;
    size_t total = 0;
    for (void *key = paaFirst(table, nullptr); key != nullptr; key = paaNext(table, nullptr)) {
        int length = 0;
        const auto *value = static_cast<const char *>(paaCurrent(table, &length));
        if (value != nullptr) total += strnlen(value, static_cast<size_t>(length)) + strlen(static_cast<char *>(key));
    }
    FUZZ_REQUIRE(total < 1 << 30);
    FUZZ_REQUIRE(config_free(table) == 0);
}

void read_lines(const MemoryFile &file) {
    const OwnedFile stream = file.open();
    char *key = nullptr, *value = nullptr;
    int lines = 0, before = 0;
    for (;;) {
        int value_length = -1;
        const int length = config_key_value(stream.get(), &key, &value, &value_length, &lines);
        FUZZ_REQUIRE(lines >= before);
        before = lines;
        if (length <= 0) break;
        FUZZ_REQUIRE(key != nullptr && strlen(key) == static_cast<size_t>(length));
        FUZZ_REQUIRE(value == nullptr || strlen(value) == static_cast<size_t>(value_length));
    }
    FUZZ_REQUIRE(key == nullptr && value == nullptr);
}

void read_paragraphs(const MemoryFile &file, int size) {
    const OwnedFile stream = file.open();
    Bytes buffer(static_cast<size_t>(size));
    auto *text = reinterpret_cast<char *>(buffer.data());
    for (int length = 0; (length = config_paragraph(stream.get(), text, size)) > 0;) {
        FUZZ_REQUIRE(length < size && text[length] == 0);
    }
}

}  // namespace

int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    static MemoryFile file;
    become_a_silent_process();
    Input input(data, size);
    const int paragraph_size = input.u8();
    file.hold(input.take_rest());

    read_lists(file);
    read_single_values(file);
    read_lines(file);
    read_paragraphs(file, paragraph_size);
    return 0;
}
