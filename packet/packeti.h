/* Calls among the files of packet/; from outside only packet.h is used. */
#ifndef PACKET_PACKETI_H
#define PACKET_PACKETI_H

#include <sys/select.h>

/** Whether select can wait for a descriptor: others would be written beyond its sets. */
inline bool packet_selectable(int socket) { return socket >= 0 && socket < FD_SETSIZE; }

/** Says that a new descriptor was closed because select can't hold it; at most one line a second. `label` is the
 *  operation's name. */
void packet_say_unselectable(const char *label, int socket);

#endif
