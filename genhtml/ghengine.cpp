/* Calls that hand on to the template engine, and differ from it in their failure only: where the engine leaves a code,
 * they end the program with the error page. */
#include "genhtml/genhtml.h"
#include "genhtml/ghi.h"

namespace {

/** Gives the engine's result on, unless it failed. The slot decides: a null may be a result as well. */
template <class Result>
Result checked(Result result) {
    if (ghsErrno != 0) genhtml::fail("%s", ghsErrMsg);
    return result;
}

void check() { checked(0); }

}  // namespace

char *ghDecode(const char *text) { return checked(ghsDecode(text)); }

char *ghEncode(const char *text) { return checked(ghsEncode(text)); }

char *ghHtmlProtect(const char *text) { return checked(ghsHtmlProtect(text)); }

char *ghReplace(const char *text, const char *old, const char *new_) {
    return checked(ghsReplace(text, old, new_, 0));
}

char *ghFindToken(const char *text, const char *open, const char *close, int *start, int *length) {
    return checked(ghsFindToken(text, open, close, start, length));
}

char *ghFindLastToken(const char *text, const char *open, const char *close, int *start, int *length) {
    return checked(ghsFindLastToken(text, open, close, start, length));
}

int ghSaveToHash(PAA_S *table, const char *key, const char *value, int protect) {
    return checked(ghsSaveToHash(table, key, value, protect));
}

int ghSaveForReplace(const char *key, const char *value, int protect) {
    if (genhtml::may_debug()) {
        ghDebug("%s: pkey=\"%s\" pvalue=\"%s\".\n", "ghSaveForReplace", genhtml::DebugText(key).get(),
                genhtml::DebugText(value).get());
    }
    return checked(ghsSaveForReplace(key, value, protect));
}

void ghReplaceRemove(const char *key) {
    if (key == nullptr) genhtml::fail("ghReplaceRemove: Invalid parameter\n");
    ghsReplaceRemove(key);
    check();
}

int ghReadConfig(const char *file) { return checked(ghsReadConfig(file)); }

PAA_S *ghReadArray(PAA_S *table, const char *file) { return checked(ghsReadArray(table, file)); }

void ghPrintTemplate(FILE *stream, const char *file) {
    if (stream == stdout) ghPrintf("%s", "");
    ghsPrintTemplate(stream, file);
    check();
}

int ghReplaceFetch(const char *key, char **value) { return ghsVarFetch(key, value); }

int ghReplaceDefined(const char *key) { return ghsVarDefined(key); }

void ghReplaceClear() { ghsReplaceFree(); }
