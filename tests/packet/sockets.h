/* What the tests of the socket layer share: a process context of their own, sockets on the loopback, captured lines. */
#ifndef TESTS_PACKET_SOCKETS_H
#define TESTS_PACKET_SOCKETS_H

#include <gtest/gtest.h>
#include <stdlib.h>
#include <sys/resource.h>
#include <sys/time.h>
#include <functional>
#include <memory>
#include <regex>
#include <string>

#include "packet/packet.h"
#include "process/owned.h"
#include "process/velproc.h"
#include "tests/support/addresses.h"
#include "tests/support/bytes.h"
#include "tests/support/captured.h"
#include "tests/support/child.h"
#include "tests/support/rootfolder.h"

inline const uint32_t LOOPBACK = htonl(INADDR_LOOPBACK);

/** A foreground process, so that its lines go to standard output: "test: <line>". */
class SocketTest : public testing::Test {
protected:
    SocketTest() : before_(process_context) {
        process_context.name = name_;
        process_context.rootDir = root.path().c_str();
        process_context.running = 1;
        process_context.bindIp = nullptr;
        process_context.localIp = 0;
        packet_bound_ip = 0;
    }
    ~SocketTest() override { process_context = before_; }

    RootFolder root;

    /** The first numbers behind these labels in the report of the statistics. */
    static std::string reported(std::initializer_list<std::string> labels) {
        const std::string report = printed(packet_statistics);
        std::string numbers;
        for (const std::string &label : labels) {
            std::smatch found;
            std::regex_search(report, found, std::regex("\n " + label + " +(\\d+)\n"));
            numbers += found[1].str() + " ";
        }
        return numbers;
    }
    /** The datagram that waits at the socket, in hex. */
    static std::string received(const OwnedFd &socket) {
        uint8_t bytes[2000];
        const ssize_t length = recv(socket.get(), bytes, sizeof bytes, MSG_DONTWAIT);
        return length < 0 ? "nothing" : hex_of(bytes, static_cast<size_t>(length));
    }
    static std::vector<std::string> all_received(const OwnedFd &socket) {
        std::vector<std::string> all;
        for (std::string next; (next = received(socket)) != "nothing";) all.push_back(next);
        return all;
    }

    /** A socket with an error waiting: it has sent to a port at which nobody listens. */
    static OwnedFd refused_socket() {
        OwnedFd gone(packet_clt_socket_ip(LOOPBACK)), sender(packet_clt_socket_ip(LOOPBACK));
        const PacketAddress peer = name_of(gone.get());
        if (connect(sender.get(), reinterpret_cast<const sockaddr *>(&peer), sizeof peer) != 0) abort();
        gone.reset();
        if (send(sender.get(), "x", 1, 0) != 1) abort();
        return sender;
    }

private:
    PROCESS_S before_;
    char name_[5] = "test";
};

#endif
