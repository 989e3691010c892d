/* Texts of 128 KB that invite the CGI toolkit to search them over and over: a step that is quadratic in any of them shows
 * as seconds. Aim: at most 200 ms of processor time for each. */
#include <benchmark/benchmark.h>
#include <stdlib.h>
#include <string.h>

#include <string>

#include "genhtml/genhtml.h"

namespace {

void expand(std::string &text) { free(ghsExpandVariable(text.c_str())); }
void filter(std::string &text) { ghsFilterActiveContent(text.data()); }
void replace_tags(std::string &text) { ghsTagReplace(text.c_str()); }
void find_last_token(std::string &text) { free(ghsFindLastToken(text.c_str(), "aab", "aaa", nullptr, nullptr)); }
void replace_all(std::string &text) { free(ghsReplace(text.c_str(), "aaaaaaab", "x", 0)); }

struct HostileText {
    const char *piece;  // as often as 131,000 bytes hold it
    void (*work)(std::string &text);
};
constexpr HostileText hostile_texts[] = {
    {"<$a>", expand},
    {"<$longer><#b>", expand},
    {"<$", expand},
    {"<#<$>", expand},
    {"<", filter},
    {"< & ", filter},
    {"<embed ", filter},
    {"<&{script ", filter},
    {"onclick", filter},
    {"[b]x[/b]", replace_tags},
    {"[b]", replace_tags},
    {"[b]/", replace_tags},
    {"[unknown]", replace_tags},
    {"[/b", replace_tags},
    {"a", find_last_token},
    {"aaaaaaaa", replace_all},
};

void take(benchmark::State &state) {
    const HostileText &row = hostile_texts[state.range(0)];
    std::string whole;
    while (whole.size() + strlen(row.piece) <= 131000) whole += row.piece;
    ghsSaveForReplace("g_Tag_B", "<b>%s</b>", 0);
    ghsSaveForReplace("a", "<#b>", 0);
    while (state.KeepRunning()) {
        std::string text = whole;
        row.work(text);
    }
    state.SetLabel(row.piece);
}
BENCHMARK(take)->DenseRange(0, std::size(hostile_texts) - 1)->Unit(benchmark::kMillisecond);

}  // namespace

BENCHMARK_MAIN();
