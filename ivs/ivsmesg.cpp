/* The one door through which packets of the message protocol leave. What is in them is their senders' matter. */
#include <errno.h>
#include <string.h>

#include <algorithm>
#include <utility>

#include "ivs/ivs.h"
#include "process/linelimit.h"
#include "process/owned.h"
#include "process/velproc.h"

const unsigned char *ivs_pending_key = nullptr;
uint32_t ivs_pending_key_flags = 0;

int ivs_compression_stats = 0;
uint32_t ivs_measured_packets = 0;
uint32_t ivs_byte_counts[256];
time_t ivs_last_measure = 0;

namespace {

constexpr int MEASURE_SECONDS = 300;
constexpr uint32_t LARGEST_COUNT = 65534;  // keeps the totals in bits within 32 bits, and codes short

/** The types that carry bulk text, and where it begins: the others would only blur the figures. */
struct MeasuredType {
    int type;
    int text_offset;
};
constexpr MeasuredType measured_types[] = {
    {IVS_TYPE_SRDP, IVS_SRDP_HEAD}, {IVS_TYPE_GTXT, 0}, {IVS_TYPE_SETA, 0}, {IVS_TYPE_GHIS, 0}, {IVS_TYPE_GWIS, 0},
};

namespace say {
void send_failed(int socket) {
    const int error = errno;
    static LineLimit lines("ivs_sendto failed");
    if (!lines.passes()) return;
    constexpr char format[] = "ivs_sendto: packet_sendto socket %d failed! errmsg: %s!\n";
    if (error != ECONNREFUSED) {
        process_error(format, socket, strerror(error));
    } else if (process_context.trace != 0) {
        process_trace(format, socket, strerror(error));  // the peer's port was closed: normal for datagrams
    }
}
void measured(uint32_t bits, uint32_t compressed, uint32_t savings) {
    process_log("IV.CMP packets %lu bytes %lu, compressed %lu, savings %lu\n",  // "bytes" are bits here, as meant
                static_cast<unsigned long>(ivs_measured_packets), static_cast<unsigned long>(bits),
                static_cast<unsigned long>(compressed), static_cast<unsigned long>(savings));
}
}  // namespace say

void scale_counts() {
    for (const uint32_t &count : ivs_byte_counts) {
        while (count > LARGEST_COUNT) {
            for (uint32_t &each : ivs_byte_counts) each >>= 1;
        }
    }
}

void report_measurement() {
    uint32_t bits = 0;
    uint32_t compressed = 0;
    uint32_t savings = 0;
    scale_counts();
    const OwnedBlock<IV_COMPRESSION_S> table(
        iv_init_compression(ivs_byte_counts, ivs_measured_packets, &bits, &compressed, &savings));
    if (!table.is_null()) say::measured(bits, compressed, savings);
    std::fill(std::begin(ivs_byte_counts), std::end(ivs_byte_counts), 0);
    ivs_measured_packets = 0;
}

void count_bytes(const unsigned char *packet, int length) {
    const auto *const measured = std::find_if(std::begin(measured_types), std::end(measured_types),
                                              [&](const MeasuredType &each) { return each.type == packet[0]; });
    if (measured == std::end(measured_types)) return;
    for (int place = measured->text_offset; place < length; place++) ivs_byte_counts[packet[place]]++;
    ivs_measured_packets++;
}

void measure(time_t now, const unsigned char *packet, int length) {
    const time_t since = now - ivs_last_measure;
    if (since > MEASURE_SECONDS || since < -MEASURE_SECONDS) {  // the latter after the clock was set back
        ivs_last_measure = now;
        if (ivs_measured_packets > 0) report_measurement();
    }
    if (length > 0) count_bytes(packet, length);
}

/** Sends under the pending key, which serves this once. */
int send_packet(int socket, const void *packet, int length, const void *address, int address_size) {
    const unsigned char *const key = std::exchange(ivs_pending_key, nullptr);
    const uint32_t flags = std::exchange(ivs_pending_key_flags, 0);
    if (key != nullptr && (flags & IVS_KEY_FLAG_ENCIPHER) != 0) {
        return packet_send_encrypted(socket, key, packet, length, address, address_size);
    }
    return packet_sendto(socket, packet, length, address, address_size);
}

}  // namespace

int ivs_sendto(int socket, const void *packet, int length, const void *address, int addressSize) {
    const auto *const bytes = static_cast<const unsigned char *>(packet);
    if (ivs_compression_stats != 0) measure(time(nullptr), bytes, length);
    if (process_context.trace != 0 && process_context.traceStream != nullptr) {
        ivs_trace_packet(process_context.traceStream, nullptr, "TS ", packet, length, address);
    }

    errno = 0;
    const int result = send_packet(socket, packet, length, address, addressSize);
    if (result != 0) say::send_failed(socket);
    return 0;
}
