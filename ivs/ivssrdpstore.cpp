/* Reliable datagrams: the records that both stores are made of, the sender's of packets not yet acknowledged and the
 * receiver's of packets that have come.
 *
 * A record hangs in a table (to be found by peer and id) and in a list (to be walked): in both or in neither. */
#include <errno.h>
#include <stdlib.h>
#include <string.h>

#include <algorithm>

#include "ivs/ivssrdpi.h"
#include "packet/bytereader.h"
#include "process/velproc.h"

namespace {

constexpr int POINTER_LENGTH = 4;  // what the length of a value reads as in a table of pointers

constexpr char find_label[] = "ivs_srdp_packet_find";
constexpr char save_label[] = "ivs_srdp_packet_save";
constexpr char delete_label[] = "ivs_srdp_packet_delete";

/** All 8 bytes take part in comparisons. */
struct Key {
    uint32_t ip;
    uint16_t port;
    uint16_t id;
};
static_assert(sizeof(Key) == 8);

Key key_of(const void *address, uint16_t id) {
    Key key{0, 0, id};
    packet_adr_get(address, &key.ip, &key.port);
    return key;
}

/** Table and list disagree, or the table isn't sound: whatever was done next would be wrong. */
[[noreturn]] void end_with_table_error(const char *label, const char *call) {
    process_error("%s: %s failed! paaerrno %d, errmsg %s\n", label, call, paaerrno, strerror(errno));
    process_exit(1);
}

/** Large: a busy server has tens of thousands of records in each. */
PAA_S *make_table() {
    PAA_S *const table = paaCreate(PAAFLAGPOINTER | PAAFLAGLARGE);
    if (table != nullptr) return table;
    process_error("%s: Malloc failed in paaCreate! errmsg: %s!\n", save_label, strerror(errno));
    process_exit(1);
}

/** A record with its copies, in no list yet; null without memory. */
IVS_SRDP_PACKET_S *make_record(const void *data, int data_length, const void *address, int address_size) {
    const int record_size = sizeof(IVS_SRDP_PACKET_S);
    if (address_size <= 0) return nullptr;
    auto *const record =
        static_cast<IVS_SRDP_PACKET_S *>(process_malloc(save_label, record_size + address_size + data_length));
    if (record == nullptr) return nullptr;

    auto *const behind = reinterpret_cast<unsigned char *>(record + 1);
    record->addr = behind;
    record->addrLen = address_size;
    memcpy(record->addr, address, static_cast<size_t>(address_size));
    if (data_length > 0) {
        record->data = behind + address_size;
        record->dataLen = data_length;
        memcpy(record->data, data, static_cast<size_t>(data_length));
    }
    return record;
}

bool insert(PAA_S *table, IVS_SRDP_PACKET_S *record) {
    const Key key = key_of(record->addr, record->srdId);
    if (paaInsert(table, &key, sizeof key, record, POINTER_LENGTH) == 0) return true;
    if (paaerrno == PAAERRNOMEM) {
        process_error("%s: paaInsert failed! out of memory\n", save_label);
    } else if (paaerrno == PAAERREXISTS) {
        process_error("%s: paaInsert failed! PAAERREXISTS %s:%d %d\n", save_label, packet_ip2str(key.ip),
                      ntohs(key.port), record->srdId);
    } else {
        end_with_table_error(save_label, "paaInsert");
    }
    return false;
}

}  // namespace

extern "C" {

IVS_SRDP_PACKET_S *ivs_srdp_packet_find(PAA_S *table, const void *address, uint16_t id) {
    if (table == nullptr) return nullptr;
    const Key key = key_of(address, id);
    int length = 0;
    void *const found = paaFind(table, &key, sizeof key, &length);
    if (found != nullptr && length != POINTER_LENGTH) {
        process_error("%s: paaFind returns bad datalen!\n", find_label);
        process_exit(1);
    }
    if (found == nullptr && paaerrno != PAAERRNOTFOUND) end_with_table_error(find_label, "paaFind");
    return static_cast<IVS_SRDP_PACKET_S *>(found);
}

IVS_SRDP_PACKET_S *ivs_srdp_packet_save(PAA_S **table, IVS_SRDP_PACKET_S **head, IVS_SRDP_PACKET_S **tail, int slot,
                                        uint16_t id, uint32_t owner, int socket, time_t expires, const void *data,
                                        int dataLength, const void *address, int addressSize) {
    if (*table == nullptr) *table = make_table();
    const int kept = data != nullptr ? std::clamp<int>(dataLength, 0, IVS_MAX_PACKET) : 0;
    IVS_SRDP_PACKET_S *const record = make_record(data, kept, address, addressSize);
    if (record == nullptr) return nullptr;
    record->srdId = id;
    record->slot = slot;
    record->owner = owner;
    record->socket = socket;
    record->expires = expires;
    record->interval = ivs::SRDP_FIRST_INTERVAL;
    if (!insert(*table, record)) {
        free(record);
        return nullptr;
    }
    ivs::srdp_link(head, tail, record);
    return record;
}

void ivs_srdp_packet_delete(PAA_S *table, IVS_SRDP_PACKET_S **head, IVS_SRDP_PACKET_S **tail,
                            IVS_SRDP_PACKET_S *record) {
    ivs::srdp_count_removed(record->resends);
    const Key key = key_of(record->addr, record->srdId);
    if (paaRemove(table, &key, sizeof key) != 0) end_with_table_error(delete_label, "paaRemove");
    ivs::srdp_unlink(head, tail, record);
    free(record);
}

}  // extern "C"

namespace ivs {

uint16_t srdp_id(const void *packet, int length) {
    ByteReader reader(packet, length);
    reader.skip(SRDP_ID_OFFSET);
    return reader.raw16();
}

int srdp_sendto(const char *label, int socket, const void *packet, int length, const void *address, int addressSize) {
    const int result = ivs_sendto(socket, packet, length, address, addressSize);
    if (result != 0 && process_context.trace != 0) {
        uint32_t ip = 0;
        uint16_t port_net = 0;
        packet_adr_get(address, &ip, &port_net);
        process_trace("%s: ivs_sendto failed! ID %lx %s:%d, errmsg %s\n", label, 0UL, packet_ip2str(ip),
                      ntohs(port_net), strerror(errno));
    }
    return result;
}

}  // namespace ivs
