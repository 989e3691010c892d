/* What every action of the browser needs from the toolkit: input, template variables, links, answers. */
#ifndef EXAMPLES_BROWSER_PAGE_H
#define EXAMPLES_BROWSER_PAGE_H

#include <initializer_list>
#include <string>
#include <vector>

/** An input's value; an empty text without it. */
std::string input(const std::string &name);

/** Sets the template variable g_<name>, as text that can do nothing in a page: neither HTML nor template language.
 *  With an index it is a loop's variable: "name", {row, column}.
 *
 *  The prefix keeps it from the filter of active content, which is not needed then and would change what is edited. */
void show(const std::string &name, const std::string &text, std::initializer_list<size_t> index = {});

/** The same for a piece of HTML that the program made. */
void show_html(const std::string &name, const std::string &html, std::initializer_list<size_t> index = {});

/** Names inputs that no link or form carries on. */
void leave_behind(const std::vector<std::string> &names);

/** The query that leads to the list as it stands: all inputs but those left behind, and those named. */
std::string state(const std::vector<std::string> &without = {});

/** Hidden fields for the same, for forms. */
std::string state_fields();

/** Gives a query with "&key=value" at its end. */
std::string with(const std::string &query, const std::string &key, const std::string &value);

/** The program's own address. */
std::string self_url();

/** Answers with a page below templates/. */
[[noreturn]] void answer_with(const char *file, const char *httpStatus = "200 OK");

/** Answers with a redirection to a page of this program, so that a reload does not change anything twice. */
[[noreturn]] void go_on_to(const std::string &query);

/** Answers with a page that tells of a failure: the texts fail_<name> and help_<name> of texts.cfg. */
[[noreturn]] void fail(const char *name, const char *httpStatus, const std::string &detail = "");

/** True unless a browser says that another site's page has sent the form. */
bool is_own_form();

#endif
