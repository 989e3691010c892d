/* Makes requests of calls, and pages of lists. */
#include "examples/browser/store.h"

#include <stdlib.h>

#include <algorithm>
#include <string_view>

#include "process/owned.h"

namespace {

// A reader waits for the page: a second try each second, and an answer within four.
constexpr int INTERVAL = 1, TRIES = 4;

Strings names_of(const Table &table) {
    Strings names;
    for (const Column &column : table.columns) names.push_back(column.name);
    return names;
}

Strings joined(Strings words, const Strings &more) {
    words.insert(words.end(), more.begin(), more.end());
    return words;
}

/** A value with control characters in it travels in a frame. */
void frame(std::string &word) {
    const auto is_control = [](unsigned char character) { return character < ' '; };
    if (std::none_of(word.begin(), word.end(), is_control)) return;
    const OwnedBlock<char> framed(orEncode(word.c_str()));
    if (framed) word = framed.get();
}

RA_CLIENT_S *client_for(const std::string &address) {
    const size_t colon = std::min(address.rfind(':'), address.size());
    const std::string host = address.substr(0, colon);
    const long port = colon < address.size() ? strtol(address.c_str() + colon + 1, nullptr, 10) : 0;
    return raclient_udp_create(host.c_str(), static_cast<uint16_t>(port), INTERVAL, TRIES);
}

/** Without an anchor the first page, by the short form; the long form goes on next to the anchor, also among records
 *  of equal value. One row more than wanted tells whether there is a further page. */
Strings list_words(const PageRequest &wanted) {
    Strings words{"DB", "L", wanted.table.name, wanted.sort, ""};
    if (!wanted.anchor.empty()) words = joined(words, {KEY, wanted.anchor});
    const bool isDownward = wanted.descending != wanted.isBefore;
    return joined(joined(words, {std::to_string(wanted.rows + 1), isDownward ? "-" : "+", wanted.filter}),
                  names_of(wanted.table));
}

/** A row is the value that sorts the list, and then the columns. */
std::vector<Strings> rows_of(const Answer &answer, size_t columns) {
    std::vector<Strings> rows;
    for (auto next = answer.values.begin(); answer.values.end() - next > static_cast<long>(columns);) {
        rows.emplace_back(next + 1, next + 1 + static_cast<long>(columns));
        next += static_cast<long>(columns) + 1;
    }
    return rows;
}

}  // namespace

Store::Store(const std::string &address) : client_(client_for(address), raclient_udp_destroy) {}

Answer Store::ask(Strings words) const {
    std::vector<char *> request;
    for (std::string &word : words) {
        frame(word);
        request.push_back(word.data());
    }
    const int count = raclient_udp_request(client_.get(), static_cast<int>(request.size()), request.data());
    if (count <= 0) return {count == RAERRDENIED ? "denied" : "away", {}, raclient_errmsg(client_.get())};
    Answer answer{raclient_result(client_.get(), 0), {}, ""};
    for (int i = 1; i < count; ++i) answer.values.emplace_back(raclient_result(client_.get(), i));
    return answer;
}

Page Store::list(const PageRequest &wanted) const {
    Page page{ask(list_words(wanted)), {}};
    page.rows = rows_of(page.answer, wanted.table.columns.size());
    const bool hasMore = page.rows.size() > wanted.rows;
    if (hasMore) page.rows.pop_back();
    if (!wanted.isBefore) {
        page.hasEarlier = !wanted.anchor.empty();
        page.hasLater = hasMore;
    } else if (hasMore) {
        std::reverse(page.rows.begin(), page.rows.end());
        page.hasEarlier = page.hasLater = true;
    } else if (page.answer.is_done()) {  // the start of the list: a first page, and a full one
        return list({wanted.table, wanted.sort, wanted.filter, wanted.rows, wanted.descending, "", false});
    }
    return page;
}

Answer Store::get(const Table &table, const std::string &id) const {
    return ask(joined({"DB", "G", table.name, KEY, id}, names_of(table)));
}

Answer Store::insert(const Table &table, const Strings &pairs) const {
    return ask(joined({"DB", "I", table.name}, pairs));
}

Answer Store::update(const Table &table, const std::string &id, const Strings &pairs) const {
    return ask(joined({"DB", "U", table.name, KEY, id}, pairs));
}

Answer Store::count(const Table &table, const std::string &id, const std::string &column, long by) const {
    return ask({"DB", "A", table.name, KEY, id, column, std::to_string(by)});
}

Answer Store::remove(const Table &table, const std::string &id) const {
    return ask({"DB", "D", table.name, KEY, id});
}
