/* Multipart forms: lines of standard input in their escaped form, and the parts they make up.
 *
 * A body may be of any size and malformed in any way. Nothing is kept of it but the fields: the line that is being
 * looked at, and the value that is being collected. What the fields are called and what they are good for is the
 * business of genhtml.cpp. */
#include <stdlib.h>
#include <string.h>

#include <string>
#include <string_view>

#include "genhtml/genhtml.h"
#include "genhtml/ghi.h"

namespace {

constexpr char label[] = "ghProcess_Post_Method";
constexpr char form_type[] = "multipart/form-data";
constexpr char boundary_mark[] = "boundary=";
constexpr char content_type[] = "Content-Type: ";
constexpr int LINE_SIZE = 4096;

/* The bytes that a text can't hold, or that the escape itself uses: each becomes ESCAPE and a byte of its own. */
constexpr int ESCAPE = 2;
constexpr int FIRST_ESCAPED = 3;  // 0 is written as ESCAPE, 3 and so on
bool needs_escape(int byte) { return byte <= ESCAPE; }

constexpr int UNKNOWN = -1;

/** How much of a request has been read. */
struct ReaderState {
    bool ended = false;
    int declared = UNKNOWN;
    long long count = 0;
};
ReaderState reader;

void learn_declared_length() {
    if (genhtml::declared_length(&reader.declared)) {
        process_trace("%s: got CONTENT_LENGTH <%d>\n", "ghfgets", reader.declared);
    } else {
        process_trace("%s: No CONTENT_LENGTH given\n", "ghfgets");
    }
}

bool is_read_up() { return reader.ended || (reader.declared > 0 && reader.count >= reader.declared); }

void trace_end(const char *what, int length) {
    process_trace("%s: %sread <%d> bytes, total <%d>\n", "ghfgets", what, length, static_cast<int>(reader.count));
}

/** One form, line by line. A line that is longer than the buffer comes in pieces, each of which counts as a line. */
class FormLines {
public:
    FormLines(FILE *stream, const char *boundary) : stream_(stream), boundary_(boundary) {}

    /** Reads the next line. False at the end of the input. */
    bool next() {
        length_ = ghfgets(line_, sizeof line_, stream_);
        genhtml::refuse_large_body(label, reader.count - (reader.ended ? 1 : 0));  // the end was counted too
        return length_ > 0;
    }
    /** Reads on up to a line that holds the text, or to the end. */
    void skip_to(std::string_view text) {
        while (next() && !holds(text)) continue;
    }
    void skip_to_boundary() { skip_to(boundary_); }

    /** Appends the lines that stand before the next boundary, which is read as well. */
    void collect(std::string &target) {
        while (next() && !holds(boundary_)) target.append(line_, static_cast<size_t>(length_));
    }
    char *line() { return line_; }

private:
    // Not strstr: it would measure a needle of many kilobytes anew for each line of one byte.
    bool holds(std::string_view text) const {
        const auto length = static_cast<size_t>(length_);
        return text.size() <= length && memmem(line_, length, text.data(), text.size()) != nullptr;
    }

    FILE *stream_;
    std::string_view boundary_;
    char line_[LINE_SIZE] = "";
    int length_ = 0;
};

/** What the head of a part says. Null stands for what it doesn't. */
struct PartHead {
    OwnedBlock<char> name, filename, type;
};

/** Finds an attribute behind a blank or, failing that, behind a semicolon. New text, decoded; null without one. */
char *find_attribute(const char *line, const char *behind_blank, const char *behind_semicolon) {
    OwnedBlock<char> found(ghFindToken(line, behind_blank, "\"", nullptr, nullptr));
    if (!found) found.reset(ghFindToken(line, behind_semicolon, "\"", nullptr, nullptr));
    return found ? ghDecode(found.get()) : nullptr;
}

bool tells_disposition(const char *line) {
    const char *disposition = strstr(line, "Content-Disposition: ");
    return disposition != nullptr && strchr(disposition, ';') != nullptr;
}

/** Reads the head of a part, whose first line is there already, with the empty line that ends it. False: the part has
 *  no name and is to be left out; its lines are still to be read. */
bool read_head(FormLines &lines, PartHead &head) {
    if (tells_disposition(lines.line())) {
        head.name.reset(find_attribute(lines.line(), " name=\"", ";name=\""));
    }
    head.filename.reset(find_attribute(lines.line(), " filename=\"", ";filename=\""));
    if (!head.name) return false;

    if (head.filename && !ghIsBlank(head.filename.get()) && lines.next() &&
        strncmp(lines.line(), content_type, sizeof content_type - 1) == 0) {
        head.type.reset(ghStrdup(label, lines.line() + sizeof content_type - 1));
        ghTrimRight(head.type.get());
    }
    lines.skip_to("\r\n");
    return true;
}

/** Takes off the line end that belongs to the boundary. One that has no carriage return belongs to the body. */
void cut_line_end(std::string &body) {
    const size_t last = body.find_last_not_of('\n');
    if (last != std::string::npos && body[last] == '\r') body.resize(last);
}

void store_text(const char *name, const char *body) {
    const OwnedBlock<char> decoded(ghDecode(body));
    genhtml::store_received(name, genhtml::trimmed(decoded.get()));
}

void store_file(const PartHead &head, const std::string &body) {
    const char *name = head.name.get();
    const genhtml::DebugText shown_name(name), shown_type(head.type.get());
    genhtml::store_received(name, body.c_str());
    if (!head.type) return ghDebug("%s: key:\"%s\" val:\"(Emptyfile posting)\"\n", label, shown_name.get());

    ghDebug("%s: key:\"%s\" val:\"(%d bytes file with Content-Type: %s\"\n", label, shown_name.get(),
            static_cast<int>(body.size()), shown_type.get());
    const OwnedBlock<char> type_key(ghStrcat(label, name, "_MIMETYPE"));
    genhtml::store_received(type_key.get(), head.type.get());
    const OwnedBlock<char> filename_key(ghStrcat(label, name, "_FILENAME"));
    genhtml::store_received(filename_key.get(), head.filename.get());
}

/** Reads a part, whose first line is there already, and stores it. */
void read_part(FormLines &lines) {
    PartHead head;
    if (!read_head(lines, head)) return lines.skip_to_boundary();

    std::string body;
    genhtml::or_fail(label, [&] { lines.collect(body); });
    if (body.empty()) return;  // not even the line end of an empty field
    cut_line_end(body);
    if (head.filename) {
        store_file(head, body);
    } else {
        store_text(head.name.get(), body.c_str());
    }
}

}  // namespace

int ghfgets(char *buffer, int size, FILE *stream) {
    if (stream == stdin && reader.declared == UNKNOWN) learn_declared_length();
    if (buffer == nullptr || size < 3) return 0;  // an escaped byte and the terminator need three

    int length = 0;
    while (length < size - 2 && !is_read_up()) {
        reader.count++;
        const int byte = getc_unlocked(stream);
        if (byte == EOF) {
            reader.ended = true;
            break;
        }
        if (needs_escape(byte)) buffer[length++] = ESCAPE;
        buffer[length++] = static_cast<char>(needs_escape(byte) ? byte + FIRST_ESCAPED : byte);
        if (byte != '\n') continue;
        buffer[length] = '\0';
        trace_end("", length);
        return length;
    }
    buffer[length] = '\0';
    trace_end("got eof, ", length);
    return length;
}

void genhtml::read_form(FILE *stream, const char *boundary) {
    FormLines lines(stream, boundary);
    lines.skip_to_boundary();
    while (lines.next()) read_part(lines);
}

void genhtml::forget_reader() { reader = ReaderState{}; }

int ghProcess_Post_Method() {
    const char *type = getenv("CONTENT_TYPE");
    const char *mark = type != nullptr ? strstr(type, boundary_mark) : nullptr;
    if (mark == nullptr || strncmp(type, form_type, sizeof form_type - 1) != 0) return 0;
    int length = 0;
    if (genhtml::declared_length(&length)) genhtml::refuse_large_body(label, length);
    genhtml::read_form(stdin, mark + sizeof boundary_mark - 1);
    return 1;
}
