/* Calls among the files of packet/; from outside only packet.h is used. */
#ifndef PACKET_PACKETI_H
#define PACKET_PACKETI_H

#include <errno.h>
#include <sys/select.h>
#include <time.h>

#include "process/owned.h"

/** Whether select can wait for a descriptor: others would be written beyond its sets. */
inline bool packet_selectable(int socket) { return socket >= 0 && socket < FD_SETSIZE; }

/** Whether a call on a socket failed because the other end has gone: routine, and nothing that the log need know. */
inline bool packet_peer_is_gone(int error) { return error == EPIPE || error == ESHUTDOWN || error == ECONNRESET; }

/** Lets one line a second through, where strangers could fill the log. */
class OnceASecond {
public:
    bool passes() {
        const time_t now = time(nullptr);
        if (now == last_) return false;
        last_ = now;
        return true;
    }

private:
    time_t last_ = 0;
};

/** Closes a new descriptor that select can't hold, with errno EMFILE and at most one line a second. Returns whether it
 *  stays open. `label` is the operation's name. */
bool packet_keeps_selectable(const char *label, OwnedFd &socket);

#endif
