/* Mail: the SMTP dialogue, in which the client speaks first and looks at next to nothing of what it hears.
 *
 * What greets it is read as a part of the first reply. Only that reply is awaited by its number; of the others one
 * line each is read, whatever it says. Where the settings come from stands in mailsettings.cpp. */
#include "packet/maili.h"

#include <errno.h>
#include <limits.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/select.h>
#include <sys/socket.h>
#include <sys/time.h>

#include <algorithm>
#include <new>
#include <string_view>

#include "packet/packet.h"
#include "packet/packeti.h"
#include "process/owned.h"
#include "process/printable.h"
#include "process/velproc.h"

namespace {

using namespace std::chrono_literals;
using Clock = std::chrono::steady_clock;

constexpr auto DIALOGUE_LIMIT = 60s;
constexpr int LONGEST_REPLY = 4096;
constexpr size_t RECIPIENT_SIZE = 256;
constexpr size_t ROOM_FOR_WORDS = 125;  // of a command or of the headers, and the end of the message

PacketAddress *server_address = nullptr;  // of the last mail

// ---- Lines --------------------------------------------------------------------------------------------------------

int pending_error(int socket, int *pending) {
    socklen_t size = sizeof *pending;
    return getsockopt(socket, SOL_SOCKET, SO_ERROR, pending, &size);
}

/** Waits until the socket is readable: 0 or a code. */
int await_bytes(int socket, timeval *timeout) {
    fd_set readable;
    FD_ZERO(&readable);
    FD_SET(socket, &readable);
    errno = 0;
    const int ready = select(socket + 1, &readable, nullptr, nullptr, timeout);
    if (ready < 0) return errno == EINTR ? PACKETERRINTR : PACKETERRSELECT;
    return ready == 0 ? PACKETERRTIMEOUT : 0;
}

/** packet_readline with *count bytes of the line in the buffer already; *count goes on growing. */
int read_on(int socket, char *buffer, int size, timeval *timeout, int *count) {
    if (!packet_selectable(socket)) return PACKETERRBADSOCKET;
    int pending = 0;
    pending_error(socket, &pending);
    if (size <= 0) return PACKETERRINTR;

    for (;;) {
        const int result = await_bytes(socket, timeout);
        if (result != 0) return result;
        if (pending_error(socket, &pending) != 0) return PACKETERRRECV;
        if (pending != 0) continue;

        char *const next = buffer + *count;
        const ssize_t received = recvfrom(socket, next, 1, 0, nullptr, nullptr);
        if (received < 0) return errno == EINTR ? PACKETERRINTR : PACKETERRRECV;
        if (received == 0) return *count;
        ++*count;
        if (*next == '\n' || *count >= size - 1) return *count;
    }
}

// ---- Time -----------------------------------------------------------------------------------------------------------

/** The time that all steps of a dialogue share. */
class Deadline {
public:
    explicit Deadline(std::chrono::milliseconds limit) : end_(Clock::now() + limit) {}

    /** False: it is over, and *left is zero. */
    bool left(timeval *left) const {
        const auto time = std::chrono::duration_cast<std::chrono::microseconds>(end_ - Clock::now());
        const auto count = std::max<std::chrono::microseconds::rep>(time.count(), 0);
        left->tv_sec = static_cast<time_t>(count / 1000000);
        left->tv_usec = static_cast<suseconds_t>(count % 1000000);
        return count > 0;
    }

private:
    Clock::time_point end_;
};

// ---- Dialogue -------------------------------------------------------------------------------------------------------

bool separates_recipients(char character) {
    return character == ',' || process_isspace(static_cast<unsigned char>(character)) != 0;
}

/** The steps return what the last read of theirs returned: the dialogue goes on while that is positive. */
class Dialogue {
public:
    Dialogue(int socket, const Deadline &deadline, char *work, size_t work_size)
        : socket_(socket), deadline_(deadline), work_(work), work_size_(work_size) {}

    int run(const Mail &mail) {
        int result = greet(mail.send_host);
        if (result > 0) result = command("mail from: ", mail.from);
        if (result > 0) result = name_recipients(mail.to);
        if (result > 0) result = command("data", "");
        if (result > 0) result = hand_over(mail);
        if (result <= 0) return result;
        return command("quit", "") < 0 ? -1 : 0;
    }

private:
    int greet(const std::string &send_host) {
        int result = command("helo ", send_host);
        while (result > 0 && std::string_view(line_, static_cast<size_t>(result)).find("250") == std::string::npos) {
            result = read_reply();
        }
        return result;
    }

    int name_recipients(std::string_view list) {
        char recipient[RECIPIENT_SIZE];
        size_t length = 0;
        int result = 1;
        const auto name_it = [&] {
            if (length > 0) result = command("rcpt to: ", {recipient, length});
            length = 0;
        };
        for (size_t at = 0; at < list.size() && result > 0; ++at) {
            if (separates_recipients(list[at])) {
                name_it();
            } else {
                recipient[length] = list[at];
                length = (length + 1) % RECIPIENT_SIZE;  // one that is too long is begun anew, not refused
            }
        }
        if (result > 0) name_it();
        return result;
    }

    int hand_over(const Mail &mail) {
        clear();
        for (const std::string_view piece :
             {std::string_view("To: "), std::string_view(mail.to), std::string_view("\r\nFrom: "),
              std::string_view(mail.from), std::string_view("\r\nSubject: "), std::string_view(mail.subject),
              std::string_view("\r\n\r\n")}) {
            add(piece);
        }
        add_text(mail.text);
        add("\r\n\r\n.\r\n");
        return exchange();
    }

    /** Lines end in both characters on the wire. A line that is a point alone ends the mail early, which is known;
     *  hardened, a point at a line's beginning is doubled, as the protocol asks, and the receiver takes it off. */
    void add_text(std::string_view text) {
        const bool doubles_points = process_context.hardened != 0;
        char before = '\n';
        for (const char character : text) {
            if (character == '\n' && before != '\r') add("\r");
            if (character == '.' && before == '\n' && doubles_points) add(".");
            add({&character, 1});
            before = character;
        }
    }

    int command(std::string_view words, std::string_view value) {
        clear();
        add(words);
        add(value);
        add("\r\n");
        return exchange();
    }

    void clear() { used_ = 0; }

    /** The work buffer has room for the longest of what is put into it. What passed it would be cut. */
    void add(std::string_view piece) {
        const size_t fits = std::min(piece.size(), work_size_ - used_);
        memcpy(work_ + used_, piece.data(), fits);
        used_ += fits;
    }

    int exchange() {
        timeval left{};
        if (!deadline_.left(&left)) return PACKETERRTIMEOUT;
        // A server that stops reading would hold a long message for ever.
        setsockopt(socket_, SOL_SOCKET, SO_SNDTIMEO, &left, sizeof left);
        const ssize_t sent = send(socket_, work_, used_, MSG_NOSIGNAL);
        if (sent != static_cast<ssize_t>(used_)) return PACKETERRSEND;
        return read_reply();
    }

    /** Reads a line. A signal that doesn't end the process interrupts the wait, not the line. */
    int read_reply() {
        int count = 0;
        for (;;) {
            timeval left{};
            if (!deadline_.left(&left)) return PACKETERRTIMEOUT;
            const int result = read_on(socket_, line_, sizeof line_, &left, &count);
            if (result != PACKETERRINTR || process_context.running == 0) return result;
        }
    }

    int socket_;
    Deadline deadline_;
    char *work_;
    size_t work_size_, used_ = 0;
    char line_[LONGEST_REPLY];
};

// ---- Connection -----------------------------------------------------------------------------------------------------

int connect_to_server(const Mail &mail, OwnedFd *connection) {
    free(server_address);
    server_address = nullptr;
    const int size =
        packet_srvadr_byname(mail.smtp_host.c_str(), static_cast<uint16_t>(mail.smtp_port), &server_address);
    if (size < 0) return size;

    connection->reset(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
    if (!connection->is_open()) return PACKETERRSOCKET;
    if (!packet_selectable(connection->get())) {
        errno = EMFILE;
        return PACKETERRSOCKET;
    }
    const auto *address = reinterpret_cast<const sockaddr *>(server_address);
    if (connect(connection->get(), address, static_cast<socklen_t>(size)) != 0) return PACKETERRCONNECT;
    if (process_context.verbose != 0)
        process_log("%s: connected to %s\n", MAIL_LABEL, printable(mail.smtp_host).c_str());
    return 0;
}

/** Room for the longest text that the dialogue sends: the message, of whose text every character may become two. */
size_t work_size_of(const Mail &mail) {
    return mail.subject.size() + 1 + 2 * (mail.text.size() + 1) + ROOM_FOR_WORDS + mail.to.size() + mail.from.size() +
           mail.send_host.size();
}

std::string text_of(const char *text) { return text != nullptr ? text : ""; }

}  // namespace

int packet_readline(int socket, char *buffer, int size, timeval *timeout) {
    int count = 0;
    return read_on(socket, buffer, size, timeout, &count);
}

int packet_mail_deliver(const Mail &mail, std::chrono::milliseconds limit) {
    OwnedFd connection;
    const int result = connect_to_server(mail, &connection);
    if (result != 0) return result;

    const size_t work_size = work_size_of(mail);
    const bool is_possible = work_size <= INT_MAX;  // else the size asked for is one that is refused
    const OwnedBlock<char> work(process_malloc(MAIL_LABEL, is_possible ? static_cast<int>(work_size) : -1));
    if (work.is_null()) return PACKETERRMEM;
    return Dialogue(connection.get(), Deadline(limit), work.get(), work_size).run(mail);
}

int packet_sendmail(const char *smtpHost, int smtpPort, const char *sendHost, const char *fromAddress,
                    const char *toAddresses, const char *subject, const char *text) {
    try {
        Mail mail{text_of(smtpHost),    smtpPort,         text_of(sendHost), text_of(fromAddress),
                  text_of(toAddresses), text_of(subject), text_of(text)};
        const int result = packet_mail_complete(mail);
        return result != 0 ? result : packet_mail_deliver(mail, DIALOGUE_LIMIT);
    } catch (const std::bad_alloc &) {
        return PACKETERRMEM;
    }
}
