/* Two passes over finished text: tags in square brackets become what their variables hold, and values lose what would
 * run in a browser. */
#include <ctype.h>

#include <algorithm>
#include <array>
#include <vector>

#include "genhtml/ghsengine.h"

using namespace genhtml;

namespace {

// ---- Tags --------------------------------------------------------------------------------------------------------------

constexpr int MOST_ROUNDS = 129;
constexpr auto NOWHERE = std::string::npos;

/** Finds the closing of a tag, "[/NAME]", regardless of case: by its slash, which is rarer than brackets. */
size_t find_closing(const std::string &text, const std::string &closing, size_t from) {
    size_t slash = text.find('/', from + 1);
    while (slash != NOWHERE && strncasecmp(text.c_str() + slash - 1, closing.c_str(), closing.size()) != 0) {
        slash = text.find('/', slash + 1);
    }
    return slash != NOWHERE ? slash - 1 : NOWHERE;
}

/** The white space around a text between two places: where it begins without it, and where it ends. */
size_t skip_white_from(const std::string &text, size_t from) {
    while (from < text.size() && is_white(text[from])) ++from;
    return from;
}
size_t trim_white_to(const std::string &text, size_t from, size_t to) {
    while (to > from && is_white(text[to - 1])) --to;
    return to;
}

/** Puts `fresh` in the place of a part of the text, unless the text would grow beyond the limit of a line. */
void exchange(std::string &text, size_t from, size_t to, std::string_view fresh) {
    if (text.size() - (to - from) + fresh.size() + 1 <= LINE_LIMIT) text.replace(from, to - from, fresh);
}

/** One round: the first tag from the cursor on. False: there is none. */
bool replace_first_tag(std::string &text, size_t &cursor) {
    const size_t opening = text.find('[', cursor);
    const size_t bracket = opening != NOWHERE ? text.find(']', opening) : NOWHERE;
    if (bracket == NOWHERE) return false;

    std::string name = text.substr(opening + 1, bracket - opening - 1);
    for (char &letter : name) letter = static_cast<char>(toupper(static_cast<unsigned char>(letter)));
    const char *stored = variable("g_Tag_" + name);
    if (stored == nullptr || *stored == '\0') {
        cursor = bracket;
        return true;
    }

    std::string value = stored;
    const std::string close = "[/" + name + "]";
    const size_t content = skip_white_from(text, bracket + 1);
    const size_t closing = find_closing(text, close, content);
    if (closing != NOWHERE) {
        const std::string inside = text.substr(content, trim_white_to(text, content, closing) - content);
        std::string spare;
        replace_in(value, "%s", inside, 0, spare);
        const std::string whole = text.substr(opening, closing + close.size() - opening);
        const size_t first = text.find(whole);  // the same text may stand before the cursor: then that one goes
        exchange(text, first, first + whole.size(), value);
        cursor = 0;
    } else if (value.find("%s") == NOWHERE) {
        exchange(text, opening, bracket + 1, value);
        cursor = 0;
    } else {
        cursor = content;  // a tag that would hold text, and nothing ends it
    }
    return true;
}

// ---- Active content ------------------------------------------------------------------------------------------------------

/** Events whose handlers a page may define: "onClick" and so on. */
constexpr std::string_view events[] = {"onAbort",  "onBlur",   "onClick",    "onChange",    "onError",
                                       "onFocus",  "onLoad",   "onMouseout", "onMouseOver", "onReset",
                                       "onSelect", "onSubmit", "onUnload"};
constexpr std::string_view elements[] = {"script", "noscript", "iframe", "object"};
constexpr std::string_view secrets[] = {"$COOKIE>", "$AUTH>"};

/** What the rules begin with, and the end. Most values have none of it, and are passed over quickly. */
constexpr auto STOPS = [] {
    std::array<bool, 256> stops{};
    for (const char character : {'\0', '<', '&', 'o', 'O'}) stops[static_cast<unsigned char>(character)] = true;
    return stops;
}();

char *next_stop(char *text) {
    while (!STOPS[static_cast<unsigned char>(*text)]) ++text;
    return text;
}

bool begins_ignoring_case(const char *text, std::string_view word) {
    return strncasecmp(text, word.data(), word.size()) == 0;
}

/** True if the word at a place is this one and ends there. */
bool is_word(const char *text, std::string_view word) {
    return begins_ignoring_case(text, word) && !process_isalnum(static_cast<unsigned char>(text[word.size()]));
}

bool names_event(const char *text) {
    if (text[1] != 'n' && text[1] != 'N') return false;
    const auto is_it = [text](std::string_view event) { return begins_ignoring_case(text, event); };
    return std::any_of(std::begin(events), std::end(events), is_it);
}

/** The next place of a word in a text, asked for from growing places: it is looked for once, however often it is
 *  asked. Nowhere is behind all places. */
class NextPlace {
public:
    NextPlace(std::string_view text, std::string_view word) : text_(text), word_(word), at_(text.find(word)) {}

    size_t from(size_t place) {
        if (at_ < place) at_ = text_.find(word_, place);
        return at_;
    }

private:
    std::string_view text_, word_;
    size_t at_;
};

/** Blanks what opens active content. An opening, "<" or "&", is judged by the first character behind it that isn't
 *  white; and what is blanked is white from then on, so the opening before may have to be judged once more. The ones
 *  that still wait for their character are kept, which makes it one pass. */
class OpeningFilter {
public:
    explicit OpeningFilter(char *text) : text_(text), lower_(text, "htm"), upper_(text, "HTM"), end_(text, ">") {}

    int run() {
        for (char *place = text_; *place != '\0'; ++place) {
            while (!is_white(*place) && !waiting_.empty() && blank_last_opening(place)) {
            }
            if (is_white(*place)) continue;
            if (*place == '<' || *place == '&') {
                waiting_.push_back(place);
            } else {
                waiting_.clear();
            }
        }
        return changes_;
    }

private:
    /** Judges the last opening by the character at a place. True if it was blanked. */
    bool blank_last_opening(char *place) {
        char *const opening = waiting_.back();
        const bool is_code = *opening == '&' ? *place == '{' : opens_element(place);
        if (!is_code && (*opening == '&' || !opens_secret(place))) return false;
        *opening = ' ';
        if (is_code) *place = ' ';
        waiting_.pop_back();
        ++changes_;
        return true;
    }

    bool opens_element(const char *place) {
        for (const std::string_view element : elements) {
            if (is_word(place, element)) return true;
        }
        return is_word(place, "embed") && is_page_named(place);
    }

    static bool opens_secret(const char *place) {
        for (const std::string_view secret : secrets) {
            if (strncmp(place, secret.data(), secret.size()) == 0) return true;
        }
        return false;
    }

    /** True if a page is named before the next ">". */
    bool is_page_named(const char *place) {
        const auto at = static_cast<size_t>(place - text_);
        return std::min(lower_.from(at), upper_.from(at)) < end_.from(at);
    }

    char *text_;
    NextPlace lower_, upper_, end_;
    std::vector<char *> waiting_;
    int changes_ = 0;
};

}  // namespace

void genhtml::replace_tags(std::string &text) {
    size_t cursor = 0;
    for (int round = 0; round < MOST_ROUNDS && cursor < text.size(); ++round) {
        if (!replace_first_tag(text, cursor)) return;
    }
}

char *ghsTagReplace(const char *text) {
    static std::string result;
    return with_memory<char *>("ghsTagReplace", nullptr, [text] {
        std::string fresh = text != nullptr ? text : "";  // the text may be the former result
        replace_tags(fresh);
        result.swap(fresh);
        return result.data();
    });
}

int ghsFilterActiveContent(char *text) {
    if (text == nullptr) return 0;
    int changes = 0;
    bool has_openings = false;
    for (char *place = next_stop(text); *place != '\0'; place = next_stop(place + 1)) {
        if (*place == '<' || *place == '&') {
            has_openings = true;
        } else if (names_event(place)) {
            place[0] = place[1] = ' ';  // no other rule makes or breaks an event's name
            ++changes;
        }
    }
    if (!has_openings) return changes;
    return changes + with_memory<int>("ghsFilterActiveContent", 0, [text] { return OpeningFilter(text).run(); });
}
