/* Any bytes as an HTTP request, in pieces of any size; and what the hook may then read of it. The same bytes in one
 * piece, and one by one, must come to the same request, unless what is behind a GET's header changes its end.
 *
 * Input: a byte, the size of the pieces; the request. */
#include <algorithm>

#include "fuzz/fuzz.h"
#include "process/owned.h"
#include "raserver/raserveri.h"

namespace {

constexpr int LONGEST = 200000;  // within the limit, where a request's size alone decides nothing

struct Request {
    RA_CONN_S connection{};
    int result = RA_HTTP_MORE;

    Request() = default;
    Request(const Request &) = delete;
    Request &operator=(const Request &) = delete;
    ~Request() {
        free(connection.input);
        free(connection.url);
        free(connection.output);
    }
};

void check_complete(RA_CONN_S *connection) {
    int header_length = 0, body_length = 0, url_length = 0;
    const char *header = raConnGetHeader(connection, &header_length);
    const unsigned char *body = raConnGetBody(connection, &body_length);
    const char *url = raConnGetUrl(connection, &url_length);
    FUZZ_REQUIRE(header == reinterpret_cast<char *>(connection->input) && header_length > 0);
    FUZZ_REQUIRE(url != nullptr && url_length == static_cast<int>(strlen(url)) + 1 && url_length > 1);
    FUZZ_REQUIRE(connection->method == 'G' || connection->method == 'P');
    FUZZ_REQUIRE((body == nullptr) == (connection->method == 'G'));
    if (body == nullptr) return;
    FUZZ_REQUIRE(body == connection->input + header_length && body_length > 0);
    FUZZ_REQUIRE(body + body_length <= connection->input + connection->inputLength);

    FUZZ_REQUIRE(raSetHttpResult(connection, url) == url_length - 1);
    FUZZ_REQUIRE(strcmp(reinterpret_cast<char *>(connection->output), url) == 0);
}

void feed(Request &request, const Bytes &bytes, size_t piece) {
    RA_CONN_S *connection = &request.connection;
    for (size_t at = 0; at < bytes.size() && request.result == RA_HTTP_MORE;) {
        const int room = ra_http_room(connection);
        FUZZ_REQUIRE(room > 0);
        const size_t count = std::min({static_cast<size_t>(room), piece, bytes.size() - at});
        memcpy(connection->input + connection->inputLength, &bytes[at], count);
        request.result = ra_http_received(connection, static_cast<int>(count));
        at += count;
        FUZZ_REQUIRE(connection->inputLength == at);
    }
    if (request.result == RA_HTTP_COMPLETE) check_complete(connection);
}

}  // namespace

int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    become_a_silent_process();
    process_context.trace = 1;  // the lines are made, if not written
    Input input(data, size);
    const size_t piece = input.u8() + size_t{1};
    const Bytes bytes = input.take(LONGEST);

    Request cut, whole;
    feed(cut, bytes, piece);
    feed(whole, bytes, bytes.size());
    if (cut.connection.method == 'P') {
        FUZZ_REQUIRE(cut.result == whole.result);
        FUZZ_REQUIRE(cut.connection.headerLength == whole.connection.headerLength);
        FUZZ_REQUIRE(cut.connection.contentLength == whole.connection.contentLength);
    }
    return 0;
}
