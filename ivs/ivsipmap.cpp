/* A map of addresses and ports, read from a file: programs behind a gateway look up under which address others know
 * them, and back. It only grows, and lives as long as the process. */
#include <arpa/inet.h>
#include <errno.h>
#include <stdlib.h>
#include <string.h>

#include <algorithm>
#include <string>

#include "foundation/config.h"
#include "ivs/ivs.h"
#include "process/owned.h"
#include "process/velproc.h"

namespace {

constexpr char label[] = "ivsReadIpMapFile";
constexpr char record_label[] = "ivsStr2IpMap";
constexpr char default_file[] = "etc/gpserver.cfg";
constexpr size_t PATH_SIZE = 4096;

struct IpMapSide {
    IVS_IPMAP_S *head, *tail;
};
IpMapSide from_side, to_side;

/** Where in the file a line stands, for what is said about it. */
struct Place {
    const char *path;
    int line;
};

namespace say {
void cannot_open(const char *path) { process_error("%s: Failed to open %s, %s\n", label, path, strerror(errno)); }
void no_right_column(const Place &place, const char *left) {
    process_error("%s: File %s Line %d, Strange left column \"%s\", right column missing?\n", label, place.path,
                  place.line, left);
}
void space_in_right_column(const Place &place, const char *right) {
    process_error("%s: File %s Line %d, Strange right column \"%s\", contains a space\n", label, place.path,
                  place.line, right);
}
void no_record(const Place &place, const char *side, const char *text) {
    process_error("%s: File %s Line %d, Failed to create \"%s\" ipmap structure for \"%s\"\n", label, place.path,
                  place.line, side, text);
}
void mapping(const IVS_IPMAP_S &from, const IVS_IPMAP_S &to) {
    const std::string from_ip = packet_ip2str(htonl(from.ip));  // a copy: the next one lies in the same buffer
    process_log("Mapping %s/%s:%d to %s/%s:%d\n", from.hostText, from_ip.c_str(), from.port, to.hostText,
                packet_ip2str(htonl(to.ip)), to.port);
}
}  // namespace say

void free_record(IVS_IPMAP_S *record) {
    if (record == nullptr) return;
    free(record->hostText);
    free(record->portText);
    free(record);
}

char *copy_of(const char *text) {
    return static_cast<char *>(process_memdup(record_label, text, static_cast<int>(strlen(text)) + 1));
}

/* ---- The file -------------------------------------------------------------------------------------------------------- */

bool is_named(const char *file_name) { return file_name != nullptr && *file_name != 0; }

/** Returns false if the path would be too long. */
bool build_path(char (&path)[PATH_SIZE], const char *file_name) {
    const char *name = is_named(file_name) ? file_name : default_file;
    const char *root = process_context.rootDir != nullptr ? process_context.rootDir : "";
    const int length =
        *name == '/' ? snprintf(path, sizeof path, "%s", name) : snprintf(path, sizeof path, "%s/%s", root, name);
    return length >= 0 && static_cast<size_t>(length) < sizeof path;
}

OwnedFile open_file(const char *file_name, char (&path)[PATH_SIZE]) {
    errno = ENAMETOOLONG;  // stands if it is not even tried
    if (!build_path(path, file_name)) return {};
    return OwnedFile(fopen(path, "re"));
}

bool has_space(const char *text) {
    return std::any_of(text, text + strlen(text),
                       [](unsigned char character) { return process_isspace(character) != 0; });
}

/** In front: what stands later in the file is found first. */
void push(IpMapSide &side, IVS_IPMAP_S *record) {
    record->next = side.head;
    (side.head != nullptr ? side.head->prev : side.tail) = record;
    side.head = record;
}

/** Adds the mapping of a line; returns whether there is one. */
bool add_mapping(const Place &place, char *left, char *right) {
    if (right == nullptr) return say::no_right_column(place, left), false;
    if (has_space(right)) return say::space_in_right_column(place, right), false;

    IVS_IPMAP_S *from = ivsStr2IpMap(left);
    if (from == nullptr) return say::no_record(place, "from", left), false;
    IVS_IPMAP_S *to = ivsStr2IpMap(right);
    if (to == nullptr) {
        free_record(from);
        return say::no_record(place, "to", right), false;
    }
    from->other = to;
    to->other = from;
    push(from_side, from);
    push(to_side, to);
    say::mapping(*from, *to);
    return true;
}

/* ---- Looking up -------------------------------------------------------------------------------------------------------- */

int look_up(const IpMapSide &side, uint32_t ip, uint16_t port, uint32_t *out_ip, uint16_t *out_port) {
    for (const IVS_IPMAP_S *record = side.head; record != nullptr; record = record->next) {
        if (record->ip != ip || record->port != port || record->other == nullptr) continue;
        if (out_ip != nullptr) *out_ip = record->other->ip;
        if (out_port != nullptr) *out_port = record->other->port;
        return 1;
    }
    return 0;
}

}  // namespace

IVS_IPMAP_S *ivsStr2IpMap(char *text) {
    char *port = strchr(text, ':');
    if (port == nullptr) return nullptr;
    *port++ = 0;

    uint32_t ip_host = 0;
    if (packet_gethostbyname(text, &ip_host) != 0) return nullptr;
    if (process_isdigit(static_cast<unsigned char>(*port)) == 0) return nullptr;

    auto *record = static_cast<IVS_IPMAP_S *>(process_malloc(record_label, sizeof(IVS_IPMAP_S)));
    if (record == nullptr) return nullptr;
    record->hostText = copy_of(text);
    record->portText = copy_of(port);
    record->ip = ip_host;
    record->port = static_cast<uint16_t>(strtol(port, nullptr, 10));
    if (record->hostText != nullptr && record->portText != nullptr) return record;
    free_record(record);
    return nullptr;
}

int ivsReadIpMapFile(const char *fileName) {
    char path[PATH_SIZE];
    const OwnedFile file = open_file(fileName, path);
    if (!file.is_open()) {
        if (is_named(fileName)) say::cannot_open(path);
        return 0;
    }
    int count = 0;
    Place place{path, 0};
    char *left = nullptr;
    char *right = nullptr;
    while (config_key_value(file.get(), &left, &right, nullptr, &place.line) > 0) {
        if (add_mapping(place, left, right)) ++count;
    }
    return count;
}

int ivsIpMapFrom(uint32_t ip, uint16_t port, uint32_t *outIp, uint16_t *outPort) {
    return look_up(from_side, ip, port, outIp, outPort);
}

int ivsIpMapTo(uint32_t ip, uint16_t port, uint32_t *outIp, uint16_t *outPort) {
    return look_up(to_side, ip, port, outIp, outPort);
}
