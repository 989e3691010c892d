/* Access keys, the inner side: what the files of packet/ ask of each other. Everybody else needs packet.h
 * only. */
#ifndef PACKET_ACCESSI_H
#define PACKET_ACCESSI_H

#include <stdint.h>

/** Takes a datagram that was just read through the access step: an envelope is opened in place if this host has a
 *  key, and keyAccepted and packet_came_in_envelope are set anew.
 *
 *  @param buffer  `length` bytes
 *  @param label   the reading operation's name, for the line written without memory
 *  @return the length of the datagram as it now stands in `buffer`: never longer
 */
int packet_access_step(void *buffer, int length, const char *label);

/** The access key that this host itself is listed with, 16 bytes, or null. The first call works out packet_own_ip. */
const uint8_t *packet_own_key();

/** The first value of the key table, if a table was loaded, and its length; else null. */
const uint8_t *packet_first_key_value(int *length);

/** Compares two keys in a time that doesn't tell where they differ. */
bool packet_same_key(const uint8_t *one, const uint8_t *other);

#endif
