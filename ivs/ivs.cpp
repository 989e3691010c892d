/* What a server of the platform does besides its own work: it finds its own address, obeys its administrator, and
 * runs a loop over its socket. The loop itself is in runloop.cpp. */
#include "ivs/ivs.h"

#include <errno.h>
#include <netdb.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

#include <utility>

#include "ivs/ivssrdpi.h"
#include "ivs/runloop.h"
#include "packet/bytereader.h"
#include "process/linelimit.h"
#include "process/owned.h"
#include "process/velproc.h"

uint32_t ivs_local_ip = 0;
uint16_t ivs_local_port = 0;

/* ---- Start-up ---------------------------------------------------------------------------------------------------- */

namespace {

[[noreturn]] void end_without_name() {
    process_error("gethostname failed! %s\n", strerror(errno));
    process_exit(1);
}

[[noreturn]] void end_without_address(int result) {
    const char *reason = result == PACKETERRHOST ? hstrerror(h_errno) : strerror(errno);
    process_error("Cannot get address of local host! %s\n", reason);
    process_exit(1);
}

/** The address of the host's own name. */
int resolve_host_name(uint16_t port, PacketAddress **address) {
    char name[IVS_MAX_PACKET] = "";
    if (gethostname(name, sizeof name - 1) != 0) end_without_name();
    return packet_srvadr_byname(name, port, address);
}

}  // namespace

int ivs_startup(uint16_t port) {
    PacketAddress *found = nullptr;
    const uint32_t configured = packet_bindaddr();
    const int result =
        configured != 0 ? packet_srvadr_byip(configured, htons(port), &found) : resolve_host_name(port, &found);
    const OwnedBlock<PacketAddress> address(found);
    if (result < 0) end_without_address(result);

    packet_adr_get(address.get(), &ivs_local_ip, &ivs_local_port);
    process_log("RUNNING ON %s:%d\n", packet_ip2str(ivs_local_ip), ntohs(ivs_local_port));
    return 0;
}

/* ---- Administration ------------------------------------------------------------------------------------------------ */

namespace {

struct Order {
    int socket;
    volatile int *reread_flag;
    const void *packet;
    int length;
    const void *peer;
    int peer_size;
    time_t received;
    uint32_t ip;
    uint16_t port_net;
    int action;

    const char *peer_ip() const { return packet_ip2str(ip); }
    int peer_port() const { return ntohs(port_net); }
};

Order read_order(int socket, volatile int *reread_flag, const void *packet, int length, const void *peer,
                 int peer_size) {
    Order order{socket, reread_flag, packet, length, peer, peer_size, time(nullptr), 0, 0, 0};
    packet_adr_get(peer, &order.ip, &order.port_net);
    ByteReader reader(packet, length);
    reader.skip(IVS_ADMIN_ACTION_AT);
    order.action = reader.u8();  // 0 in a packet that is too short
    return order;
}

namespace say {
void illegal(const Order &order) {
    static LineLimit lines("illegal ADMIN PACKET");
    if (!lines.passes()) return;
    process_error("Received illegal ADMIN PACKET from %s:%d\n", order.peer_ip(), order.peer_port());
}
void no_key(const Order &order) {
    static LineLimit lines("ADMIN request without access key");
    if (!lines.passes()) return;
    process_log("ADMIN: Received request %d without access key from %s:%d\n", order.action, order.peer_ip(),
                order.peer_port());
}
void strange(const Order &order) {
    static LineLimit lines("strange IVS_ADMIN_CODE");
    if (!lines.passes()) return;
    process_log("Received strange IVS_ADMIN_CODE from %s:%d action %d\n", order.peer_ip(), order.peer_port(),
                order.action);
}
}  // namespace say

bool is_loopback(const Order &order) { return strcmp(order.peer_ip(), "127.0.0.1") == 0; }
bool is_from_this_host(const Order &order) { return order.ip == ivs_local_ip || is_loopback(order); }

/** Forged: an answer would come back as the next order. */
bool is_from_our_socket(const Order &order) {
    return order.port_net == ivs_local_port && ivs_local_port != 0 && is_from_this_host(order);
}

bool may_answer(const Order &order) { return !is_from_our_socket(order) && ivs_may_answer(order.ip) != 0; }

/** Readies the answer's key, if what came in an envelope is to go back. Returns false if there is none: then nothing of
 *  the packet may be shown. */
bool may_show_packet(const Order &order) {
    if (!packet_came_in_envelope()) return true;
    ivs_pending_key = packet_accesskey_by_adr(order.peer, nullptr);
    ivs_pending_key_flags = IVS_KEY_FLAG_ENCIPHER;
    return ivs_pending_key != nullptr;
}

void refuse(const Order &order, int reason) {
    if (!may_answer(order)) return;
    const int shown = may_show_packet(order) ? order.length : 0;
    ivs_snd_cofa(order.socket, reason, order.packet, shown, order.peer, order.peer_size);
}

/** The packet goes back as it is: it was understood. */
void acknowledge(const Order &order) {
    if (!may_answer(order)) return;
    const int shown = may_show_packet(order) ? order.length : 1;
    ivs_sendto(order.socket, order.packet, shown, order.peer, order.peer_size);
}

/** Leaves in the status file that the process ended in order, and gives up the instance slot with it. */
void mark_orderly_end(time_t when) {
    const OwnedFd status(std::exchange(process_context.lockFd, -1));
    if (!status.is_open() || lseek(status.get(), 0, SEEK_SET) != 0) return;

    char date[64] = "?\n";
    char text[96];
    ctime_r(&when, date);
    const int length = snprintf(text, sizeof text, "%08ld %s", 0L, date);
    errno = 0;  // a short write leaves it alone
    if (write(status.get(), text, static_cast<size_t>(length)) < length) {
        process_log("Could not write to the lock file! errmsg: %s\n", strerror(errno));
    }
}

void stop(const Order &order) {
    acknowledge(order);  // first, since nothing goes out any more afterwards
    mark_orderly_end(order.received);
    process_context.running = 0;
}

void flip_trace(const Order &order) {
    if (process_context.trace) process_trace("Tracing turned off!\n");
    process_context.trace = !process_context.trace;
    if (process_context.trace) process_trace("Tracing turned on!\n");
    acknowledge(order);
}

void read_again(const Order &order) {
    if (order.reread_flag != nullptr) *order.reread_flag = 1;
    acknowledge(order);
}

void reopen_log(const Order &order) {
    process_log_reopen();
    acknowledge(order);
}

struct AdminAction {
    int code;
    const char *name;
    const char *addition;  // to the log line
    void (*obey)(const Order &order);
};

constexpr AdminAction actions[] = {
    {IVS_ADMIN_STOP, "IVS_ADMIN_STOP", "", stop},
    {IVS_ADMIN_TRACEON, "IVS_ADMIN_TRACEON", "", flip_trace},
    {IVS_ADMIN_REREAD, "IVS_ADMIN_REREAD", "", read_again},
    {IVS_ADMIN_NEWLOG, "IVS_ADMIN_NEWLOG", " Closing log", reopen_log},
};

void obey(const Order &order) {
    for (const AdminAction &action : actions) {
        if (action.code != order.action) continue;
        process_log("Received %s packet from %s:%d%s\n", action.name, order.peer_ip(), order.peer_port(),
                    action.addition);
        return action.obey(order);
    }
    say::strange(order);
    refuse(order, IVS_COFA_BADD);
}

}  // namespace

void ivs_admin_packet(int socket, volatile int *rereadFlag, const void *packet, int length, const void *peer,
                      int peerSize) {
    if (ByteReader(packet, length).u8() != IVS_TYPE_ADMN) return;
    const Order order = read_order(socket, rereadFlag, packet, length, peer, peerSize);
    if (!is_from_this_host(order)) {
        say::illegal(order);
        return refuse(order, IVS_COFA_AUTH);
    }
    if (!process_context.noAccessKeyCheck && !keyAccepted) {  // not a word to the sender: it learns nothing
        say::no_key(order);
        return;
    }
    obey(order);
}

/* ---- Run loop ------------------------------------------------------------------------------------------------------ */

namespace {

constexpr uint32_t STIRRED_TURNS = 31;  // one turn in 32

RunLoopBuffer receive_buffer;

/** Waits in the read, idles by a function, and stirs the generator now and then. */
class IvsLoop : public RunLoop {
public:
    IvsLoop(const RunLoopCalls &calls, void *context, void (*idle)(void *, struct timeval *, void *), void *idle_arg)
        : RunLoop(calls, receive_buffer), context_(context), idle_(idle), idle_arg_(idle_arg) {}

private:
    void begin_turn() override {
        const uint32_t word = ivs::srdp_draw_word();
        if ((word & STIRRED_TURNS) != 0) return;
        const auto seconds = static_cast<uint32_t>(now()->tv_sec),
                   microseconds = static_cast<uint32_t>(now()->tv_usec);
        srand(ivs::srdp_draw_word() ^ seconds ^ microseconds);
    }
    void interrupted() override {
        if (idle_ != nullptr) idle_(context_, now(), idle_arg_);
    }
    void clock_was_set(time_t seconds) override { ivs_srdp_clock_was_set(seconds); }

    void *context_;
    void (*idle_)(void *context, struct timeval *now, void *idleArg);
    void *idle_arg_;
};

}  // namespace

void ivsrun(void *context, int socket, struct timeval *interval, void (*periodic)(void *context, struct timeval *now),
            void (*onPacket)(void *context, struct timeval *now, unsigned char *packet, int length, void *address,
                             int addressSize),
            void (*onIdle)(void *context, struct timeval *now, void *idleArg), void *idleArg,
            void (*hourly)(void *context, struct timeval *now)) {
    IvsLoop({"ivsrun", context, socket, interval, periodic, onPacket, hourly}, context, onIdle, idleArg).run();
}
