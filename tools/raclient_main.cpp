/* raclient: sends requests to an RA server, one from the command line or many from a script, and prints the strings of
 * the answers.
 *
 * Everything that is said about a failure is said here, on standard error: the framework's printers stay silent,
 * since without a log they would write between the results. */
#include <errno.h>
#include <getopt.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <string>
#include <string_view>
#include <vector>

#include "process/owned.h"
#include "process/velproc.h"
#include "raserver/raserver.h"
#include "tools/raclient_output.h"
#include "tools/usage.h"

namespace {

enum ExitStatus { ANSWERED = 0, FAILED = 1, WRONG_USAGE = 2, REFUSED = 3, NO_ANSWER = 4, STATUS_NOT_0 = 5 };

constexpr int MAX_INTERVAL = 86400;
constexpr int MAX_TRIES = 100000;

constexpr char SHORT_USAGE[] =
    "Usage: raclient [OPTION]... HOST PORT WORD...\n"
    "       raclient [OPTION]... HOST PORT -f FILE\n"
    "       raclient -h explains it, with examples.\n";

constexpr char HELP[] =
    "Usage: raclient [OPTION]... HOST PORT WORD...\n"
    "       raclient [OPTION]... HOST PORT -f FILE\n"
    "\n"
    "Sends a request, the list of WORDs, to the RA server on HOST and UDP PORT, and prints\n"
    "the strings of its answer, one a line; or does so for each line of a script. Options\n"
    "may stand anywhere in front of the first WORD.\n"
    "\n"
    "  -f FILE          sends each line of FILE, - for standard input, as a request\n"
    "  -e               takes a status code other than 0 in an answer for a failure\n"
    "  -i INTERVAL      seconds after which a request is sent again, 1 to 86400; default 3\n"
    "  -n TRIES         how many intervals to wait for an answer, 1 to 100000; default 5\n"
    "  -VELROOT DIR     root directory, where the server's access key is found in\n"
    "                   etc/access.key; else the environment variable VELROOT names it\n"
    "  -k KEYFILE       file of access keys to use instead, of the same form\n"
    "  -HARDEN          under a key, takes only an answer that came under a key as well, and\n"
    "                   refuses a request that can't be enciphered; so does VELHARDEN=1 in\n"
    "                   the environment\n"
    "  --encode         frames the WORDs that hold other bytes than printable ASCII, so that\n"
    "                   control characters reach the database as they are\n"
    "  --json           prints each answer as one line, a JSON array of strings\n"
    "  --table COLUMNS  prints the answer to a list as a table: COLUMNS are its headings,\n"
    "                   with commas between them, or the number of its columns. An answer\n"
    "                   whose status code is not 0 is printed as without the option\n"
    "  --               ends the options: the next words are HOST, PORT, WORDs\n"
    "  -h, --help       prints this text\n"
    "\n"
    "Within a line \\n, \\t, \\\\ and \\xHH stand for a line feed, a tab, a backslash and any other\n"
    "control byte. JSON is UTF-8; a string that is not is read as ISO 8859-1.\n"
    "\n"
    "A database request is DB FUNCTION TABLE KEY VALUE and what the function takes. The\n"
    "first string of an answer is a status code, 0 for success. With a table USERS whose\n"
    "key attribute is ID (a list takes start value, rows, direction and filter in front\n"
    "of the attributes to show):\n"
    "\n"
    "  insert  raclient 127.0.0.1 4000 DB I USERS ID dora NAME Dora VISITS 00000001\n"
    "  get     raclient 127.0.0.1 4000 DB G USERS ID dora NAME VISITS\n"
    "  update  raclient 127.0.0.1 4000 DB U USERS ID dora NAME 'Dora B.'\n"
    "  add     raclient 127.0.0.1 4000 DB A USERS ID dora VISITS 1\n"
    "  list    raclient 127.0.0.1 4000 DB L USERS ID '' 10 + 'd*' NAME\n"
    "          raclient --table ID,NAME 127.0.0.1 4000 DB L USERS ID '' 10 + '*' NAME\n"
    "  delete  raclient 127.0.0.1 4000 DB D USERS ID dora\n"
    "\n"
    "Counters such as VISITS hold eight hexadecimal digits; what is added is decimal.\n"
    "\n"
    "In a script each line is a request. Its words are parted by white space. A word in\n"
    "double quotes may hold white space, or nothing; \\\" in it stands for a double quote. Lines\n"
    "without words are passed over, and those whose first word begins with #. The first\n"
    "failure ends the script. A long script shows on a terminal how far it is.\n"
    "\n"
    "  printf 'DB D USERS ID %s\\n' anna bert | raclient -e 127.0.0.1 4000 -f -\n"
    "\n"
    "127.0.0.1 is always the loopback address. localhost is the address in the file\n"
    "etc/bindip of the root directory, and without one this machine's own address.\n"
    "\n"
    "Exit status:\n"
    "  0  answered, whatever the status code in the answer\n"
    "  1  the request could not be sent (HOST unknown, too many or too long WORDs, KEYFILE or\n"
    "     script not readable), or the answer could not be written\n"
    "  2  wrong usage\n"
    "  3  refused by the server\n"
    "  4  no answer\n"
    "  5  with -e: the first string of the answer is not 0\n"
    "The reason of 1 to 4 is on standard error.\n";

struct Arguments {
    int interval = 0;  // 0: the library's default
    int tries = 0;
    const char *script = nullptr;
    bool needs_status_0 = false;
    bool frames = false;
    bool as_json = false;
    Texts headings;  // empty: no table
    const char *host = nullptr;
    uint16_t port = 0;
    std::vector<char *> words;
};

// ---- Arguments ------------------------------------------------------------------------------------------------------

enum LongOption { ROOT = 256, HARDEN, ENCODE, JSON, TABLE };

constexpr option long_options[] = {{"help", no_argument, nullptr, 'h'},
                                   {"VELROOT", required_argument, nullptr, ROOT},
                                   {"HARDEN", no_argument, nullptr, HARDEN},
                                   {"encode", no_argument, nullptr, ENCODE},
                                   {"json", no_argument, nullptr, JSON},
                                   {"table", required_argument, nullptr, TABLE},
                                   {nullptr, 0, nullptr, 0}};

bool is_number(std::string_view text) {
    return !text.empty() &&
           std::all_of(text.begin(), text.end(), [](char each) { return process_isdigit(each) != 0; });
}

/** Headings, or as many empty ones as a number says. */
Texts headings_in(std::string_view text) {
    if (is_number(text)) return Texts(static_cast<size_t>(number("COLUMNS", text, 1, RA_MAX_STRINGS)));
    Texts headings;
    for (size_t comma = 0; comma != std::string_view::npos;) {
        comma = text.find(',');
        headings.push_back(text.substr(0, comma));
        text.remove_prefix(comma == std::string_view::npos ? text.size() : comma + 1);
    }
    return headings;
}

void take_option(int code, char **argv, Arguments &given) {
    switch (code) {
        case 'h':
            fputs(HELP, stdout);
            exit(ANSWERED);
        case 'e':
            given.needs_status_0 = true;
            return;
        case 'f':
            given.script = optarg;
            return;
        case 'i':
            given.interval = number("INTERVAL", optarg, 1, MAX_INTERVAL);
            return;
        case 'k':
            packet_accesskey_file = optarg;
            return;
        case 'n':
            given.tries = number("TRIES", optarg, 1, MAX_TRIES);
            return;
        case ROOT:
            process_context.rootDir = optarg;
            return;
        case HARDEN:
            process_context.hardened = 1;
            return;
        case ENCODE:
            given.frames = true;
            return;
        case JSON:
            given.as_json = true;
            return;
        case TABLE:
            given.headings = headings_in(optarg);
            return;
        case ':':
            wrong_usage("option %s needs a value", argv[optind - 1]);
        default:
            wrong_usage("unknown option %s", argv[optind - 1]);
    }
}

/** Takes options up to the next word; whether "--" ended them for good. */
bool take_options(int argc, char **argv, Arguments &given) {
    for (;;) {
        const int before = optind;
        const int code = getopt_long_only(argc, argv, "+:ef:hi:k:n:", long_options, nullptr);
        if (code == -1) return optind > before;
        take_option(code, argv, given);
    }
}

void check(const Arguments &given) {
    if (given.host[0] == 0) wrong_usage("HOST is empty");
    if (given.words.empty() && given.script == nullptr) wrong_usage("WORD or -f FILE is missing");
    if (!given.words.empty() && given.script != nullptr) wrong_usage("there are both WORDs and -f FILE");
    if (given.as_json && !given.headings.empty()) wrong_usage("there are both --json and --table");
}

/** Options stand in front of HOST, PORT or the first WORD, but not behind that: WORDs may begin with a dash. */
Arguments read_arguments(int argc, char **argv) {
    Arguments given;
    opterr = 0;
    bool options_ended = take_options(argc, argv, given);
    const auto next_place = [&](const char *missing) {
        if (optind >= argc) wrong_usage("%s missing", missing);
        const char *place = argv[optind++];
        if (!options_ended) options_ended = take_options(argc, argv, given);
        return place;
    };
    given.host = next_place("HOST, PORT and WORD are");
    given.port = static_cast<uint16_t>(number("PORT", next_place("PORT and WORD are"), 1, UINT16_MAX));
    given.words.assign(argv + optind, argv + argc);
    check(given);
    return given;
}

// ---- One request ------------------------------------------------------------------------------------------------------

/** The words as they are sent. */
class Words {
public:
    Words(std::vector<char *> words, bool frames) : words_(std::move(words)) {
        if (!frames) return;
        for (char *&word : words_) {
            if (is_plain(word)) continue;
            framed_.emplace_back(orEncode(word));
            word = framed_.back().get();  // null without memory
            if (word == nullptr) exit(fail(FAILED, "out of memory"));
        }
    }
    int count() const { return static_cast<int>(words_.size()); }
    char **vector() { return words_.data(); }

private:
    static bool is_plain(std::string_view word) {
        return std::all_of(word.begin(), word.end(), [](char each) { return each >= ' ' && each <= '~'; });
    }
    std::vector<char *> words_;
    std::vector<OwnedBlock<char>> framed_;
};

std::string shown(const Texts &results, const Arguments &given) {
    if (given.as_json) return as_json(results) + "\n";
    if (!given.headings.empty() && !results.empty() && results[0] == "0") {
        return as_table(given.headings, Texts(results.begin() + 1, results.end()));
    }
    std::string lines;
    for (const std::string_view text : results) lines += as_line(text) + "\n";
    return lines;
}

ExitStatus print_results(RA_CLIENT_S *client, int count, const Arguments &given) {
    Texts results;
    for (int index = 0; index < count; ++index) results.emplace_back(raclient_result(client, index));
    fputs(shown(results, given).c_str(), stdout);
    if (fflush(stdout) != 0 || ferror(stdout) != 0) {  // at once: whoever reads may wait for it to ask on
        return fail(FAILED, "the answer could not be written: %s", strerror(errno));
    }
    const bool is_status_0 = !results.empty() && results[0] == "0";
    return given.needs_status_0 && !is_status_0 ? STATUS_NOT_0 : ANSWERED;
}

/** A server keeps silent towards whoever has not its key: tells that this may be the reason of a time-out. */
void hint_at_keys(const RA_CLIENT_S *client) {
    const char *root = process_context.rootDir;
    const std::string in_root = std::string(root != nullptr ? root : "") + "/etc/access.key";
    const char *file = packet_accesskey_file != nullptr ? packet_accesskey_file : in_root.c_str();
    const std::string server = packet_ip2str(client->ip);
    if (packet_accesskey_by_ip(client->ip, nullptr) != nullptr) {
        tell(
            "It was sent under the key of %s in %s. Is that the server's key, does a server run there, and does "
            "it serve this host? Its log tells.",
            server.c_str(), file);
        if (process_context.hardened == 0) return tell("A hardened server may want -HARDEN.");
        return tell(
            "Hardened, only an answer under a key counts: has the server one for this host, and is it hardened?");
    }
    std::string reason = std::string(file) + " has none for " + server;
    if (packet_accesskey_file == nullptr && root == nullptr) {
        reason = "name its keys by -VELROOT DIR, its root directory, or by -k KEYFILE";
    } else if (access(file, R_OK) != 0) {
        reason = std::string(file) + " can't be read: " + strerror(errno);
    }
    tell("It was sent without an access key; a server that wants one keeps silent: %s.", reason.c_str());
}

/** `where` names the line of a script that failed, with a colon behind it. */
ExitStatus tell_failure(RA_CLIENT_S *client, int code, const std::string &where) {
    tell("%s%s", where.c_str(), raclient_errmsg(client));
    if (code == RAERRTIMEOUT) hint_at_keys(client);
    return code == RAERRTIMEOUT ? NO_ANSWER : code == RAERRDENIED ? REFUSED : FAILED;
}

// ---- Script -------------------------------------------------------------------------------------------------------------

bool is_terminal(FILE *stream) { return isatty(fileno(stream)) != 0; }
bool is_pipe(FILE *stream) {
    struct stat status {};
    return fstat(fileno(stream), &status) == 0 && S_ISFIFO(status.st_mode);
}

/** One line at the bottom of the terminal, for a script that takes longer than a moment. What reads our output through a
 *  pipe may write to the same terminal: then there is none. */
class Progress {
public:
    Progress() : is_wanted_(is_terminal(stderr) && !is_pipe(stdout)) {}
    ~Progress() { clear(); }

    /** Before results are printed, which would mix with it. */
    void make_way() {
        if (is_terminal(stdout)) clear();
    }
    void count(int lines, int requests) {
        if (!is_wanted_ || Clock::now() < next_) return;
        const double seconds = std::chrono::duration<double>(Clock::now() - begun_).count();
        fprintf(stderr, "\r%d lines, %d requests, %.0f a second\033[K", lines, requests, requests / seconds);
        is_shown_ = true;
        next_ = Clock::now() + std::chrono::milliseconds(200);
    }

private:
    using Clock = std::chrono::steady_clock;

    void clear() {
        if (is_shown_) fputs("\r\033[K", stderr);
        is_shown_ = false;
    }
    const bool is_wanted_;
    bool is_shown_ = false;
    const Clock::time_point begun_ = Clock::now();
    Clock::time_point next_ = begun_ + std::chrono::seconds(1);
};

/** A text file, line by line, of any length. */
class Script {
public:
    explicit Script(const std::string &path)
        : name_(path == "-" ? "standard input" : path), stream_(path == "-" ? stdin : fopen(path.c_str(), "re")) {}
    ~Script() {
        free(line_);
        if (stream_ != nullptr && stream_ != stdin) fclose(stream_);
    }
    Script(const Script &) = delete;
    Script &operator=(const Script &) = delete;

    bool is_open() const { return stream_ != nullptr; }
    bool has_failed() const { return ferror(stream_) != 0; }

    bool next_line() {
        length_ = getline(&line_, &size_, stream_);
        if (length_ >= 0) ++number_;
        return length_ >= 0;
    }
    bool has_zero_byte() const { return strlen(line_) != static_cast<size_t>(length_); }

    /** The line's words; none for a comment. One more than a request may have are enough to have it refused. */
    std::vector<char *> words() const {
        std::vector<char *> words;
        char *position = line_;
        while (words.size() <= RA_MAX_STRINGS) {
            char *word = raclient_next_word(&position);
            if (word == nullptr) break;
            words.push_back(word);
        }
        if (!words.empty() && words[0][0] == '#') words.clear();
        return words;
    }
    int number() const { return number_; }
    const std::string &name() const { return name_; }
    std::string place() const { return name_ + ", line " + std::to_string(number_) + ": "; }

private:
    const std::string name_;
    FILE *const stream_;
    char *line_ = nullptr;
    size_t size_ = 0;
    ssize_t length_ = 0;
    int number_ = 0;
};

/** Sends one request and prints its answer. */
ExitStatus ask(RA_CLIENT_S *client, const std::vector<char *> &plain_words, const Arguments &given,
               Progress &progress, const std::string &where) {
    Words words(plain_words, given.frames);
    const int count = raclient_udp_request(client, words.count(), words.vector());
    progress.make_way();
    return count >= 0 ? print_results(client, count, given) : tell_failure(client, count, where);
}

ExitStatus run_script(RA_CLIENT_S *client, const Arguments &given) {
    Script script(given.script);
    if (!script.is_open()) return fail(FAILED, "cannot read %s: %s", given.script, strerror(errno));
    Progress progress;
    int requests = 0;
    while (script.next_line()) {
        if (script.has_zero_byte()) return fail(FAILED, "%sthere is a zero byte in it", script.place().c_str());
        const std::vector<char *> words = script.words();
        if (words.empty()) continue;
        const ExitStatus status = ask(client, words, given, progress, script.place());
        if (status != ANSWERED) return status;
        progress.count(script.number(), ++requests);
    }
    if (script.has_failed()) return fail(FAILED, "cannot read %s: %s", script.name().c_str(), strerror(errno));
    return ANSWERED;
}

// ---- The whole ------------------------------------------------------------------------------------------------------------

/** What process_init would have set: this is no daemon and has no log, but it may run and has a name. */
void become_a_process() {
    static char name[] = "raclient";
    process_context.name = name;
    const char *root = getenv("VELROOT");
    process_context.rootDir = root != nullptr && *root != 0 ? root : nullptr;
    process_context.running = 1;
    process_context.silent = 1;
}

ExitStatus run(const Arguments &given) {
    if (packet_accesskey_file != nullptr && access(packet_accesskey_file, R_OK) != 0) {
        return fail(FAILED, "cannot read %s: %s", packet_accesskey_file, strerror(errno));
    }
    RA_CLIENT_S *client = raclient_udp_create(given.host, given.port, given.interval, given.tries);
    if (client == nullptr) return fail(FAILED, "out of memory");
    Progress none;
    const ExitStatus status =
        given.script != nullptr ? run_script(client, given) : ask(client, given.words, given, none, "");
    raclient_udp_destroy(client);
    return status;
}

}  // namespace

const Tool this_tool = {"raclient", SHORT_USAGE, WRONG_USAGE};

int main(int argc, char **argv) {
    become_a_process();
    return run(read_arguments(argc, argv));
}
