/* Templates, line by line: a line is read, judged (ghscontrol.cpp), its variables are expanded, it defines, includes or
 * runs something, or it is written. */
#include <errno.h>

#include "genhtml/ghsengine.h"

using namespace genhtml;

namespace {

constexpr int MOST_FILES = 129;       // of a page; a count of files, not a depth
constexpr int MOST_EXPANSIONS = 128;  // of a line, those within values included
constexpr int MOST_MATCHES = 4;       // of a variable that are replaced at once
constexpr int LINE_SIZE = 4096;

constexpr Spellings DEFINITION{"<!-- #define variable=\"", "<!--#define variable=\""};
constexpr Spellings INCLUDE_VIRTUAL{"<!-- #include virtual=\"", "<!--#include virtual=\""};
constexpr Spellings INCLUDE_FILE{"<!-- #include file=\"", "<!--#include file=\""};
constexpr std::string_view NO_HTML = "T_NOHTML";

int files_opened = 0;

// ---- Output ----------------------------------------------------------------------------------------------------------

/** The line has a line feed of its own: the second one is meant. */
void print_with_line_feed(FILE *stream, char *text) {
    fputs_unlocked(text, stream);
    putc_unlocked('\n', stream);
}

void (*output)(FILE *stream, char *text) = print_with_line_feed;

// ---- Expansion -------------------------------------------------------------------------------------------------------

/** Counts the expansions of the line at hand. A handler may print a template: its lines are counted for themselves. */
class LineExpansions {
public:
    LineExpansions() : outer_(current) { current = this; }
    ~LineExpansions() { current = outer_; }
    LineExpansions(const LineExpansions &) = delete;
    LineExpansions &operator=(const LineExpansions &) = delete;

    static bool is_in_line() { return current != nullptr; }
    static bool may_go_on() { return ++current->count_ <= MOST_EXPANSIONS; }

private:
    static inline LineExpansions *current = nullptr;
    LineExpansions *outer_;
    int count_ = 0;
};

std::string spare;  // lends its memory to the replacements of all lines

/** The next opening of a variable, of either form; null if there is none. */
const char *next_opening(const char *text) {
    const char *mark = strpbrk(text, "$#");  // rarer in a page than "<"
    while (mark != nullptr && (mark == text || mark[-1] != '<')) mark = strpbrk(mark + 1, "$#");
    return mark != nullptr ? mark - 1 : nullptr;
}

/** Replaces variables, from the last one on, by what `find_value` makes of their names. */
template <class Finder>
void expand(std::string &text, Finder find_value) {
    std::string value;
    for (;;) {
        Token token = find_last_token(text, "<$", ">");
        if (!token) token = find_last_token(text, "<#", ">");
        if (!token || !LineExpansions::may_go_on()) return;
        find_value(token.inside, value);
        replace_in(text, token.whole(text), value, MOST_MATCHES, spare);
    }
}

bool is_loop_index(const Pass &pass, std::string_view name) { return pass.loop != nullptr && name == "loopindex"; }

/** Expands the variables in a value; theirs come from the replace table alone. */
void expand_value(std::string &text) {
    expand(text, [](std::string_view name, std::string &value) {
        const char *stored = variable(name);
        value = stored != nullptr ? stored : "";
    });
}

/** The value of a variable of a line, expanded; empty without one. */
void find_value(const Pass &pass, std::string_view name, std::string &value) {
    if (is_loop_index(pass, name)) {
        value = std::to_string(pass.loop->index);
    } else if (!ask_handlers(pass, name, value)) {
        const char *stored = variable_of(pass, name);
        value = stored != nullptr ? stored : "";
    }
    if (ghsErrno != 0) clear_error("ghsExpandVariable");  // a handler's own affair
    expand_value(value);
}

/** The shorter way, for a line whose values hold no variables and can't form one with the text around them. Such a
 *  line is the same whatever the order, so it is made in one go. False: the line needs the way of all others. */
bool expand_plain_line(Pass &pass, const char *line) {
    std::string &text = pass.text;
    text.clear();
    const char *rest = line;
    for (int count = 0; const char *opening = next_opening(rest);) {
        const char *close = strchr(opening, '>');
        if (close == nullptr) break;
        const std::string_view name(opening + 2, static_cast<size_t>(close - opening) - 2);
        const bool is_joined = opening > line && opening[-1] == '<';
        const bool is_nested = name.find('<') != std::string_view::npos;
        if (is_joined || is_nested || has_handler(pass, name) || ++count > MOST_EXPANSIONS) return false;

        text.append(rest, opening);
        rest = close + 1;
        if (is_loop_index(pass, name)) {
            text.append(std::to_string(pass.loop->index));
        } else if (const char *value = variable_of(pass, name)) {
            if (strchr(value, '<') != nullptr) return false;
            text.append(value);
        }
    }
    text.append(rest);
    return text.size() + strlen(line) < LINE_LIMIT;  // on no way there was more than this
}

void expand_line(Pass &pass, const char *line) {
    if (next_opening(line) == nullptr) {
        pass.text = line;
        return;
    }
    clear_error("ghsFindLastToken");
    if (expand_plain_line(pass, line)) return;

    const LineExpansions counted;
    pass.text = line;
    expand(pass.text, [&pass](std::string_view name, std::string &value) { find_value(pass, name, value); });
}

// ---- Definitions -------------------------------------------------------------------------------------------------------

/** Reads the number at the start of a text, behind blanks. */
std::optional<long> leading_number(const std::string &text) {
    char *end = nullptr;
    const long number = strtol(text.c_str(), &end, 10);
    return end != text.c_str() ? std::optional(number) : std::nullopt;
}

/** A part of a text, given as "text,first,end". */
std::string substring(std::string_view attribute) {
    const size_t comma = attribute.find(',');
    std::string text(attribute.substr(0, comma));
    if (comma == std::string_view::npos) return text;
    const std::string places(attribute.substr(comma + 1));
    const size_t second = places.find(',');

    const std::optional<long> first = leading_number(places);
    if (!first) return text;
    const long length = static_cast<long>(text.size());
    const std::optional<long> end =
        second != std::string::npos ? leading_number(places.substr(second + 1)) : std::nullopt;
    const bool is_inside = *first >= 0 && *first < end.value_or(length) && end.value_or(length) <= length;
    if (!is_inside) return "";
    const auto start = static_cast<size_t>(*first);
    return text.substr(start, static_cast<size_t>(end.value_or(length)) - start);
}

std::string copied(std::string_view attribute) { return std::string(attribute); }

std::string escaped(std::string_view attribute) {
    std::string text;
    append_encoded(text, attribute);
    return text;
}

struct Definition {
    std::string_view attribute;
    std::string (*value)(std::string_view attribute);
};
constexpr Definition definitions[] = {
    {" value=\"", copied},
    {" substring=\"", substring},
    {" escape=\"", escaped},
};

std::string defined_value(std::string_view behind) {
    for (const Definition &definition : definitions) {
        if (const Token found = find_attribute(behind, definition.attribute)) return definition.value(found.inside);
    }
    return "";
}

/** Obeys a #define on the line, which goes on like any other. */
void define(const Pass &pass) {
    const Token found = find_directive(pass.text, DEFINITION);
    if (!found || found.inside.empty()) return;
    if (pass.level().knowsNoHtml && found.inside == NO_HTML) enter_no_html();
    const std::string name(found.inside);
    ghsSaveForReplace(name.c_str(), defined_value(found.behind(pass.text)).c_str(), 0);
}

// ---- Includes and scripts ------------------------------------------------------------------------------------------------

/** Hardened: an include has to lie below the folder that the program names, wherever links lead. */
bool is_allowed_include(const char *path) {
    const char *root = is_hardened() ? variable("g_TemplateRoot") : nullptr;
    if (root == nullptr || *root == '\0') return true;
    const OwnedBlock<char> real_root(realpath(root, nullptr)), real_path(realpath(path, nullptr));
    if (!real_root || !real_path) return false;
    std::string folder = real_root.get();
    if (!folder.ends_with('/')) folder += '/';
    return strncmp(real_path.get(), folder.c_str(), folder.size()) == 0;
}

void print_file(std::string_view prefix, FILE *stream, const char *path) {
    constexpr char label[] = "ghsPrintTemplateRec";
    clear_error(label);
    if (files_opened >= MOST_FILES) return;
    ++files_opened;
    if (has_two_dots(path)) return set_error(TWO_DOTS, label, path);
    const OwnedFile file(fopen(path, "re"));
    if (!file) return set_error(NO_FILE, label, path);

    Skipping skipping;
    Pass pass{.stream = stream, .prefix = prefix, .skipping = skipping, .file = file.get()};
    char line[LINE_SIZE];
    while (fgets(line, sizeof line, file.get()) != nullptr) {
        if (take_line(pass, line) == Fate::END) return;
    }
}

void include(const Pass &pass, const std::string &path) {
    if (is_allowed_include(path.c_str())) return print_file(inner_prefix(pass), pass.stream, path.c_str());
    errno = EACCES;  // also for one that is missing: nobody is told what lies outside
    set_error(NO_FILE, "ghsPrintTemplateRec", path.c_str());
}

/** Obeys an #include of a file. False: there is none on the line. */
bool obey_include(const Pass &pass) {
    Token found = find_directive(pass.text, INCLUDE_VIRTUAL);
    if (!found) found = find_directive(pass.text, INCLUDE_FILE);
    if (found) include(pass, std::string(found.inside));
    return static_cast<bool>(found);
}

/** Obeys an #include of a script. False: there is none on the line. */
bool obey_script(const Pass &pass) {
    Token found = find_token(pass.text, "<!-- #include script=\"", "\" -->");
    if (!found) found = find_token(pass.text, "<!--#include script=\"", "\"-->");
    if (!found) return false;
    std::string command(found.inside);
    ghsCallScript(command.c_str());
    if (ghsErrno == 0) return true;
    std::string message = "Error running script, errno=<" + std::to_string(ghsErrno) + ">\n";
    output(pass.stream, message.data());
    output(pass.stream, command.data());
    return true;
}

bool has(const std::string &text, const char *word) { return strstr(text.c_str(), word) != nullptr; }

Fate unless_failed(Fate fate) { return ghsErrno == 0 ? fate : Fate::END; }

/** The steps of a line behind its expansion, if it had a comment. PRINT: the line itself goes out. */
Fate obey_expanded(Pass &pass) {
    if (has(pass.text, "#def")) define(pass);
    if (ghsErrno != 0) return Fate::END;
    if (!has(pass.text, "#inc")) return Fate::PRINT;
    if (obey_include(pass)) return unless_failed(Fate::NEXT_LINE);
    return obey_script(pass) ? Fate::NEXT_LINE : Fate::PRINT;
}

}  // namespace

Fate genhtml::take_line(Pass &pass, const char *line) {
    const char *comment = strstr(line, "<!--");
    Fate fate = judge_line(pass, line, comment);
    if (fate != Fate::PRINT) return fate;

    expand_line(pass, line);
    if (ghsErrno != 0) return Fate::END;
    if (comment != nullptr) fate = obey_expanded(pass);
    if (fate != Fate::PRINT) return fate;

    if (pass.text.find('[') != std::string::npos) replace_tags(pass.text);
    output(pass.stream, pass.text.data());
    return Fate::NEXT_LINE;
}

void ghsPrintTemplate(FILE *stream, const char *file) {
    constexpr char label[] = "ghsPrintTemplate";
    clear_error(label);
    with_memory<bool>(label, false, [] {
        if (variable(NO_HTML) != nullptr) enter_no_html();
        return true;
    });
    for_each_variable([](const char *name, char *value) {
        if (!is_own_name(name)) ghsFilterActiveContent(value);
    });
    if (ghsErrno != 0) return;  // no memory: what could not be protected or filtered stays off the page
    files_opened = 0;
    ghsPrintTemplateRec("", stream, file);
}

void ghsPrintTemplateRec(const char *prefix, FILE *stream, const char *file) {
    with_memory<bool>("ghsPrintTemplateRec", false, [&] {
        print_file(prefix != nullptr ? prefix : "", stream, file != nullptr ? file : "");
        return true;
    });
}

char *ghsExpandVariable(const char *text) {
    constexpr char label[] = "ghsExpandVariable";
    clear_error(label);
    return with_memory<char *>(label, nullptr, [&] {
        std::optional<LineExpansions> counted;  // of its own, but for a handler that is asked for a line
        if (!LineExpansions::is_in_line()) counted.emplace();
        std::string result = text != nullptr ? text : "";
        expand_value(result);
        return new_string(label, result);
    });
}

void ghsSetOutput(void (*function)(FILE *stream, char *text)) {
    output = function != nullptr ? function : print_with_line_feed;
}
