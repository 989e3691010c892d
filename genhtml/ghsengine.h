/* What the parts of the template engine share among themselves: a pass over template lines, and the steps that a line
 * goes through. Lines of a file and lines of a loop's body take the same way; where they differ, `loop` or `level` of
 * the pass says so. */
#ifndef GENHTML_GHSENGINE_H
#define GENHTML_GHSENGINE_H

#include <charconv>
#include <iterator>
#include <optional>
#include <string>
#include <string_view>

#include "genhtml/ghstate.h"

namespace genhtml {

/** Why lines don't count at present. Conditions have no stack: there is one variable at most. */
struct Skipping {
    enum Kind { NOTHING, FALSE_BRANCH, COMMENT };
    Kind kind = NOTHING;
    std::optional<std::string> variable;  // whose condition made the branch false

    bool is_on() const { return kind != NOTHING; }
    void begin_branch(std::string_view name) {
        kind = FALSE_BRANCH;
        variable = name;
    }
    void end() {
        kind = NOTHING;
        variable.reset();
    }
};

/** What differs between the lines of a file and those of a loop's body, beside the indexed variables. */
struct Level {
    bool nothingIsContained;  // what "contains" answers for an empty right side
    bool knowsNoHtml;         // the definition of T_NOHTML enters the no-HTML mode
};
inline constexpr Level FILE_LEVEL{.nothingIsContained = false, .knowsNoHtml = true};
inline constexpr Level LOOP_LEVEL{.nothingIsContained = true, .knowsNoHtml = false};

/** The keys of a loop's variables at an index: name, prefix, index. The latter two stand still, and the names are laid
 *  before them one after the other. */
class LoopKeys {
public:
    void go_to(std::string_view prefix, int index) {
        char *const digits = ending() + prefix.copy(ending(), MOST_BYTES);
        length_ = static_cast<size_t>(std::to_chars(digits, std::end(text_), index).ptr - ending());
    }

    /** Good until the next call. */
    std::string_view of(std::string_view name) {
        if (name.size() > MOST_BYTES) name = name.substr(0, MOST_BYTES);
        char *const start = ending() - name.size();
        name.copy(start, MOST_BYTES);  // not memcpy: an empty name may be null
        return {start, name.size() + length_};
    }

private:
    char *ending() { return text_ + MOST_BYTES; }

    static constexpr size_t MOST_BYTES = 341;  // of a name, and of a prefix
    char text_[2 * MOST_BYTES + sizeof "2147483647"];
    size_t length_ = 0;  // of prefix and index
};

/** Where a loop is: its body at one index. */
struct Loop {
    std::string_view name;
    int index = 0;
    LoopKeys keys = {};
    char **nextLine = nullptr;                  // behind the current line, where the body of an inner loop begins
    std::optional<std::string> innerLoop = {};  // the inner loop that was run and whose lines are now stepped over
};

/** Lines going by: a file's, or a loop's body at one index. */
struct Pass {
    FILE *stream;
    std::string_view prefix;  // between a variable's name and its index in the loops of these lines
    Skipping &skipping;
    FILE *file = nullptr;   // file level: where the body of a loop is read from
    Loop *loop = nullptr;   // loop level
    std::string text = {};  // the current line while it is worked on

    const Level &level() const { return loop != nullptr ? LOOP_LEVEL : FILE_LEVEL; }
};

enum class Fate { PRINT, NEXT_LINE, END };  // of a line, and END of the pass

/** The two spellings of a directive's opening: with a blank behind that of the comment, and without. */
struct Spellings {
    std::string_view wide, narrow;
};

/** Finds a directive and what stands in its quotes: the wide spelling anywhere on the line goes before the narrow. */
Token find_directive(std::string_view line, const Spellings &opening);

/** Finds an attribute, given with its leading blank, "=" and opening quote. */
inline Token find_attribute(std::string_view text, std::string_view opening) {
    return find_token(text, opening, "\"");
}

// ---- genhtmls.cpp ----

/** Takes a line through all its steps. END: an error, or the loop's own end. */
Fate take_line(Pass &pass, const char *line);

// ---- ghscontrol.cpp ----

/** The first steps of a line: conditions, loops, comments that are not passed on. They see it as it was read. */
Fate judge_line(Pass &pass, const char *line, const char *comment);

/** The value of a variable under the key of this pass; null at file level, or without such a key. */
const char *indexed_variable(const Pass &pass, std::string_view name);

/** The value of the key of this pass, else of the plain name; null if there is none. */
const char *variable_of(const Pass &pass, std::string_view name);

/** True if there is a handler for the key of this pass or for the plain name. */
bool has_handler(const Pass &pass, std::string_view name);

/** Asks the handler of the key of this pass, then that of the plain name. False: none has an answer. */
bool ask_handlers(const Pass &pass, std::string_view name, std::string &answer);

/** The prefix for loops and includes within these lines. */
std::string inner_prefix(const Pass &pass);

// ---- ghstag.cpp ----

/** Replaces the tags in a text, as ghsTagReplace does. */
void replace_tags(std::string &text);

}  // namespace genhtml

#endif
