/* Names and addresses: the configured bind address, name resolution, address records.
 *
 * "localhost" is special throughout: on a host with several addresses it means the configured one, or the machine's
 * own, so that programs of this host find servers that are bound to one address only. Sockets stand elsewhere. */
#include <arpa/inet.h>
#include <netdb.h>
#include <stdio.h>
#include <string.h>
#include <unistd.h>

#include "packet/packet.h"
#include "process/owned.h"
#include "process/velproc.h"

namespace {

constexpr int RESOLVER_CALLS = 10;
constexpr int PATH_SIZE = 1024;
constexpr int BIND_LINE_SIZE = 4096;

char bind_text[BIND_LINE_SIZE + 1];

namespace say {
void cannot_resolve(const char *name) {
    const int reason = h_errno;
    process_error("%s: gethostbyname(%s) failed! h_errno %d, errmsg: %s!\n", "packet_gethostbyname", name, reason,
                  hstrerror(reason));
    h_errno = reason;  // the caller's message needs it still
}
}  // namespace say

bool is_localhost(const char *name) { return strcmp(name, "localhost") == 0; }

bool begins_with_digit(const char *text) { return process_isdigit(static_cast<unsigned char>(text[0])) != 0; }

bool begins_with_letter(const char *text) { return process_isalpha(static_cast<unsigned char>(text[0])) != 0; }

bool ends_an_address(char character) {
    return process_isalnum(static_cast<unsigned char>(character)) != 0 || character == '.';
}

/** Cuts the end down to a letter, a digit or a point, never the first character, and steps over leading space. */
char *trim(char *line) {
    for (char *last = line + strlen(line) - 1; last > line && !ends_an_address(*last); --last) *last = 0;
    while (process_isspace(static_cast<unsigned char>(*line)) != 0) ++line;
    return line;
}

OwnedFile open_bind_file() {
    if (process_context.rootDir == nullptr) return {};
    char path[PATH_SIZE];
    const int length = snprintf(path, sizeof path, "%s/etc/bindip", process_context.rootDir);
    if (length < 0 || length >= PATH_SIZE) return {};
    return OwnedFile(fopen(path, "re"));
}

/** The resolver's first address of a name, or null. A resolver that asks for another try gets it at once. */
const in_addr *look_up(const char *name) {
    for (int calls = 0; calls < RESOLVER_CALLS; ++calls) {
        const hostent *host = gethostbyname(name);
        if (host != nullptr && host->h_addr_list[0] != nullptr) {
            return reinterpret_cast<const in_addr *>(host->h_addr_list[0]);
        }
        if (h_errno != TRY_AGAIN) break;
    }
    return nullptr;
}

void note_local_ip(uint32_t ip) {
    if (process_context.localIp == 0) process_context.localIp = ip;
}

/** Resolves "localhost" to the machine's own address, so that it isn't the loopback one. */
int resolve_this_machine(uint32_t *ip) {
    char own_name[1024] = "";
    const bool named = gethostname(own_name, sizeof own_name - 1) == 0;
    return packet_gethostbyname(named ? own_name : "localhost", ip);
}

}  // namespace

char *packet_bindip(void) {
    bind_text[0] = 0;
    if (process_context.bindIp != nullptr) return const_cast<char *>(process_context.bindIp);

    const OwnedFile file = open_bind_file();
    if (!file.is_open()) return nullptr;

    memset(bind_text, 0, sizeof bind_text);
    if (fgets(bind_text, sizeof bind_text, file.get()) == nullptr || bind_text[0] == 0) return nullptr;
    char *kept = trim(bind_text);
    return *kept == 0 ? nullptr : kept;
}

uint32_t packet_bindaddr(void) {
    const char *text = packet_bindip();
    if (text == nullptr) return 0;
    if (begins_with_digit(text)) return packet_str2ip(text);
    if (!begins_with_letter(text)) return 0;

    uint32_t ip_host = 0;
    return packet_gethostbyname(text, &ip_host) == 0 ? htonl(ip_host) : 0;
}

int packet_gethostbyname(const char *name, uint32_t *ip) {
    if (is_localhost(name)) {
        const char *configured = packet_bindip();
        if (configured != nullptr) name = configured;
    }
    if (begins_with_digit(name)) {
        const uint32_t ip_net = packet_str2ip(name);
        if (ip_net != 0) {
            *ip = ntohl(ip_net);
            return 0;
        }
    }
    const in_addr *found = look_up(name);
    if (found == nullptr) {
        say::cannot_resolve(name);
        return PACKETERRHOST;
    }
    uint32_t ip_net = 0;
    memcpy(&ip_net, found, sizeof ip_net);
    *ip = ntohl(ip_net);
    return 0;
}

int packet_srvadr_byip(uint32_t ip, uint16_t port, PacketAddress **address) {
    auto *record = static_cast<PacketAddress *>(process_malloc("packet_srvadr_byip:", sizeof(PacketAddress)));
    *address = record;
    if (record == nullptr) return PACKETERRMEM;

    record->sin_family = AF_INET;
    record->sin_port = port;
    record->sin_addr.s_addr = ip;
    return static_cast<int>(sizeof(PacketAddress));
}

int packet_srvadr_byname(const char *host, uint16_t port, PacketAddress **address) {
    uint32_t ip_host = 0;
    int result = 0;
    if (is_localhost(host)) {
        const uint32_t configured = packet_bindaddr();
        if (configured != 0) {
            note_local_ip(configured);
            return packet_srvadr_byip(configured, htons(port), address);
        }
        result = resolve_this_machine(&ip_host);
    } else {
        result = packet_gethostbyname(host, &ip_host);
    }
    if (result != 0) return result;

    note_local_ip(htonl(ip_host));
    return packet_srvadr_byip(htonl(ip_host), htons(port), address);
}

void packet_adr_get(const void *address, uint32_t *ip, uint16_t *port) {
    PacketAddress record;
    memcpy(&record, address, sizeof record);
    if (ip != nullptr) *ip = record.sin_addr.s_addr;
    if (port != nullptr) *port = record.sin_port;
}

char *packet_ip2str(uint32_t ip) {
    in_addr address{};
    address.s_addr = ip;
    return inet_ntoa(address);
}

uint32_t packet_str2ip(const char *text) {
    const in_addr_t ip = inet_addr(text);
    return ip == INADDR_NONE ? 0 : ip;
}

char *packet_adr2str(const void *address, int size) {
    static char text[NI_MAXHOST + INET_ADDRSTRLEN + 8];
    uint32_t ip = 0;
    packet_adr_get(address, &ip, nullptr);

    // The record itself is looked up, not its address field: so it is published.
    const hostent *host = gethostbyaddr(address, static_cast<socklen_t>(size), AF_INET);
    char quad[INET_ADDRSTRLEN];
    process_strlcpy(quad, sizeof quad, packet_ip2str(ip));
    snprintf(text, sizeof text, "%s ( %s )", host != nullptr ? host->h_name : quad, quad);
    return text;
}
