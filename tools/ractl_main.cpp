/* ractl: the operator's tool. It gives orders to an RA server of this host, asks whether it lives and serves, and lists
 * the instances below a root directory.
 *
 * Where the server listens is found out first, by PING: at the configured bind address, on the loopback, or at the
 * host's own address. An order goes out once: a trace flipped twice would stay as it was. Everything that is said is
 * said here; the framework's printers stay silent. */
#include <arpa/inet.h>
#include <errno.h>
#include <fcntl.h>
#include <getopt.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cmath>
#include <filesystem>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "ivs/ivs.h"
#include "packet/bytereader.h"
#include "process/owned.h"
#include "process/printable.h"
#include "process/velproc.h"
#include "raserver/raextern.h"
#include "tools/usage.h"

namespace {

using Clock = std::chrono::steady_clock;
using std::chrono::duration;
using std::chrono::milliseconds;
using std::chrono::seconds;

enum ExitStatus { DONE = 0, NO_ANSWER = 1, REFUSED_OR_USAGE = 2 };

constexpr int MAX_WAIT = 86400;
constexpr int MAX_PINGS = 1000000;
constexpr auto PING_INTERVAL = seconds(1);

constexpr char SHORT_USAGE[] =
    "Usage: ractl [-VELROOT DIR] PORT stop|trace|reread|newlog|ping|ready|list [--wait SECONDS]\n"
    "       ractl -h explains it, with examples.\n";

constexpr char HELP[] =
    "Usage: ractl [-VELROOT DIR] PORT COMMAND [--wait SECONDS]\n"
    "\n"
    "Controls the RA server with UDP port PORT on this host.\n"
    "\n"
    "  stop     ends the server, and waits until its port is free\n"
    "  trace    turns its trace on, or off if it is on\n"
    "  reread   tells it to read its settings again\n"
    "  newlog   has it open its log file anew, after the old one was renamed\n"
    "  ping     measures round trips: four, one a second, or as -c says\n"
    "  ready    tells whether requests are served: a ping, then a request that the\n"
    "           database gateway answers\n"
    "  list     shows the instances of the root directory (PORT may be left out, or\n"
    "           chooses), from their status files, without touching their locks\n"
    "\n"
    "  -VELROOT DIR      root directory, where the access key of this host is found in\n"
    "                    etc/access.key; else the environment variable VELROOT names it\n"
    "  -BINDIP ADDRESS   address that the server is bound to, if it is not found by itself\n"
    "  -HARDEN           for a hardened server whose key says encrypt; so does VELHARDEN=1\n"
    "  --wait SECONDS    how long to wait for an answer, 1 to 86400; default 5\n"
    "  -c COUNT          how many pings, 0 for until Ctrl-C\n"
    "  -h, --help        prints this text\n"
    "\n"
    "  ractl -VELROOT /srv/ra 4000 ready && echo up\n"
    "  mv log/raserver.4000 log/raserver.4000.old && ractl 4000 newlog\n"
    "  ractl 4000 stop --wait 30\n"
    "  ractl list\n"
    "\n"
    "Orders need this host's access key, unless the server runs with -NOACCESSKEYCHECK;\n"
    "without it the server keeps silent.\n"
    "\n"
    "Exit status: 0 done; 1 no answer in time, or nothing to list; 2 refused by the\n"
    "server, or wrong usage.\n";

struct Arguments {
    uint16_t port = 0;  // 0: none given
    std::string command;
    seconds wait{5};
    int pings = 4;
};

/* ---- Finding the server, sending, waiting --------------------------------------------------------------------------- */

/** A conversation with the server: one socket, the server's address once it is known. */
class Line {
public:
    Line(uint16_t port, seconds wait) : port_(port), socket_(packet_clt_socket()), until_(Clock::now() + wait) {
        if (!socket_.is_open()) exit(fail(NO_ANSWER, "no socket: %s", strerror(errno)));
    }

    /** Pings where the server may listen until it answers. */
    bool find_server();

    /** Sends a packet to the server: under its key, if that is known. */
    void send(const std::vector<uint8_t> &packet);
    void send_in_clear(const std::vector<uint8_t> &packet) { send_to(server_, packet); }

    /** The next packet of the server; none if the time is over, or a signal says to stop. */
    std::optional<std::vector<uint8_t>> receive(Clock::time_point until);

    Clock::time_point until() const { return until_; }
    const PacketAddress &server() const { return server_; }
    std::string server_name() const {
        return std::string(packet_ip2str(server_.sin_addr.s_addr)) + ":" + std::to_string(port_);
    }

private:
    PacketAddress at(uint32_t ip) const {
        PacketAddress address{};
        address.sin_family = AF_INET;
        address.sin_port = htons(port_);
        address.sin_addr.s_addr = ip;
        return address;
    }
    std::vector<PacketAddress> candidates() const;
    void send_to(const PacketAddress &address, const std::vector<uint8_t> &packet) const {
        packet_sendto(socket_.get(), packet.data(), static_cast<int>(packet.size()), &address, sizeof address);
    }
    std::optional<std::vector<uint8_t>> receive_from(PacketAddress *peer, Clock::time_point until);

    uint16_t port_;
    OwnedFd socket_;
    Clock::time_point until_;
    PacketAddress server_{};
};

bool is_same(const PacketAddress &one, const PacketAddress &other) {
    return one.sin_addr.s_addr == other.sin_addr.s_addr && one.sin_port == other.sin_port;
}

std::vector<PacketAddress> Line::candidates() const {
    const uint32_t bound = packet_bindaddr();
    if (bound != 0) return {at(bound)};  // told where it is: nobody else is meant

    std::vector<PacketAddress> found{at(htonl(INADDR_LOOPBACK))};
    char name[1024] = "";
    uint32_t ip_host = 0;
    if (gethostname(name, sizeof name - 1) == 0 && packet_gethostbyname(name, &ip_host) == 0) {
        const PacketAddress own = at(htonl(ip_host));
        if (!is_same(own, found[0])) found.push_back(own);
    }
    return found;
}

bool Line::find_server() {
    const std::vector<PacketAddress> all = candidates();
    while (Clock::now() < until_ && process_context.running) {
        for (const PacketAddress &each : all) send_to(each, {IVS_TYPE_PING});
        const auto next = std::min(until_, Clock::now() + seconds(1));  // a busy server answers later
        PacketAddress peer{};
        while (const auto packet = receive_from(&peer, next)) {
            const bool is_candidate =
                std::any_of(all.begin(), all.end(), [&](auto &each) { return is_same(each, peer); });
            if (!is_candidate || packet->empty() || packet->front() != IVS_TYPE_PONG) continue;
            server_ = peer;
            packet_own_ip = server_.sin_addr.s_addr;  // answers in envelopes are under the key of that address
            return true;
        }
    }
    return false;
}

void Line::send(const std::vector<uint8_t> &packet) {
    int flags = PACKETKEYNONE;
    const unsigned char *key = packet_accesskey_by_adr(&server_, &flags);
    if (key == nullptr) key = packet_accesskey_by_name("localhost", &flags);
    if (key == nullptr) return send_in_clear(packet);

    const auto length = static_cast<int>(packet.size());
    if ((flags & PACKETKEYENCRYPT) != 0) {
        packet_send_encrypted(socket_.get(), key, packet.data(), length, &server_, sizeof server_);
        return;
    }
    std::vector<uint8_t> under_key{IVS_TYPE_ACCK};
    under_key.insert(under_key.end(), key, key + IVS_KEY_SIZE);
    under_key.insert(under_key.end(), packet.begin(), packet.end());
    send_to(server_, under_key);
}

std::optional<std::vector<uint8_t>> Line::receive(Clock::time_point until) {
    PacketAddress peer{};
    while (auto packet = receive_from(&peer, until)) {
        if (is_same(peer, server_) && !packet->empty()) return packet;
    }
    return std::nullopt;
}

std::optional<std::vector<uint8_t>> Line::receive_from(PacketAddress *peer, Clock::time_point until) {
    static uint8_t buffer[PACKET_MAX_DATAGRAM];
    while (process_context.running) {
        const auto left = std::chrono::duration_cast<std::chrono::microseconds>(until - Clock::now()).count();
        if (left <= 0) return std::nullopt;
        timeval wait{};
        wait.tv_sec = left / 1000000;
        wait.tv_usec = left % 1000000;
        int peer_size = sizeof *peer;
        const int length = packet_read(socket_.get(), buffer, sizeof buffer, peer, &peer_size, &wait);
        const int skipped = length > IVS_KEY_PREFIX && buffer[0] == IVS_TYPE_ACCK ? int{IVS_KEY_PREFIX} : 0;
        if (length >= 0) return std::vector<uint8_t>(buffer + skipped, buffer + length);
        if (length != PACKETERRINTR && length != PACKETERRTIMEOUT) usleep(10000);
    }
    return std::nullopt;
}

int no_server(const Arguments &given) {
    return fail(NO_ANSWER, "no server answers on port %d of this host", given.port);
}

/* ---- Orders ----------------------------------------------------------------------------------------------------------- */

struct Order {
    std::string_view command;
    int action;
    const char *done;
};
constexpr Order orders[] = {
    {"stop", IVS_ADMIN_STOP, "stops"},
    {"trace", IVS_ADMIN_TRACEON, "has turned its trace on, or off if it was on"},
    {"reread", IVS_ADMIN_REREAD, "was told to read its settings again"},
    {"newlog", IVS_ADMIN_NEWLOG, "has opened its log file anew"},
};

const Order *find_order(std::string_view command) {
    const auto *found = std::find_if(std::begin(orders), std::end(orders),
                                     [&](const Order &each) { return each.command == command; });
    return found != std::end(orders) ? found : nullptr;
}

/** Whether a UDP socket of this host is bound to the server's port, and to its address or to all. */
bool is_port_taken(const PacketAddress &server) {
    const OwnedFile table(fopen("/proc/net/udp", "re"));
    char line[512];
    while (table.is_open() && fgets(line, sizeof line, table.get()) != nullptr) {
        unsigned ip = 0, port = 0;
        if (sscanf(line, " %*d: %x:%x", &ip, &port) != 2) continue;
        if (port == ntohs(server.sin_port) && (ip == 0 || ip == server.sin_addr.s_addr)) return true;
    }
    return false;
}

int wait_for_end(const Line &line) {
    while (is_port_taken(line.server())) {
        if (Clock::now() >= line.until() || !process_context.running) {
            return fail(NO_ANSWER, "the server at %s has understood, but has not ended yet",
                        line.server_name().c_str());
        }
        usleep(20000);
    }
    printf("the server at %s has stopped\n", line.server_name().c_str());
    return DONE;
}

int give_order(const Order &order, const Arguments &given) {
    Line line(given.port, given.wait);
    if (!line.find_server()) return no_server(given);

    std::vector<uint8_t> packet(IVS_ADMIN_ACTION_AT + 1);
    packet[0] = IVS_TYPE_ADMN;
    packet[IVS_ADMIN_ACTION_AT] = static_cast<uint8_t>(order.action);
    line.send(packet);
    while (const auto answer = line.receive(line.until())) {
        ByteReader reader(answer->data(), static_cast<int>(answer->size()));
        const int type = reader.u8();
        if (type == IVS_TYPE_COFA) {
            return fail(REFUSED_OR_USAGE, "the server at %s refuses, with reason %d", line.server_name().c_str(),
                        reader.u8());
        }
        if (type != IVS_TYPE_ADMN) continue;
        if (order.action == IVS_ADMIN_STOP) return wait_for_end(line);
        printf("the server at %s %s\n", line.server_name().c_str(), order.done);
        return DONE;
    }
    return fail(NO_ANSWER,
                "the server at %s lives, but does not take the order: is the access key of this host right?",
                line.server_name().c_str());
}

/* ---- ping --------------------------------------------------------------------------------------------------------------- */

constexpr int PING_DATA = 56;

struct Pings {
    int sent = 0;
    std::vector<double> times;  // milliseconds
    std::vector<Clock::time_point> sent_at;
    std::vector<bool> answered;
};

void send_ping(Line &line, Pings &pings) {
    std::vector<uint8_t> packet(1 + PING_DATA);
    ByteWriter(packet.data(), static_cast<int>(packet.size()))
        .u8(IVS_TYPE_PING)
        .u32be(static_cast<uint32_t>(pings.sent));
    for (size_t at = 5; at < packet.size(); ++at) packet[at] = static_cast<uint8_t>(at);
    pings.sent_at.push_back(Clock::now());
    pings.answered.push_back(false);
    ++pings.sent;
    line.send_in_clear(packet);
}

/** Takes an answer: the first to each ping. */
void take_pong(const Line &line, Pings &pings, const std::vector<uint8_t> &packet) {
    const auto now = Clock::now();
    ByteReader reader(packet.data(), static_cast<int>(packet.size()));
    if (reader.u8() != IVS_TYPE_PONG || packet.size() != 1 + PING_DATA) return;
    const uint32_t number = reader.u32be();
    if (number >= pings.answered.size() || pings.answered[number]) return;
    pings.answered[number] = true;
    pings.times.push_back(duration<double, std::milli>(now - pings.sent_at[number]).count());
    printf("%zu bytes from %s: seq=%u time=%.3f ms\n", packet.size(), line.server_name().c_str(), number + 1,
           pings.times.back());
    fflush(stdout);
}

void print_summary(const Line &line, const Pings &pings, Clock::time_point begun) {
    const auto received = pings.times.size();
    const auto lost = static_cast<size_t>(pings.sent) - received;
    printf("\n--- %s ping statistics ---\n", line.server_name().c_str());
    printf("%d packets transmitted, %zu received, %zu%% packet loss, time %ldms\n", pings.sent, received,
           pings.sent > 0 ? 100 * lost / static_cast<size_t>(pings.sent) : 0,
           static_cast<long>(std::chrono::duration_cast<milliseconds>(Clock::now() - begun).count()));
    if (received == 0) return;
    double sum = 0, squares = 0;
    for (const double each : pings.times) {
        sum += each;
        squares += each * each;
    }
    const double mean = sum / static_cast<double>(received);
    const auto [least, most] = std::minmax_element(pings.times.begin(), pings.times.end());
    printf("rtt min/avg/max/mdev = %.3f/%.3f/%.3f/%.3f ms\n", *least, mean, *most,
           std::sqrt(std::max(squares / static_cast<double>(received) - mean * mean, 0.0)));
}

int ping(const Arguments &given) {
    Line line(given.port, given.wait);
    if (!line.find_server()) return no_server(given);

    printf("PING %s: %d data bytes\n", line.server_name().c_str(), PING_DATA);
    Pings pings;
    const auto begun = Clock::now();
    while (process_context.running && (given.pings == 0 || pings.sent < given.pings)) {
        send_ping(line, pings);
        const bool is_last = pings.sent == given.pings;
        const auto until = pings.sent_at.back() + (is_last ? Clock::duration(given.wait) : PING_INTERVAL);
        const auto is_complete = [&] { return is_last && pings.times.size() == static_cast<size_t>(pings.sent); };
        while (!is_complete()) {
            const auto packet = line.receive(until);
            if (!packet) break;
            take_pong(line, pings, *packet);
        }
    }
    print_summary(line, pings, begun);
    return pings.times.empty() ? NO_ANSWER : DONE;
}

/* ---- ready -------------------------------------------------------------------------------------------------------------- */

int ready(const Arguments &given) {
    Line line(given.port, given.wait);
    if (!line.find_server()) return no_server(given);

    const std::string host = packet_ip2str(line.server().sin_addr.s_addr);
    RA_CLIENT_S *client = raclient_udp_create(host.c_str(), given.port, 1, static_cast<int>(given.wait.count()));
    if (client == nullptr) return fail(NO_ANSWER, "out of memory");
    // A function that no table has: answered by what serves requests, and only while it can; costs next to nothing.
    char database[] = "DB", unknown[] = "?";
    char *words[] = {database, unknown, unknown, unknown};
    const int result = raclient_udp_request(client, static_cast<int>(std::size(words)), words);
    raclient_udp_destroy(client);
    if (result == RAERRDENIED) {
        return fail(REFUSED_OR_USAGE, "the server at %s refuses requests: is its database open? Its log tells",
                    line.server_name().c_str());
    }
    if (result < 0) {
        return fail(NO_ANSWER,
                    "the server at %s lives, but answers no requests of this host: is the access key right, and may "
                    "this address ask? Its log tells",
                    line.server_name().c_str());
    }
    printf("the server at %s serves requests\n", line.server_name().c_str());
    return DONE;
}

/* ---- list --------------------------------------------------------------------------------------------------------------- */

/** An instance as its status file tells: "<process id> <time>". */
struct Instance {
    std::string name;
    long process_id = 0;  // 0: ended in order
    std::string since;
    const char *state = "";
};

/** Who holds the lock, without trying for it: opening and asking leaves it alone. 0 for nobody. */
pid_t lock_holder(int fd) {
    struct flock lock {};
    lock.l_type = F_RDLCK;
    lock.l_whence = SEEK_SET;
    return fcntl(fd, F_GETLK, &lock) == 0 && lock.l_type != F_UNLCK ? lock.l_pid : 0;
}

Instance read_instance(const std::filesystem::path &path) {
    Instance instance{path.filename().string(), 0, "", "unreadable"};
    const OwnedFd file(open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK));
    char text[256];
    const ssize_t length = file.is_open() ? pread(file.get(), text, sizeof text - 1, 0) : -1;
    if (length < 0) return instance;

    text[length] = 0;
    text[strcspn(text, "\n")] = 0;
    char *rest = text;
    instance.process_id = strtol(text, &rest, 10);
    instance.since = printable(rest[0] == ' ' ? rest + 1 : rest);
    const bool is_running = lock_holder(file.get()) != 0;
    instance.state = is_running ? "running" : instance.process_id == 0 ? "stopped" : "ended without order";
    return instance;
}

/** A status file's name ends in its slot: NAME.PORT.SLOT. */
bool is_wanted(const std::string &name, uint16_t port) {
    return port == 0 || name.find("." + std::to_string(port) + ".") != std::string::npos;
}

int list(const Arguments &given) {
    if (process_context.rootDir == nullptr)
        wrong_usage("list needs a root directory: -VELROOT or VELROOT in the environment");
    const std::filesystem::path folder = std::filesystem::path(process_context.rootDir) / "status";
    std::error_code error;
    std::vector<Instance> instances;
    for (std::filesystem::directory_iterator at(folder, error), end; !error && at != end; at.increment(error)) {
        if (at->is_regular_file(error) && is_wanted(at->path().filename().string(), given.port)) {
            instances.push_back(read_instance(at->path()));
        }
    }
    if (error) return fail(NO_ANSWER, "cannot read %s: %s", folder.c_str(), error.message().c_str());
    if (instances.empty()) return fail(NO_ANSWER, "no instances in %s", folder.c_str());

    std::sort(instances.begin(), instances.end(), [](auto &one, auto &other) { return one.name < other.name; });
    printf("%-28s %8s  %-20s %s\n", "INSTANCE", "PROCESS", "STATE", "SINCE");
    for (const Instance &each : instances) {
        printf("%-28s %8ld  %-20s %s\n", printable(each.name).c_str(), each.process_id, each.state,
               each.since.c_str());
    }
    return DONE;
}

/* ---- Arguments ------------------------------------------------------------------------------------------------------------ */

bool is_number(std::string_view text) {
    return !text.empty() &&
           std::all_of(text.begin(), text.end(), [](char each) { return process_isdigit(each) != 0; });
}

Arguments read_arguments(int argc, char **argv) {
    enum { ROOT = 256, BIND, HARDEN };
    static const option long_options[] = {
        {"help", no_argument, nullptr, 'h'},           {"wait", required_argument, nullptr, 'w'},
        {"VELROOT", required_argument, nullptr, ROOT}, {"BINDIP", required_argument, nullptr, BIND},
        {"HARDEN", no_argument, nullptr, HARDEN},      {nullptr, 0, nullptr, 0}};
    Arguments given;
    opterr = 0;
    int code = 0;
    while ((code = getopt_long_only(argc, argv, ":hc:w:", long_options, nullptr)) != -1) {
        switch (code) {
            case 'h':
                fputs(HELP, stdout);
                exit(DONE);
            case 'c':
                given.pings = number("COUNT", optarg, 0, MAX_PINGS);
                break;
            case 'w':
                given.wait = seconds(number("SECONDS", optarg, 1, MAX_WAIT));
                break;
            case ROOT:
                process_context.rootDir = optarg;
                break;
            case BIND:
                process_context.bindIp = optarg;
                break;
            case HARDEN:
                process_context.hardened = 1;
                break;
            case ':':
                wrong_usage("option %s needs a value", argv[optind - 1]);
            default:
                wrong_usage("unknown option %s", argv[optind - 1]);
        }
    }
    std::vector<char *> words(argv + optind, argv + argc);
    if (!words.empty() && is_number(words[0])) {
        given.port = static_cast<uint16_t>(number("PORT", words[0], 1, UINT16_MAX));
        words.erase(words.begin());
    }
    if (words.empty()) wrong_usage(given.port == 0 ? "PORT and command are missing" : "the command is missing");
    if (words.size() > 1) wrong_usage("too many words: \"%s\"", words[1]);
    given.command = words[0];
    return given;
}

/** What process_init would have set. Ctrl-C ends a wait, and ping still prints its summary. */
void become_a_process() {
    static char name[] = "ractl";
    process_context.name = name;
    const char *root = getenv("VELROOT");
    process_context.rootDir = root != nullptr && *root != 0 ? root : nullptr;
    process_context.running = 1;
    process_context.silent = 1;
    process_harden_by_environment();
    const auto stop = [](int) { process_context.running = 0; };
    process_signal(SIGINT, stop);
    process_signal(SIGTERM, stop);
}

int run(const Arguments &given) {
    if (given.command == "list") return list(given);
    const Order *order = find_order(given.command);
    const bool is_known = order != nullptr || given.command == "ping" || given.command == "ready";
    if (!is_known) wrong_usage("unknown command \"%s\"", given.command.c_str());
    if (given.port == 0) wrong_usage("PORT is missing");
    if (order != nullptr) return give_order(*order, given);
    return given.command == "ping" ? ping(given) : ready(given);
}

}  // namespace

const Tool this_tool = {"ractl", SHORT_USAGE, REFUSED_OR_USAGE};

int main(int argc, char **argv) {
    become_a_process();
    const int status = run(read_arguments(argc, argv));
    if (fflush(stdout) == 0 && ferror(stdout) == 0) return status;
    perror("ractl: the answer could not be written");
    return NO_ANSWER;
}
