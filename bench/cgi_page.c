/* A program on the CGI toolkit, for bench/pages: prints one line or, with rows=N in the query, a template with a loop of
 * N rows with five variables each. bench/plain_page.c prints the same without the toolkit. */
#include <stdlib.h>
#include <string.h>

#include "genhtml/genhtml.h"

static void set(const char *name, const char *text, const char *row) {
    char key[32], value[32];
    stpcpy(stpcpy(key, name), row);
    stpcpy(stpcpy(value, text), row);
    ghSaveForReplace(key, value, 0);
}

int main(int argc, char **argv) {
    char *rows, *template_file;
    ghReadParse(argc, argv);
    if (!ghInFetch("rows", &rows)) {
        ghPrintf("hello\n");
        return 0;
    }
    const int count = atoi(rows);
    for (int row = 0; row < count; row++) {
        char number[16];
        snprintf(number, sizeof number, "%d", row);
        set("id", "#", number);
        set("name", "name ", number);
        set("city", "city ", number);
        set("visits", "visits ", number);
        set("place", "place ", number);
    }
    ghInFetch("template", &template_file);
    ghPrintTemplate(stdout, template_file);
    return 0;
}
