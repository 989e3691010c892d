/* Addresses of sockets, and the datagrams that wait at one. Ports are in host order. */
#ifndef TESTS_SUPPORT_ADDRESSES_H
#define TESTS_SUPPORT_ADDRESSES_H

#include <arpa/inet.h>
#include <sys/socket.h>
#include <string>

inline sockaddr_in address_of(const char *ip, uint16_t port) {
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(port);
    inet_pton(AF_INET, ip, &address.sin_addr);
    return address;
}

/** What a socket is bound to. */
inline sockaddr_in name_of(int socket) {
    sockaddr_in address{};
    socklen_t size = sizeof address;
    getsockname(socket, reinterpret_cast<sockaddr *>(&address), &size);
    return address;
}
inline uint16_t port_of(int socket) { return ntohs(name_of(socket).sin_port); }

inline void send_to(int socket, const std::string &datagram, const sockaddr_in &to) {
    sendto(socket, datagram.data(), datagram.size(), 0, reinterpret_cast<const sockaddr *>(&to), sizeof to);
}

/** Hands over what has arrived: take(datagram, from). */
template <class Take>
void drain(int socket, Take take) {
    char bytes[2000];
    sockaddr_in from{};
    socklen_t size = sizeof from;
    for (ssize_t length; (length = recvfrom(socket, bytes, sizeof bytes, MSG_DONTWAIT,
                                            reinterpret_cast<sockaddr *>(&from), &size)) >= 0;) {
        take(std::string(bytes, static_cast<size_t>(length)), from);
    }
}

#endif
