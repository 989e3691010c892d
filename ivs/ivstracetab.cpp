/* What a trace line shows of each type of packet: a table, a row for a type, and the small printers of its fields.
 *
 * All bytes come through the bounded reader, so a field that a short packet lacks is shown as zero. Some oddities of
 * the formats (a blank too many, a colon or a quote that is missing) are meant: tools read these lines. */
#include <ctype.h>
#include <string.h>

#include <algorithm>
#include <iterator>

#include "ivs/ivsi.h"

namespace ivs {
namespace {

using Packet = TracedPacket;

constexpr int WORD = 4;

/** A packet type's attribute, as in the packet. */
constexpr uint8_t attribute_code(int index) { return static_cast<uint8_t>(index - IVS_TYPE_ATTRIBUTES); }

bool is_extended(const Packet &packet) { return (packet.cid & EXTENDED_CLIENT_BIT) != 0; }

/* ---- Numbers and words, with their label ---------------------------------------------------------------------- */

void print_hex(Packet &packet, const char *label, unsigned long value) { packet.line.print("%s%lx ", label, value); }

void hex(Packet &packet, const char *label) { print_hex(packet, label, packet.bytes.u32be()); }
void raw_hex(Packet &packet, const char *label) { print_hex(packet, label, packet.bytes.raw32()); }

void decimal(Packet &packet, const char *label) {
    packet.line.print("%s%lu ", label, static_cast<unsigned long>(packet.bytes.u32be()));
}
void raw_decimal(Packet &packet, const char *label) {
    packet.line.print("%s%lu ", label, static_cast<unsigned long>(packet.bytes.raw32()));
}
void byte(Packet &packet, const char *label) { packet.line.print("%s%d ", label, packet.bytes.u8()); }

/** Opaque to everybody, so shown as it lies in memory. */
void raw_hex16(Packet &packet, const char *label) { packet.line.print("%s%x ", label, packet.bytes.raw16()); }
void hex16(Packet &packet, const char *label) { packet.line.print("%s%x ", label, packet.bytes.u16be()); }

void address(Packet &packet, const char *) {
    uint8_t quad[4];
    for (uint8_t &part : quad) part = packet.bytes.u8();
    packet.line.print("%d.%d.%d.%d:%d ", quad[0], quad[1], quad[2], quad[3], packet.bytes.u16be());
}

void bytes_to_end(Packet &packet, const char *label) {
    packet.line.text(label);
    while (packet.bytes.left() > 0) packet.line.print(" %d ", packet.bytes.u8());
}

void raw_words_to_end(Packet &packet, const char *) {
    while (packet.bytes.left() >= WORD) raw_hex(packet, "");
}

/* ---- Text ------------------------------------------------------------------------------------------------------ */

char shown(uint8_t character) { return isprint(character) != 0 ? static_cast<char>(character) : '.'; }

/** For what is shown as the peer wrote it: only what could forge a line or steer a terminal is replaced. */
char shown_as_written(uint8_t character) { return iscntrl(character) != 0 ? '.' : static_cast<char>(character); }

void print_text(Packet &packet, int count, char (&show)(uint8_t)) {
    for (; count > 0; --count) packet.line.put(show(packet.bytes.u8()));
}

/** The rest as a text that ends at its first zero byte. */
void line_text(Packet &packet, const char *) {
    int room = 0;
    const uint8_t *start = packet.bytes.bytes(std::min<int>(packet.bytes.left(), IVS_MAX_PACKET), &room);
    std::for_each(start, std::find(start, start + room, 0), [&](uint8_t each) { packet.line.put(shown(each)); });
}

/** Length, label and the text behind its opening quote. */
void print_counted(Packet &packet, const char *label, int length, const char *opening) {
    packet.line.print("%s%d %s", label, length, opening);
    print_text(packet, length, shown);
}

void counted_topic(Packet &packet, const char *label) { print_counted(packet, label, packet.bytes.u8(), "TPC: \""); }
void closed_topic(Packet &packet, const char *label) {
    counted_topic(packet, label);
    packet.line.text("\" ");
}

void description(Packet &packet, const char *label) {
    const int length = is_extended(packet) ? packet.bytes.u8() : packet.bytes.left();
    print_counted(packet, label, length, "DES: \"");
    packet.line.put('"');
}

void topic_by_form(Packet &packet, const char *) {
    if (is_extended(packet)) {
        counted_topic(packet, " TL: ");
    } else {
        packet.line.text(" TPC: \"");
        print_text(packet, packet.bytes.left(), shown);
    }
    packet.line.put('"');
}

void text_as_written(Packet &packet, const char *label) {
    packet.line.print("%s\"", label);
    print_text(packet, packet.bytes.u8(), shown_as_written);
    packet.line.text("\" ");
}

void echo_text(Packet &packet, const char *label) {
    print_counted(packet, label, packet.bytes.left(), "\"");
    packet.line.put('"');
}

/* ---- Leading words ---------------------------------------------------------------------------------------------- */

void client(Packet &packet, const char *label) {
    packet.cid = packet.bytes.u32be();
    print_hex(packet, label, packet.cid);
}

/** Session word, if the first word is one, and client word. */
void client_block(Packet &packet, const char *) {
    ByteReader ahead = packet.bytes;
    if ((ahead.u32be() & SESSION_BIT) != 0) hex(packet, "SID: ");
    client(packet, "CID: ");
}

void number_if_extended(Packet &packet, const char *) {
    if (is_extended(packet)) raw_hex16(packet, "PKT: ");
}

/** The end of a session tells no more than it holds. */
void whole_words_of_session_end(Packet &packet, const char *) {
    ByteReader ahead = packet.bytes;
    const bool has_session = (ahead.u32be() & SESSION_BIT) != 0;
    if (has_session && packet.bytes.left() >= WORD) hex(packet, "SID: ");
    if (packet.bytes.left() >= WORD) client(packet, "CID: ");
    if (packet.bytes.left() >= 2) raw_hex16(packet, "PKT: ");
}

void identity_answer(Packet &packet, const char *) {
    ByteReader ahead = packet.bytes;
    const bool is_long_form = (ahead.u32be() & SESSION_BIT) != 0;
    hex(packet, "SID: ");
    if (!is_long_form) return decimal(packet, "VER: ");
    raw_hex16(packet, "PKT: ");
    hex(packet, "CID: ");
    hex(packet, "SCN: ");
}

/* ---- Attributes -------------------------------------------------------------------------------------------------- */

struct AttributeRow {
    int index;  // in the table of names
    TraceField fields[TRACE_FIELDS];
};

template <int Count>
void print_value(Packet &packet, const AttributeRow (&rows)[Count]) {
    const auto *row = std::find_if(
        rows, rows + Count, [&](const AttributeRow &each) { return attribute_code(each.index) == packet.attribute; });
    if (row != rows + Count) trace_fields(packet, row->fields);
}

void attribute_name(Packet &packet, const char *) {
    packet.attribute = packet.bytes.u8();
    packet.line.print("%s ", ivs_packet_names[IVS_TYPE_ATTRIBUTES + packet.attribute]);
}

void attribute_number(Packet &packet, const char *label) {
    packet.attribute = packet.bytes.u8();
    packet.line.print("%s%d ", label, packet.attribute);
}

void wanted_value(Packet &packet, const char *) {
    constexpr AttributeRow rows[] = {{IVS_TYPE_TMEL, {{hex, "GID "}}}};
    print_value(packet, rows);
}

void set_value(Packet &packet, const char *) {
    if (packet.cid == 0) return;
    attribute_name(packet, "");
    constexpr AttributeRow rows[] = {
        {IVS_TYPE_TADR, {{address}}},
        {IVS_TYPE_TURL, {{line_text}}},
        {IVS_TYPE_TNAM, {{line_text}}},
        {IVS_TYPE_TVER, {{decimal}}},
        {IVS_TYPE_TGRL, {{decimal, "NOF "}, {byte, "N "}}},
        {IVS_TYPE_TMEL, {{hex, "GID "}, {decimal, "NOF "}, {byte, "N "}}},
        {IVS_TYPE_TGAT, {{hex, "GID "}, {hex, "ATTR "}}},
        {IVS_TYPE_TGRP, {{hex, "GID "}, {decimal, "AccessType "}, {raw_decimal, "KEY "}}},
        {IVS_TYPE_TINF, {{line_text}}},
        {IVS_TYPE_TCLL, {{decimal, "NOF "}, {byte, "N "}}},
        {IVS_TYPE_TSCL, {{decimal, "NOF "}, {byte, "N "}}},
        {IVS_TYPE_TNAL, {{decimal, "NOF "}, {byte, "N "}}},
        {IVS_TYPE_TSNL, {{decimal, "NOF "}, {byte, "N "}}},
        {IVS_TYPE_CBAD, {{address}}},
        {IVS_TYPE_CHID, {{address}}},
    };
    print_value(packet, rows);
}

/** In place of the packet's second word the client word stands once more: meant, as readers know it so. */
void client_again(Packet &packet, const char *label) { print_hex(packet, label, packet.cid); }
void client_again_decimal(Packet &packet, const char *label) {
    packet.line.print("%s%lu ", label, static_cast<unsigned long>(packet.cid));
}

void answered_value(Packet &packet, const char *) {
    constexpr AttributeRow rows[] = {
        {IVS_TYPE_TGAT, {{hex, "GID "}, {client_again, "ATTR "}}},
        {IVS_TYPE_TGRP, {{hex, "GID "}, {client_again_decimal, "AccessType "}}},
    };
    print_value(packet, rows);
}

void session_wanted_value(Packet &packet, const char *) {
    constexpr AttributeRow rows[] = {
        {IVS_TYPE_TCLL, {{hex, "SCN "}}},
        {IVS_TYPE_TNAL, {{hex, "SCN "}}},
        {IVS_TYPE_TCLA, {{hex, "SCN: "}, {hex, "CID: "}, {bytes_to_end, "TYPE: "}}},
        {IVS_TYPE_TSCA, {{hex, "SCN: "}, {bytes_to_end, "TYPE: "}}},
    };
    print_value(packet, rows);
}

void client_attribute_value(Packet &packet, const char *) {
    constexpr AttributeRow rows[] = {
        {IVS_TYPE_TADR, {{address}}},
        {IVS_TYPE_TVER, {{decimal}}},
        {IVS_TYPE_TATT, {{byte}, {hex}}},
    };
    print_value(packet, rows);
}

void session_set_value(Packet &packet, const char *) {
    constexpr AttributeRow rows[] = {
        {IVS_TYPE_TCLL, {{hex, "SCN "}, {decimal, "NOF "}, {byte, "N "}}},
        {IVS_TYPE_TNAL, {{hex, "SCN "}, {decimal, "NOF "}, {byte, "N "}}},
        {IVS_TYPE_TSCL, {{decimal, "NOF "}, {byte, "N "}}},
        {IVS_TYPE_TSNL, {{decimal, "NOF "}, {byte, "N "}}},
        {IVS_TYPE_TCLA, {{hex, "SCN: "}, {hex, "CID: "}, {attribute_name}, {client_attribute_value}}},
        {IVS_TYPE_TSCA, {{hex, "SCN: "}, {attribute_name}}},
    };
    print_value(packet, rows);
}

void session_answered_value(Packet &packet, const char *) {
    constexpr AttributeRow rows[] = {{IVS_TYPE_TCLA, {{hex, "SCN: "}, {hex, "CID: "}, {bytes_to_end, "TYPE: "}}}};
    print_value(packet, rows);
}

/* ---- Position ---------------------------------------------------------------------------------------------------- */

/** Reads an integer of variable length. False, and nothing is left, if the packet ends within it. */
bool read_integer(ByteReader &reader, int32_t *value) {
    unsigned char coded[IVS_LONGEST_INTEGER] = {};
    ByteReader ahead = reader;
    for (unsigned char &each : coded) each = ahead.u8();

    const int length = ivs_get_int(coded, value);
    const bool is_whole = length <= reader.left();
    reader.skip(length);
    return is_whole;
}

void position(Packet &packet) {
    const char *label = "P: ";
    for (int axis = 0; axis < 3 && packet.bytes.left() > IVS_LONGEST_INTEGER; ++axis, label = "") {
        int32_t value = 0;
        if (!read_integer(packet.bytes, &value)) return;
        packet.line.print("%s%d ", label, value);
    }
}

void orientation(Packet &packet) {
    const char *label = "O: ";
    for (int part = 0; part < 4 && packet.bytes.left() > 0; ++part, label = "") byte(packet, label);
}

/** The state of a client in the newer coding, as far as the packet goes. */
void client_state(Packet &packet, const char *) {
    position(packet);
    orientation(packet);
    if (packet.bytes.left() > 2) {
        int32_t height = 0;
        if (!read_integer(packet.bytes, &height)) return;
        packet.line.print("H %d ", height);
    }
    if (packet.bytes.left() > 0) byte(packet, "D ");
    if (packet.bytes.left() > 0) byte(packet, "N ");
    while (packet.bytes.left() > 0) packet.line.print("%02x", packet.bytes.u8());
}

/* ---- The rest ------------------------------------------------------------------------------------------------------ */

void refusal_reason(Packet &packet, const char *) {
    const int reason = packet.bytes.u8();
    const char *name = refusal_name(reason);
    if (name != nullptr) return packet.line.text(name);
    packet.line.print("%04d ", reason);
}

void flags(Packet &packet, const char *) { packet.line.print("F: %u ", unsigned{packet.bytes.u8()}); }

/** A redirection of no more than 8 bytes has no client. */
void client_of_long_form(Packet &packet, const char *) {
    constexpr int SHORT_FORM = 7;  // without the type
    if (packet.bytes.left() <= SHORT_FORM) return;
    client_block(packet, "");
    raw_hex16(packet, "PKT: ");
}

void members(Packet &packet, const char *) {
    const int joined = packet.bytes.u8();
    packet.line.print("NEW %d ", joined);
    for (int member = 0; member < joined; ++member) {
        hex(packet, "ID: ");
        decimal(packet, "AccessType ");
    }
    const int left = packet.bytes.u8();
    packet.line.print("LEFT %d ", left);
    for (int member = 0; member < left; ++member) hex(packet, "ID: ");
}

void address_of_client(Packet &packet, const char *) {
    if (packet.cid != 0) address(packet, "");
}

void failure_code(Packet &packet, const char *) { packet.line.print("%d", packet.bytes.u8()); }

void audio_pair(Packet &packet, const char *) {
    packet.bytes.skip(2);
    const int first = packet.bytes.u8();
    packet.bytes.skip(2);
    packet.line.print("%x-%x ", first, packet.bytes.u8());
}

void directory_kind(Packet &packet, const char *) {
    const int kind = packet.bytes.u8();
    if (kind == 1) packet.line.text("USER");
    if (kind == 2) packet.line.text("HOME");
}

/* ---- The table ------------------------------------------------------------------------------------------------------ */

constexpr TraceField SID = {hex, "SID: "};
constexpr TraceField CID = {client, "CID: "};
constexpr TraceField PKT = {raw_hex16, "PKT: "};
constexpr TraceField GID = {hex, "GID: "};
constexpr TraceField PID = {hex, "PID: "};
constexpr TraceField RID = {hex, "RID: "};
constexpr TraceField VER = {decimal, "VER: "};
constexpr TraceField NOF = {decimal, "NOF: "};
constexpr TraceField TYPE = {byte, "TYPE: "};

constexpr bool ADDS_LINE_END = true;

/** Type, fields, and for an envelope where the packet in it begins. */
constexpr TraceRow rows[] = {
    {IVS_TYPE_GETI, {SID, PKT, {byte, "ATTR "}, {hex}}},
    {IVS_TYPE_SETI, {{identity_answer}}},
    {IVS_TYPE_GETX, {CID, {attribute_name}, {wanted_value}}},
    {IVS_TYPE_SETX, {CID, {set_value}}},
    {IVS_TYPE_ACKX, {CID, {attribute_name}, {answered_value}}},
    {IVS_TYPE_CUPD, {{client_block}, {client_state}}},
    {IVS_TYPE_NUPD, {{client_block}}},
    {IVS_TYPE_COFA, {{refusal_reason}}, 2},
    {IVS_TYPE_REDI, {{client_of_long_form}, {byte, "Code "}, {address}}},
    {IVS_TYPE_TEXT, {CID, {line_text}}},
    {IVS_TYPE_NOTI, {{client_block}}},
    {IVS_TYPE_SRDP, {{hex16, "SRD: "}, {flags}}, IVS_SRDP_HEAD, ADDS_LINE_END},
    {IVS_TYPE_SACK, {{raw_hex16, "SRD: "}}},
    {IVS_TYPE_SOFF, {{whole_words_of_session_end}}},
    {IVS_TYPE_GGRP,
     {{client_block}, {number_if_extended}, {hex, "AT: "}, {counted_topic, "TL: "}, {description, " DL: "}}},
    {IVS_TYPE_SGRP,
     {{client_block}, {number_if_extended}, GID, {raw_decimal, "KEY: "}, {decimal, "AT: "}, {topic_by_form}}},
    {IVS_TYPE_GTXT, {{client_block}, GID, {line_text}}},
    {IVS_TYPE_LOGI, {VER, PKT, {text_as_written, "USERID "}, {byte, "ENC "}, {text_as_written, "PASSWD "}}},
    {IVS_TYPE_LOGA, {SID, PKT, VER}},
    {IVS_TYPE_KEEP, {SID}},
    {IVS_TYPE_GETA, {SID, PKT, {attribute_name}, {session_wanted_value}}},
    {IVS_TYPE_SETA, {SID, PKT, {attribute_name}, {session_set_value}}},
    {IVS_TYPE_ACKA, {SID, PKT, {attribute_number, "TYPE: "}, {session_answered_value}}},
    {IVS_TYPE_MGET, {{client_block}, PKT, TYPE}},
    {IVS_TYPE_MSET, {{client_block}, PKT, TYPE}},
    {IVS_TYPE_MACK, {{client_block}, PKT, TYPE}},
    {IVS_TYPE_TGET, {{client_block}, PKT, TYPE}},
    {IVS_TYPE_TSET, {{client_block}, PKT, TYPE}},
    {IVS_TYPE_TACK, {{client_block}, PKT, TYPE}},

    {IVS_TYPE_GTOP, {{client_block}, PID, {address}, {closed_topic, "TL: "}, {line_text}}},
    {IVS_TYPE_USER, {{client_block}, {hex, "SCN: "}, {decimal, "TOT: "}, {decimal, "SCN: "}, NOF, {byte, "NEW "}}},
    {IVS_TYPE_GHIS, {{client_block}, GID, {line_text}}},
    {IVS_TYPE_JOIN, {{client_block}, GID, NOF, {members}}},
    {IVS_TYPE_GWIS, {{client_block}, PID, GID, {line_text}}},
    {IVS_TYPE_FORW, {CID, RID}, 9},
    {IVS_TYPE_GNEW, {{client_block}, NOF, GID}},
    {IVS_TYPE_GDEL, {{client_block}, NOF, GID}},
    {IVS_TYPE_RAUP, {{byte, "RACODE "}, {byte, "VERSION "}, RID}},
    {IVS_TYPE_RAUA, {}},
    {IVS_TYPE_RAHC, {}},
    {IVS_TYPE_FTFE,
     {{raw_hex, "TID: "}, {raw_hex, "CID: "}, {raw_hex, "FID: "}, {decimal, "OFF: "}, {decimal, "LEN: "}}},
    {IVS_TYPE_FTRE,
     {{raw_hex, "TID: "}, {raw_hex, "CID: "}, {raw_hex, "FID: "}, {decimal, "OFF: "}, {decimal, "LEN: "}}},

    {IVS_TYPE_CLAL, {{raw_words_to_end}}},
    {IVS_TYPE_CVER, {CID, {address_of_client}}},
    {IVS_TYPE_AINT, {PKT}},
    {IVS_TYPE_AREQ, {PKT}},
    {IVS_TYPE_ACMD, {PKT}},
    {IVS_TYPE_AACS, {PKT}},
    {IVS_TYPE_ALOG, {PKT}},
    {IVS_TYPE_AQER, {PKT}},
    {IVS_TYPE_AACK, {PKT}},
    {IVS_TYPE_AHND, {PKT}},
    {IVS_TYPE_AFAI, {PKT, {failure_code}}},
    {IVS_TYPE_ACON, {PKT}},
    {IVS_TYPE_AUDA, {{audio_pair}}},
    {IVS_TYPE_AUAN, {{audio_pair}}},
    {IVS_TYPE_CGIR, {{directory_kind}}},
    {IVS_TYPE_CGIA, {}},
    {IVS_TYPE_PING, {{echo_text, "L: "}}},
    {IVS_TYPE_PONG, {{echo_text, "L: "}}},
    {IVS_TYPE_IGNO, {{echo_text, "L: "}}},
    {IVS_TYPE_ELGI, {VER, PKT, {text_as_written, "USERID "}, {byte, "ENC "}, {text_as_written, "PASSWD "}}},
    {IVS_TYPE_ACCK, {}, IVS_KEY_PREFIX, ADDS_LINE_END},
};

}  // namespace

const TraceRow *find_trace_row(int type) {
    const auto *row =
        std::find_if(std::begin(rows), std::end(rows), [&](const TraceRow &each) { return each.type == type; });
    return row != std::end(rows) ? row : nullptr;
}

void trace_fields(TracedPacket &packet, const TraceField (&fields)[TRACE_FIELDS]) {
    for (const TraceField &field : fields) {
        if (field.print == nullptr) return;
        field.print(packet, field.label);
    }
}

}  // namespace ivs
