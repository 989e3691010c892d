/* Template variables between two inputs, for the targets of the CGI toolkit. */
#ifndef FUZZ_VARIABLES_H
#define FUZZ_VARIABLES_H

#include "genhtml/ghstate.h"

/** Removes all variables, and keeps their table: making its half a megabyte anew for each input would take longer than
 *  the input itself. */
inline void forget_variables() {
    PAA_S *const table = genhtml::variables.table;
    if (table == nullptr) return;
    while (void *key = paaFirst(table, nullptr)) ghsReplaceRemove(std::string(static_cast<char *>(key)).c_str());
    genhtml::variables.noHtml = genhtml::variables.allProtected = false;
}

#endif
