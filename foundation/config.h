/* Configuration files: the platform's plain-text settings, read into associative arrays.
 *
 * A file is a sequence of lines "key value": optional white space, the key (a run without white space), white space,
 * the value (the rest of the line, white space at its end removed, perhaps empty). Blank lines, and lines that begin
 * with "#", are skipped; there is no "=", no quoting and no trailing comment. Keys are case-sensitive.
 *
 * Two readers, chosen by the kind of file: config_read collects the values of a key that occurs often into a list;
 * config_read2paa keeps one value a key, which may go on over several lines. Both report failures through
 * process_error and leave no file open. Results of config_key_value and config_value live in one static buffer and
 * are good until the next call of any call declared here. Everything here is for one thread. */
#ifndef FOUNDATION_CONFIG_H
#define FOUNDATION_CONFIG_H

#include <stdio.h>

#include "foundation/paa.h"

#ifdef __cplusplus
extern "C" {
#endif

/* ---- Values that come as lists -------------------------------------------------------------------------------- */

/** Reads a file in which a key may occur many times; its values are collected in the order of the file, joined with
 *  one line feed each. A line longer than 4094 characters is taken for two.
 *
 *  @param table  receives the entries; null: a new table is made, which the caller ends with config_free
 *  @param path   file to read; a missing one is a failure
 *  @return the table, or null, already reported. A table of the caller's then keeps what was read so far.
 */
PAA_S *config_read(PAA_S *table, const char *path);

/** Returns value number `index`, from 0, of a list, cut to 4095 characters; null if there is no such key or it has
 *  fewer values (both silent), or on a failure of the table (reported). An empty value is an empty text. */
char *config_value(PAA_S *table, const char *key, int index);

/** Returns the number of values of a key: 0 for an unknown key, -1 on a failure of the table (reported). An empty
 *  value counts as one. */
int config_nvalues(PAA_S *table, const char *key);

/** Ends a table that a reader made. Returns 0, or -1 for what is no table. */
int config_free(PAA_S *table);

/* ---- One value a key ------------------------------------------------------------------------------------------ */

/** Reads a file in which a key has one value. A line whose value ends in a backslash goes on in the next line, whose
 *  leading white space is kept, up to a blank line or the end of the file. A backslash and an "n" in a value become a
 *  blank and a line feed. A key that comes again overwrites its former value, with a line in the log, and moves to
 *  the end of the table's order. A value longer than 16382 characters fails the whole file.
 *
 *  Arguments and result as for config_read. The library's own copies of what it read are wiped: key files pass here.
 */
PAA_S *config_read2paa(PAA_S *table, const char *path);

/* ---- Line by line, for a caller that opens the file itself ---------------------------------------------------- */

/** Reads on to the next line with a key.
 *
 *  @param key          receives the key, terminated; null at the end of the file or on a failure
 *  @param value        receives the value, terminated; null if the line has none, and as for key
 *  @param valueLength  receives the value's length if there is a value, else stays as it is; may be null
 *  @param lineNumber   grows by one for each line read, skipped ones included; may be null
 *  @return length of the key; 0 at the end of the file; -1 if reading failed, already reported
 */
int config_key_value(FILE *file, char **key, char **value, int *valueLength, int *lineNumber);

/** Reads the next paragraph, a run of lines that are neither blank nor comments, with all its white space. Ends early
 *  when size-1 characters are in the buffer; the rest of that line is lost.
 *
 *  @return length of the text, which is terminated; 0 at the end of the file or for a size below 2; -1 if reading
 *          failed, already reported
 */
int config_paragraph(FILE *file, char *buffer, int size);

/* ---- Settings from elsewhere ---------------------------------------------------------------------------------- */

/** Where a program keeps settings that don't come from a file, such as the template variables of a CGI program. Null,
 *  its value at the start, means that there is no such place. Who keeps such settings sets it; a library that can be
 *  configured so asks it by the setting's name. Returns the text, which belongs to its keeper, or null. */
extern const char *(*config_variable_source)(const char *name);

#ifdef __cplusplus
}
#endif

#endif
