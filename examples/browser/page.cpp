/* Escaping, links and answers: the one place that knows how values get into a page and how a request gets its answer. */
#include "examples/browser/page.h"

#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include <vector>

#include "genhtml/genhtml.h"
#include "process/owned.h"

namespace {

char *stateFields[] = {const_cast<char *>("table"),  const_cast<char *>("sort"),
                       const_cast<char *>("order"),  const_cast<char *>("filter"),
                       const_cast<char *>("rows"),   const_cast<char *>("after"),
                       const_cast<char *>("before"), nullptr};
std::vector<std::string> leftBehind;

/** The key of a loop's variable: "name3", and in a loop within another "name_3_0". */
std::string indexed(const std::string &name, std::initializer_list<size_t> index) {
    std::string key = "g_" + name;
    for (const size_t place : index) key += (index.size() > 1 ? "_" : "") + std::to_string(place);
    return key;
}

/** Takes variables and tags out of a text; HTML shows it unchanged. */
std::string without_openings(const char *text) {
    std::string plain;
    for (; *text != '\0'; ++text) {
        const bool isVariable = text[0] == '<' && (text[1] == '$' || text[1] == '#');
        if (isVariable)
            plain += "&#60;";
        else if (*text == '[')
            plain += "&#91;";
        else
            plain += *text;
    }
    return plain;
}

}  // namespace

std::string input(const std::string &name) {
    char *value;
    ghInFetch(name.c_str(), &value);
    return value;
}

void show(const std::string &name, const std::string &text, std::initializer_list<size_t> index) {
    const OwnedBlock<char> safe(ghHtmlProtect(text.c_str()));
    show_html(name, without_openings(safe.get()), index);
}

void show_html(const std::string &name, const std::string &html, std::initializer_list<size_t> index) {
    ghSaveForReplace(indexed(name, index).c_str(), html.c_str(), 0);
}

void leave_behind(const std::vector<std::string> &names) {
    leftBehind.insert(leftBehind.end(), names.begin(), names.end());
}

std::string state(const std::vector<std::string> &without) {
    std::vector<std::string> names = leftBehind;
    names.insert(names.end(), without.begin(), without.end());
    std::vector<char *> excluded(names.size() + 1);  // a null pointer ends it
    for (size_t i = 0; i < names.size(); ++i) excluded[i] = names[i].data();
    const OwnedBlock<char> query(ghIn2Query(excluded.data()));
    return *query.get() == '&' ? query.get() + 1 : "";
}

std::string state_fields() {
    const OwnedBlock<char> fields(ghIn2Hidden(stateFields));
    return without_openings(fields.get());
}

std::string with(const std::string &query, const std::string &key, const std::string &value) {
    const OwnedBlock<char> encoded(ghEncode(value.c_str()));
    return query + (query.empty() ? "" : "&") + key + "=" + encoded.get();
}

std::string self_url() {
    const OwnedBlock<char> self(ghSelfUrl());
    return self.get();
}

void answer_with(const char *file, const char *httpStatus) {
    // Header lines of a program's own go out before the toolkit's, which end the header.
    printf("Status: %s\nCache-Control: no-store\n", httpStatus);
    ghSetContentType("text/html; charset=utf-8");
    ghsSetOutput([](FILE *stream, char *line) { fputs(line, stream); });
    ghPrintTemplate(stdout, (std::string("templates/") + file).c_str());
    exit(0);
}

void go_on_to(const std::string &query) {
    printf("Status: 303 See Other\nLocation: %s?%s\n\n", self_url().c_str(), query.c_str());
    exit(0);
}

void fail(const char *name, const char *httpStatus, const std::string &detail) {
    show("failure", name);
    if (!detail.empty()) show("detail", detail);
    answer_with("failure.html", httpStatus);
}

bool is_own_form() {
    const char *origin = getenv("HTTP_ORIGIN"), *host = getenv("HTTP_HOST");
    if (origin == nullptr || host == nullptr) return true;  // no browser, or an old one
    const char *name = strstr(origin, "://");
    return name != nullptr && strcmp(name + 3, host) == 0;
}
