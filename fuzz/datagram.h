/* The ways in which a packet comes to a server of this host, for the targets that let it open envelopes. */
#ifndef FUZZ_DATAGRAM_H
#define FUZZ_DATAGRAM_H

#include "fuzz/keyfile.h"
#include "packet/accessi.h"
#include "packet/typecodes.h"

enum Way { IN_CLEAR, SHOWN_KEY, ENVELOPE };

/** The datagram that brings the packet: as it is, behind this host's key, or in an envelope. */
inline Bytes datagram_of(int way, const Bytes &packet) {
    const uint8_t *key = packet_own_key();
    Bytes datagram;
    if (way == SHOWN_KEY) {
        datagram.assign(1, IVS_TYPE_ACCK);
        datagram.insert(datagram.end(), key, key + IVS_KEY_SIZE);
    }
    datagram.insert(datagram.end(), packet.begin(), packet.end());
    if (way != ENVELOPE || packet.empty()) return datagram;

    Bytes envelope(packet.size() + PACKET_ENVELOPE_ROOM);
    const int size = packet_encrypt(key, packet.data(), static_cast<int>(packet.size()), envelope.data());
    envelope.resize(static_cast<size_t>(size));
    return envelope;
}

#endif
