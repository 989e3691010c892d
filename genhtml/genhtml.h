/* CGI toolkit: what the platform's CGI programs are written against.
 *
 *     int main(int argc, char **argv) {
 *         char *name;
 *         ghReadParse(argc, argv);                        // the request, into the input table
 *         ghInFetch("name", &name);                       // a value of it
 *         ghSaveForReplace("greeted", name, 1);           // a template variable, protected for HTML
 *         ghPrintTemplate(stdout, "hello.html");          // the page: header first, then the template
 *         return 0;
 *     }
 *
 * Two layers. The gh... calls never fail: a call that can't do its work prints an error page, notes it in
 * ./logs/gherror.log and ends the program with exit(0). So they return no null pointer unless it is told, and a page
 * needs no error paths. The ghs... calls, the template engine below them, don't print or exit: they return null or -1
 * and leave the reason in ghsErrno and ghsErrMsg.
 *
 * Texts are bytes with a NUL at their end. A "new string" is the caller's, who releases it with free(). Values that a
 * table hands out belong to the table: good until the key is stored again or removed. White space is that of
 * process_isspace. Everything here is for one thread. */
#ifndef GENHTML_GENHTML_H
#define GENHTML_GENHTML_H

#include <stdio.h>
#include <time.h>

#include "foundation/paa.h"
#include "process/velproc.h"

#ifdef __GNUC__
#define GENHTML_ENDS_IN_NULL __attribute__((sentinel))
#else
#define GENHTML_ENDS_IN_NULL
#endif

#ifdef __cplusplus
extern "C" {
#endif

/* ---- Request: from the web server into the input table ---------------------------------------------------------- */

/** Reads the request into the input table: a GET, a POST with a urlencoded or multipart body, or, without the
 *  environment of a web server, a test call whose query is argv[1]. The first call of a program; later ones do
 *  nothing.
 *
 *  Keys and values are URL-decoded, white space at their ends is cut. A key that begins with "g_" isn't stored: those
 *  names are the program's own. A key that comes again replaces the earlier value. An uploaded file is stored under
 *  its field's name, with its bytes 0, 1 and 2 escaped as ghfgets does, its type under <name>_MIMETYPE and its file
 *  name under <name>_FILENAME.
 *
 *  Error page: a urlencoded body which with the query is over 1048575 bytes. Any method but GET and POST is answered
 *  with a header, and a wrong test call with a hint; both end with exit(0).
 */
void ghReadParse(int argc, char **argv);

/** Looks a key up in the input table. Gives 1 and its value, or 0 and an empty text. The value is the table's. A null
 *  argument: error page. */
int ghInFetch(const char *key, char **value);

/** Stores a pair in the input table, unless the key begins with "g_". A null value counts as empty. A null key or no
 *  memory: error page. */
void ghInStore(const char *key, const char *value);

/** ghInFetch on any table of texts; a null table holds nothing. */
int ghHashFetch(PAA_S *table, const char *key, char **value);

/** Removes from the input table the names of rights ("isAdmin", "writeaccess" and so on), so that a client can't
 *  pretend to hold one. */
void ghInRemoveAccess(void);

/** Reads a multipart request from standard input into the input table; ghReadParse does so by itself. Returns 1 if it
 *  was one, else 0, with nothing read. */
int ghProcess_Post_Method(void);

/** Reads a line, its line feed included, in a form fit for texts: byte 0 becomes 2 3, byte 1 becomes 2 4, byte 2
 *  becomes 2 5. Not more than CONTENT_LENGTH bytes are taken in all, if standard input was read and that is above 0. The
 *  count and the end are the process's, whatever the stream: behind the end of one there is nothing more from any.
 *
 *  @param size  room of the buffer; a longer line comes in pieces of up to size-1 bytes, of which the last one ends
 *               in the line feed
 *  @return the bytes in the buffer, which is terminated; 0 at the end, or for a size below 3
 */
int ghfgets(char *buffer, int size, FILE *stream);

/* ---- Page: header first ----------------------------------------------------------------------------------------- */

/** Prints to standard output, before its first text the header, as the input and the setters below have it. In a
 *  sub-script (NOHTTPHEAD above 0 in the input) there is no header, and the text of the first call is lost. */
void ghPrintf(const char *format, ...) PROCESS_PRINTF(1, 2);

/** Prints a template: see ghsPrintTemplate. To standard output the header goes first. */
void ghPrintTemplate(FILE *stream, const char *file);

/** Sets the cookie VELMORA with its path and domain, in place of an earlier one. All three are needed: with one of
 *  them null no cookie is sent. Arguments are copied; each ends at its first control character. Error page once the
 *  header is out; so for the next two. */
void ghSetCookie(const char *value, const char *path, const char *domain);

/** Sets the text of the cookie's EXPIRES. */
void ghSetCookieDate(const char *date);

/** Sets the Content-Type, "text/html" without it. */
void ghSetContentType(const char *type);

/** Sends a header with a window target instead of the usual one, without cookie and type. Too late, it does nothing. */
void ghFrameKludge(const char *target);

/** Gives the program's own address as a new string: "/" and SCRIPT_NAME without its leading slashes, or the text
 *  "Scriptname not set". */
char *ghSelfUrl(void);

/* ---- Forms and links: what keeps a page's state ------------------------------------------------------------------ */

/** Gives all inputs as a query, "&key=value" each, encoded, as a new string. Keys of the null-ended list are left out;
 *  a null list leaves out none. */
char *ghIn2Query(char **excluded);

/** Gives hidden fields, as a new string, for those keys of the null-ended list that the input table holds, protected
 *  for HTML. */
char *ghIn2Hidden(char **keys);

/** The same with the values of template variables. Without any input the result is empty, whatever variables there
 *  are. */
char *ghReplace2Hidden(char **keys);

/** Copies each input whose key doesn't begin with "g_" to a template variable of the same name; with `protect` not 0,
 *  protected for HTML. */
void ghIn2Replace(int protect);

/** Makes three template variables of each input whose key begins with "T_": <key> as it is, <key>_p protected for
 *  HTML, <key>_e URL-encoded. */
void ghT_2Replace(void);

/** Gives a new string, protected for HTML, in which each http:// address is a link. A null text: error page. */
char *ghReplaceHTMLLinks(const char *text);

/** Gives a new string, of any length, in which each `old` is replaced by `fresh`, regardless of case. Null counts as
 *  empty; an empty `old` gives a copy. */
char *ghCaseReplace(const char *text, const char *old, const char *fresh);

/* ---- Template variables: the replace table ------------------------------------------------------------------------ */

/** Stores a template variable: ghsSaveForReplace. */
int ghSaveForReplace(const char *key, const char *value, int protect);

/** Fetches one: ghsVarFetch. */
int ghReplaceFetch(const char *key, char **value);

/** Tells if there is one: ghsVarDefined. */
int ghReplaceDefined(const char *key);

/** Removes one. A null key: error page. */
void ghReplaceRemove(const char *key);

/** Removes all: ghsReplaceFree. */
void ghReplaceClear(void);

/** Stores a pair in any table: ghsSaveToHash. */
int ghSaveToHash(PAA_S *table, const char *key, const char *value, int protect);

/** Reads a key file into the template variables: ghsReadConfig. */
int ghReadConfig(const char *file);

/** Reads a key file into a table: ghsReadArray. */
PAA_S *ghReadArray(PAA_S *table, const char *file);

/** Reads a file of tags into a table: "<NAME>" on a line, then the text of that key in the lines up to "</NAME>".
 *  Names are letters, digits and "_". A key that comes again is added to.
 *
 *  @param table  null: a new one is made, which the caller ends with paaDestroy
 *  @return the table; null if the file can't be opened or its path holds "..": the error page is printed, but the
 *          program goes on. A failure of the table: exit(0).
 */
PAA_S *ghBMLToArray(PAA_S *table, const char *file);

/* ---- Texts ---------------------------------------------------------------------------------------------------------- */

char *ghDecode(const char *text);                                        /* ghsDecode */
char *ghEncode(const char *text);                                        /* ghsEncode */
char *ghHtmlProtect(const char *text);                                   /* ghsHtmlProtect: null for null */
char *ghReplace(const char *text, const char *old, const char *fresh);   /* ghsReplace without a limit of matches */
char *ghFindToken(const char *text, const char *open, const char *close, /* ghsFindToken: null if there is none */
                  int *start, int *length);
char *ghFindLastToken(const char *text, const char *open, const char *close, /* ghsFindLastToken: likewise */
                      int *start, int *length);

/** Returns 1 for a null text, an empty one, or one of white space alone; else 0. */
int ghIsBlank(const char *text);

/** Cuts white space off the end of a text, in place. Returns the text. */
char *ghTrimRight(char *text);

/** Moves a text pointer past white space and returns it. */
char *ghSkipBlanks(char **text);

/** Returns the number of lines of a file, pieces of 4095 bytes counting as lines; 0 if it can't be opened. */
int ghCountLines(const char *path);

/* ---- Memory and strings that need no check -------------------------------------------------------------------------
 * The label names the caller in the error page; null means the call's own name. Blocks are released with free(). */

/** Gives a zero-filled block of `size` bytes, at least one. */
void *ghMalloc(const char *label, int size);

/** Gives a copy of `size` bytes, at least one; zeros for a null source. */
void *ghMemdup(const char *label, const void *source, int size);

/** Gives a new string; an empty one for a null text. */
char *ghStrdup(const char *label, const char *text);

/** Gives both joined as a new string. Either may be null, which counts as empty. */
char *ghStrcat(const char *label, const char *first, const char *second);

/** Gives all texts up to a null pointer joined as a new string: ghNStrcat(label, a, b, c, (char *)NULL). */
char *ghNStrcat(const char *label, ...) GENHTML_ENDS_IN_NULL;

/** Cuts a text into pieces at any of the characters of `delimiters`. Delimiters that stand together count as one, but
 *  a text that ends in the delimiter string as a whole has one further, empty item: "a=" gives two, "=b" one.
 *
 *  @param items  room for 1024 pointers; receives new strings and a null pointer behind them
 *  @return the number of items. More than 1022 pieces: error page.
 */
int ghSplit(const char *text, const char *delimiters, char **items);

/* ---- Errors, debug output, logs -------------------------------------------------------------------------------------- */

/** Prints the error page with the caller's text and notes it, with the request, in ./logs/gherror.log, if that can be
 *  opened. Returns: the caller then calls exit(0). */
void ghError(const char *format, ...) PROCESS_PRINTF(1, 2);

/** Writes a debug line: as a trace line if process_context.trace is set, else, unless process_context.logToFile is, to
 *  the debug file. That is done only in a directory where a file "ghdebug" exists; a file that can't be opened then, or
 *  a ".." in its path, is told on the page, and exit(0). */
void ghDebug(const char *format, ...) PROCESS_PRINTF(1, 2);

/** Names the debug file, cut at 1024 bytes, and writes there when the program started. */
void ghDebugFile(const char *path);

/** Returns 1 if debug output is on and a debug file is named, else 0. */
int ghDebugEnabled(void);

/** Appends a line, with the local time in front, to ./logs/<name>.log or, if that can't be opened, to the same below
 *  the directory in the variable "g_cgiDirectory". If neither can be opened, or the path holds "..", nothing happens.
 *  Writers are kept apart by a lock. */
void ghLogEvent(const char *name, const char *format, ...) PROCESS_PRINTF(2, 3);

/** Writes all inputs to a stream, bytes that aren't printable shown as commas, 60 bytes a line. */
void ghInLog(FILE *stream);

/** Writes all inputs to the debug output. */
void ghInDump(void);

/** Ends the program with exit(0) when so many seconds have gone by. 0 takes the limit back. */
void ghSelfDestruct(int seconds);

/* ==== The template engine ============================================================================================
 * Here a failure is a null or -1 result, or just the code in the slot. */

/** Why the last ghs call failed: 0 none; 10 no memory; 20 a loop's body is too long; 21 the end of a loop is missing;
 *  25 a file can't be opened; 26 a path holds "..". After ghsCallScript the codes that are told there. */
extern int ghsErrno;

/** The same in words, with a line feed; the name in it is cut at 127 characters. ghsCallScript leaves no text. */
extern char ghsErrMsg[2048];

/* ---- Templates ------------------------------------------------------------------------------------------------------ */

/** Prints a template: HTML in which comments with a "#" are directives (conditions, loops, definitions, includes,
 *  scripts) and "<$name>" or "<#name>" are variables. docs/cgi.md tells the language. Active content is filtered from
 *  the values of all variables but those that begin with "g_"; if "T_NOHTML" is a variable, they are protected too.
 *
 *  At most 129 files go into a page; includes behind them are missing without a message. Paths are relative to the
 *  working directory. Codes: 10, 20, 21, 25, 26, and those of a script. */
void ghsPrintTemplate(FILE *stream, const char *file);

/** Prints one file as part of a page: an include. `prefix` is what stands between a variable's name and the loop index
 *  in its key, empty outside of loops. */
void ghsPrintTemplateRec(const char *prefix, FILE *stream, const char *file);

/** Reads the body of a loop from an open template: the lines up to the #endfor that bears the loop's name.
 *
 *  @param lines  room for 1024 pointers; receives the lines as new strings, and a null pointer behind them
 *  @return 0; or -1 with code 10, 20 (more than 1023 lines) or 21 (the file ended before), and no lines
 */
int ghsReadFor(FILE *file, const char *name, char **lines);

/** Prints a loop: its body once for each index, from 0 on, at which at least one of its variables exists. The variable
 *  "v" of the loop is then the key "v" <prefix> <index>.
 *
 *  @param prefix     as for ghsPrintTemplateRec; of it and of a name the first 341 bytes make the key
 *  @param variables  names separated by commas; blanks don't count; names behind the 255th are ignored
 *  @param lines      the body, ended by a null pointer
 *
 *  Codes as for ghsPrintTemplate; 10 also for a prefix over 1024 bytes: loops in each other by the hundreds.
 */
void ghsPrintFor(const char *prefix, FILE *stream, const char *name, const char *variables, char **lines);

/** Replaces the function through which each line leaves. The line ends in its own line feed; the default prints it and
 *  one further line feed. Null brings the default back. */
void ghsSetOutput(void (*function)(FILE *stream, char *text));

/** Gives a new string with the variables in `text` replaced by their values, and the variables in these, and so on, in
 *  at most 128 rounds. Within the expansion of a template's line these count among that line's. Null for no memory. */
char *ghsExpandVariable(const char *text);

/** Replaces tags in square brackets: "[b]text[/b]" becomes the value of the variable "g_Tag_B" with the text in place
 *  of each "%s". The result is the call's own, good until the next call. Null for no memory. */
char *ghsTagReplace(const char *text);

/** Takes script out of a value, in place, by overwriting what starts it with blanks. Returns the number of changes. It
 *  is no protection against what it doesn't know: docs/security.md. */
int ghsFilterActiveContent(char *text);

/* ---- Variables ------------------------------------------------------------------------------------------------------ */

/** Stores a template variable, in place of an earlier value. Null values count as empty; an empty or null key does
 *  nothing. With `protect` not 0, or in no-HTML mode unless the name begins with "g_", the value is protected for
 *  HTML. Returns 0, or the table's error with code 10. */
int ghsSaveForReplace(const char *key, const char *value, int protect);

/** Returns 1 and the value, which is the table's; or 0 and an empty text. If an argument is null: 0, and the target
 *  stays as it is. */
int ghsVarFetch(const char *key, char **value);

/** Returns 1 if there is such a variable, else 0. */
int ghsVarDefined(const char *name);

/** Removes a variable. Null or an unknown name does nothing. */
void ghsReplaceRemove(const char *key);

/** Removes all variables. */
void ghsReplaceFree(void);

/** Protects the values of all variables but those whose names begin with "g_", once. */
void ghsProtectAll(void);

/** A source of values: gets a variable's name, returns its text, which is copied at once and never freed, or null if
 *  the replace table is to be asked. */
typedef char *(*GHS_VARIABLE_HANDLER)(char *name);

/** Sets the handler of a name, which templates ask before the replace table; null removes it. In a loop the handler of
 *  the indexed key is asked before that of the plain name. Returns 0, or -1: 1024 handlers are set, or no memory. */
int ghsSetVariableHandler(const char *name, GHS_VARIABLE_HANDLER function);

/* ---- Tables and key files ---------------------------------------------------------------------------------------------- */

/** ghsVarFetch on any table of texts; a null table holds nothing. */
int ghsHashFetch(PAA_S *table, const char *key, char **value);

/** Stores a pair in a table, in place of an earlier one; arguments and result as for ghsSaveForReplace, but no mode
 *  has part in it. */
int ghsSaveToHash(PAA_S *table, const char *key, const char *value, int protect);

/** Reads a key file: lines of key, white space, value; blank lines and lines that begin with "#" are skipped. A value
 *  that ends in a backslash goes on in the next line, up to an empty one; "\n" in it, two characters, becomes a line
 *  feed. Values are cut at 4095 bytes.
 *
 *  @param table  null: a new one is made, which the caller ends with paaDestroy
 *  @return the table, or null with code 10, 25 or 26
 */
PAA_S *ghsReadArray(PAA_S *table, const char *file);

/** Reads a key file into the template variables, unprotected. Returns 0, or -1 with a code as for ghsReadArray. */
int ghsReadConfig(const char *file);

/* ---- Scripts ------------------------------------------------------------------------------------------------------------ */

/** Runs a script or program and waits for its end; what it prints goes straight to standard output. The command is its
 *  name and, behind the first "?" or else the first blank, its arguments. No shell has part in it.
 *
 *  It is looked for in the working directory, where it counts as a CGI program and is told its depth as a sub-script,
 *  then in the platform's script directory. A name with ".pl" runs under the platform's interpreter.
 *
 *  Codes: 0; its exit status (128 and the signal's number if one ended it, 255 if it can't be run); 1 ".." in its path;
 *  12 no memory, the tenth sub-script in a row, or over 1022 words in all; or an errno value: it isn't there, or there
 *  is no process for it. */
void ghsCallScript(const char *command);

/* ---- Texts ---------------------------------------------------------------------------------------------------------------- */

/** Gives a new string, URL-decoded: "+" is a blank, "%" and two hexadecimal digits a byte. Other "%" stay. */
char *ghsDecode(const char *text);

/** Gives a new string, URL-encoded: all but ASCII letters and digits as "%" and two lower-case digits. */
char *ghsEncode(const char *text);

/** Gives a new string in which the double quote, "&", ">" and "<" are numeric forms, but for a "<" before a "$", which
 *  may open a variable. Null for null. */
char *ghsHtmlProtect(const char *text);

/** Gives a new string in which `old` is replaced, from the left, at most `limit` times; 0 or less means everywhere.
 *  Null counts as empty. A result over 131072 bytes, NUL included, isn't made: that is a plain copy instead. */
char *ghsReplace(const char *text, const char *old, const char *fresh, int limit);

/** Finds the first `open` and the first `close` behind it.
 *
 *  @param start   receives the place of `open`; may be null
 *  @param length  receives the bytes from there to the end of `close`; may be null
 *  @return what stands between them, as a new string; null if one of them is missing, both outputs untouched
 */
char *ghsFindToken(const char *text, const char *open, const char *close, int *start, int *length);

/** The same for the last `open` in front of the last `close`, up to the first `close` behind it: of tokens within each
 *  other the innermost. Null also for an empty or null `open` or `close`. */
char *ghsFindLastToken(const char *text, const char *open, const char *close, int *start, int *length);

/** strstr, or with `ignoreCase` not 0 the same regardless of case. Null if either text is null. */
char *ghsStrStr(const char *text, const char *needle, int ignoreCase);

/** Moves a text pointer past white space and returns it. */
char *ghsSkipBlanks(char **text);

/** ghSplit without a limit: the room of `items` is the caller's affair. -1 with code 10, and no items. */
int ghsSplit(const char *text, const char *delimiters, char **items);

/* ---- Dates: 14 digits, year to second, local time --------------------------------------------------------------------------- */

/** Returns the time of such a text; what is missing of the 14 digits counts as zeros. A date that doesn't exist gives
 *  the nearest one, one before 1970 or behind January 2038 the bound. 0 for null. */
time_t ghsStr2Time(const char *text);

/** Gives that text; it is the call's own, good until the next call. */
char *ghsTime2Str(time_t when);

/* ---- Memory: as the gh calls of the same ending, but null with code 10 on failure ------------------------------------------- */

void *ghsMalloc(const char *label, int size);
void *ghsMemdup(const char *label, const void *source, int size);
char *ghsStrdup(const char *label, const char *text);
char *ghsStrcat(const char *label, const char *first, const char *second);
char *ghsNStrcat(const char *label, ...) GENHTML_ENDS_IN_NULL;

#ifdef __cplusplus
}
#endif

#endif
