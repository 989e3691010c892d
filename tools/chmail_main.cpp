/* chmail: delivers one mail to the platform's operator. The servers start it with the errors that they report.
 *
 * Recipients and mail server are in etc/mail.cfg below the root directory; packet_sendmail reads it. As a server's
 * child the tool has its log for standard error, so whatever goes wrong is said there, by the libraries' printers as
 * well. */
#include <errno.h>
#include <fcntl.h>
#include <getopt.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

#include <string>

#include "packet/packet.h"
#include "process/velproc.h"
#include "tools/usage.h"

namespace {

enum ExitStatus { SENT = 0, NOT_SENT = 1, WRONG_USAGE = 2 };

constexpr char SHORT_USAGE[] =
    "Usage: chmail [-VELROOT DIR] [-VERBOSE] -s SUBJECT -t TEXT\n"
    "       chmail -h explains it.\n";

constexpr char HELP[] =
    "Usage: chmail [-VELROOT DIR] [-VERBOSE] -s SUBJECT -t TEXT\n"
    "\n"
    "Mails TEXT to the platform's operator, over SMTP. Servers start it as bin/chmail below\n"
    "their root directory, with the errors that they report.\n"
    "\n"
    "  -VELROOT DIR  root directory; default: the environment variable VELROOT\n"
    "  -s SUBJECT    subject, one line\n"
    "  -t TEXT       text, of any number of lines\n"
    "  -VERBOSE      tells the settings that are used, on standard error\n"
    "  -h, --help    prints this text\n"
    "\n"
    "Recipients and mail server are in DIR/etc/mail.cfg, a key and its value in each line:\n"
    "\n"
    "  adminmail ops@example.org, night@example.org   recipients; required\n"
    "  smtphost  127.0.0.1                            mail server; default: this machine\n"
    "  smtpport  25                                   its TCP port\n"
    "  mailaddr  velmora@www.example.org              sender; default: velmora at sendhost\n"
    "  sendhost  www.example.org                      name of this host in the mail\n"
    "\n"
    "Without smtphost, and for localhost, the mail server is looked for at the address in\n"
    "DIR/etc/bindip, or else at this machine's own address, not at 127.0.0.1.\n"
    "\n"
    "Exit status: 0 the mail was handed to the mail server, whose answers are not looked at:\n"
    "one that it refuses counts as sent; 1 it was not; 2 wrong usage. The reason of 1 and 2\n"
    "is on standard error.\n";

struct Arguments {
    const char *subject = nullptr;
    const char *text = nullptr;
};

/** A server starts the tool without standard output: its number must not become that of the connection. */
void fill_standard_descriptors() {
    int fd = 0;
    do fd = open("/dev/null", O_RDWR);
    while (fd >= 0 && fd <= STDERR_FILENO);
    if (fd >= 0) close(fd);
}

/** What process_init would have set. The text is an error's, and is to arrive whole whatever is in it. */
void become_a_process() {
    static char name[] = "chmail";
    const char *root = getenv("VELROOT");
    process_context.name = name;
    process_context.rootDir = root != nullptr && *root != 0 ? root : nullptr;
    process_context.mode = PROCESS_MODE_FOREGROUND;
    process_context.running = 1;
    process_context.hardened = 1;
}

Arguments read_arguments(int argc, char **argv) {
    enum { ROOT = 256, VERBOSE };
    static const option long_options[] = {{"help", no_argument, nullptr, 'h'},
                                          {"VELROOT", required_argument, nullptr, ROOT},
                                          {"VERBOSE", no_argument, nullptr, VERBOSE},
                                          {nullptr, 0, nullptr, 0}};
    Arguments given;
    opterr = 0;
    int code = 0;
    while ((code = getopt_long_only(argc, argv, "+:hs:t:", long_options, nullptr)) != -1) {
        switch (code) {
            case 'h':
                fputs(HELP, stdout);
                exit(fflush(stdout) == 0 ? SENT : NOT_SENT);
            case 's':
                given.subject = optarg;
                break;
            case 't':
                given.text = optarg;
                break;
            case ROOT:
                process_context.rootDir = optarg;
                break;
            case VERBOSE:
                process_context.verbose = 1;
                break;
            case ':':
                wrong_usage("option %s needs a value", argv[optind - 1]);
            default:
                wrong_usage("unknown option %s", argv[optind - 1]);
        }
    }
    if (optind < argc) wrong_usage("too many words: \"%s\"", argv[optind]);
    if (given.subject == nullptr) wrong_usage("-s SUBJECT is missing");
    if (given.text == nullptr || *given.text == 0) wrong_usage("-t TEXT is missing");
    if (process_context.rootDir == nullptr) wrong_usage("-VELROOT DIR is missing, and VELROOT is not set");
    return given;
}

/** Without the white space at its end: a server's subject ends in a line feed. */
std::string subject_of(const Arguments &given) {
    std::string subject = given.subject;
    while (!subject.empty() && process_isspace(static_cast<unsigned char>(subject.back())) != 0) subject.pop_back();
    return subject;
}

struct Failure {
    const char *cause;
    int code;
    bool has_reason;  // errno tells more
};
constexpr Failure failures[] = {
    {"there is no adminmail in etc/mail.cfg of the root directory", PACKETERRINVAL, false},
    {"the mail server's name (smtphost in etc/mail.cfg) is not known", PACKETERRHOST, false},
    {"no connection to the mail server (smtphost and smtpport in etc/mail.cfg)", PACKETERRCONNECT, true},
    {"the mail server took too long", PACKETERRTIMEOUT, false},
    {"the mail server does not take the mail", PACKETERRSEND, true},
    {"out of memory", PACKETERRMEM, false},
};

ExitStatus report(int result) {
    const char *reason = strerror(errno);
    if (result == 0) return SENT;
    if (result == -1) return fail(SENT, "sent, but the mail server did not say good-bye");

    for (const Failure &failure : failures) {
        if (failure.code != result) continue;
        if (failure.has_reason) return fail(NOT_SENT, "not sent: %s: %s", failure.cause, reason);
        return fail(NOT_SENT, "not sent: %s", failure.cause);
    }
    return fail(NOT_SENT, "not sent: code %d, %s", result, reason);
}

}  // namespace

const Tool this_tool = {"chmail", SHORT_USAGE, WRONG_USAGE};

int main(int argc, char **argv) {
    fill_standard_descriptors();
    become_a_process();
    const Arguments given = read_arguments(argc, argv);
    dup2(STDERR_FILENO, STDOUT_FILENO);  // where the printers of a process without a log write
    return report(packet_sendmail(nullptr, 0, nullptr, nullptr, nullptr, subject_of(given).c_str(), given.text));
}
