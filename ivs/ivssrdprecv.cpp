/* Reliable datagrams, the receiver's part: acknowledges each copy that arrives, and remembers what has come from whom,
 * so that a packet is handed up once.
 *
 * A stranger can fill this memory, so it has a bound. All records live equally long: the list is in order of expiry.
 * What a sweep found too old is forgotten at once, whether or not its record has been freed yet. */
#include <errno.h>
#include <string.h>

#include "ivs/ivssrdpi.h"
#include "packet/bytereader.h"
#include "process/velproc.h"

namespace ivs {

unsigned long srdp_replay_limit = 262144;

namespace {

constexpr char label[] = "ivs_srdp_packet";
constexpr time_t DROP_REPORT_SECONDS = 60;

PAA_S *table = nullptr;
IVS_SRDP_PACKET_S *head = nullptr;  // the oldest
IVS_SRDP_PACKET_S *tail = nullptr;
time_t forgotten_before = 0;  // records that expired earlier count as gone
unsigned long dropped = 0;    // records that went before their time
time_t last_drop_report = 0;  // 0: none yet

bool is_forgotten(const IVS_SRDP_PACKET_S *record) { return record->expires < forgotten_before; }

void remove(IVS_SRDP_PACKET_S *record) { ivs_srdp_packet_delete(table, &head, &tail, record); }

bool is_replay(const void *address, uint16_t id) {
    IVS_SRDP_PACKET_S *const record = ivs_srdp_packet_find(table, address, id);
    if (record == nullptr) return false;
    if (!is_forgotten(record)) return true;
    remove(record);
    return false;
}

void report_drops(time_t now) {
    if (last_drop_report != 0 && now < last_drop_report + DROP_REPORT_SECONDS) return;
    last_drop_report = now;
    process_log("%s: limit reached: %lu replay records, %lu dropped so far\n", label, srdp_replay_limit, dropped);
}

void make_room(time_t now) {
    while (table != nullptr && head != nullptr && table->count >= srdp_replay_limit) {
        const bool before_its_time = !is_forgotten(head);
        remove(head);
        if (!before_its_time) continue;
        dropped++;
        report_drops(now);
    }
}

void remember(time_t now, uint16_t id, const void *address, int address_size) {
    make_room(now);
    const time_t expires = now + SRDP_LIFETIME;
    if (ivs_srdp_packet_save(&table, &head, &tail, 0, id, 0, -1, expires, nullptr, 0, address, address_size) ==
        nullptr) {
        process_error("%s: ivs_srdp_packet_save failed! errmsg %s\n", label, strerror(errno));
    }
}

void acknowledge(int socket, uint16_t id, const void *address, int address_size) {
    unsigned char ack[3];
    ByteWriter writer(ack, sizeof ack);
    writer.u8(IVS_TYPE_SACK).raw16(id);
    if (packet_came_in_envelope() != 0) {  // then the answer doesn't go in clear, if that can be helped
        ivs_pending_key = packet_accesskey_by_adr(address, nullptr);
        ivs_pending_key_flags = IVS_KEY_FLAG_ENCIPHER;
    }
    srdp_sendto(label, socket, ack, writer.length(), address, address_size);
}

}  // namespace

int srdp_receive_at(time_t clock, int socket, time_t now, const void *packet, int length, const void *address,
                    int addressSize) {
    srdp_count_at(clock);
    srdp_count(SRDP_PAR);
    const uint16_t id = srdp_id(packet, length);
    acknowledge(socket, id, address, addressSize);  // replays too: the first one may be what was lost
    if (is_replay(address, id)) {
        srdp_count(SRDP_RER);
        return 0;
    }
    remember(now, id, address, addressSize);
    return 1;
}

void srdp_sweep_replays(time_t now, bool full) {
    if (full) forgotten_before = now;
    for (int freed = 0; freed < SRDP_FREED_A_TICK && head != nullptr && is_forgotten(head); freed++) remove(head);
}

void srdp_move_replays(time_t seconds) {
    for (IVS_SRDP_PACKET_S *record = head; record != nullptr; record = record->next) record->expires += seconds;
    forgotten_before += seconds;
    if (last_drop_report != 0) last_drop_report += seconds;
}

void srdp_reset_replays() {
    while (head != nullptr) remove(head);
    forgotten_before = 0;
    last_drop_report = 0;
    dropped = 0;
}

}  // namespace ivs

extern "C" int ivs_srdp_packet(int socket, time_t now, const void *packet, int length, const void *address,
                               int addressSize) {
    return ivs::srdp_receive_at(time(nullptr), socket, now, packet, length, address, addressSize);
}
