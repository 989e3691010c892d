#include "tests/support/smtpstub.h"

#include <arpa/inet.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>
#include <algorithm>
#include <chrono>
#include <filesystem>
#include <stdexcept>

namespace {
namespace fs = std::filesystem;
using Clock = std::chrono::steady_clock;

constexpr int PATIENCE = 30'000;  // milliseconds; only for tests that fail
constexpr char SERVER[] = R"(
import asyncio, sys
from aiosmtpd.handlers import Mailbox
from aiosmtpd.smtp import SMTP

async def serve():
    mailbox = Mailbox(sys.argv[1])
    server = await asyncio.get_running_loop().create_server(lambda: SMTP(mailbox), '127.0.0.1', 0)
    print(server.sockets[0].getsockname()[1], flush=True)
    await server.serve_forever()

asyncio.run(serve())
)";

bool is_readable(int socket) {
    pollfd source{socket, POLLIN, 0};
    return poll(&source, 1, PATIENCE) == 1;
}

}  // namespace

// ---- The stub -----------------------------------------------------------------------------------------------------

void SmtpStub::Peer::say(const std::string &text) const { send(socket_, text.data(), text.size(), MSG_NOSIGNAL); }

bool SmtpStub::Peer::read_more() {
    char block[65536];
    const ssize_t got = socket_ >= 0 && is_readable(socket_) ? recv(socket_, block, sizeof block, 0) : -1;
    if (got > 0) heard.append(block, static_cast<size_t>(got));
    return got > 0;
}

std::string SmtpStub::Peer::line() {
    size_t end = 0;
    while ((end = heard.find('\n', taken_)) == std::string::npos && read_more()) {
    }
    const std::string found = heard.substr(taken_, end == std::string::npos ? end : end + 1 - taken_);
    taken_ += found.size();
    return found;
}

void SmtpStub::Peer::message() {
    for (std::string next = line(); !next.empty() && next != ".\r\n"; next = line()) {
    }
}

bool SmtpStub::Peer::is_left_within(int milliseconds) const {
    pollfd source{socket_, POLLRDHUP, 0};
    return poll(&source, 1, milliseconds) == 1;
}

void SmtpStub::Peer::reset() {
    const linger at_once{1, 0};
    setsockopt(socket_, SOL_SOCKET, SO_LINGER, &at_once, sizeof at_once);
    close(socket_);
    socket_ = -1;
}

SmtpStub::SmtpStub(std::function<void(Peer &)> script) : listener_(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0)) {
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t size = sizeof address;
    auto *const raw = reinterpret_cast<sockaddr *>(&address);
    if (bind(listener_, raw, size) != 0 || listen(listener_, 1) != 0 || getsockname(listener_, raw, &size) != 0) {
        throw std::runtime_error("no port for a mail server");
    }
    port_ = ntohs(address.sin_port);
    thread_ = std::thread([this, script = std::move(script)] { serve(script); });
}

SmtpStub::~SmtpStub() {
    shutdown(listener_, SHUT_RDWR);  // nobody came
    heard();
    close(listener_);
}

std::string SmtpStub::heard() {
    if (thread_.joinable()) thread_.join();
    return heard_;
}

void SmtpStub::serve(const std::function<void(Peer &)> &script) {
    const int socket = is_readable(listener_) ? accept4(listener_, nullptr, nullptr, SOCK_CLOEXEC) : -1;
    if (socket < 0) return;
    Peer peer(socket);
    script(peer);
    if (peer.is_open()) {
        shutdown(socket, SHUT_WR);
        while (!peer.line().empty()) {
        }
        close(socket);
    }
    heard_ = peer.heard;
}

void take_mail(SmtpStub::Peer &peer) {
    peer.say("220 stub\r\n");
    for (std::string line = peer.line(); !line.empty(); line = peer.line()) {
        peer.say("250 ok\r\n");
        if (line != "data\r\n") continue;
        peer.message();
        peer.say("250 taken\r\n");
    }
}

// ---- The real one -------------------------------------------------------------------------------------------------

MailServer::MailServer()
    : process_([this](Child &) {
          execl("/usr/bin/python3", "python3", "-c", SERVER, folder_.path("mailbox").c_str(), nullptr);
          return 127;
      }) {
    const auto end = Clock::now() + std::chrono::milliseconds(PATIENCE);
    while (process_.output().find('\n') == std::string::npos) {
        if (Clock::now() > end || process_.exit_code(std::chrono::milliseconds(10)) != -1000) {
            throw std::runtime_error("the mail server did not start");
        }
    }
    port_ = std::stoi(process_.output());
}

std::vector<std::string> MailServer::mails(size_t count) const {
    const auto end = Clock::now() + std::chrono::milliseconds(PATIENCE);
    std::vector<std::string> found;
    for (;;) {
        found.clear();
        std::error_code none_yet;
        for (const auto &entry : fs::directory_iterator(folder_.path("mailbox/new"), none_yet)) {
            found.push_back(folder_.read("mailbox/new/" + entry.path().filename().string()));
        }
        if (found.size() >= count || Clock::now() > end) return found;
        usleep(5000);
    }
}
