/* The client, the inner side: what raclient.cpp, raclientasync.cpp and rascript.cpp share. raextern.h has the rest.
 *
 * Both kinds of request take the same first steps, put the same datagram together and read the same answers. They differ
 * in where the datagram lies, who waits, and where a text of failure goes. */
#ifndef RASERVER_RACLIENTI_H
#define RASERVER_RACLIENTI_H

#include <stdint.h>
#include <optional>

#include "raserver/raserver.h"

namespace ra {

// ---- Objects and lists ---------------------------------------------------------------------------------------------

extern const char client_tag[];
extern const char request_tag[];

/** The object as what its tag says that it is, or null. */
RA_CLIENT_S *as_client(void *object);
RA_REQUEST_S *as_request(void *object);

/** Puts an object behind the last of its list, or takes it out of the list that it is in. */
template <class List, class Object>
void link_at_tail(List &list, Object *object) {
    object->previous = list.tail;
    object->next = nullptr;
    (list.tail != nullptr ? list.tail->next : list.head) = object;
    list.tail = object;
}
template <class List, class Object>
void unlink(List &list, Object *object) {
    (object->previous != nullptr ? object->previous->next : list.head) = object->next;
    (object->next != nullptr ? object->next->previous : list.tail) = object->previous;
}

template <class List, class Object>
bool holds(const List &list, const Object *wanted) {
    for (const Object *object = list.head; object != nullptr; object = object->next) {
        if (object == wanted) return true;
    }
    return false;
}

// ---- Failures: each writes its text and returns its code -------------------------------------------------------------

using ErrorText = char (&)[1024];  // of a client or of a request

namespace say {
int not_resolved(RA_CLIENT_S *client, int result);
int no_socket(RA_CLIENT_S *client);
int killed(RA_CLIENT_S *client);
int too_long(RA_CLIENT_S *client, int limit);
int too_many(RA_CLIENT_S *client, int count);
int no_answer(const RA_CLIENT_S *client, ErrorText error);
int no_memory(RA_CLIENT_S *client, int size);
int denied(ErrorText error);
}  // namespace say

// ---- Requests ----------------------------------------------------------------------------------------------------------

/** What comes before a request is put together: clears the last error, counts the strings, finds the server, opens the
 *  client's socket unless a socket was lent (0 or above), and sees to its first sequence number. Returns 0 or a code. */
int prepare(RA_CLIENT_S *client, int argc, int lent_socket);

/** A request's datagram, where it is put together. */
struct Draft {
    unsigned char *bytes;
    int size;  // room
    int function;
    uint32_t sequence;
};

/** Writes header and strings, up to the first null, under the key that the client's server is listed with: shown in
 *  front, and with the whole in an envelope if that fits; hardened, it has to. Returns the datagram's length, or
 *  RAERRTOOLONG: the text is then in the client, since a request's own would go with it. */
int build_request(RA_CLIENT_S *client, const Draft &draft, int argc, char **argv);

/** Calls an asynchronous request's callback, if it was not called yet: once and never again, also if the callback
 *  destroys the client with all that is pending. The request may be gone afterwards. */
void call_back(RA_REQUEST_S *request, int result);

/** Takes an asynchronous request out of its client's list and frees it. */
void delete_request(RA_REQUEST_S *request);

// ---- Answers -------------------------------------------------------------------------------------------------------------

struct Answer {
    int type;
    int function;
    uint32_t sequence;
    char *text;  // the strings
    int length;
};

/** Reads the header of an answer; nothing if the packet is shorter than one. */
std::optional<Answer> read_answer(unsigned char *packet, int length);

/** Whether the datagram that was read last may be an answer: hardened, what was asked under a key is answered under one. */
bool counts_as_answer(const RA_CLIENT_S *client);

/** The result of a client's running blocking request, if this is its answer, or NO_RESULT_YET. The byte behind the packet
 *  must be writable. */
constexpr int NO_RESULT_YET = RAERRKILLED;  // what is left if the process has to stop before anything else happens
int take_answer(RA_CLIENT_S *client, unsigned char *packet, int length, const PacketAddress &peer);

}  // namespace ra

#endif
