/* Any text as a template, with any variables, and the calls that a template's values go through.
 *
 * Input: lines "name=value" up to an empty line, then the template, which may include itself under its path. It runs in
 * an empty directory, so that no script is found but the directory itself, whose name is empty; a child that is to run
 * it ends at once. */
#include <pthread.h>

#include <algorithm>
#include <string_view>

#include "fuzz/memoryfile.h"
#include "fuzz/variables.h"

namespace {

using Text = OwnedBlock<char>;

void enter_empty_directory() {
    static const bool entered = [] {
        char path[] = "/tmp/fuzz-template-XXXXXX";
        FUZZ_REQUIRE(mkdtemp(path) != nullptr && chdir(path) == 0 && rmdir(path) == 0);
        return pthread_atfork(nullptr, nullptr, [] { _exit(EXIT_FAILURE); }) == 0;
    }();
    FUZZ_REQUIRE(entered);
}

void check_texts(const char *text) {
    const Text encoded(ghsEncode(text)), decoded(ghsDecode(encoded.get())), shown(ghsHtmlProtect(text));
    FUZZ_REQUIRE(strcmp(decoded.get(), text) == 0);
    FUZZ_REQUIRE(strpbrk(encoded.get(), "<>&\"'+ ") == nullptr);
    FUZZ_REQUIRE(strpbrk(shown.get(), ">\"") == nullptr);

    const Text filtered(ghsStrdup(nullptr, text));
    ghsFilterActiveContent(filtered.get());
    FUZZ_REQUIRE(strlen(filtered.get()) == strlen(text));
    FUZZ_REQUIRE(ghsFilterActiveContent(filtered.get()) == 0 || strstr(text, "$") != nullptr);
    FUZZ_REQUIRE(ghsTagReplace(text) != nullptr);
}

/** Stores the variables at the head of the input. Returns the template behind them. */
std::string_view take_variables(std::string_view input) {
    while (!input.empty()) {
        const std::string line(input.substr(0, input.find('\n')));
        input.remove_prefix(std::min(input.size(), line.size() + 1));
        if (line.empty()) return input;
        const size_t equals = line.find('=');
        if (equals == std::string::npos) continue;
        const std::string name = line.substr(0, equals), value = line.substr(equals + 1);
        FUZZ_REQUIRE(ghsSaveForReplace(name.c_str(), value.c_str(), 0) == 0);
        check_texts(value.c_str());
    }
    return input;
}

void check_line(FILE *, char *text) { FUZZ_REQUIRE(strlen(text) < genhtml::LINE_LIMIT); }

}  // namespace

int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    static MemoryFile file;
    become_a_silent_process();
    enter_empty_directory();
    ghsSetOutput(check_line);

    const std::string_view page = take_variables({reinterpret_cast<const char *>(data), size});
    file.hold(Bytes(page.begin(), page.end()));
    ghsPrintTemplate(stdout, file.path());
    const Text expanded(ghsExpandVariable(std::string(page).c_str()));
    FUZZ_REQUIRE(expanded.get() != nullptr);

    forget_variables();
    return 0;
}
