/* The trace printer: one readable line for a packet, sent or received. What stands in the line for each type is the
 * matter of ivstracetab.cpp; whether a packet is traced, and where to, that of the callers.
 *
 * The printer shows and never judges. Whatever type and length a packet has, nothing outside of it is read. */
#include <stdarg.h>
#include <string.h>
#include <time.h>

#include <algorithm>

#include "ivs/ivsi.h"
#include "process/owned.h"

namespace ivs {

void (*trace_clock)(struct timeval *now) = [](struct timeval *now) { gettimeofday(now, nullptr); };

TraceLine::~TraceLine() {
    write_out();
    fflush(stream_);
    pthread_sigmask(SIG_SETMASK, &signals_before_, nullptr);
}

void TraceLine::write_out() {
    if (!holds_signals_) {
        sigset_t all;
        sigfillset(&all);
        pthread_sigmask(SIG_BLOCK, &all, &signals_before_);
        holds_signals_ = true;
    }
    fwrite(buffer_, 1, length_, stream_);
    length_ = 0;
}

void TraceLine::text(const char *text) {
    for (; *text != '\0'; ++text) put(*text);
}

void TraceLine::print(const char *format, ...) {
    constexpr std::size_t ROOM_OF_A_FIELD = 128;
    if (sizeof buffer_ - length_ < ROOM_OF_A_FIELD) write_out();

    va_list arguments;
    va_start(arguments, format);
    const int length = vsnprintf(buffer_ + length_, sizeof buffer_ - length_, format, arguments);
    va_end(arguments);
    if (length > 0) length_ += std::min(static_cast<std::size_t>(length), sizeof buffer_ - length_ - 1);
}

}  // namespace ivs

namespace {

void print_time(ivs::TraceLine &line, const struct timeval &when) {
    struct tm local {};
    localtime_r(&when.tv_sec, &local);
    line.print("%04d%02d%02d%02d%02d%02d.%06ld ", local.tm_year + 1900, local.tm_mon + 1, local.tm_mday,
               local.tm_hour, local.tm_min, local.tm_sec, static_cast<long>(when.tv_usec));
}

void print_present_time(ivs::TraceLine &line) {
    struct timeval now {};
    ivs::trace_clock(&now);
    print_time(line, now);
}

void print_peer(ivs::TraceLine &line, const void *peer) {
    PacketAddress address;
    memcpy(&address, peer, sizeof address);
    unsigned char quad[4];
    memcpy(quad, &address.sin_addr, sizeof quad);
    line.print("%d.%d.%d.%d:%d ", quad[0], quad[1], quad[2], quad[3], ntohs(address.sin_port));
}

/** What the line tells of one packet, from its length on, without any that it wraps. Null for an unknown type. */
const ivs::TraceRow *print_packet(ivs::TraceLine &line, const unsigned char *packet, int length) {
    line.print("%3d ", length);
    if (length < 1) return nullptr;

    ivs::TracedPacket traced{line, ByteReader(packet, length)};
    const int type = traced.bytes.u8();
    line.print("%s ", ivs_packet_names[type]);
    const ivs::TraceRow *row = ivs::find_trace_row(type);
    if (row == nullptr) {
        line.print("%d?", type);
    } else {
        ivs::trace_fields(traced, row->fields);
    }
    return row;
}

}  // namespace

void ivs_trace_packet(FILE *stream, struct timeval *when, const char *prefix, const void *packet, int length,
                      const void *peer) {
    const KeptErrno kept;
    ivs::TraceLine line(stream);

    if (prefix != nullptr) line.text(prefix);
    if (when != nullptr) {
        print_time(line, *when);
    } else {
        print_present_time(line);
    }
    if (peer != nullptr) print_peer(line, peer);

    // Packets wrap packets, as deep as a sender likes: a loop, so that the depth costs no stack. It ends, since each
    // envelope takes bytes away. All line feeds come behind the innermost packet.
    const auto *bytes = static_cast<const unsigned char *>(packet);
    int line_ends = 1;
    for (;;) {
        const ivs::TraceRow *row = print_packet(line, bytes, length);
        if (row != nullptr && row->adds_line_end) ++line_ends;
        if (row == nullptr || row->inner_offset == 0 || length <= row->inner_offset) break;

        bytes += row->inner_offset;
        length -= row->inner_offset;
        print_present_time(line);
    }
    for (; line_ends > 0; --line_ends) line.put('\n');
}
