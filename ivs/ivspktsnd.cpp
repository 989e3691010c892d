/* Senders of one packet each: fields in the order of the packet's layout, then out. What cuts a list into packets
 * stands in ivspktlist.cpp.
 *
 * A key that the caller left pending serves the packet that is sent next: shown in front of it, or to encipher it. */
#include <string.h>

#include "ivs/ivssendi.h"

using ivs::OutgoingPacket;

namespace {

constexpr int text_length(const char *text) { return text != nullptr ? static_cast<int>(strlen(text)) : 0; }

/** A text that is cut at the packet's end, behind the low byte of the length that is left of it. With more than 255
 *  bytes the two differ, and readers lose their way: known, and part of the format. */
void write_fitting(OutgoingPacket &packet, const char *text) {
    const int length = std::min(text_length(text), std::max(packet.room() - 1, 0));
    packet.u8(length).to_end(text, length);
}

}  // namespace

/* ---- Identity ---------------------------------------------------------------------------------------------------- */

int ivs_snd_geti(int socket, uint32_t number, uint32_t sid, uint16_t pkt, int attribute, uint32_t word, int length1,
                 const char *text1, int length2, const char *text2, int length3, const char *text3, int length4,
                 const char *text4, const void *address, int addressSize) {
    if (sid == 0) {
        OutgoingPacket packet(IVS_TYPE_GETI);
        packet.u32be(number).to_end(text1, length1);
        return packet.send(socket, address, addressSize);
    }
    OutgoingPacket packet(IVS_TYPE_GETI, OutgoingPacket::BARE, OutgoingPacket::LARGEST);
    packet.raw32(sid).raw16(pkt).u8(attribute).u32be(word);
    packet.counted(length1, text1).counted(length2, text2).counted(length3, text3).counted(length4, text4);
    return packet.send(socket, address, addressSize);
}

int ivs_snd_geti2(int socket, uint32_t sid, uint16_t pkt, int attribute, uint32_t word, int length1,
                  const char *text1, int length2, const char *text2, int length3, const char *text3, int length4,
                  const char *text4, uint32_t number, uint32_t rawWord, uint16_t rawHalf, int length5,
                  const char *text5, int byte, int length6, const char *text6, const void *address, int addressSize) {
    OutgoingPacket packet(IVS_TYPE_GETI, OutgoingPacket::BARE, OutgoingPacket::LARGEST);
    packet.session_if_any(sid).raw16(pkt).u8(attribute).u32be(word);
    packet.counted(length1, text1).counted(length2, text2).counted(length3, text3).counted(length4, text4);
    packet.u32be(number).raw32(rawWord).raw16(rawHalf).counted(length5, text5).u8(byte).counted(length6, text6);
    return packet.send(socket, address, addressSize);
}

int ivs_snd_seti(int socket, uint32_t sid, uint16_t pkt, uint32_t cid, uint32_t scn, uint32_t version,
                 const void *payload, int length, const void *address, int addressSize) {
    OutgoingPacket packet(IVS_TYPE_SETI);
    if (sid != 0) {
        packet.raw32(sid).raw16(pkt).raw32(cid).raw32(scn);
    } else {
        packet.raw32(cid).u32be(version).to_end(payload, length);
    }
    return packet.send(socket, address, addressSize);
}

/* ---- Attributes of a client -------------------------------------------------------------------------------------- */

int ivs_snd_getx(int socket, uint32_t cid, int attribute, const void *payload, int length, const void *address,
                 int addressSize) {
    OutgoingPacket packet(IVS_TYPE_GETX);
    packet.raw32(cid).u8(attribute).to_end(payload, length);
    return packet.send(socket, address, addressSize);
}

int ivs_snd_setx(int socket, uint32_t cid, int attribute, const void *payload, int length, const void *address,
                 int addressSize) {
    OutgoingPacket packet(IVS_TYPE_SETX, OutgoingPacket::BEHIND_PENDING_KEY);
    packet.raw32(cid).u8(attribute).to_end(payload, length);
    return packet.send(socket, address, addressSize);
}

int ivs_snd_ackx(int socket, uint32_t cid, int attribute, int length, const void *payload, const void *address,
                 int addressSize) {
    constexpr int LONGEST = 541;  // one byte less than there would be room for
    OutgoingPacket packet(IVS_TYPE_ACKX);
    packet.raw32(cid).u8(attribute).to_end(payload, std::min(length, LONGEST));
    return packet.send(socket, address, addressSize);
}

/* ---- Position ---------------------------------------------------------------------------------------------------- */

int ivs_snd_cupd_old(int socket, uint32_t sid, uint32_t cid, const int32_t position[3], const int32_t orientation[4],
                     int32_t height, int d, int n, const void *address, int addressSize) {
    OutgoingPacket packet(IVS_TYPE_CUPD);
    packet.client_block(sid, cid);
    for (int axis = 0; axis < 3; ++axis) packet.u32be(static_cast<uint32_t>(position[axis]));
    packet.orientation(orientation).u32be(static_cast<uint32_t>(height)).u8(d).u8(n);
    return packet.send(socket, address, addressSize);
}

int ivs_snd_cupd(int socket, int version, uint32_t sid, uint32_t cid, const int32_t position[3],
                 const int32_t orientation[4], int32_t height, int d, int n, uint32_t sb, const void *address,
                 int addressSize) {
    OutgoingPacket packet(IVS_TYPE_CUPD);
    packet.client_block(sid, cid).vs(position[0]).vs(position[1]).vs(position[2]);
    packet.orientation(orientation).vs(height).u8(d).u8(n);
    if (version >= ivs::FIRST_VERSION_WITH_SB) packet.vu(sb);
    return packet.send(socket, address, addressSize);
}

/* ---- Refusal, redirection, text, end ------------------------------------------------------------------------------- */

int ivs_snd_cofa(int socket, int reason, const void *packet, int length, const void *address, int addressSize) {
    OutgoingPacket refusal(IVS_TYPE_COFA, OutgoingPacket::BEHIND_PENDING_KEY, IVS_KEY_PREFIX + 2 + IVS_MAX_PACKET);
    refusal.u8(reason).to_end(packet, std::min<int>(length, IVS_MAX_PACKET));
    return refusal.send(socket, address, addressSize);
}

int ivs_snd_redi(int socket, int reliable, uint32_t sid, uint32_t cid, uint16_t pkt, int code, uint32_t ip,
                 uint16_t port, const void *address, int addressSize) {
    OutgoingPacket packet(IVS_TYPE_REDI);
    packet.session_if_any(sid);
    if (cid != 0) packet.raw32(cid).raw16(pkt);
    packet.u8(code).addr(ip, port);
    return packet.send(socket, reliable != 0, sid, cid, address, addressSize);
}

int ivs_snd_text(int socket, uint32_t cid, const char *text, int length, const void *address, int addressSize) {
    OutgoingPacket packet(IVS_TYPE_TEXT);
    packet.raw32(cid).to_end(text, length);
    return packet.send(socket, address, addressSize);
}

int ivs_snd_noti(int socket, uint32_t sid, uint32_t cid, const void *address, int addressSize) {
    OutgoingPacket packet(IVS_TYPE_NOTI);
    packet.client_block(sid, cid);
    return packet.send(socket, address, addressSize);
}

int ivs_snd_soff(int socket, uint32_t sid, uint32_t cid, uint16_t pkt, const void *address, int addressSize) {
    OutgoingPacket packet(IVS_TYPE_SOFF);
    packet.client_block(sid, cid).raw16(pkt);
    return packet.send(socket, address, addressSize);
}

/* ---- Groups ---------------------------------------------------------------------------------------------------------- */

int ivs_snd_ggrp(int socket, uint32_t sid, uint32_t cid, uint16_t pkt, uint32_t at, const char *topic,
                 const char *description, const void *address, int addressSize) {
    OutgoingPacket packet(IVS_TYPE_GGRP);
    packet.client_block(sid, cid).number_if_extended(cid, pkt).u32be(at);
    write_fitting(packet, topic);
    if (ivs::is_extended_client(cid)) {
        write_fitting(packet, description);
    } else {
        packet.to_end(description, text_length(description));
    }
    return packet.send(socket, address, addressSize);
}

int ivs_snd_sgrp(int socket, int reliable, uint32_t sid, uint32_t cid, uint16_t pkt, uint32_t gid, uint32_t key,
                 uint32_t at, int length, const char *topic, const void *address, int addressSize) {
    OutgoingPacket packet(IVS_TYPE_SGRP);
    packet.client_block(sid, cid).number_if_extended(cid, pkt).raw32(gid).raw32(key).u32be(at);
    if (ivs::is_extended_client(cid)) {
        packet.counted(length, topic);
    } else {
        packet.to_end(topic, length);
    }
    return packet.send(socket, reliable != 0, sid, cid, address, addressSize);
}

/* ---- Sessions -------------------------------------------------------------------------------------------------------- */

int ivs_snd_logi(int socket, uint32_t version, uint16_t pkt, const char *user, const char *password,
                 const void *address, int addressSize) {
    constexpr int NOT_ENCODED = 0;
    OutgoingPacket packet(IVS_TYPE_LOGI);
    packet.u32be(version).raw16(pkt).counted(text_length(user), user).u8(NOT_ENCODED);
    packet.counted(text_length(password), password).u32be(version).u32be(version);
    return packet.send(socket, address, addressSize);
}

int ivs_snd_loga(int socket, uint32_t sid, uint16_t pkt, uint32_t version, const void *address, int addressSize) {
    OutgoingPacket packet(IVS_TYPE_LOGA);
    packet.raw32(sid).raw16(pkt).u32be(version);
    return packet.send(socket, address, addressSize);
}

int ivs_snd_keep(int socket, uint32_t sid, const void *address, int addressSize) {
    OutgoingPacket packet(IVS_TYPE_KEEP);
    packet.raw32(sid);
    return packet.send(socket, address, addressSize);
}

/* ---- The rest -------------------------------------------------------------------------------------------------------- */

int ivs_snd_typed(int socket, int type, uint32_t sid, uint32_t cid, uint16_t pkt, int attribute, const void *payload,
                  int length, const void *address, int addressSize) {
    OutgoingPacket packet(type, OutgoingPacket::BEHIND_PENDING_KEY);
    packet.client_block(sid, cid).raw16(pkt).u8(attribute).to_end(payload, length);
    return packet.send(socket, address, addressSize);
}

int ivs_snd_cver(int socket, uint32_t cid, uint32_t ip, uint16_t port, const void *address, int addressSize) {
    ivs::make_key_pending(address);
    OutgoingPacket packet(IVS_TYPE_CVER, OutgoingPacket::BEHIND_PENDING_KEY);
    packet.raw32(cid);
    if (cid != 0) packet.addr(ip, port);
    return packet.send(socket, address, addressSize);
}
