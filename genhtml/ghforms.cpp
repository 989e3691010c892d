/* What a page carries on to the next one: hidden fields, queries, links; the input as template variables; and a few
 * readers of small files. */
#include <errno.h>
#include <limits.h>
#include <string.h>

#include <algorithm>
#include <array>
#include <string>
#include <string_view>

#include "genhtml/genhtml.h"
#include "genhtml/ghi.h"

namespace {

constexpr int LINE_SIZE = 4096;
constexpr char field_start[] = "<INPUT TYPE=\"hidden\" NAME=\"";

/** Names of rights that a program gives, and no client. */
constexpr std::array access_keys = {"isAdmin",         "isMember",   "isVisitor",   "chataccess",  "chatreadaccess",
                                    "chatwriteaccess", "readaccess", "writeaccess", "owneraccess", "rightsaccess",
                                    "deleteaccess",    "CITY_OWN",   "CITY_WRITE",  "UPDATEOK",    "isOwner"};

bool is_listed(const char *key, char **list) {
    if (list == nullptr) return false;
    while (*list != nullptr && strcmp(*list, key) != 0) list++;
    return *list != nullptr;
}

/** What opens a variable, a tag, a definition or an include in a line of a template. By the stricter rules request
 *  data has the HTML form of its first character instead, which shows as the same. */
struct Opening {
    std::string_view text, first_shown;
    bool counts_at_end_only = false;

    bool begins(std::string_view rest) const { return counts_at_end_only ? rest == text : rest.starts_with(text); }
    bool begins_shown(std::string_view rest) const {
        if (!rest.starts_with(first_shown)) return false;
        const std::string_view behind = rest.substr(first_shown.size());
        return counts_at_end_only ? behind.empty() : behind.starts_with(text.substr(1));
    }
};
constexpr Opening openings[] = {
    {"<$", "&#60;"},   {"<#", "&#60;"},   {"[", "&#91;"},
    {"#def", "&#35;"}, {"#inc", "&#35;"}, {"<", "&#60;", true},  // what follows it in the line may begin with "$"
};

std::string without_openings(std::string_view text) {
    std::string plain;
    for (; !text.empty(); text.remove_prefix(1)) {
        const auto *found = std::find_if(std::begin(openings), std::end(openings),
                                         [text](const Opening &each) { return each.begins(text); });
        plain += found != std::end(openings) ? found->first_shown : text.substr(0, 1);
    }
    return plain;
}

/** The way back. */
std::string with_openings(std::string_view text) {
    std::string whole;
    while (!text.empty()) {
        const auto *found = std::find_if(std::begin(openings), std::end(openings),
                                         [text](const Opening &each) { return each.begins_shown(text); });
        const bool is_opening = found != std::end(openings);
        whole += is_opening ? found->text.front() : text.front();
        text.remove_prefix(is_opening ? found->first_shown.size() : 1);
    }
    return whole;
}

void append_attribute(std::string &fields, std::string_view text) {
    std::string shown;
    genhtml::append_protected(shown, text);
    fields += genhtml::is_hardened() ? without_openings(shown) : shown;
}

void append_field(std::string &fields, const char *key, std::string_view value) {
    fields += field_start;
    append_attribute(fields, key);
    fields += "\" VALUE=\"";
    append_attribute(fields, value);
    fields += "\">\n";
}

/** The room that the fields were once given: log readers know the number. The text itself grows as it needs. */
int reckoned_room() {
    const size_t pairs = genhtml::input_table()->count;
    return static_cast<int>((sizeof field_start - 1 + 20) * pairs + 6 * genhtml::input_bytes() + 1);
}

using Fetch = int(const char *key, char **value);

std::string as_it_is(std::string_view value) { return std::string(value); }

/** The value of a variable as the request had it, if it was copied from there. */
std::string as_received(std::string_view value) {
    return genhtml::is_hardened() ? with_openings(value) : std::string(value);
}

/** Gives fields for those keys that `fetch` finds. Without any input there are none. */
char *hidden_fields(const char *label, char **keys, Fetch *fetch, std::string (*original)(std::string_view)) {
    ghDebug("%s: started\n", label);
    if (genhtml::input_table() == nullptr) {
        ghDebug("%s: empty In\n", label);
        return ghStrdup(label, "");
    }
    ghDebug("%s: malloced %d bytes\n", label, reckoned_room());
    std::string fields;
    genhtml::or_fail(label, [&] {
        for (char **key = keys; key != nullptr && *key != nullptr; key++) {
            char *value = nullptr;
            if (fetch(*key, &value)) append_field(fields, *key, original(value));
        }
    });
    ghDebug("%s: done\n", label);
    return genhtml::new_text(label, fields);
}

/** Makes a template variable of request data, which by the stricter rules brings no openings along. */
void save_received(const char *key, const char *value, int protect) {
    if (!genhtml::is_hardened()) {
        ghSaveForReplace(key, value, protect);
        return;
    }
    const std::string plain = genhtml::or_fail("ghSaveForReplace", [&] {
        std::string text;
        if (protect != 0 || genhtml::variables.noHtml) {
            genhtml::append_protected(text, value);
        } else {
            text = value;
        }
        return without_openings(text);
    });
    ghSaveForReplace(key, "", protect);  // the table stands now, and knows what is protected in it
    ghSaveToHash(genhtml::variables.table, key, plain.c_str(), 0);
}

/** Tells the debug output of a link that is about to be made. */
void tell_link(const char *label, const std::string &before, std::string_view url, std::string_view behind) {
    using genhtml::DebugText;
    if (!genhtml::may_debug()) return;  // this takes the whole text anew for each link
    const std::string start(url), postfix(behind), whole = before + start + postfix;
    ghDebug("%s: prot \"%s\"\n", label, DebugText(whole.c_str()).get());
    ghDebug("%s: prefix \"%s\" start \"%s\" postfix \"%s\"\n", label, DebugText(before.c_str()).get(),
            DebugText(start.c_str()).get(), DebugText(postfix.c_str()).get());
}

/** Appends a text with its addresses turned into links. Each link is followed by a blank, besides the one that ended
 *  the address. */
void append_with_links(std::string &done, std::string_view rest, const char *label) {
    constexpr std::string_view scheme = "http://";
    for (size_t start = rest.find(scheme); start != std::string_view::npos; start = rest.find(scheme)) {
        const std::string_view url = rest.substr(start, rest.find(' ', start) - start);
        const std::string_view behind = rest.substr(start + url.size());
        done += rest.substr(0, start);
        tell_link(label, done, url, behind);
        done.append("<A HREF=\"").append(url).append("\" TARGET=\"newbrowser\">").append(url).append("</A> ");
        rest = behind;
    }
    done += rest;
}

/** Reads a file of tags line by line. The text of a tag goes into the table as a whole: line by line the table would
 *  copy what it has each time. */
class TagReader {
public:
    TagReader(PAA_S *table, const char *label) : table_(table), label_(label) {}

    void take(const char *line) {
        if (name_.empty()) return look_for_tag(line);
        const char *end = strstr(line, end_tag_.c_str());
        text_.append(line, end != nullptr ? static_cast<size_t>(end - line) : strlen(line));
        if (end != nullptr) close_tag();
    }

    /** Ends the tag that is open, if there is one: the end of the file does so too. */
    void close_tag() {
        if (!text_.empty()) store();
        name_.clear();
        text_.clear();
    }

private:
    void look_for_tag(std::string_view line) {
        const genhtml::Token tag = genhtml::find_token(line, "<", ">");
        for (const char character : tag.inside) {
            if (!process_isalnum(static_cast<unsigned char>(character)) && character != '_') return;
        }
        name_ = tag.inside;
        end_tag_ = "</" + name_ + ">";
    }
    void store() {
        const int key_length = static_cast<int>(name_.size());
        const int length = text_.size() <= INT_MAX ? static_cast<int>(text_.size()) : -1;
        if (paaAppend(table_, name_.data(), key_length, text_.data(), length) == 0) return;
        genhtml::fail("%s: paaAppend failed, key %s, paaerrno\n", label_, name_.c_str());
    }

    PAA_S *table_;
    const char *label_;
    std::string name_, end_tag_, text_;  // of the tag that is open; an empty name for none
};

/** Opens a file that a program names by a path without "..", but for its beginning. */
OwnedFile open_tag_file(const char *path, const char *label) {
    const bool is_bad = genhtml::has_two_dots(path);
    OwnedFile file(is_bad ? nullptr : fopen(path, "re"));
    if (!file)
        ghError("%s: Cannot open file \"%s\": %s\n", label, path,
                is_bad ? "bad path containing \"..\"" : strerror(errno));
    return file;
}

}  // namespace

char *ghIn2Query(char **excluded) {
    constexpr char label[] = "ghIn2Query";
    std::string query;
    genhtml::or_fail(label, [&] {
        genhtml::for_each_pair(genhtml::input_table(), [&](const char *key, const char *value) {
            if (is_listed(key, excluded)) return;
            query += '&';
            genhtml::append_encoded(query, key);
            query += '=';
            genhtml::append_encoded(query, value);
        });
    });
    return genhtml::new_text(label, query);
}

char *ghIn2Hidden(char **keys) { return hidden_fields("ghIn2Hidden", keys, ghInFetch, as_it_is); }

/* That it is the input which decides whether there is anything is meant. */
char *ghReplace2Hidden(char **keys) { return hidden_fields("ghReplace2Hidden", keys, ghsVarFetch, as_received); }

void ghIn2Replace(int protect) {
    genhtml::for_each_pair(genhtml::input_table(), [protect](const char *key, const char *value) {
        if (!genhtml::is_own_name(key)) save_received(key, value, protect);
    });
}

void ghT_2Replace() {
    constexpr char label[] = "ghT_2Replace";
    genhtml::for_each_pair(genhtml::input_table(), [&](const char *key, const char *value) {
        if (strncmp(key, "T_", 2) != 0) return;
        save_received(key, value, 0);
        const OwnedBlock<char> protected_key(ghStrcat(label, key, "_p"));
        save_received(protected_key.get(), value, 1);
        const OwnedBlock<char> encoded_key(ghStrcat(label, key, "_e")), encoded(ghEncode(value));
        ghSaveForReplace(encoded_key.get(), encoded.get(), 0);
    });
}

void ghInRemoveAccess() {
    for (const char *key : access_keys) genhtml::remove_input(key);
}

char *ghCaseReplace(const char *text, const char *old, const char *new_) {
    constexpr char label[] = "ghCaseReplace";
    if (text == nullptr || old == nullptr || *old == '\0') return ghStrdup(label, text);
    if (new_ == nullptr) new_ = "";
    const size_t old_length = strlen(old);
    std::string replaced;
    genhtml::or_fail(label, [&] {
        for (const char *found = ghsStrStr(text, old, 1); found != nullptr; found = ghsStrStr(text, old, 1)) {
            replaced.append(text, found).append(new_);
            text = found + old_length;
        }
        replaced += text;
    });
    return genhtml::new_text(label, replaced);
}

char *ghReplaceHTMLLinks(const char *text) {
    constexpr char label[] = "ghReplaceHTMLLinks";
    if (text == nullptr) genhtml::fail("%s: Invalid Parameter\n", label);
    ghDebug("%s: pin \"%s\"\n", label, genhtml::DebugText(text).get());
    const OwnedBlock<char> shown(ghHtmlProtect(text));
    std::string linked;
    genhtml::or_fail(label, [&] { append_with_links(linked, shown.get(), label); });
    return genhtml::new_text(label, linked);
}

PAA_S *ghBMLToArray(PAA_S *table, const char *file) {
    constexpr char label[] = "ghBMLToArray";
    const OwnedFile stream = open_tag_file(file != nullptr ? file : "", label);
    if (!stream) return nullptr;
    if (table == nullptr) table = paaCreate(0);
    if (table == nullptr) genhtml::fail_for_memory(label);

    TagReader reader(table, label);
    genhtml::or_fail(label, [&] {
        char line[LINE_SIZE];
        while (fgets(line, sizeof line, stream.get()) != nullptr) reader.take(line);
        reader.close_tag();
    });
    return table;
}

int ghCountLines(const char *path) {
    const OwnedFile file(path != nullptr ? fopen(path, "re") : nullptr);
    char line[LINE_SIZE];
    int count = 0;
    while (file && fgets(line, sizeof line, file.get()) != nullptr) count++;
    return count;
}
