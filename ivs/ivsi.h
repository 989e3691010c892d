/* What the files of this folder share among themselves; nobody outside includes it. */
#ifndef IVS_IVSI_H
#define IVS_IVSI_H

#include <signal.h>
#include <stdio.h>
#include <sys/time.h>

#include <cstddef>

#include "ivs/ivs.h"
#include "packet/bytereader.h"
#include "process/velproc.h"

namespace ivs {

/** In an identifier word, host order: the mark of a session word, and that of a client word of the extended form. */
constexpr uint32_t SESSION_BIT = 0x80000000;
constexpr uint32_t EXTENDED_CLIENT_BIT = 0x40000000;

/* ivscatalog.cpp */

/** Name of a refusal reason, four letters and a blank ("UNCO "); null if the reason has none. */
const char *refusal_name(int reason);

/* ivstrace.cpp */

/** Where the printer takes the present time from. A test may put its own clock here. */
extern void (*trace_clock)(struct timeval *now);

/** A trace line on its way to a stream. It is gathered here and leaves in one piece when the object ends; only a line
 *  longer than the buffer leaves in several. Signals are held back meanwhile, so that no handler's line falls into
 *  it and no write is cut short. */
class TraceLine {
public:
    explicit TraceLine(FILE *stream) : stream_(stream) {}
    ~TraceLine();
    TraceLine(const TraceLine &) = delete;
    TraceLine &operator=(const TraceLine &) = delete;

    /** For fields whose length is known to be small; what has no bound goes through text() or put(). */
    void print(const char *format, ...) PROCESS_PRINTF(2, 3);
    void text(const char *text);
    void put(char character) {
        if (length_ == sizeof buffer_) write_out();
        buffer_[length_++] = character;
    }

private:
    void write_out();

    FILE *stream_;
    std::size_t length_ = 0;
    bool holds_signals_ = false;
    sigset_t signals_before_{};
    char buffer_[8192];
};

/* ivstracetab.cpp */

/** A packet while its fields are printed one after the other. The reader stands behind what is printed already. */
struct TracedPacket {
    TraceLine &line;
    ByteReader bytes;
    uint32_t cid = 0;       // host order, once it was read: later fields depend on it
    uint8_t attribute = 0;  // likewise
};

/** One field: the printer that reads and writes it, and the text in front if that isn't the printer's own. */
struct TraceField {
    void (*print)(TracedPacket &packet, const char *label) = nullptr;
    const char *label = "";
};

/** Up to so many fields; shorter lists end with a field that has no printer. */
constexpr int TRACE_FIELDS = 6;

/** How a type of packet is shown. */
struct TraceRow {
    int type;
    TraceField fields[TRACE_FIELDS];
    int inner_offset = 0;        // where the packet that it wraps begins; 0 if it wraps none
    bool adds_line_end = false;  // one more line feed at the very end
};

/** The row of a type, or null: such a type is shown by its number. */
const TraceRow *find_trace_row(int type);

/** Prints a row's fields. */
void trace_fields(TracedPacket &packet, const TraceField (&fields)[TRACE_FIELDS]);

}  // namespace ivs

#endif
