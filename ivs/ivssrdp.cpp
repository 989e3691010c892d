/* Reliable datagrams, the sender's part: packets that wait for their acknowledgement, their repeats, and their end.
 *
 * A pending packet is in the table, in the list of its bucket, and in a run of that bucket; or else in the list of
 * those that came to their end in a sweep: these count as gone, only their memory comes back over several ticks. */
#include <errno.h>
#include <stdlib.h>
#include <string.h>
#include <sys/random.h>
#include <unistd.h>

#include <algorithm>
#include <cstdint>
#include <utility>

#include "ivs/ivssrdpi.h"
#include "packet/bytereader.h"
#include "process/velproc.h"

namespace ivs {

/** Neighbours in the list of a bucket, with the time before which none of them needs a look: so a sweep that finds
 *  nothing to do touches a run instead of all of its packets. */
struct SrdpRun {
    SrdpRun *next, *prev;
    IVS_SRDP_PACKET_S *first;
    int count;
    int64_t earliest;  // microseconds, not later than any event_of() in the run
};

namespace {

constexpr char send_label[] = "ivs_srdp_packet_send";
constexpr char forward_label[] = "ivs_srdp_packet_forward";
constexpr char handle_label[] = "ivs_srdp_packet_handle";

constexpr int BUCKETS = 10;
constexpr int BUCKET_USEC = 100000;
constexpr int FULL_SWEEP_SECONDS = 3;
constexpr int RUN_SIZE = 64;
constexpr int64_t SECOND = 1000000;  // in microseconds

constexpr int WORD_SIZE = 4;
constexpr int MAX_BODY = int{IVS_MAX_PACKET} - IVS_SRDP_HEAD - 1 - WORD_SIZE;
constexpr int TYPE_OFFSET = IVS_SRDP_HEAD;
constexpr int SUBTYPE_OFFSET = IVS_SRDP_HEAD + 7;  // behind type, word and PKT

constexpr uint16_t UNSEEDED = 65535;
constexpr uint16_t ID_MASK = 0x7fff;
constexpr int ID_ATTEMPTS = 40960;

struct Bucket {
    IVS_SRDP_PACKET_S *head, *tail;
    SrdpRun *first_run, *last_run;
    int64_t sweep;  // the moment as of which it is being swept, over several ticks if need be; 0: it isn't
};

PAA_S *table = nullptr;
Bucket buckets[BUCKETS];
IVS_SRDP_PACKET_S *ended_head = nullptr;
IVS_SRDP_PACKET_S *ended_tail = nullptr;
struct timeval next_full_sweep {};
int first_swept = 0;  // the bucket that a tick begins with: where the tick before had to stop
uint16_t last_id = UNSEEDED;

int bucket_index(const struct timeval &time) {
    return std::clamp(static_cast<int>(time.tv_usec / BUCKET_USEC), 0, BUCKETS - 1);
}
Bucket &bucket_of(const IVS_SRDP_PACKET_S *record) { return buckets[record->slot]; }

// ---- Runs -------------------------------------------------------------------------------------------------------

int64_t microseconds(time_t seconds, int64_t more) { return seconds * SECOND + more; }

int64_t next_send_of(const IVS_SRDP_PACKET_S *record) { return microseconds(record->nextSec, record->nextUsec); }

/** A sweep later than this has something to do with the packet. */
int64_t event_of(const IVS_SRDP_PACKET_S *record) {
    const int64_t last_moment = microseconds(record->expires + 1, -1);
    return std::min(next_send_of(record), last_moment);
}

/** The run that takes what is sent next: a new one if the last is full. Without memory that one grows on. */
SrdpRun *open_run(Bucket &bucket) {
    SrdpRun *const last = bucket.last_run;
    if (last != nullptr && last->count < RUN_SIZE) return last;
    auto *const run = static_cast<SrdpRun *>(calloc(1, sizeof(SrdpRun)));
    if (run == nullptr) return last;
    run->earliest = INT64_MAX;
    srdp_link(&bucket.first_run, &bucket.last_run, run);
    return run;
}

/** For the record that stands last in its bucket. */
bool join_run(IVS_SRDP_PACKET_S *record) {
    SrdpRun *const run = open_run(bucket_of(record));
    if (run == nullptr) return false;
    if (run->count++ == 0) run->first = record;
    run->earliest = std::min(run->earliest, event_of(record));
    record->run = run;
    return true;
}

/** To be called while the record still is in its bucket's list. */
void leave_run(IVS_SRDP_PACKET_S *record) {
    SrdpRun *const run = record->run;
    record->run = nullptr;
    if (run->first == record) run->first = record->next;
    if (--run->count > 0) return;
    Bucket &bucket = bucket_of(record);
    srdp_unlink(&bucket.first_run, &bucket.last_run, run);
    free(run);
}

// ---- Store ------------------------------------------------------------------------------------------------------

void free_ended(IVS_SRDP_PACKET_S *record) { ivs_srdp_packet_delete(table, &ended_head, &ended_tail, record); }

void remove(IVS_SRDP_PACKET_S *record) {
    srdp_one_less_pending();
    leave_run(record);
    Bucket &bucket = bucket_of(record);
    ivs_srdp_packet_delete(table, &bucket.head, &bucket.tail, record);
}

IVS_SRDP_PACKET_S *find_pending(const void *address, uint16_t id) {
    IVS_SRDP_PACKET_S *const record = ivs_srdp_packet_find(table, address, id);
    if (record == nullptr || record->run != nullptr) return record;
    free_ended(record);
    return nullptr;
}

/** A packet on its way out. */
struct Sending {
    const char *label;
    int socket;
    int repeat_socket;
    uint32_t owner;
    unsigned char *packet;
    int length;
    const void *address;
    int address_size;
};

bool keep(const struct timeval &clock, time_t now, uint16_t id, const Sending &sending) {
    const int slot = bucket_index(clock);
    Bucket &bucket = buckets[slot];
    IVS_SRDP_PACKET_S *const record = ivs_srdp_packet_save(
        &table, &bucket.head, &bucket.tail, slot, id, sending.owner, sending.repeat_socket, now + SRDP_LIFETIME,
        sending.packet, sending.length, sending.address, sending.address_size);
    if (record == nullptr) return false;
    record->nextSec = clock.tv_sec + record->interval;
    record->nextUsec = static_cast<int32_t>(clock.tv_usec);
    if (join_run(record)) return true;
    ivs_srdp_packet_delete(table, &bucket.head, &bucket.tail, record);
    return false;
}

// ---- Sending ----------------------------------------------------------------------------------------------------

uint32_t kernel_word() {
    uint32_t word = 0;
    const bool got = getrandom(&word, sizeof word, GRND_NONBLOCK) == static_cast<ssize_t>(sizeof word);
    return got ? word : 0;  // too early after the machine's start: the draws alone have to do
}

/** Where the ids of this process begin. Stirs the generator of the process as well, which is meant. */
uint16_t first_id(const struct timeval &clock) {
    srand(srdp_draw_word() ^ static_cast<uint32_t>(getpid()) ^ static_cast<uint32_t>(clock.tv_sec));
    srand(srdp_draw_word() ^ static_cast<uint32_t>(clock.tv_usec));
    return static_cast<uint16_t>((srdp_draw_word() ^ kernel_word()) & ID_MASK);
}

/** The next id that isn't pending for the peer; after a long search, just the next. */
uint16_t take_id(const struct timeval &clock, const void *address) {
    if (last_id == UNSEEDED) last_id = first_id(clock);
    for (int attempt = 0; attempt < ID_ATTEMPTS; attempt++) {
        last_id = static_cast<uint16_t>((last_id + 1) & ID_MASK);
        if (find_pending(address, last_id) == nullptr) break;
    }
    return last_id;
}

/** Whatever becomes of the record, the packet goes out; without one, once only. */
int send(const struct timeval &clock, time_t now, const Sending &sending) {
    srdp_count_at(clock.tv_sec);
    const uint16_t id = take_id(clock, sending.address);
    memcpy(sending.packet + SRDP_ID_OFFSET, &id, sizeof id);
    if (keep(clock, now, id, sending)) {
        srdp_one_more_pending();
    } else {
        process_error("%s: ivs_srdp_packet_save failed! errmsg %s\n", sending.label, strerror(errno));
    }
    srdp_count(SRDP_PAS);
    return ivs_sendto(sending.socket, sending.packet, sending.length, sending.address, sending.address_size);
}

// ---- Timer ------------------------------------------------------------------------------------------------------

/** Counts the record out, its repeats as well; what is left of it is memory. */
void give_up(IVS_SRDP_PACKET_S *record) {
    srdp_count(SRDP_TIM);
    srdp_count_removed(std::exchange(record->resends, 0));
    srdp_one_less_pending();
    leave_run(record);
    Bucket &bucket = bucket_of(record);
    srdp_unlink(&bucket.head, &bucket.tail, record);
    srdp_link(&ended_head, &ended_tail, record);
}

void send_again(int socket, const struct timeval &now, IVS_SRDP_PACKET_S *record) {
    srdp_count(SRDP_RES);
    srdp_sendto(handle_label, record->socket >= 0 ? record->socket : socket, record->data, record->dataLen,
                record->addr, record->addrLen);
    record->resends++;
    record->interval = record->interval * 3 / 2;  // whole seconds: 4 6 9 13 19, and 28, which no packet lives to see
    record->nextSec = now.tv_sec + record->interval;
}

/** Gives up what is too old now, and repeats what was due before the given moment; gives the number of sends. */
int sweep_run(SrdpRun *run, int64_t moment, int socket, const struct timeval &now) {
    int sent = 0;
    int64_t earliest = INT64_MAX;
    IVS_SRDP_PACKET_S *record = run->first;
    for (int left = run->count; left > 0; left--) {
        IVS_SRDP_PACKET_S *const next = record->next;
        if (record->expires < now.tv_sec) {
            give_up(record);
        } else {
            if (next_send_of(record) < moment) {
                send_again(socket, now, record);
                sent++;
            }
            earliest = std::min(earliest, event_of(record));
        }
        record = next;
    }
    const bool is_empty = earliest == INT64_MAX;  // then it went with its last record
    if (!is_empty) run->earliest = earliest;
    return sent;
}

/** False if the sends that are left didn't do for all of it. */
bool sweep_bucket(Bucket &bucket, int socket, const struct timeval &now, int &sends_left) {
    const int64_t present = microseconds(now.tv_sec, now.tv_usec);
    SrdpRun *next = nullptr;
    for (SrdpRun *run = bucket.first_run; run != nullptr; run = next) {
        if (sends_left <= 0) return false;
        next = run->next;
        if (run->earliest < present) sends_left -= sweep_run(run, bucket.sweep, socket, now);
    }
    bucket.sweep = 0;
    return true;
}

void begin_sweep(Bucket &bucket, const struct timeval &now) {
    if (bucket.sweep == 0) bucket.sweep = microseconds(now.tv_sec, now.tv_usec);
}

/** One tick's share of the sweeps under way. What is repeated is next due behind the moment of its sweep: a sweep ends
 *  whatever comes in meanwhile, and then the next bucket has its turn. */
void go_on_with_sweeps(int socket, const struct timeval &now) {
    int sends_left = SRDP_SENT_A_TICK;
    for (int turn = 0; turn < BUCKETS; turn++) {
        const int index = (first_swept + turn) % BUCKETS;
        if (buckets[index].sweep == 0 || sweep_bucket(buckets[index], socket, now, sends_left)) continue;
        first_swept = index;
        return;
    }
    first_swept = 0;
}

bool take_full_sweep(const struct timeval &now) {
    if (timercmp(&next_full_sweep, &now, >)) return false;
    next_full_sweep = {now.tv_sec + FULL_SWEEP_SECONDS, now.tv_usec};
    return true;
}

void free_some_ended() {
    for (int freed = 0; freed < SRDP_FREED_A_TICK && ended_head != nullptr; freed++) free_ended(ended_head);
}

// ---- Cancel -----------------------------------------------------------------------------------------------------

template <class Matches>
void cancel_if(Matches matches) {
    for (const Bucket &bucket : buckets) {
        IVS_SRDP_PACKET_S *next = nullptr;
        for (IVS_SRDP_PACKET_S *record = bucket.head; record != nullptr; record = next) {
            next = record->next;
            if (!matches(*record)) continue;
            srdp_count(SRDP_CAN);
            remove(record);
        }
    }
}

bool has_byte(const IVS_SRDP_PACKET_S &record, int offset, int value) {
    return record.dataLen > offset && record.data[offset] == value;
}

}  // namespace

int srdp_send_at(const struct timeval &clock, int socket, time_t now, uint32_t firstWord, uint32_t owner, int type,
                 const void *body, int bodyLength, const void *address, int addressSize) {
    unsigned char packet[IVS_MAX_PACKET];
    ByteWriter writer(packet, sizeof packet);
    writer.u8(IVS_TYPE_SRDP).raw16(0).u8(0);  // id, flags
    writer.u8(static_cast<unsigned>(type)).raw32(firstWord);
    if (body != nullptr) writer.bytes(body, std::min(bodyLength, MAX_BODY));
    return send(clock, now, {send_label, socket, -1, owner, packet, writer.length(), address, addressSize});
}

int srdp_forward_at(const struct timeval &clock, int socket, time_t now, uint32_t owner, void *packet, int length,
                    const void *address, int addressSize) {
    if (length < IVS_SRDP_HEAD) return ivs_sendto(socket, packet, length, address, addressSize);  // no room for an id
    auto *const bytes = static_cast<unsigned char *>(packet);
    return send(clock, now, {forward_label, socket, socket, owner, bytes, length, address, addressSize});
}

void srdp_ack_at(time_t clock, const void *packet, int length, const void *address) {
    srdp_count_at(clock);
    srdp_count(SRDP_ACR);
    IVS_SRDP_PACKET_S *const record = find_pending(address, srdp_id(packet, length));
    if (record != nullptr) {
        remove(record);
    } else {
        srdp_count(SRDP_ARR);
    }
}

void srdp_handle_at(time_t clock, int socket, const struct timeval &now) {
    srdp_count_at(clock);
    const bool full = take_full_sweep(now);
    srdp_sweep_replays(now.tv_sec, full);
    if (full) {
        for (Bucket &bucket : buckets) begin_sweep(bucket, now);
    } else {
        begin_sweep(buckets[bucket_index(now)], now);
    }
    go_on_with_sweeps(socket, now);
    free_some_ended();
}

void srdp_cancel_at(time_t clock, uint32_t owner) {
    srdp_count_at(clock);
    cancel_if([&](const IVS_SRDP_PACKET_S &record) { return record.owner == owner; });
}

void srdp_cancel_type_at(time_t clock, uint32_t owner, int type, int subType) {
    srdp_count_at(clock);
    cancel_if([&](const IVS_SRDP_PACKET_S &record) {
        return record.owner == owner && has_byte(record, TYPE_OFFSET, type) &&
               (subType == 0 || has_byte(record, SUBTYPE_OFFSET, subType));
    });
}

void srdp_reset() {
    cancel_if([](const IVS_SRDP_PACKET_S &) { return true; });
    while (ended_head != nullptr) free_ended(ended_head);
    for (Bucket &bucket : buckets) bucket.sweep = 0;
    first_swept = 0;
    next_full_sweep = {};
    srdp_reset_replays();
    srdp_reset_counters();
}

uint32_t srdp_draw_word() {
    uint32_t word = 0;
    for (int shift = 24; shift >= 0; shift -= 8) word ^= static_cast<uint32_t>(rand()) << shift;
    return word & INT32_MAX;
}

}  // namespace ivs

extern "C" {

int ivs_srdp_packet_send(int socket, time_t now, uint32_t firstWord, uint32_t owner, int type, const void *body,
                         int bodyLength, const void *address, int addressSize) {
    struct timeval clock {};
    gettimeofday(&clock, nullptr);
    return ivs::srdp_send_at(clock, socket, now, firstWord, owner, type, body, bodyLength, address, addressSize);
}

int ivs_srdp_packet_forward(int socket, time_t now, uint32_t owner, void *packet, int length, const void *address,
                            int addressSize) {
    struct timeval clock {};
    gettimeofday(&clock, nullptr);
    return ivs::srdp_forward_at(clock, socket, now, owner, packet, length, address, addressSize);
}

void ivs_srdp_packet_ack(const void *packet, int length, const void *address) {
    ivs::srdp_ack_at(time(nullptr), packet, length, address);
}

void ivs_srdp_packet_handle(int socket, struct timeval *now) { ivs::srdp_handle_at(time(nullptr), socket, *now); }

void ivs_srdp_cancel(uint32_t owner) { ivs::srdp_cancel_at(time(nullptr), owner); }

void ivs_srdp_cancel_type(uint32_t owner, int type, int subType) {
    ivs::srdp_cancel_type_at(time(nullptr), owner, type, subType);
}

void ivs_srdp_clock_was_set(time_t seconds) {
    using namespace ivs;
    for (Bucket &bucket : buckets) {
        for (IVS_SRDP_PACKET_S *record = bucket.head; record != nullptr; record = record->next) {
            record->expires += seconds;
            record->nextSec += seconds;
        }
        for (SrdpRun *run = bucket.first_run; run != nullptr; run = run->next) run->earliest += seconds * SECOND;
        if (bucket.sweep != 0) bucket.sweep += seconds * SECOND;
    }
    if (timerisset(&next_full_sweep)) next_full_sweep.tv_sec += seconds;
    srdp_move_replays(seconds);
}

}  // extern "C"
