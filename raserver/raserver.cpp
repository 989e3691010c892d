/* Start and end of an RA server: options, sockets, the lines that say so in the log.
 *
 * The server context lives here. Requests, sessions and the clock belong to the other files of this folder; what a
 * request means belongs to the hooks. */
#include "raserver/raserver.h"

#include <arpa/inet.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string_view>

#include "ivs/ivs.h"
#include "packet/packet.h"
#include "process/velproc.h"
#include "raserver/raserveri.h"

RA_SERVER_S ra_server;

namespace {

constexpr char build_date[] = __DATE__;
constexpr char build_time[] = __TIME__;

constexpr const char *usage_lines[] = {
    "       where\n",
    "        -p port: is the port the RA server should work with\n",
    "        -tp tcpport: is the tcp port the RA server should work with\n",
    "        -ta tcpaddr: is the tcp ip address the RA server should work with\n",
    "        -TRACE: enables the trace flag\n",
    "        -D: is for debugging\n",
};

// ---- Options --------------------------------------------------------------------------------------------------

// Text that is no number, and a number that is no port, count as no port.
uint16_t port_number(const char *text) {
    const long number = strtol(text, nullptr, 10);
    return number > 0 && number <= UINT16_MAX ? static_cast<uint16_t>(number) : 0;
}

void take_tcp_host(RA_SERVER_S &server, const char *value) { server.tcpHost = value; }
void take_tcp_port(RA_SERVER_S &server, const char *value) { server.tcpPort = port_number(value); }
void take_port(RA_SERVER_S &server, const char *value) { server.port = port_number(value); }

struct Option {
    std::string_view prefix;
    size_t joinedAt;  // where the value begins if it stands in the same argument
    void (*take)(RA_SERVER_S &server, const char *value);
};

// In the order in which they are tried. The joined form of -tp is read one character early, so it never yields a
// port; that is published and meant.
constexpr Option options[] = {
    {"-ta", 3, take_tcp_host},
    {"-tp", 2, take_tcp_port},
    {"-p", 2, take_port},
};

const Option *find_option(std::string_view argument) {
    for (const Option &option : options) {
        if (argument.starts_with(option.prefix)) return &option;
    }
    return nullptr;
}

// A separate value is looked at again as an argument of its own and passed over, since it has no dash.
void scan_options(int argc, char **argv, RA_SERVER_S &server) {
    for (int i = 1; i < argc; i++) {
        const Option *option = find_option(argv[i]);
        if (option == nullptr) continue;

        const bool joined = strlen(argv[i]) > option->prefix.size();
        if (!joined && i + 1 == argc) return;  // the last argument, without its value
        option->take(server, joined ? argv[i] + option->joinedAt : argv[i + 1]);
    }
}

// ---- Steps of the start -----------------------------------------------------------------------------------------

void set_defaults(RA_SERVER_S &server) {
    server = RA_SERVER_S{};
    server.udpSocket = -1;
    server.tcpSocket = -1;
    server.isServer = 1;
    server.periodicInterval.tv_sec = 60;
    server.tick.tv_usec = 100000;
}

// Log and status files bear the process's name, so the port in it gives each server its own. The block is never
// freed: it stands in the vector for the life of the process.
char *name_with_port(const char *program, uint16_t port) {
    const size_t size = strlen(program) + sizeof ".65535";
    char *name = static_cast<char *>(malloc(size));
    if (name == nullptr) {
        fprintf(stderr, "%s: Malloc failed! errno %d\n", "raserver_init", errno);
        return nullptr;
    }
    snprintf(name, size, "%s.%d", program, port);
    return name;
}

void log_start(const char *program) {
    process_log(">>\n");
    process_log("FILE      = %s\n", program);
    process_log("VERSION   = %s\n", RA_VERSION);
    process_log("COMPILED  = %s, %s\n", build_time, build_date);
}

int open_udp_socket(RA_SERVER_S &server) {
    server.localIp = packet_bindaddr();
    server.udpSocket = packet_srv_bound_socket(server.localIp, server.port);
    if (server.udpSocket < 0) {
        server.udpSocket = -1;
        process_error("Can't create server socket for port %d!\n", server.port);
        return RAEXITSOCKET;
    }
    process_log("PORT      = %d\n", server.port);
    return 0;
}

void resolve_tcp_host(RA_SERVER_S &server) {
    if (server.tcpHost == nullptr) return;
    process_log("TCPHOST   = %s\n", server.tcpHost);

    uint32_t ip_host_order = 0;
    if (packet_gethostbyname(server.tcpHost, &ip_host_order) == 0) server.tcpIp = htonl(ip_host_order);
}

int open_tcp_socket(RA_SERVER_S &server) {
    if (server.tcpPort == 0) return 0;
    if (server.tcpIp == 0) server.tcpIp = server.localIp;
    process_log("TCPIP     = %s\n", packet_ip2str(server.tcpIp));
    process_log("TCPPORT   = %d\n", server.tcpPort);

    server.tcpSocket = packet_srv_tcp_socket(server.tcpIp, server.tcpPort, 1);
    if (server.tcpSocket < 0) {
        server.tcpSocket = -1;
        process_error("Can't create server listen socket for port %d!\n", server.tcpPort);
        return RAEXITSOCKET;
    }
    packet_setNonBlocking(server.tcpSocket, 1);
    return 0;
}

}  // namespace

extern "C" {

const char *raserver_build_date(void) { return build_date; }
const char *raserver_build_time(void) { return build_time; }

void raserver_print_usage(FILE *stream, const char *program) {
    fprintf(stream, "Usage: %s -p port -tp tcpport -ta tcpaddress [ -TRACE -D ]\n", program);
    for (const char *line : usage_lines) fputs(line, stream);
}

void raserver_usage(const char *program) { raserver_print_usage(stderr, program); }

int raserver_init(int *argc, char **argv, RA_SERVER_S *context, void (*usage)(const char *program)) {
    set_defaults(*context);
    scan_options(*argc, argv, *context);
    if (context->port == 0) {
        fputs("No port given for RA server!\n", stderr);
        if (usage != nullptr) usage(argv[0]);
        return RAEXITPORT;
    }

    const char *program = argv[0];
    char *name = name_with_port(program, context->port);
    if (name == nullptr) return RAEXITMEM;
    argv[0] = name;

    const int failure = process_init(argc, argv, 1, 1, 0);
    if (failure != 0) return -failure;
    log_start(program);

    int rc = open_udp_socket(*context);
    if (rc != 0) return rc;
    resolve_tcp_host(*context);
    rc = open_tcp_socket(*context);
    if (rc != 0) return rc;
    ra_learn_own_addresses();

    ivsIpCheckInit(*argc, argv);
    ivs_startup(context->port);
    process_log("RA.INIT rc: %d\n", 0);
    return 0;
}

void raserver_exit(RA_SERVER_S *context, int code) {
    static bool status_on_exit = true;

    process_log("RA.EXIT rc: %d\n", code);
    if (status_on_exit) {
        status_on_exit = false;
        context->statusWanted = 1;
        raserver_status(context, nullptr, stderr);
    }
    if (context->onShutdown != nullptr) context->onShutdown(code);

    int rc = -1;
    if (context->udpSocket >= 0) rc = close(context->udpSocket);
    context->udpSocket = -1;
    if (context->tcpSocket >= 0) packet_closeSocket(context->tcpSocket, 1);
    context->tcpSocket = -1;
    process_log("RA.EXIT socketclose ret: %d\n", rc);
}

void raserver_exit_hook(int code) { raserver_exit(&ra_server, code); }

void raserver_sigusr1_handler(int) {
    process_log("Caught signal USR1\n");
    ra_server.statusWanted = 1;
    errno = EINTR;  // code that looks at errno after a wait sees that a signal came
}

}  // extern "C"
