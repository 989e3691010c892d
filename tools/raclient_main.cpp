/* raclient: sends one request to an RA server from the command line and prints the strings of its answer.
 *
 * Everything that is said about a failure is said here, on standard error: the framework's printers stay silent,
 * since without a log they would write between the results. */
#include <getopt.h>
#include <stdarg.h>
#include <stdio.h>
#include <stdlib.h>

#include <charconv>
#include <string>
#include <string_view>

#include "process/velproc.h"
#include "raserver/raextern.h"

namespace {

enum ExitStatus { ANSWERED = 0, NO_ANSWER = 1, WRONG_USAGE = 2 };

constexpr int MAX_INTERVAL = 86400;
constexpr int MAX_TRIES = 100000;

constexpr char SHORT_USAGE[] =
    "Usage: raclient [-i INTERVAL] [-n TRIES] HOST PORT WORD...\n"
    "       raclient -h explains it, with examples.\n";

constexpr char HELP[] =
    "Usage: raclient [-i INTERVAL] [-n TRIES] HOST PORT WORD...\n"
    "\n"
    "Sends one request, the list of WORDs, to the RA server on HOST and UDP PORT, and\n"
    "prints the strings of its answer, one a line. Within a line \\n, \\t, \\\\ and \\xHH\n"
    "stand for a line feed, a tab, a backslash and any other control byte.\n"
    "\n"
    "  -i INTERVAL  seconds after which the request is sent again, 1 to 86400; default 3\n"
    "  -n TRIES     how many intervals to wait for an answer, 1 to 100000; default 5\n"
    "  --           ends the options\n"
    "  -h, --help   prints this text\n"
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
    "  delete  raclient 127.0.0.1 4000 DB D USERS ID dora\n"
    "\n"
    "Counters such as VISITS hold eight hexadecimal digits; what is added is decimal.\n"
    "\n"
    "If the environment variable VELROOT names a root directory, the server's key in its\n"
    "etc/access.key opens the server: the request is sent under it.\n"
    "\n"
    "127.0.0.1 is always the loopback address. localhost is the address in the file\n"
    "etc/bindip of that root directory, and without one this machine's own address.\n"
    "\n"
    "Exit status: 0 the server answered, whatever the status code in the answer; 1 it\n"
    "refused or did not answer, or the request could not be sent; 2 wrong usage. The\n"
    "reason of 1 and 2 is on standard error.\n";

struct Arguments {
    int interval = 0;  // 0: the library's default
    int tries = 0;
    const char *host = nullptr;
    uint16_t port = 0;
    int word_count = 0;
    char **words = nullptr;
};

[[noreturn]] __attribute__((format(printf, 1, 2))) void wrong_usage(const char *format, ...) {
    va_list arguments;
    va_start(arguments, format);
    fputs("raclient: ", stderr);
    vfprintf(stderr, format, arguments);
    va_end(arguments);
    fprintf(stderr, "\n%s", SHORT_USAGE);
    exit(WRONG_USAGE);
}

/** The whole number that a text is, all of it; ends the program if it isn't one from 1 to `largest`. */
int number(const char *meaning, std::string_view text, int largest) {
    int value = 0;
    const char *end = text.data() + text.size();
    const auto [stopped, error] = std::from_chars(text.data(), end, value);
    if (error != std::errc() || stopped != end || value < 1 || value > largest) {
        wrong_usage("%s must be a whole number from 1 to %d, not \"%s\"", meaning, largest, text.data());
    }
    return value;
}

[[noreturn]] void refuse_option(char **argv, int code) {
    if (code == ':') wrong_usage("option -%c needs a value", optopt);
    if (optopt != 0) wrong_usage("unknown option -%c", optopt);
    wrong_usage("unknown option %s", argv[optind - 1]);
}

Arguments read_arguments(int argc, char **argv) {
    static const option long_options[] = {{"help", no_argument, nullptr, 'h'}, {nullptr, 0, nullptr, 0}};
    Arguments given;
    opterr = 0;
    int code = 0;
    while ((code = getopt_long(argc, argv, "+:hi:n:", long_options, nullptr)) != -1) {
        switch (code) {  // "+" above: words may begin with a dash, so options end at the host
            case 'h':
                fputs(HELP, stdout);
                exit(ANSWERED);
            case 'i':
                given.interval = number("INTERVAL", optarg, MAX_INTERVAL);
                break;
            case 'n':
                given.tries = number("TRIES", optarg, MAX_TRIES);
                break;
            default:
                refuse_option(argv, code);
        }
    }
    if (argc - optind < 1) wrong_usage("HOST, PORT and WORD are missing");
    if (argc - optind < 2) wrong_usage("PORT and WORD are missing");
    if (argv[optind][0] == 0) wrong_usage("HOST is empty");
    given.host = argv[optind];
    given.port = static_cast<uint16_t>(number("PORT", argv[optind + 1], UINT16_MAX));
    if (argc - optind < 3) wrong_usage("WORD is missing");
    given.words = argv + optind + 2;
    given.word_count = argc - optind - 2;
    return given;
}

/** A string as one line: no byte of it can end the line or steer the terminal, and none is lost. */
std::string as_line(std::string_view text) {
    std::string line;
    for (const char character : text) {
        const auto byte = static_cast<unsigned char>(character);
        if (character == '\n') {
            line += "\\n";
        } else if (character == '\t') {
            line += "\\t";
        } else if (character == '\\') {
            line += "\\\\";
        } else if (byte < 32 || byte == 127) {
            char escaped[8];
            snprintf(escaped, sizeof escaped, "\\x%02x", byte);
            line += escaped;
        } else {
            line += character;
        }
    }
    return line;
}

/** What process_init would have set: this is no daemon and has no log, but it may run and has a name. */
void become_a_process() {
    static char name[] = "raclient";
    process_context.name = name;
    process_context.rootDir = getenv("VELROOT");
    process_context.running = 1;
    process_context.silent = 1;
}

int print_results(RA_CLIENT_S *client, int count) {
    for (int index = 0; index < count; ++index) puts(as_line(raclient_result(client, index)).c_str());
    if (fflush(stdout) == 0 && ferror(stdout) == 0) return ANSWERED;
    perror("raclient: the answer could not be written");
    return NO_ANSWER;
}

int ask(const Arguments &given) {
    RA_CLIENT_S *client = raclient_udp_create(given.host, given.port, given.interval, given.tries);
    if (client == nullptr) {
        fputs("raclient: out of memory\n", stderr);
        return NO_ANSWER;
    }
    int status = NO_ANSWER;
    const int count = raclient_udp_request(client, given.word_count, given.words);
    if (count >= 0) {
        status = print_results(client, count);
    } else {
        fprintf(stderr, "raclient: %s\n", raclient_errmsg(client));
    }
    raclient_udp_destroy(client);
    return status;
}

}  // namespace

int main(int argc, char **argv) {
    const Arguments given = read_arguments(argc, argv);
    become_a_process();
    return ask(given);
}
