/* The placeholders of an SQL text. Order of first appearance is the position; a name that comes again is the same
 * placeholder. What stands in quotes or comments is none. */
#ifndef OCI_PLACEHOLDERS_H
#define OCI_PLACEHOLDERS_H

#include <string>
#include <string_view>
#include <vector>

struct Placeholders {
    std::vector<std::string> names;  // without the colon; the first has position 1
    std::string text;                // the SQL text with each placeholder as mark and position: "?1"

    int count() const { return static_cast<int>(names.size()); }

    /** Gives the position of a name, with or without its colon, in either case; 0 if there is none. */
    int position(std::string_view name) const;
};

/** Finds the placeholders, and numbers them in the form that an engine takes. */
Placeholders find_placeholders(std::string_view sql, char mark);

#endif
