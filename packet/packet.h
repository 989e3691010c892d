/* Sockets, datagrams and streams: everything between the platform's messages and the network.
 *
 * All sockets are IPv4 and close-on-exec. A failure is one of the PACKETERR... codes, and is in the log by the time
 * the caller sees it. Nothing here closes a socket that it was handed (but packet_closeSocket, whose work it is),
 * repeats a failed call, or ends the process.
 *
 * Mind the byte orders, they are part of the interface: a port given as a plain number is in host order unless its
 * line says otherwise; an address is in network order unless its line says host order. For one thread. */
#ifndef PACKET_PACKET_H
#define PACKET_PACKET_H

#include <netinet/in.h>
#include <stdint.h>
#include <stdio.h>
#include <sys/time.h>

#ifdef __cplusplus
extern "C" {
#endif

/** The record in which every address travels: family, then port and address in network order; 16 bytes. */
typedef struct sockaddr_in PacketAddress;

/** Result codes of the whole library. */
enum {
    PACKETERRSOCKET = -1001,     /* no socket, or one with a number that select can't hold */
    PACKETERRBIND = -1002,       /* bind failed */
    PACKETERRHOST = -1003,       /* a host name could not be resolved */
    PACKETERRMEM = -1004,        /* out of memory */
    PACKETERRBADSOCKET = -1005,  /* the descriptor is negative, or select can't hold it */
    PACKETERRINTR = -1006,       /* interrupted, or something passing: the caller may try again */
    PACKETERRTIMEOUT = -1007,    /* the wait ended with nothing to read */
    PACKETERRSELECT = -1008,     /* select failed */
    PACKETERRRECV = -1009,       /* a receive call, or the query for a pending error after a wait, failed */
    PACKETERRLISTEN = -1010,     /* listen failed */
    PACKETERRACCEPT = -1011,     /* accept failed for good */
    PACKETERRWOULDBLOCK = -1012, /* a non-blocking call would block */
    PACKETERRCONNECT = -1013,    /* connect failed */
    PACKETERRSEND = -1014,       /* a send did not take the whole buffer */
    PACKETERRINVAL = -1015       /* a send failed with EINVAL; a mail without recipient or text */
};

enum {
    PACKET_MAX_DATAGRAM = 32768, /* what the run loops read into: the largest datagram of the system */
    PACKET_ZERO_TAIL = 64        /* zero bytes that whoever reads a datagram lays behind it, so that the missing
                                    fields of a short one read as zero and never as the datagram before */
};

/** The first address, network order, that a socket was asked to be bound to; 0 until then. Set even if that bind
 *  then failed, and kept for the life of the process. */
extern uint32_t packet_bound_ip;

/** Set anew for each datagram read: 1 if it is to be treated as sent under a valid access key. */
extern int keyAccepted;

/** Whether the datagram read last came in an envelope that was opened: then nothing of it may go back in clear. An
 *  envelope that could not be opened lies in the buffer as it came, still enciphered, and doesn't count. */
int packet_came_in_envelope(void);

/** The address, network order, under which this host's own access key is looked up; 0 until the first need of it,
 *  0xffffffff if it could not be worked out. The bound address, or else what "localhost" stands for. */
extern uint32_t packet_own_ip;

/* ---- Bind address -------------------------------------------------------------------------------------------- */

/** The configured bind address as text, a host name or dotted quad: process_context.bindIp as it stands, else the
 *  first line of "<rootDir>/etc/bindip" without leading white space and without anything behind its last letter,
 *  digit or point. The file is read on every call. Null when nothing is configured. The text of the file lies in a
 *  static buffer until the next call; not to be written to. */
char *packet_bindip(void);

/** The same as an address in network order; 0 when none is configured or it can't be worked out. */
uint32_t packet_bindaddr(void);

/* ---- Sockets ------------------------------------------------------------------------------------------------- */

/** Makes a UDP socket, close-on-exec, and binds it.
 *
 *  @param ip    address to bind to, network order; 0 for any
 *  @param port  host order; 0 for any free one
 *  @return the descriptor, the caller's to close; or, already in the log and with errno left as it was,
 *          PACKETERRSOCKET, no socket to be had, or none that select can hold; or
 *          PACKETERRBIND, the address is not ours or is taken
 */
int packet_srv_bound_socket(uint32_t ip, uint16_t port);

int packet_srv_socket(uint16_t port);  /* any address, this port */
int packet_clt_socket(void);           /* any address, any port: for a client */
int packet_clt_socket_ip(uint32_t ip); /* this address (network order), any port */

/** Reads and so clears the error that waits at a socket. Traced if there was one.
 *
 *  @param label  the calling operation's name, for the lines written
 *  @return -1 if an error was waiting; 0 if none was, or if it could not be asked for
 */
int packet_clearSocketError(int socket, const char *label);

/* ---- Names and addresses ------------------------------------------------------------------------------------- */

/** Makes an address record for a peer.
 *
 *  @param ip       IPv4 address, network byte order
 *  @param port     network byte order as well (the by-name sister takes host order)
 *  @param address  receives a new block; the caller owns it and releases it with free()
 *  @return 16, the record's size, which goes with it in every call; or
 *          PACKETERRMEM, memory is short: already in the log
 */
int packet_srvadr_byip(uint32_t ip, uint16_t port, PacketAddress **address);

/** The same for a host name or dotted quad, and a port in host order. May block in the name service. "localhost" is
 *  the configured bind address, or without one this machine's own address rather than the loopback one, so that it
 *  leads to where the servers of this host listen. The first address found becomes process_context.localIp.
 *
 *  @return 16, PACKETERRMEM, or PACKETERRHOST: the name is not known, already in the log, h_errno says more
 */
int packet_srvadr_byname(const char *host, uint16_t port, PacketAddress **address);

/** Resolves a host name or dotted quad; may block in the name service. "localhost" is the configured bind address if
 *  there is one.
 *
 *  @param ip  receives the address in HOST order
 *  @return 0, or PACKETERRHOST: not known, already in the log, h_errno says more
 */
int packet_gethostbyname(const char *name, uint32_t *ip);

/** Takes address and port, both in network order, out of a PacketAddress. Either target may be null. */
void packet_adr_get(const void *address, uint32_t *ip, uint16_t *port);

/** Dotted quad of an address in network order; in the platform's static buffer until the next such call. */
char *packet_ip2str(uint32_t ip);

/** Address in network order of a dotted quad; 0 if the text is none (255.255.255.255 counts as none). */
uint32_t packet_str2ip(const char *text);

/** "<name> ( <dotted quad> )" of a PacketAddress; static, until the next call. The look-up is handed the whole record
 *  rather than its address field, so in practice the dotted quad stands in both places. */
char *packet_adr2str(const void *address, int size);

/* ---- Datagrams ----------------------------------------------------------------------------------------------- */

/** Waits for one datagram and reads it. Sets keyAccepted. An envelope is opened, if this host has a key.
 *
 *  @param buffer       at least `size` bytes. Nothing is written behind what was received: the zero tail is the
 *                      caller's to lay
 *  @param address      receives the sender's PacketAddress
 *  @param addressSize  in: room at `address`; out: the record's size
 *  @param timeout      goes to select, which may update it; null waits without limit
 *  @return the byte count (0 is a datagram too), or
 *          PACKETERRTIMEOUT    nothing came; not in the log
 *          PACKETERRINTR       a signal came, or process_context.running is 0; not in the log. A program that
 *                              doesn't call process_init has to set process_context.running itself
 *          PACKETERRBADSOCKET  negative, or select can't hold it
 *          PACKETERRSELECT, PACKETERRRECV; errno is left as the failing call set it, and ECONNREFUSED is only
 *                              traced: a peer that is gone is routine
 */
int packet_read(int socket, void *buffer, int size, void *address, int *addressSize, struct timeval *timeout);

/** Reads one datagram from a socket that is known to be readable; no wait. Sets keyAccepted, opens
 *  an envelope.
 *
 *  @param ip, port  receive the sender's address and port, both in HOST order; either may be null
 *  @return the byte count, PACKETERRINTR (also if an error was waiting at the socket), PACKETERRBADSOCKET (negative)
 *          or PACKETERRRECV
 */
int packet_readUDP(int socket, void *buffer, int size, uint32_t *ip, uint16_t *port);

/** Sends one datagram.
 *
 *  @param address      PacketAddress of the peer
 *  @param addressSize  its size, 16
 *  @return 0, PACKETERRBADSOCKET (negative), PACKETERRINVAL (EINVAL) or PACKETERRSEND. All are in the log but
 *          ECONNREFUSED, which is only traced; errno is left as the send set it
 */
int packet_sendto(int socket, const void *buffer, int length, const void *address, int addressSize);

/** The same to an address and a port both in HOST order. */
int packet_sendto_ip(int socket, const void *buffer, int length, uint32_t ip, uint16_t port);

/* ---- TCP ------------------------------------------------------------------------------------------------------ */

/** Makes a listening TCP socket, close-on-exec. It blocks until packet_setNonBlocking says otherwise. packet_bound_ip
 *  is left alone.
 *
 *  @param ip     address to bind to, network order; 0 for any
 *  @param port   host order; 0 for any free one
 *  @param reuse  non-zero: a port that old connections still linger on may be taken
 *  @return the descriptor, the caller's to close; or, already in the log and with errno left as it was,
 *          PACKETERRSOCKET (none to be had, or none that select can hold), PACKETERRBIND, PACKETERRLISTEN
 */
int packet_srv_tcp_socket(uint32_t ip, uint16_t port, int reuse);

int packet_srv_listen_ip(uint32_t ip, uint16_t port); /* this address (network order), no reuse */
int packet_srv_listen(uint16_t port);                 /* any address, no reuse */

/** Accepts one connection. Its descriptor is close-on-exec, and blocks whatever the listening one does.
 *
 *  @param ip, port  receive the peer's address and port, both in HOST order; either may be null
 *  @param ipText    receives its dotted quad, in the static buffer of packet_ip2str; may be null
 *  @return the descriptor, the caller's to close; or
 *          PACKETERRINTR        a signal came, the peer gave up meanwhile, or there was no descriptor for it, or none
 *                               that select can hold: the connection was then taken and dropped. The last two are in
 *                               the log, at most once a second
 *          PACKETERRWOULDBLOCK  nobody waits; not in the log
 *          PACKETERRACCEPT      anything else, in the log
 */
int packet_srv_accept(int listenSocket, uint32_t *ip, uint16_t *port, char **ipText);

/** Makes a TCP socket, close-on-exec, and connects it; blocks meanwhile.
 *
 *  @param localPort  port to be bound to first, host order; 0 for any
 *  @return the descriptor, the caller's to close; or, already in the log and with errno left as it was,
 *          PACKETERRSOCKET (none to be had, or none that select can hold), PACKETERRBIND, PACKETERRCONNECT
 */
int packet_clt_connect(uint16_t localPort, const PacketAddress *address);

/** Closes a socket. What was sent before is still delivered.
 *
 *  @param clearLinger  non-zero: the close doesn't wait for that, whatever the socket was told to do. A close that
 *                      takes more than a tenth of a second is logged
 */
void packet_closeSocket(int socket, int clearLinger);

/** Makes a socket non-blocking (`on` non-zero) or blocking. Returns 0, or -1: already in the log. */
int packet_setNonBlocking(int socket, int on);

/** Reads what has come on a connection, at most `size` bytes. In the statistics, reads of less than 5 bytes are
 *  gathered to one packet a line, or to one for 513 bytes.
 *
 *  @return the byte count; 0 when the peer has closed or reset the connection; or
 *          PACKETERRINTR        a signal came, or an error was waiting at the socket (traced): may be tried again
 *          PACKETERRWOULDBLOCK  nothing is there
 *          PACKETERRBADSOCKET   negative; in the log
 *          PACKETERRRECV        anything else; in the log
 */
int packet_readTCP(int socket, void *buffer, int size);

/** Sends to a connection. If the peer is gone the system raises SIGPIPE, for which process_init installs a handler; a
 *  program without it ignores the signal itself.
 *
 *  @return the bytes taken, perhaps fewer than `length`: the rest is the caller's to send again; 0 for a length of 0
 *          or less; or
 *          PACKETERRWOULDBLOCK  no room now
 *          PACKETERRINTR        a signal came (errno EINTR), or the send failed (errno as it left it): EPIPE is only
 *                               traced, all else in the log
 *          PACKETERRBADSOCKET   negative; in the log
 */
int packet_sendTCP(int socket, const void *buffer, int length);

/* ---- Statistics: totals, the last minute by the second, and with process_context.packetDiag a table by packet type.
 * Everything is an unsigned 32-bit word that wraps. Bytes are lengths plus 28 for the headers in front of a datagram,
 * also where TCP is counted. Traffic with packet_bound_ip as its peer is local, all other, and all of TCP, remote. -- */

/** Counts one packet received from, or sent to, a peer.
 *
 *  @param peerIp  network order; 0 for TCP
 *  @param packet  null: of no type, as a stretch of a TCP stream
 */
void packet_stat_received(uint32_t peerIp, const void *packet, int length);
void packet_stat_sent(uint32_t peerIp, const void *packet, int length);

/** Index of a packet in the table by type: its type, inside of SRDP and ACCK wrappers; IVS_TYPE_ATTRIBUTES plus the
 *  code for a packet that reads or sets one attribute; IVS_TYPE_UNKNOWN for no packet or one that is cut short. */
int packet_stat_type(const unsigned char *packet, int length);

/** Sums of remote (or local) traffic over the last `seconds` complete seconds, held to 1..60. The targets, packets
 *  and bytes in, packets and bytes out, may be null. */
void packet_stat_window(int seconds, unsigned *packetsIn, unsigned *bytesIn, unsigned *packetsOut,
                        unsigned *bytesOut);
void packet_stat_window_local(int seconds, unsigned *packetsIn, unsigned *bytesIn, unsigned *packetsOut,
                              unsigned *bytesOut);

/** Takes the remote (or local) counters of a type, held to 0..512, out of the table: they are 0 afterwards. The
 *  targets may be null. */
void packet_stat_type_take(int type, unsigned *packetsIn, unsigned *bytesIn, unsigned *packetsOut,
                           unsigned *bytesOut);
void packet_stat_type_take_local(int type, unsigned *packetsIn, unsigned *bytesIn, unsigned *packetsOut,
                                 unsigned *bytesOut);

/** Writes the totals, and rates for the last second, 10 and 60 seconds. */
void packet_statistics(FILE *stream);

/** Sets everything counted to 0. */
void packet_stat_reset(void);

/* ---- Access keys ----------------------------------------------------------------------------------------------
 * Each host has one key of 16 bytes. "<rootDir>/etc/access.key" lists them, one host a line: its name or address,
 * perhaps the word "encrypt", and the key text (see packet_hex2bin). A server takes requests only from who knows its
 * key; the sender shows it in front of the packet, or, for a key with the word, enciphers the packet under it.
 *
 * The file is read once, at the first look-up: names are resolved then, which may block, and what is wrong in it is
 * logged. With process_context.noAccessKeyCheck set no key is ever found, and the file stays unread. */

/** Path of another key file than that, for a program without a root directory; not owned. Null: none. */
extern const char *packet_accesskey_file;

/** How a key is to be used. */
enum { PACKETKEYNONE = 0, PACKETKEYCLEAR = 1, PACKETKEYENCRYPT = 2 };

/** Room that an envelope needs beyond its packet. */
enum { PACKET_ENVELOPE_ROOM = 34 };

/** Finds the access key of a host.
 *
 *  @param ip     network order
 *  @param flags  receives PACKETKEY...; may be null
 *  @return the 16 bytes of the key, good for the life of the process and not to be written to; null if there is none
 */
unsigned char *packet_accesskey_by_ip(uint32_t ip, int *flags);

/** The same for a host name or dotted quad, resolved by packet_gethostbyname: null as well if that fails. */
unsigned char *packet_accesskey_by_name(const char *host, int *flags);

/** The same for the address in a PacketAddress. */
unsigned char *packet_accesskey_by_adr(const void *address, int *flags);

/** Decodes a key text into `count` bytes, two characters a byte, high half first. Not hexadecimal: digits are worth
 *  themselves, small letters their distance from "a", capitals their code minus 90, of which the low four bits count.
 *  A text that ends early is started again, at the price of one character's place; that place, and the place of any
 *  other character, leaves its half of the byte unset.
 *
 *  @return twice `count`
 */
int packet_hex2bin(const char *text, unsigned char *target, int count);

/** Puts a packet into an envelope, under a fresh session key.
 *
 *  @param key       16 bytes, the receiver's access key
 *  @param plain     `length` bytes
 *  @param envelope  room for `length` + PACKET_ENVELOPE_ROOM, apart from `plain`
 *  @return the size of the envelope, a multiple of 16 and 1; 0, with nothing written, for a length of 0 or less, or
 *          one whose envelope no int could measure
 */
int packet_encrypt(const unsigned char *key, const unsigned char *plain, int length, unsigned char *envelope);

/** Takes a packet out of its envelope. The first byte isn't looked at: that it is an envelope is the caller's finding.
 *  Nothing in it tells whether the key was the right one: noise comes out under any other. A packet loses the bytes
 *  of value 0xA5 that it begins with.
 *
 *  @param key          16 bytes
 *  @param target       room for `length` bytes; may be `envelope` itself. Left there: the byte 165, the session key,
 *                      the padding, the packet. Wiping the session key is the caller's part
 *  @param plainLength  receives the packet's length, perhaps 0; may be null
 *  @return where in `target` the packet begins; null, with nothing written, for a size that no envelope has
 */
unsigned char *packet_decrypt(const unsigned char *key, const unsigned char *envelope, int length,
                              unsigned char *target, int *plainLength);

/** Sends a packet in an envelope: arguments and results of packet_sendto, and PACKETERRMEM, without memory for the
 *  envelope (in the log) or for a length of 0 or less. */
int packet_send_encrypted(int socket, const unsigned char *key, const void *packet, int length, const void *address,
                          int addressSize);

/* ---- Mail ------------------------------------------------------------------------------------------------------ */

/** Sends one short text mail over SMTP, without a local mail program. Blocks: 60 seconds at the most for the
 *  dialogue, besides what name service and connect take.
 *
 *  Every text may be null or empty: then it comes from "<rootDir>/etc/mail.cfg" under the key given below, which is
 *  read at the first need and once, or with PROCESS_MODE_LOCAL_CONFIG in process_context.mode from
 *  config_variable_source under the name given; and what that lacks has a default. The file is looked at only if
 *  process_context.mode has PROCESS_MODE_DAEMON or PROCESS_MODE_FOREGROUND set, as process_init leaves it.
 *
 *  @param smtpHost     SMTP server: smtphost, g_MailServer, else "localhost", which is the configured bind address or
 *                      the machine's own one, see packet_srvadr_byname
 *  @param smtpPort     its TCP port; 0 or less: smtpport, g_MailServerPort, but only for a host that comes from there
 *                      too, else 25
 *  @param sendHost     name that the sender gives as its host: sendhost, g_MailSendHost, else (not where variables are
 *                      asked) the bind address's text, else the machine's name, else "localhost"
 *  @param fromAddress  sender: mailaddr, g_MailAddress, else "velmora"; one without an at sign gets the send host
 *  @param toAddresses  recipients, with commas or white space between them: adminmail, g_AdminMail. Of one of 256
 *                      characters or more the beginning is lost
 *  @param subject      empty: a fixed one
 *  @param text         lines may end in a line feed alone. A line that is a lone "." ends the mail, unless
 *                      process_context.hardened is set: then such lines arrive as they are, and line feeds in the
 *                      other texts become blanks
 *
 *  @return 0: the dialogue ran to its end, or the server closed the connection before. What the server answers is not
 *          looked at, so a mail that it refuses counts as sent. Or, with nothing tried again,
 *          -1                  the message was handed over, only the farewell failed
 *          PACKETERRINVAL      no recipients or no text; a line on standard error says so
 *          PACKETERRHOST       the server's name is not known; in the log
 *          PACKETERRMEM        memory is short; in the log
 *          PACKETERRSOCKET, PACKETERRCONNECT, PACKETERRSEND, PACKETERRSELECT, PACKETERRRECV; errno says why
 *          PACKETERRTIMEOUT    the time was over
 *          PACKETERRINTR       process_context.running fell to 0 during a wait; it has to be 1 for a wait to outlive
 *                              a signal
 */
int packet_sendmail(const char *smtpHost, int smtpPort, const char *sendHost, const char *fromAddress,
                    const char *toAddresses, const char *subject, const char *text);

/** Reads one line from a TCP socket, byte by byte: up to a line feed, size-1 bytes or the end of the stream. No NUL is
 *  put behind it.
 *
 *  @param timeout  goes to select, which updates it, so several reads can share it; null waits without limit
 *  @return the byte count, 0 at the end of the stream; or, not in the log, PACKETERRBADSOCKET (negative, or select
 *          can't hold it), PACKETERRTIMEOUT, PACKETERRSELECT, PACKETERRRECV, or PACKETERRINTR: a signal came, what was
 *          read until then is lost; or `size` is 0 or less
 */
int packet_readline(int socket, char *buffer, int size, struct timeval *timeout);

/* ---- Fields: big-endian at *cursor, which is moved behind them. The caller sees to the room. ------------------ */

void packet_put_u32(uint32_t value, unsigned char **cursor);
void packet_put_u16(uint16_t value, unsigned char **cursor);
void packet_get_u32(uint32_t *target, unsigned char **cursor);
void packet_get_u16(uint16_t *target, unsigned char **cursor);

#ifdef __cplusplus
}
#endif

#endif
