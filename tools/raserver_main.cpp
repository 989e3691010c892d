/* The server program: joins the server core with the hooks of the database gateway. */
#include <cstdio>
#include <cstring>

#include "process/velproc.h"
#include "raserver/raserver.h"

namespace {

constexpr char VERSION_OPTION[] = "-giveversion";

bool has_argument(int argc, char **argv, const char *wanted) {
    for (int i = 1; i < argc; i++) {
        if (strcmp(argv[i], wanted) == 0) return true;
    }
    return false;
}

// Only as the single argument: anywhere else an unknown option is passed over.
bool asks_for_help(int argc, char **argv) {
    return argc == 2 && (strcmp(argv[1], "-h") == 0 || strcmp(argv[1], "--help") == 0);
}

void print_version(const char *program) {
    printf("%s: VERSION = %s DATE=%s TIME=%s\n", program, RA_VERSION, raserver_build_date(), raserver_build_time());
}

void exit_on_failure(int code) {
    if (code != 0) process_exit(code);
}

void store_hooks() {
    ra_server.onUdpRequest = raEventUdpRequest;
    ra_server.onHttpRequest = raEventHttpRequest;
    ra_server.onShutdown = raEventShutdown;
    ra_server.onPeriodic = raEventPeriodic;
}

void install_status_signal() {
    const int rc = process_signal(SIGUSR1, raserver_sigusr1_handler);
    if (rc == 0) return;
    process_error("signal( SIGUSR1, raserver_sigusr1_handler ) failed!\n");
    process_exit(rc);
}

}  // namespace

int main(int argc, char **argv) {
    if (has_argument(argc, argv, VERSION_OPTION)) {
        print_version(argv[0]);
        return 0;
    }
    if (asks_for_help(argc, argv)) {
        raserver_print_usage(stdout, argv[0]);
        return 0;
    }

    process_context.name = argv[0];  // until process_init knows better
    exit_on_failure(raserver_init(&argc, argv, &ra_server, raserver_usage));
    store_hooks();
    exit_on_failure(raEventStartup(argc, argv));
    install_status_signal();
    process_context.exitHook = raserver_exit_hook;

    // Without TCP there is one descriptor to wait for, so the wait is left to the read: one system call less.
    const bool has_tcp = ra_server.tcpSocket >= 0;
    raConnRun(&ra_server, ra_server.udpSocket, &ra_server.tick, has_tcp ? raConnSelectSet : nullptr, raConnAccept,
              raConnData, raserver_periodic, ra_reply, raserver_status, stderr, nullptr);
    process_log(">> Killed!\n");
    process_exit(0);
}
