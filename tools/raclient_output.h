/* How raclient shows the strings of an answer. A string may hold any bytes but zero ones; what is shown neither ends a
 * line early nor steers a terminal. */
#ifndef TOOLS_RACLIENT_OUTPUT_H
#define TOOLS_RACLIENT_OUTPUT_H

#include <string>
#include <string_view>
#include <vector>

using Texts = std::vector<std::string_view>;

/** A string as one line, no byte lost: \n, \t, \\, and \xHH for the other control bytes. */
std::string as_line(std::string_view text);

/** Strings as a JSON array, itself UTF-8: a string that is not UTF-8 is read as ISO 8859-1. */
std::string as_json(const Texts &strings);

/** Strings as lines of aligned columns, cell by cell; under headings, unless those are all empty. A last row may be
 *  short. */
std::string as_table(const Texts &headings, const Texts &cells);

#endif
