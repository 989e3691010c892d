/* Thousands of random requests of all six functions, each reply compared with a small model of the table.
 *
 * The model is a std::map and the rules as a client may rely on them; it shares no code with the gateway.
 * VELMORA_TEST_SEED repeats a run, VELMORA_TEST_REQUESTS makes it longer. */
#include <gtest/gtest.h>
#include <algorithm>
#include <cctype>
#include <cstdlib>
#include <map>

#include "tests/support/bytes.h"
#include "tests/support/serverprocess.h"

namespace {

const Strings COLUMNS{"ID", "NAME", "VISITS", "KIND"};
const std::map<std::string, size_t> SIZES{{"ID", 6}, {"NAME", 8}, {"VISITS", 8}, {"KIND", 3}};
constexpr char TABLE[] =
    "CREATE TABLE ITEMS (ID VARCHAR2(6) PRIMARY KEY, NAME VARCHAR2(8), VISITS VARCHAR2(8), KIND VARCHAR2(3))";

using Row = std::map<std::string, std::string>;  // column to value; an empty one is none
using Rows = std::map<std::string, Row>;         // by ID

std::string upper(std::string text) {
    for (char &byte : text) byte = static_cast<char>(toupper(byte));
    return text;
}
bool is_known(const std::string &attribute) { return SIZES.count(upper(attribute)) != 0; }

bool matches(const char *text, const char *pattern) {
    if (*pattern == 0) return *text == 0;
    if (*pattern == '*') return matches(text, pattern + 1) || (*text != 0 && matches(text + 1, pattern));
    return *text != 0 && (*pattern == '?' || *pattern == *text) && matches(text + 1, pattern + 1);
}

/** What the server should answer. Requests are the strings behind "DB". */
class Model {
public:
    Strings answer(const Strings &request) {
        switch (request[0][0]) {
            case 'G':
                return get(request);
            case 'I':
                return insert(request);
            case 'U':
                return update(request);
            case 'A':
                return add(request);
            case 'D':
                return remove(request);
            default:
                return list(request);
        }
    }
    const Rows &rows() const { return rows_; }

private:
    Rows rows_;

    Row *find(const Strings &request) {
        const auto row = rows_.find(request[3]);
        return row == rows_.end() ? nullptr : &row->second;
    }

    /** Update and add first read the first attribute: "" if the row is there, else the answer. */
    std::string check(const Strings &request) {
        if (!is_known(request[4])) return "1";
        return find(request) == nullptr ? "101" : "";
    }

    Strings get(const Strings &request) {
        if (std::none_of(request.begin() + 4, request.end(), is_known)) return {"1"};
        const Row *row = find(request);
        if (row == nullptr) return {"101"};
        Strings result{"0"};
        for (size_t at = 4; at < request.size(); ++at) {
            result.push_back(is_known(request[at]) ? row->at(upper(request[at])) : "");
        }
        return result;
    }

    static void assign(Row &row, const Strings &request, size_t from) {
        for (size_t at = from; at + 1 < request.size(); at += 2) {
            const std::string column = upper(request[at]);
            if (is_known(column)) row[column] = request[at + 1].substr(0, SIZES.at(column));
        }
    }

    Strings insert(const Strings &request) {
        Row row;
        for (const std::string &column : COLUMNS) row[column] = "";
        assign(row, request, 2);
        if (rows_.count(row["ID"]) != 0) return {"2"};
        rows_[row["ID"]] = row;
        return {"0"};
    }

    Strings update(const Strings &request) {
        const std::string refusal = check(request);
        if (!refusal.empty()) return {refusal};
        assign(*find(request), request, 4);
        return {"0"};
    }

    Strings add(const Strings &request) {
        const std::string refusal = check(request);
        if (!refusal.empty()) return {refusal};
        Row &row = *find(request);
        Strings changed;
        for (size_t at = 4; at + 1 < request.size(); at += 2) {
            const std::string column = upper(request[at]);
            if (!is_known(column)) continue;
            const auto old = static_cast<uint32_t>(strtoul(row[column].c_str(), nullptr, 16));
            char text[9];
            snprintf(text, sizeof text, "%08x", old + static_cast<uint32_t>(atol(request[at + 1].c_str())));
            row[column] = text;
            changed.push_back(text);
        }
        return changed.size() == 1 ? Strings{"0", changed[0]} : Strings{"0"};
    }

    Strings remove(const Strings &request) { return {rows_.erase(request[3]) != 0 ? "0" : "1"}; }

    Strings list(const Strings &request) {
        const std::string search = upper(request[2]);
        const bool is_long = request[5] != "+" && request[5] != "-";
        const size_t base = is_long ? 6 : 4;
        const bool descends = request[base + 1] == "-";
        const auto before = [descends](const auto &left, const auto &right) {
            return descends ? right < left : left < right;
        };
        using Place = std::pair<std::string, std::string>;  // search value and ID
        Place start{request[3], ""};
        if (is_long) {
            const Row *first = first_at(request[5], descends);
            if (first == nullptr) return {"0"};
            start = {first->at(search), first->at("ID")};
            if (start.first.empty()) return {"0"};  // no value to compare with
        }
        std::vector<Place> found;
        for (const auto &[id, row] : rows_) {
            const Place place{row.at(search), id};
            if (place.first.empty() || !matches(place.first.c_str(), filter(request, base))) continue;
            if (is_long ? !before(start, place) : !start.first.empty() && !before(start.first, place.first)) continue;
            found.push_back(place);
        }
        std::sort(found.begin(), found.end(), before);
        found.resize(std::min<size_t>(found.size(), static_cast<size_t>(std::max(0, atoi(request[base].c_str())))));
        Strings result{"0"};
        for (const auto &[value, id] : found) {
            result.push_back(value);
            for (size_t at = base + 3; at < request.size(); ++at) {
                result.push_back(is_known(request[at]) ? rows_.at(id).at(upper(request[at])) : "");
            }
        }
        return result;
    }

    static const char *filter(const Strings &request, size_t base) {
        return request[base + 2].empty() ? "*" : request[base + 2].c_str();
    }

    const Row *first_at(const std::string &start, bool descends) const {
        if (rows_.empty()) return nullptr;
        if (start.empty()) return descends ? &rows_.rbegin()->second : &rows_.begin()->second;
        if (!descends) {
            const auto row = rows_.lower_bound(start);
            return row == rows_.end() ? nullptr : &row->second;
        }
        const auto behind = rows_.upper_bound(start);
        return behind == rows_.begin() ? nullptr : &std::prev(behind)->second;
    }
};

class Requests {
public:
    Strings next() {
        switch ("IIUAADGGLP"[random_.below(10)]) {
            case 'I':
                return with_pairs({"I", "ITEMS", "ID", id()}, false);
            case 'U':
                return with_pairs({"U", "ITEMS", "ID", id()}, false);
            case 'A':
                return with_pairs({"A", "ITEMS", "ID", id()}, true);
            case 'D':
                return {"D", "ITEMS", "ID", id()};
            case 'G':
                return with_attributes({"G", "ITEMS", "ID", id()}, 1);
            case 'L':
                return with_attributes(page({"L", "items", one_of(COLUMNS), value()}), 0);
            default:
                return with_attributes(
                    page({"L", "ITEMS", one_of({"NAME", "VISITS", "KIND"}), "", "ID", one_of({id(), "", "m"})}), 0);
        }
    }

private:
    Seeded random_;

    std::string one_of(const Strings &choice) { return random_.one_of(choice); }
    std::string id() { return std::string(1, "aBcXyz"[random_.below(6)]) + std::to_string(random_.below(15)); }
    std::string value() {
        std::string text;
        for (size_t left = random_.below(11); left > 0; --left) text += "abAB01%_!:'x"[random_.below(12)];
        return text;
    }

    Strings with_attributes(Strings request, size_t least) {
        for (size_t left = least + random_.below(5); left > 0; --left) {
            request.push_back(one_of({"ID", "name", "VISITS", "Kind", "NAME", "NOPE"}));
        }
        return request;
    }

    /** Each column at most once: a column has room for one value in a statement. */
    Strings with_pairs(Strings request, bool counters) {
        Strings attributes = counters ? Strings{"VISITS", "NOPE", "name"} : Strings{"NAME", "visits", "KIND", "NOPE"};
        std::shuffle(attributes.begin(), attributes.end(), random_);
        attributes.resize(1 + random_.below(attributes.size()));
        for (const std::string &each : attributes) {
            request.push_back(each);
            request.push_back(counters ? one_of({"1", "-1", "17", "-300", "4000000", "0", "x"}) : value());
        }
        return request;
    }

    Strings page(Strings request) {
        request.push_back(one_of({"0", "1", "2", "7", "100"}));
        request.push_back(one_of({"+", "-"}));
        request.push_back(one_of({"", "*", "?*", "a*", "*%*", "*b", "*_*", "0000*", "*!*", "*1?"}));
        return request;
    }
};

TEST(RandomRequests, AnswerLikeTheModel) {
    ServerProcess server;
    server.sql(TABLE);
    TestClient client{server.port()};
    Model model;
    Requests requests;
    std::map<std::string, int> answered;
    const unsigned count = from_environment("VELMORA_TEST_REQUESTS", 4000);
    for (unsigned number = 0; number < count; ++number) {
        const Strings request = requests.next();
        const Strings sent = joined({"DB"}, request);
        const Strings expected = model.answer(request);
        ASSERT_EQ(client.ask(sent), expected) << testing::PrintToString(sent) << " request " << number;
        ++answered[request[0] + expected[0] + (expected.size() > 1 ? "+" : "")];
    }
    EXPECT_EQ(server.value("SELECT count(*) FROM ITEMS"), std::to_string(model.rows().size()));
    for (const char *kind : {"G0+", "G101", "I0", "I2", "U0", "U101", "A0+", "A0", "A101", "D0", "D1", "L0+", "L0"}) {
        EXPECT_GT(answered[kind], 0) << kind << " was never tried: the test lost its sense";
    }
}

}  // namespace
