/* The hooks of the server core: they read the database options, open the session (as often as it takes), admit
 * requests and count them by type. What a request does is told by vlociRequest. */
#include <arpa/inet.h>
#include <ctype.h>
#include <errno.h>
#include <fcntl.h>
#include <stdlib.h>
#include <unistd.h>

#include <array>
#include <chrono>
#include <optional>
#include <string>
#include <vector>

#include "gateway/vlsql.h"
#include "process/owned.h"

int verboseFlag;
int sqlVerboseFlag;
int oracleReady;
int oracleOpenPending = 2;

namespace gateway {
namespace {

using Clock = std::chrono::steady_clock;

constexpr char PASSWORD_FILE[] = "file:";

// ---- Options

using Setting = std::optional<std::string>;

/** Texts of the options; own copies, since the password's argument is overwritten. */
struct Settings {
    Setting database, home, language, user, password, configuration;
};
Settings settings;

struct TextOption {
    const char *prefix;
    Setting Settings::*target;
    bool skipsValue;  // a value of its own argument is not looked at as an option
};
constexpr TextOption textOptions[] = {
    {"-odb", &Settings::database, true},  {"-ohom", &Settings::home, true},
    {"-onls", &Settings::language, true}, {"-oid", &Settings::user, false},
    {"-opw", &Settings::password, false}, {"-f", &Settings::configuration, false},
};

bool begins_with(const char *text, const char *prefix) { return strncmp(text, prefix, strlen(prefix)) == 0; }

const TextOption *find_text_option(const char *argument) {
    for (const TextOption &option : textOptions) {
        if (begins_with(argument, option.prefix)) return &option;
    }
    return nullptr;
}

/** The value of a text option: behind its prefix, or the next argument (null at the end of the vector). */
char *option_value(const TextOption &option, char **argument) {
    const size_t prefix = strlen(option.prefix);
    return strlen(argument[0]) > prefix ? argument[0] + prefix : argument[1];
}

void take_flag(const char *argument) {
    if (begins_with(argument, "-v")) {
        verboseFlag = 1;
    } else if (begins_with(argument, "-sqlv")) {
        sqlVerboseFlag = 1;
    }
}

void take_options(int argc, char **argv) {
    std::vector<char *> passwords;
    for (int i = 0; i < argc && argv[i] != nullptr; ++i) {
        const TextOption *option = find_text_option(argv[i]);
        if (option == nullptr) {
            take_flag(argv[i]);
            continue;
        }
        char *value = option_value(*option, &argv[i]);
        settings.*(option->target) = value != nullptr ? Setting(value) : std::nullopt;
        if (value == nullptr) continue;
        if (option->target == &Settings::password && !begins_with(value, PASSWORD_FILE)) passwords.push_back(value);
        if (option->skipsValue && value == argv[i + 1]) ++i;
    }
    // Last, since an argument may be looked at twice: other users of the machine can read the vector.
    for (char *password : passwords) wipe(password, strlen(password));
}

// ---- Opening the session

const char *text_of(const Setting &setting) { return setting ? setting->c_str() : nullptr; }

using PasswordBuffer = WipedBytes<1024>;

const char *read_password_file(const char *path, PasswordBuffer &buffer) {
    const OwnedFd file(open(path, O_RDONLY | O_CLOEXEC | O_NOCTTY));
    const ssize_t length = file.is_open() ? read(file.get(), buffer.data(), PasswordBuffer::size() - 1) : -1;
    if (length < 0) {
        process_log("RA.EV cannot read the password file \"%s\": %s\n", path, strerror(errno));
        return nullptr;
    }
    if (length == 0) {
        process_log("RA.EV the password file \"%s\" is empty\n", path);
        return nullptr;
    }
    char *line = reinterpret_cast<char *>(buffer.data());
    line[strcspn(line, "\r\n")] = '\0';
    return line;
}

/** The password, or null. A file is read anew each time: it may appear later. */
const char *current_password(PasswordBuffer &buffer) {
    const char *given = text_of(settings.password);
    if (given == nullptr || !begins_with(given, PASSWORD_FILE)) return given;
    return read_password_file(given + strlen(PASSWORD_FILE), buffer);
}

void forget_password() {
    if (!settings.password) return;
    std::string &password = *settings.password;
    wipe(password.data(), password.size());
    settings.password.reset();
}

void open_database() {
    process_log("RA.EV opening Oracle connection\n");
    PasswordBuffer buffer;
    const int result = vlociInit(text_of(settings.configuration), text_of(settings.home), text_of(settings.database),
                                 text_of(settings.user), current_password(buffer), text_of(settings.language));
    if (result != 0) return;  // told in the log; the next period tries again, for ever
    oracleReady = 1;
    process_log("RA.EV Oracle connection established\n");
    oracleOpenPending = 0;
    forget_password();
}

// ---- Requests

struct RequestCount {
    int count;
    long seconds;
    long microseconds;
};
std::array<RequestCount, 256> requestCounts;  // by the first byte of a string

void count_request(unsigned char type, Clock::duration elapsed) {
    using std::chrono::microseconds;
    const long total = static_cast<long>(std::chrono::duration_cast<microseconds>(elapsed).count());
    RequestCount &record = requestCounts[type];
    ++record.count;
    record.seconds += total / 1000000;
    record.microseconds += total % 1000000;
    if (record.microseconds > 999999) {
        record.microseconds -= 1000000;
        ++record.seconds;
    }
}

void report_count(int type, RequestCount &record) {
    const long mean = (record.seconds % 1000 * 1000000 + record.microseconds) / record.count;
    if (type >= 32 && type < 127) {
        process_log("DB.RE Type %c, Requests %d, %ld usecs per request.\n", type, record.count, mean);
    } else {
        process_log("DB.RE Type %02x, Requests %d, %ld usecs per request.\n", static_cast<unsigned>(type),
                    record.count, mean);
    }
    record = RequestCount{};
}

void log_arguments(int argc, char **inargv) {
    for (int i = 0; i < argc; ++i) {
        process_log("argv[ %d ] = \"%s\"\n", i, printable(or_null_text(inargv[i])).c_str());
    }
}

/** Takes a framed value out of its frame, in place: decoded text is never longer. False if it can't be decoded. */
bool decode_in_place(char *text) {
    char *decoded = orDecode(text);
    if (decoded == text) return true;
    const OwnedBlock<char> block(decoded);
    if (block.is_null()) return false;
    memcpy(text, decoded, strlen(decoded) + 1);
    return true;
}

/** Decodes values and attribute lists. Names of table, function and key travel unframed. Tells the string that the
 *  request is counted by: the last one decoded, else the function code; null if one can't be decoded. */
const char *decode_values(int argc, char **inargv) {
    const char *last = inargv[FUNCTION_CODE];
    for (int i = KEY_VALUE; i < argc && inargv[i] != nullptr; ++i) {
        if (!decode_in_place(inargv[i])) {
            process_log("raEventUdpRequest argument %d cannot be decoded\n", i);
            return nullptr;
        }
        last = inargv[i];
    }
    return last;
}

bool is_admitted(RA_SESSION_S *session, int argc, char **inargv) {
    if (process_context.noAccessKeyCheck || keyAccepted) return true;
    process_error("Database error: UDP Request without access key from %s:%d\n", raIpString(raGetPeerIp(session)),
                  ntohs(raGetPeerPort(session)));
    log_arguments(argc, inargv);
    return false;
}

}  // namespace
}  // namespace gateway

using namespace gateway;

int raEventStartup(int argc, char **argv) {
    process_log("RA.EV raEventStartup argc %d\n", argc);
    for (int i = 0; i < argc; ++i) process_log("RA.LOG ARGV[ %d ] \"%s\"\n", i, or_null_text(argv[i]));
    verboseFlag = 0;
    sqlVerboseFlag = 0;
    take_options(argc, argv);
    return 0;
}

void raEventUdpRequest(RA_SESSION_S *session, int argc, char **inargv) {
    if (verboseFlag) {
        process_log("RA.LOG raEventUdpRequest %d args.\n", argc);
        log_arguments(argc, inargv);
    }
    if (!oracleReady) {
        process_log("raEventUdpRequest rejected since Oracle connection not yet initialized\n");
        return;
    }
    const bool isForDatabase = argc > 0 && inargv[0] != nullptr && strcmp(inargv[0], "DB") == 0;
    if (!isForDatabase || !is_admitted(session, argc, inargv)) return;
    if (argc <= FUNCTION_CODE || inargv[FUNCTION_CODE] == nullptr) return;

    const Clock::time_point started = Clock::now();
    const char *counted = decode_values(argc, inargv);
    if (counted == nullptr) {
        orSetResult(session, "1");
        return;
    }
    const auto type = static_cast<unsigned char>(counted[0]);
    vlociRequest(session, argc, inargv);
    count_request(type, Clock::now() - started);
}

/** Database access is by datagrams only. */
void raEventHttpRequest(RA_CONN_S *) {}

void raEventPeriodic(struct timeval *) {
    if (oracleOpenPending) open_database();
    orRequestStats();
}

void raEventShutdown(int code) {
    process_log("RA.EV raEventShutdown exitcode %d\n", code);
    if (!oracleReady) return;
    oracleReady = 0;
    vlociShutdown();
}

void orRequestStats(void) {
    for (size_t type = 0; type < requestCounts.size(); ++type) {
        if (requestCounts[type].count > 0) report_count(static_cast<int>(type), requestCounts[type]);
    }
}
