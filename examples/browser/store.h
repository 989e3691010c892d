/* The records, as the RA server keeps them: one call for each request. */
#ifndef EXAMPLES_BROWSER_STORE_H
#define EXAMPLES_BROWSER_STORE_H

#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "examples/browser/tables.h"
#include "raserver/raextern.h"

using Strings = std::vector<std::string>;

/** What came of a request. */
struct Answer {
    std::string status;  // "0": done; the server's other codes; "away" or "denied" if it sent none
    Strings values;      // what followed the status
    std::string reason;  // why there is no status, in words

    bool is_done() const { return status == "0"; }
};

/** A page of a list that is asked for. */
struct PageRequest {
    const Table &table;
    std::string sort;    // a column's name
    std::string filter;  // pattern with * and ?
    size_t rows;         // at most
    bool descending;
    std::string anchor;  // key of the record that the page is next to; empty: the first page
    bool isBefore;       // the page in front of the anchor, not the one behind it
};

struct Page {
    Answer answer;
    std::vector<Strings> rows;  // values in the order of the table's columns
    bool hasEarlier = false, hasLater = false;
};

class Store {
public:
    /** @param address  "HOST:PORT" of the server */
    explicit Store(const std::string &address);

    Page list(const PageRequest &wanted) const;
    Answer get(const Table &table, const std::string &id) const;  // values in the order of the columns
    Answer insert(const Table &table, const Strings &pairs) const;
    Answer update(const Table &table, const std::string &id, const Strings &pairs) const;
    Answer count(const Table &table, const std::string &id, const std::string &column, long by) const;
    Answer remove(const Table &table, const std::string &id) const;

private:
    Answer ask(Strings words) const;

    std::unique_ptr<RA_CLIENT_S, decltype(&raclient_udp_destroy)> client_;
};

#endif
