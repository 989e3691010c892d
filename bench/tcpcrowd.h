/* Company for a measurement: a process that keeps 500 connections to a TCP port, 100 of which never send a byte. The
 * others send a piece of a request and are reset, 40 of them each 10 ms, and new ones come in their place. */
#ifndef BENCH_TCPCROWD_H
#define BENCH_TCPCROWD_H

#include <netinet/in.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>

class TcpCrowd {
public:
    /** No port, no crowd. */
    TcpCrowd(sockaddr_in server, uint16_t port) : server_(server) {
        server_.sin_port = htons(port);
        if (port == 0) return;
        pid_ = fork();
        if (pid_ == 0) press();
    }
    ~TcpCrowd() {
        if (pid_ <= 0) return;
        kill(pid_, SIGKILL);
        waitpid(pid_, nullptr, 0);
    }
    TcpCrowd(const TcpCrowd &) = delete;
    TcpCrowd &operator=(const TcpCrowd &) = delete;

private:
    static constexpr size_t SILENT = 100, BUSY = 400, RESET_AT_ONCE = 40;

    [[noreturn]] void press() const {
        prctl(PR_SET_PDEATHSIG, SIGKILL);
        for (size_t i = 0; i < SILENT; i++) connected();
        std::array<int, BUSY> busy{};
        for (int &fd : busy) fd = connected();
        for (size_t next = 0;; next = (next + 1) % BUSY) {
            if (next % RESET_AT_ONCE == 0) usleep(10000);
            reset(busy[next], next);
            busy[next] = connected();
        }
    }
    int connected() const {
        const int fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
        if (connect(fd, reinterpret_cast<const sockaddr *>(&server_), sizeof server_) != 0) _exit(1);
        return fd;
    }
    static void reset(int fd, size_t cut) {
        static constexpr char request[] = "GET /picture HTTP/1.0\r\nHost: here\r\n\r\n";
        const linger at_once{1, 0};
        setsockopt(fd, SOL_SOCKET, SO_LINGER, &at_once, sizeof at_once);
        send(fd, request, cut % sizeof request, MSG_NOSIGNAL);
        close(fd);
    }

    sockaddr_in server_;
    pid_t pid_ = 0;
};

#endif
