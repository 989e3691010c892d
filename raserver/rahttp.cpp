/* HTTP requests as they come in: finds method, header, URL and body in a growing buffer, however the bytes are cut into
 * pieces. What a request means is the hook's affair; reading and closing is the connection's. */
#include <strings.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstdlib>
#include <cstring>
#include <string>
#include <string_view>

#include "process/linelimit.h"
#include "process/printable.h"
#include "process/velproc.h"
#include "raserver/raserveri.h"

namespace {

constexpr char label[] = "raConnData";  // the operation that this is a part of
constexpr unsigned int INPUT_STEP = 32000;
constexpr unsigned int LARGEST_REQUEST = 262143;
constexpr unsigned int BEHIND_METHOD = 3;             // no blank line begins before
constexpr char LENGTH_HEADER[] = "Content-length: ";  // no other spelling is known

struct Method {
    std::string_view word;
    int letter;
};
constexpr Method methods[] = {{"GET", 'G'}, {"POST", 'P'}};

std::string_view text_of(const RA_CONN_S &connection, unsigned int length) {
    return {reinterpret_cast<const char *>(connection.input), length};
}

namespace say {
void no_memory(unsigned int size) {
    process_error("%s: malloc %u bytes failed! errmsg %s\n", label, size, strerror(errno));
}
void too_large(unsigned int length) {
    static LineLimit lines("maximum request size exceeded");
    if (!lines.passes()) return;
    process_log("%s: maximum request size exceeded, %ld bytes\n", label, static_cast<long>(length));
}
void strange(const RA_CONN_S &connection) {
    static LineLimit lines("Strange HTTP request");
    if (!lines.passes()) return;
    std::string shown(text_of(connection, connection.inputLength));
    for (char &character : shown) {
        if (character < ' ' || character > '~') character = '.';
    }
    process_log("%s: Strange HTTP request: \"%s\"\n", label, shown.c_str());
}
std::string shown_header(const RA_CONN_S &connection) {
    return printable(text_of(connection, connection.headerLength - 1));  // without the zero at its end
}
void bad_header(const RA_CONN_S &connection) {
    static LineLimit lines("Post method with bad header");
    if (!lines.passes()) return;
    process_log("%s: Post method with bad header\n%s\n", label, shown_header(connection).c_str());
}
void header(const RA_CONN_S &connection) {
    if (process_context.trace != 0) process_trace("Header\n%s\n", shown_header(connection).c_str());
}
void url(std::string_view found) {
    if (process_context.trace != 0)
        process_trace("URL: %.*s\n", static_cast<int>(found.size()), printable(found).c_str());
}
}  // namespace say

// The header begins where the input does, and the body behind the header: both move along with the block.
bool grow(RA_CONN_S &connection) {
    const unsigned int size = connection.inputSize + INPUT_STEP + 1;
    auto *grown = static_cast<unsigned char *>(realloc(connection.input, size));
    if (grown == nullptr) {
        say::no_memory(size);
        return false;
    }
    connection.input = grown;
    connection.inputSize += INPUT_STEP;
    connection.inputLimit = connection.inputSize;
    if (connection.header != nullptr) connection.header = reinterpret_cast<char *>(grown);
    if (connection.body != nullptr) connection.body = grown + connection.headerLength;
    return true;
}

// ---- Method ---------------------------------------------------------------------------------------------------------

// Whether the method is known now: RA_HTTP_COMPLETE then.
int find_method(RA_CONN_S &connection) {
    for (const Method &method : methods) {
        if (connection.inputLength < method.word.size()) return RA_HTTP_MORE;
        const auto *begin = reinterpret_cast<const char *>(connection.input);
        if (strncasecmp(begin, method.word.data(), method.word.size()) != 0) continue;
        connection.method = method.letter;
        return RA_HTTP_COMPLETE;
    }
    say::strange(connection);
    return RA_HTTP_BAD;
}

size_t method_length(int letter) {
    for (const Method &method : methods) {
        if (method.letter == letter) return method.word.size();
    }
    return 0;
}

// ---- Header ---------------------------------------------------------------------------------------------------------

// Whether the line feed at `end` ends a blank line: nothing but white space between it and the one before.
bool ends_blank_line(const RA_CONN_S &connection, unsigned int end) {
    for (unsigned int at = end; at > BEHIND_METHOD;) {
        const unsigned char character = connection.input[--at];
        if (character == '\n') return true;
        if (!process_isspace(character)) return false;
    }
    return false;
}

void set_header(RA_CONN_S &connection, unsigned int end) {
    connection.header = reinterpret_cast<char *>(connection.input);
    connection.headerLength = end + 1;
}

// Only the last line feed of a piece counts: behind the header of a GET nothing is expected.
void find_get_header(RA_CONN_S &connection, unsigned int fresh) {
    const size_t found = text_of(connection, connection.inputLength).substr(fresh).find_last_of('\n');
    if (found == std::string_view::npos) return;
    const unsigned int end = fresh + static_cast<unsigned int>(found);
    if (!ends_blank_line(connection, end)) return;
    set_header(connection, end);
    connection.input[connection.headerLength] = 0;
}

void find_post_header(RA_CONN_S &connection, unsigned int fresh) {
    const std::string_view text = text_of(connection, connection.inputLength);
    for (size_t end = text.find('\n', fresh); end != std::string_view::npos; end = text.find('\n', end + 1)) {
        if (!ends_blank_line(connection, static_cast<unsigned int>(end))) continue;
        set_header(connection, static_cast<unsigned int>(end));
        connection.input[end] = 0;
        connection.body = connection.input + connection.headerLength;
        return say::header(connection);
    }
}

// ---- Body and URL -----------------------------------------------------------------------------------------------------

// What the header says about the body's length; 0 if it says nothing, or nothing good.
unsigned int announced_length(const RA_CONN_S &connection) {
    const size_t found = text_of(connection, connection.headerLength).find(LENGTH_HEADER);
    if (found == std::string_view::npos) return 0;
    const long number = strtol(connection.header + found + strlen(LENGTH_HEADER), nullptr, 10);
    return static_cast<unsigned int>(std::clamp<long>(number, 0, INT_MAX));
}

int find_body(RA_CONN_S &connection) {
    if (connection.contentLength == 0) connection.contentLength = announced_length(connection);
    if (connection.contentLength == 0) {
        say::bad_header(connection);
        return RA_HTTP_BAD;
    }
    const unsigned int got = connection.inputLength - connection.headerLength;
    return got < connection.contentLength ? RA_HTTP_MORE : RA_HTTP_COMPLETE;
}

bool ends_word(char character) { return character == 0 || process_isspace(static_cast<unsigned char>(character)); }

// What stands between the white space behind the method and the next; the end of the header ends it too.
std::string_view url_in(const RA_CONN_S &connection) {
    std::string_view rest = text_of(connection, connection.headerLength);
    rest.remove_prefix(method_length(connection.method));
    while (!rest.empty() && process_isspace(static_cast<unsigned char>(rest.front()))) rest.remove_prefix(1);
    const auto end = std::find_if(rest.begin(), rest.end(), ends_word);
    return rest.substr(0, static_cast<size_t>(end - rest.begin()));
}

int take_url(RA_CONN_S &connection) {
    const std::string_view found = url_in(connection);
    if (found.empty()) return RA_HTTP_BAD;
    connection.url = static_cast<char *>(process_malloc(label, static_cast<int>(found.size()) + 1));
    if (connection.url == nullptr) return RA_HTTP_BAD;
    memcpy(connection.url, found.data(), found.size());
    connection.urlLength = static_cast<unsigned int>(found.size()) + 1;
    say::url(found);
    return RA_HTTP_COMPLETE;
}

}  // namespace

extern "C" {

int ra_http_room(RA_CONN_S *connection) {
    const bool is_tight = connection->inputSize <= 2 * connection->inputLength;
    if (is_tight && !grow(*connection)) return 0;
    return static_cast<int>(connection->inputLimit - connection->inputLength);
}

int ra_http_received(RA_CONN_S *connection, int count) {
    const unsigned int fresh = connection->inputLength;  // where the new piece begins
    connection->inputLength += static_cast<unsigned int>(count);
    connection->input[connection->inputLength] = 0;
    if (connection->inputLength > LARGEST_REQUEST) {
        say::too_large(connection->inputLength);
        return RA_HTTP_BAD;
    }
    if (connection->method == 0) {
        const int found = find_method(*connection);
        if (found != RA_HTTP_COMPLETE) return found;
    }
    const bool is_post = connection->method == 'P';
    if (connection->header == nullptr) (is_post ? find_post_header : find_get_header)(*connection, fresh);
    if (connection->header == nullptr) return RA_HTTP_MORE;

    const int body = is_post ? find_body(*connection) : RA_HTTP_COMPLETE;
    return body == RA_HTTP_COMPLETE ? take_url(*connection) : body;
}

}  // extern "C"
