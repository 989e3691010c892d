/* The answer: the header, once and in front of the first text, and the text. The header's parts may be set in any order
 * until then. They may come from a request, so each ends at its first control character: nobody starts a header of his
 * own. */
#include <limits.h>
#include <stdlib.h>
#include <string.h>
#include <time.h>
#include <unistd.h>

#include "genhtml/genhtml.h"
#include "genhtml/ghi.h"

namespace {

bool header_done = false;
OwnedBlock<char> cookie_value, cookie_path, cookie_domain, cookie_date, content_type;

/** A text as far as it may stand in a header; printed with "%.*s". */
struct HeaderValue {
    const char *text;
    int length;

    explicit HeaderValue(const char *value) : text(value), length(0) {
        while (length < INT_MAX && !is_control(static_cast<unsigned char>(text[length]))) length++;
    }
    static bool is_control(unsigned char character) { return character < ' ' || character == 127; }
};

const char *shown(const char *text) { return text != nullptr ? text : "(null)"; }

/** Prints to the page and to the debug file alike. */
PROCESS_PRINTF(1, 0)
void print_both(const char *format, va_list arguments) {
    va_list again;
    va_copy(again, arguments);
    vprintf(format, arguments);
    genhtml::append_to_debug_file(format, again);
    va_end(again);
}

PROCESS_PRINTF(1, 2)
void print_both(const char *format, ...) {
    va_list arguments;
    va_start(arguments, format);
    print_both(format, arguments);
    va_end(arguments);
}

bool is_sub_script() { return strtol(genhtml::input_text("NOHTTPHEAD"), nullptr, 10) > 0; }

void send_date() {
    constexpr size_t DIGITS = 14;
    const char *date = genhtml::input_text("SETDATE");
    const time_t time = *date != '\0' ? ghsStr2Time(date) : 0;
    if (time == 0) return;
    genhtml::print_last_modified(time);
    const HeaderValue zone(strlen(date) > DIGITS ? date + DIGITS : "GMT");
    printf("%.*s\n", zone.length, zone.text);
}

void send_expiry() {
    if (!cookie_date) {
        putchar('\n');
        return;
    }
    const HeaderValue date(cookie_date.get());
    printf(" EXPIRES=%.*s;\n", date.length, date.text);
}

void send_cookie(const char *prefix, const HeaderValue &value) {
    const HeaderValue path(cookie_path.get()), domain(cookie_domain.get());
    printf("%s%.*s; Path=%.*s; DOMAIN=%.*s;", prefix, value.length, value.text, path.length, path.text, domain.length,
           domain.text);
    send_expiry();
}

void send_type_and_cookies(const HeaderValue &type) {
    print_both("Content-Type: %.*s\nSet-Cookie: ", type.length, type.text);
    const HeaderValue value(cookie_value.get()), path(cookie_path.get()), domain(cookie_domain.get());
    send_cookie("VELMORA=", value);
    genhtml::append_to_debug_file("NAME=%.*s; Path=%.*s; DOMAIN=%.*s\n", value.length, value.text, path.length,
                                  path.text, domain.length, domain.text);
    const char *second = genhtml::input_text("SETCOOKIE");
    if (*second != '\0') send_cookie("Set-Cookie: ", HeaderValue(second));
    print_both("Cache-Control: private\n\n");
}

void send_header() {
    send_date();
    const HeaderValue type(content_type ? content_type.get() : "text/html");
    if (cookie_value && cookie_path && cookie_domain) {
        send_type_and_cookies(type);
    } else {
        print_both("Content-Type: %.*s\n\n", type.length, type.text);
    }
}

/** Takes an argument of a setter: null leaves the part unset. */
void set(OwnedBlock<char> &part, const char *text, const char *caller) {
    part.reset(text != nullptr ? ghsStrdup(caller, text) : nullptr);
    if (text != nullptr && !part) genhtml::fail("%s, Out of memory.\n", caller);
}

}  // namespace

void genhtml::print_last_modified(time_t time) {
    const char *const text = ctime(&time);  // "Sun Sep 16 01:03:52 1973\n"
    if (text == nullptr || strlen(text) <= 24) return;
    const auto digit = [](char character) { return character == ' ' ? '0' : character; };
    printf("Last-Modified: %.*s, %c%c %.*s %.*s %c%.*s ", 3, text, digit(text[8]), digit(text[9]), 3, text + 4, 4,
           text + 20, digit(text[11]), 7, text + 12);
}

void ghPrintf(const char *format, ...) {
    static bool is_first_use = true;
    genhtml::decide_debug(is_first_use);
    if (!header_done) {
        header_done = true;
        if (is_sub_script()) return;  // with its text: a program prints an empty one first
        send_header();
    }
    va_list arguments;
    va_start(arguments, format);
    print_both(format, arguments);
    va_end(arguments);
}

void ghFrameKludge(const char *target) {
    if (header_done) return ghDebug("No frame kludge possible, header already sent!!!\n");
    ghDebug("Doing FrameKludge\n");
    const HeaderValue window(shown(target));
    printf("Content-Type: text/html\n");
    printf("Window-target: %.*s\n\n", window.length, window.text);
    header_done = true;
}

void ghSetCookie(const char *value, const char *path, const char *domain) {
    if (header_done) {
        genhtml::fail("Too late to set cookie, \"%s\", \"%s\", \"%s\", header already printed\n", shown(value),
                      shown(path), shown(domain));
    }
    set(cookie_value, value, "ghSetCookie");
    set(cookie_path, path, "ghSetCookie");
    set(cookie_domain, domain, "ghSetCookie");
}

void ghSetCookieDate(const char *date) {
    if (header_done) genhtml::fail("Too late to set cookiedate, \"%s\", header already printed\n", shown(date));
    set(cookie_date, date, "ghSetCookie");
}

void ghSetContentType(const char *type) {
    if (header_done) genhtml::fail("Too late to set content-type, \"%s\", header already printed\n", shown(type));
    set(content_type, type, "ghSetContentType");
}
