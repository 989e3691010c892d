/* Sockets of a client: bound to no port of its own choice. */
#include "packet/packet.h"

int packet_clt_socket(void) { return packet_srv_bound_socket(0, 0); }

int packet_clt_socket_ip(uint32_t ip) { return packet_srv_bound_socket(ip, 0); }
