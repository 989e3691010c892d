/* Datagrams by their first byte: requests, answers to our own requests, refusals, pings.
 *
 * This is the packet function of the run loop. An RA request itself is served in rarequest.cpp. No answer goes to a
 * datagram that claims to come from our own socket: it would come back as the next datagram, for ever.
 * Hardened, none goes to an address that may not ask, either. */
#include <arpa/inet.h>
#include <ifaddrs.h>
#include <netinet/in.h>

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <vector>

#include "ivs/ivs.h"
#include "packet/bytereader.h"
#include "packet/packet.h"
#include "packet/typecodes.h"
#include "process/linelimit.h"
#include "process/velproc.h"
#include "raserver/raserveri.h"

namespace {

struct Datagram {
    unsigned char *bytes;
    int length;
    void *address;
    int address_size;
    uint32_t ip;
    uint16_t port_net;

    const char *peer_ip() const { return packet_ip2str(ip); }
    int peer_port() const { return ntohs(port_net); }
};

Datagram datagram_from(unsigned char *bytes, int length, void *address, int address_size) {
    Datagram datagram{bytes, length, address, address_size, 0, 0};
    packet_adr_get(address, &datagram.ip, &datagram.port_net);
    return datagram;
}

bool may_answer(const RA_SERVER_S &server, const Datagram &datagram) {
    return !ra_is_own_address(&server, datagram.ip, datagram.port_net) && ivs_may_answer(datagram.ip) != 0;
}

/** What came in an envelope does not go back in clear. Makes the peer's key pending, under which the next packet is
 *  enciphered. Without one, returns how much may be copied: nothing. */
int copied_bytes(const Datagram &datagram) {
    if (!packet_came_in_envelope()) return datagram.length;
    ivs_pending_key = packet_accesskey_by_adr(datagram.address, nullptr);
    ivs_pending_key_flags = IVS_KEY_FLAG_ENCIPHER;
    return ivs_pending_key != nullptr ? datagram.length : 0;
}

void send_refusal(RA_SERVER_S &server, const Datagram &datagram) {
    if (!may_answer(server, datagram)) return;
    const int copied = copied_bytes(datagram);
    ivs_snd_cofa(server.udpSocket, IVS_COFA_UNCO, datagram.bytes, copied, datagram.address, datagram.address_size);
}

// ---- One handler for each type ----------------------------------------------------------------------------------

void serve_request(RA_SERVER_S &server, const Datagram &datagram) {
    raserver_udp_request(&server, datagram.bytes, datagram.length, datagram.address, datagram.address_size);
}

void take_answer(RA_SERVER_S &server, const Datagram &datagram) {
    raclient_udp_reply(&server, datagram.bytes, datagram.length, datagram.address);
}

// Only noted: to answer a refusal with a refusal would never end.
void note_refusal(RA_SERVER_S &, const Datagram &datagram) {
    ByteReader reader(datagram.bytes, datagram.length);
    reader.u8();  // type
    const int reason = reader.u8();
    const int code = reader.u8();
    static LineLimit lines("Command Failed Packet");
    if (!lines.passes()) return;
    process_log("ra_reply: Command Failed Packet from %s:%d Reason %d Code %d\n", datagram.peer_ip(),
                datagram.peer_port(), reason, code);
}

void answer_ping(RA_SERVER_S &server, const Datagram &datagram) {
    if (!may_answer(server, datagram)) return;
    datagram.bytes[0] = IVS_TYPE_PONG;
    const int length = std::max(copied_bytes(datagram), 1);
    ivs_sendto(server.udpSocket, datagram.bytes, length, datagram.address, datagram.address_size);
}

void obey_administrator(RA_SERVER_S &server, const Datagram &datagram) {
    ivs_admin_packet(server.udpSocket, &server.statusWanted, datagram.bytes, datagram.length, datagram.address,
                     datagram.address_size);
}

void take_acknowledgement(RA_SERVER_S &, const Datagram &datagram) {
    ivs_srdp_packet_ack(datagram.bytes, datagram.length, datagram.address);
}

void ignore(RA_SERVER_S &, const Datagram &) {}

void refuse_unknown(RA_SERVER_S &server, const Datagram &datagram) {
    static LineLimit lines("Illegal packet");
    if (lines.passes()) {
        process_log("ra_reply: Illegal packet from %s:%d, code %u\n", datagram.peer_ip(), datagram.peer_port(),
                    static_cast<unsigned>(datagram.bytes[0]));
    }
    server.unknownPackets++;
    send_refusal(server, datagram);
}

void refuse_empty(RA_SERVER_S &server, const Datagram &datagram) {
    static LineLimit lines("Packet of lenth 0");
    // "lenth" is how log readers know this line.
    if (lines.passes()) {
        process_error("ra_reply: Packet of lenth 0 from %s:%d\n", datagram.peer_ip(), datagram.peer_port());
    }
    server.zeroPackets++;
    send_refusal(server, datagram);
}

void refuse_empty_inside(RA_SERVER_S &server, const Datagram &datagram) {
    static LineLimit lines("Packet of length 0");
    if (lines.passes()) {
        process_error("ra_reply: Packet of length 0 from %s:%d\n", datagram.peer_ip(), datagram.peer_port());
    }
    server.zeroPackets++;
    send_refusal(server, datagram);
}

/** The packet in a reliable datagram, at its first copy only. One head comes off: one inside is no packet of ours. */
bool unwrap_reliable(RA_SERVER_S &server, Datagram &datagram) {
    if (!may_answer(server, datagram)) return false;  // each copy would be acknowledged, and remembered
    if (ivs_srdp_packet(server.udpSocket, server.now, datagram.bytes, datagram.length, datagram.address,
                        datagram.address_size) == 0) {
        return false;
    }
    datagram.bytes += IVS_SRDP_HEAD;
    datagram.length -= IVS_SRDP_HEAD;
    if (datagram.length > 0) return true;
    datagram.length = 0;
    refuse_empty_inside(server, datagram);
    return false;
}

struct PacketHandler {
    unsigned char type;
    void (*serve)(RA_SERVER_S &server, const Datagram &datagram);
};

constexpr PacketHandler handlers[] = {
    {IVS_TYPE_RAUP, serve_request},
    {IVS_TYPE_RAUA, take_answer},
    {IVS_TYPE_COFA, note_refusal},
    {IVS_TYPE_PING, answer_ping},
    {IVS_TYPE_PONG, ignore},
    {IVS_TYPE_IGNO, ignore},
    {IVS_TYPE_ADMN, obey_administrator},
    {IVS_TYPE_SACK, take_acknowledgement},
};

void serve(RA_SERVER_S &server, const Datagram &datagram) {
    for (const PacketHandler &handler : handlers) {
        if (handler.type == datagram.bytes[0]) return handler.serve(server, datagram);
    }
    refuse_unknown(server, datagram);
}

std::vector<uint32_t> own_addresses;  // network order

}  // namespace

extern "C" {

void ra_reply(void *context, struct timeval *now, unsigned char *packet, int length, void *address, int addressSize) {
    if (context == nullptr) {
        process_error("Program recursion error! Going down!\n");
        process_exit(1);
    }
    RA_SERVER_S &server = *static_cast<RA_SERVER_S *>(context);
    server.now = now->tv_sec;
    if (process_context.trace && process_context.traceStream != nullptr) {
        ivs_trace_packet(process_context.traceStream, now, "TR ", packet, length, address);
    }

    Datagram datagram = datagram_from(packet, length, address, addressSize);
    if (length <= 0) return refuse_empty(server, datagram);
    if (packet[0] == IVS_TYPE_SACK) return take_acknowledgement(server, datagram);
    if (packet[0] == IVS_TYPE_SRDP && !unwrap_reliable(server, datagram)) return;
    serve(server, datagram);
    // A status that was asked for while the packet was served is given up; this order is meant.
    server.statusWanted = 0;
}

void ra_learn_own_addresses(void) {
    own_addresses.clear();
    struct ifaddrs *interfaces = nullptr;
    if (getifaddrs(&interfaces) != 0) return;
    for (const struct ifaddrs *each = interfaces; each != nullptr; each = each->ifa_next) {
        if (each->ifa_addr == nullptr || each->ifa_addr->sa_family != AF_INET) continue;
        struct sockaddr_in address;
        memcpy(&address, each->ifa_addr, sizeof address);
        own_addresses.push_back(address.sin_addr.s_addr);
    }
    freeifaddrs(interfaces);
}

int ra_is_own_address(const RA_SERVER_S *context, uint32_t ip, uint16_t port) {
    if (port != htons(context->port)) return 0;  // nearly always the end of it
    if (context->localIp != 0) return ip == context->localIp;
    const bool is_loopback = (ntohl(ip) >> 24) == 127;
    return is_loopback || std::find(own_addresses.begin(), own_addresses.end(), ip) != own_addresses.end();
}

}  // extern "C"
