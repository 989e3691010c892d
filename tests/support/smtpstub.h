/* Mail servers for tests: one whose side of the dialogue the test writes itself, and a real one with a mailbox. */
#ifndef TESTS_SUPPORT_SMTPSTUB_H
#define TESTS_SUPPORT_SMTPSTUB_H

#include <functional>
#include <string>
#include <thread>
#include <vector>

#include "tests/support/child.h"
#include "tests/support/rootfolder.h"

/** Takes one connection on 127.0.0.1 and plays a script with it, in a thread. When the script has ended it says no
 *  more, and listens until the client closes. */
class SmtpStub {
public:
    /** The connection as the script sees it. */
    class Peer {
    public:
        explicit Peer(int socket) : socket_(socket) {}
        void say(const std::string &text) const;

        /** The next line with its end; without one if the client closed or 30 seconds went by. */
        std::string line();
        /** Reads to the line that is a lone point. */
        void message();
        /** Waits for the client to close, without reading what it sends; whether it has. */
        bool is_left_within(int milliseconds) const;
        /** Ends the connection in the rudest way. */
        void reset();

        bool is_open() const { return socket_ >= 0; }
        std::string heard;  // all that was read

    private:
        bool read_more();
        int socket_;
        size_t taken_ = 0;  // by line()
    };

    explicit SmtpStub(std::function<void(Peer &)> script);
    ~SmtpStub();
    SmtpStub(const SmtpStub &) = delete;
    SmtpStub &operator=(const SmtpStub &) = delete;

    int port() const { return port_; }
    /** Everything that the client sent, once it has closed. */
    std::string heard();

private:
    void serve(const std::function<void(Peer &)> &script);

    int listener_;
    int port_;
    std::string heard_;
    std::thread thread_;
};

/** The script of a server that takes any mail. */
void take_mail(SmtpStub::Peer &peer);

/** A real mail server, from the system's packages, on a free port of 127.0.0.1. */
class MailServer {
public:
    MailServer();
    int port() const { return port_; }

    /** Waits until at least `count` mails have arrived; all that are there, with the headers that the server adds
     *  ("X-RcptTo" and others) and a line feed at each line's end. */
    std::vector<std::string> mails(size_t count) const;

private:
    RootFolder folder_;
    Child process_;
    int port_ = 0;
};

#endif
