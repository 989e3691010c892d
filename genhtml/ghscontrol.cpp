/* Conditions and loops. A line is judged as it was read, by text alone: no tree is kept, a condition ends by the name
 * of its variable, a loop by that of its #endfor and, when it runs, by the first index at which none of its variables
 * exists. Templates are written against these very rules. */
#include <algorithm>
#include <vector>

#include "genhtml/ghsengine.h"

using namespace genhtml;

namespace {

constexpr Spellings END_OF_CONDITION{"<!-- #endif variable=\"", "<!--#endif variable=\""};
constexpr Spellings ALTERNATIVE{"<!-- #else variable=\"", "<!--#else variable=\""};
constexpr Spellings END_OF_LOOP{"<!-- #endfor loopname=\"", "<!--#endfor loopname=\""};

constexpr char COMMENT_OPENING[] = "<!--";
constexpr char DROPPED_END[] = "--->";  // of a comment that opens with one "-" more, and isn't passed on

constexpr size_t MOST_PREFIX_BYTES = 1024;  // of a prefix itself: each loop around adds 2 or more, and takes stack
constexpr size_t MOST_VARIABLES = 255;
constexpr int MOST_LINES = 1023;
constexpr int LINE_SIZE = 4096;

std::string_view text_of(const char *value) { return value != nullptr ? value : ""; }

bool is_text(const char *value, std::string_view text) { return value != nullptr && text == value; }

// ---- Comparisons -----------------------------------------------------------------------------------------------------

/** Both sides of a comparison. */
struct Sides {
    std::string_view left, right;
    bool nothingIsContained;
    bool areNumbers = false;
    int32_t leftNumber = 0, rightNumber = 0;
};

/** Reads a number, hexadecimal as all numbers of the platform's tables. What scanf takes is one: "0x" alone is 0. */
bool read_number(std::string_view text, int32_t *number) {
    char digits[9] = {}, rest[2];
    if (text.size() >= sizeof digits) return false;
    text.copy(digits, text.size());
    unsigned long value = 0;
    if (sscanf(digits, "%lx%1s", &value, rest) != 1) return false;
    *number = static_cast<int32_t>(value);
    return true;
}

bool is_equal(const Sides &sides) {
    return sides.areNumbers ? sides.leftNumber == sides.rightNumber : sides.left == sides.right;
}

bool does_contain(const Sides &sides) {
    if (sides.right.empty()) return sides.nothingIsContained;
    return sides.left.find(sides.right) != std::string_view::npos;
}

struct Operator {
    std::string_view sign;
    bool (*holds)(const Sides &sides);
};
/** In the order in which they are looked for: the first that is found counts, wherever it stands. */
constexpr Operator operators[] = {
    {" < ", [](const Sides &sides) { return sides.areNumbers && sides.leftNumber < sides.rightNumber; }},
    {" <= ", [](const Sides &sides) { return sides.areNumbers && sides.leftNumber <= sides.rightNumber; }},
    {" > ", [](const Sides &sides) { return sides.areNumbers && sides.leftNumber > sides.rightNumber; }},
    {" >= ", [](const Sides &sides) { return sides.areNumbers && sides.leftNumber >= sides.rightNumber; }},
    {" == ", is_equal},
    {" != ", [](const Sides &sides) { return !is_equal(sides); }},
    {" contains ", does_contain},
    {" !contains ", [](const Sides &sides) { return !does_contain(sides); }},
};

/** The right side of a comparison: a text, or the value of a variable by its plain name. */
std::optional<std::string_view> right_side(std::string_view behind) {
    if (const Token value = find_attribute(behind, " value=\"")) return value.inside;
    if (const Token name = find_attribute(behind, " variable=\"")) return text_of(variable(name.inside));
    return std::nullopt;
}

// ---- The conditions: does one hold, given its variable and what stands behind that -------------------------------------

bool holds_defined(const Pass &pass, std::string_view name, std::string_view behind) {
    const char *indexed = indexed_variable(pass, name);
    const char *plain = variable(name);
    const Token wanted = find_attribute(behind, " value=\"");
    if (!wanted) return indexed != nullptr || plain != nullptr;
    return is_text(indexed, wanted.inside) || is_text(plain, wanted.inside);
}

/** With a value: a loop looks at its indexed variable, which a plain one with another value overrules. */
bool holds_not_defined(const Pass &pass, std::string_view name, std::string_view behind) {
    const char *indexed = indexed_variable(pass, name);
    const char *plain = variable(name);
    if (indexed == nullptr && plain == nullptr) return true;
    const Token unwanted = find_attribute(behind, " value=\"");
    if (!unwanted) return false;
    const bool is_plain_other = plain != nullptr && !is_text(plain, unwanted.inside);
    return !is_text(pass.loop != nullptr ? indexed : plain, unwanted.inside) || is_plain_other;
}

/** A comparison without an operator or a right side asks nothing, and holds. */
bool holds_comparison(const Pass &pass, std::string_view name, std::string_view behind) {
    const auto *found = std::find_if(std::begin(operators), std::end(operators), [behind](const Operator &each) {
        return static_cast<bool>(find_token(behind, each.sign, "-->"));
    });
    const std::optional<std::string_view> right = right_side(behind);
    if (found == std::end(operators) || !right) return true;

    Sides sides{text_of(variable_of(pass, name)), *right, pass.level().nothingIsContained};
    sides.areNumbers = read_number(sides.left, &sides.leftNumber) && read_number(sides.right, &sides.rightNumber);
    return found->holds(sides);
}

// ---- Loops -------------------------------------------------------------------------------------------------------------

/** The body of a loop. */
struct Body {
    char *lines[MOST_LINES + 1] = {};
    Body() = default;
    ~Body() { clear(); }
    Body(const Body &) = delete;
    Body &operator=(const Body &) = delete;
    void clear() {
        for (char *&line : lines) free(std::exchange(line, nullptr));
    }
};

bool ends_loop(const char *line, std::string_view name) {
    const char *comment = strstr(line, COMMENT_OPENING);
    const Token end = comment != nullptr ? find_directive(comment, END_OF_LOOP) : Token{};
    return end && end.inside == name;
}

/** Reads lines up to the loop's end. False with a code. */
bool read_body(FILE *file, const char *name, char **lines) {
    constexpr char label[] = "ghsReadFor";
    char line[LINE_SIZE];
    for (int count = 0; fgets(line, sizeof line, file) != nullptr; ++count) {
        if (ends_loop(line, name)) return true;
        if (count >= MOST_LINES) {
            set_error(LOOP_TOO_LONG, label, name);
            return false;
        }
        lines[count] = new_string(label, line);
        if (lines[count] == nullptr) return false;
        lines[count + 1] = nullptr;
    }
    set_error(LOOP_WITHOUT_END, label, name);
    return false;
}

using Names = std::vector<std::string_view>;

/** Cuts a list of variables, without blanks, at its commas. Behind one at the end stands an empty name. */
Names names_in(std::string_view list) {
    Names names;
    for (size_t at = 0; at < list.size() && names.size() < MOST_VARIABLES;) {
        const size_t end = std::min(list.find(',', at), list.size());
        if (end > at) names.push_back(list.substr(at, end - at));
        at = end + 1;
    }
    if (list.ends_with(',') && names.size() < MOST_VARIABLES) names.emplace_back();
    return names;
}

/** Runs a loop over its body: once for each index, from 0 on, at which at least one of its variables exists. */
void print_loop(std::string_view prefix, FILE *stream, std::string_view name, std::string_view list, char **lines) {
    if (prefix.size() > MOST_PREFIX_BYTES) return set_error(NO_MEMORY, "ghsPrintFor");
    std::string variables(list);
    std::erase(variables, ' ');
    const Names names = names_in(variables);

    Skipping skipping;  // carried from one pass to the next
    Loop loop{.name = name};
    Pass pass{.stream = stream, .prefix = prefix, .skipping = skipping, .loop = &loop};
    for (;; ++loop.index) {
        loop.keys.go_to(prefix, loop.index);
        loop.innerLoop.reset();
        const auto exists = [&pass](std::string_view each) { return indexed_variable(pass, each) != nullptr; };
        if (std::none_of(names.begin(), names.end(), exists)) return;

        Fate fate = Fate::NEXT_LINE;
        for (char **line = lines; *line != nullptr && fate != Fate::END; ++line) {
            loop.nextLine = line + 1;
            fate = take_line(pass, *line);
        }
        if (ghsErrno != 0) return;
    }
}

/** The body of a file's loop is read from the file. Apart from the loops within it, which don't need its room. */
[[gnu::noinline]] void obey_for_of_file(const Pass &pass, std::string_view name, std::string_view list) {
    Body body;
    if (read_body(pass.file, std::string(name).c_str(), body.lines)) {
        print_loop(pass.prefix, pass.stream, name, list, body.lines);
    }
}

/** In a loop's body that of an inner loop is what follows. An error in there ends this loop too, at once: the lines to
 *  step over would clear it. */
Fate obey_for_of_loop(const Pass &pass, std::string_view name, std::string_view list) {
    print_loop(inner_prefix(pass), pass.stream, name, list, pass.loop->nextLine);
    pass.loop->innerLoop = name;
    return ghsErrno == 0 ? Fate::NEXT_LINE : Fate::END;
}

Fate obey_for(Pass &pass, std::string_view name, std::string_view behind) {
    const Token list = find_attribute(behind, "loopvars=\"");
    if (!list) return Fate::NEXT_LINE;
    if (pass.loop != nullptr) return obey_for_of_loop(pass, name, list.inside);
    obey_for_of_file(pass, name, list.inside);
    return Fate::NEXT_LINE;
}

// ---- The directives that are looked for where lines count, in this order -----------------------------------------------

template <bool (*holds)(const Pass &, std::string_view, std::string_view)>
Fate obey_condition(Pass &pass, std::string_view name, std::string_view behind) {
    if (!holds(pass, name, behind)) pass.skipping.begin_branch(name);
    return Fate::NEXT_LINE;
}

struct Directive {
    Spellings opening;
    Fate (*obey)(Pass &pass, std::string_view name, std::string_view behind);
};
constexpr Directive directives[] = {
    {{"<!-- #ifdef variable=\"", "<!--#ifdef variable=\""}, obey_condition<holds_defined>},
    {{"<!-- #ifndef variable=\"", "<!--#ifndef variable=\""}, obey_condition<holds_not_defined>},
    {{"<!-- #if variable=\"", "<!--#if variable=\""}, obey_condition<holds_comparison>},
    {{"<!-- #for loopname=\"", "<!--#for loopname=\""}, obey_for},
};

/** PRINT: there is none on the line. */
Fate obey_directive(Pass &pass, std::string_view line) {
    for (const Directive &directive : directives) {
        const Token found = find_directive(line, directive.opening);
        if (found) return directive.obey(pass, found.inside, found.behind(line));
    }
    return Fate::PRINT;
}

/** #endif and #else: they count in a branch that is skipped too, if it is their variable's. */
bool ends_branch(Skipping &skipping, std::string_view line) {
    const auto ends = [&skipping](const Token &found) { return skipping.variable == found.inside; };
    if (const Token found = find_directive(line, END_OF_CONDITION)) {
        if (ends(found)) skipping.end();
        return true;
    }
    if (const Token found = find_directive(line, ALTERNATIVE)) {
        if (ends(found)) {
            skipping.end();
        } else if (!skipping.is_on()) {
            skipping.begin_branch(found.inside);  // the true branch ends here
        }
        return true;
    }
    return false;
}

/** #endfor: of the inner loop whose lines were stepped over, or of this loop itself. */
Fate judge_end_of_loop(Loop &loop, std::string_view line) {
    const Token end = find_directive(line, END_OF_LOOP);
    if (end && loop.innerLoop == end.inside) {
        loop.innerLoop.reset();
        return Fate::NEXT_LINE;
    }
    return end && loop.name == end.inside ? Fate::END : Fate::PRINT;
}

/** Comments with one "-" more than usual are the template's own. */
bool opens_dropped_comment(const char *comment) { return comment[sizeof COMMENT_OPENING - 1] == '-'; }

}  // namespace

Token genhtml::find_directive(std::string_view line, const Spellings &opening) {
    const Token found = find_attribute(line, opening.wide);
    return found ? found : find_attribute(line, opening.narrow);
}

const char *genhtml::indexed_variable(const Pass &pass, std::string_view name) {
    return pass.loop != nullptr ? variable(pass.loop->keys.of(name)) : nullptr;
}

const char *genhtml::variable_of(const Pass &pass, std::string_view name) {
    const char *indexed = indexed_variable(pass, name);
    return indexed != nullptr ? indexed : variable(name);
}

bool genhtml::has_handler(const Pass &pass, std::string_view name) {
    if (variables.handlers == nullptr) return false;
    return (pass.loop != nullptr && handler_of(pass.loop->keys.of(name)) != nullptr) || handler_of(name) != nullptr;
}

bool genhtml::ask_handlers(const Pass &pass, std::string_view name, std::string &answer) {
    if (pass.loop != nullptr && ask_handler(pass.loop->keys.of(name), answer)) return true;
    return ask_handler(name, answer);
}

std::string genhtml::inner_prefix(const Pass &pass) {
    std::string prefix(pass.prefix);
    if (pass.loop == nullptr) return prefix;
    if (!prefix.ends_with('_')) prefix += '_';
    return prefix.append(std::to_string(pass.loop->index)).append("_");
}

Fate genhtml::judge_line(Pass &pass, const char *line, const char *comment) {
    Skipping &skipping = pass.skipping;
    if (skipping.kind == Skipping::COMMENT && strstr(line, DROPPED_END) != nullptr) {
        skipping.kind = skipping.variable ? Skipping::FALSE_BRANCH : Skipping::NOTHING;
        return Fate::NEXT_LINE;
    }
    const bool is_dropped_comment = comment != nullptr && opens_dropped_comment(comment);
    const bool has_directive = comment != nullptr && strchr(comment, '#') != nullptr;
    const bool is_searched = comment != nullptr && (pass.loop != nullptr || !is_dropped_comment);
    if (is_searched) clear_error("ghsFindToken");

    if (pass.loop != nullptr && has_directive) {
        const Fate fate = judge_end_of_loop(*pass.loop, comment);
        if (fate != Fate::PRINT) return fate;
    }
    if (pass.loop != nullptr && pass.loop->innerLoop) return Fate::NEXT_LINE;
    if (is_dropped_comment) {
        if (strstr(line, DROPPED_END) == nullptr) skipping.kind = Skipping::COMMENT;
        return Fate::NEXT_LINE;
    }
    if (has_directive && ends_branch(skipping, comment)) return Fate::NEXT_LINE;
    if (skipping.is_on()) return Fate::NEXT_LINE;
    return has_directive ? obey_directive(pass, comment) : Fate::PRINT;
}

int ghsReadFor(FILE *file, const char *name, char **lines) {
    constexpr char label[] = "ghsReadFor";
    clear_error(label);
    lines[0] = nullptr;
    if (name == nullptr) name = "";
    if (read_body(file, name, lines)) return 0;
    for (char **line = lines; *line != nullptr; ++line) free(*line);
    lines[0] = nullptr;
    return -1;
}

void ghsPrintFor(const char *prefix, FILE *stream, const char *name, const char *list, char **lines) {
    constexpr char label[] = "ghsPrintFor";
    clear_error(label);
    with_memory<bool>(label, false, [&] {
        print_loop(text_of(prefix), stream, text_of(name), text_of(list), lines);
        return true;
    });
}
