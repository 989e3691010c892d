/* Mail: what goes over the wire, where the settings come from, and servers that don't do their part. */
#include <pthread.h>
#include <signal.h>
#include <sys/socket.h>
#include <unistd.h>
#include <atomic>

#include "foundation/config.h"
#include "packet/maili.h"
#include "tests/packet/sockets.h"
#include "tests/support/smtpstub.h"

namespace {

using namespace std::chrono_literals;
using namespace std::string_literals;
using Peer = SmtpStub::Peer;

class MailDialogue : public SocketTest {
protected:
    /** A mail with all settings given. */
    static Mail mail_for(const SmtpStub &stub) {
        return {"127.0.0.1", stub.port(), "here.example", "me@here.example", "a@x.example", "Sub", "text\n"};
    }
    static int deliver(const std::function<void(Peer &)> &script, std::chrono::milliseconds limit = 20s) {
        SmtpStub stub(script);
        return packet_mail_deliver(mail_for(stub), limit);
    }
};

TEST_F(MailDialogue, EndsLinesInBothCharactersAndKeepsItsShapeWhenHardened) {
    struct Row {
        int hardened;
        std::string text, on_the_wire;
    };
    const Row rows[] = {
        {0, "one\ntwo\r\n\n\rx\n", "one\r\ntwo\r\n\r\n\rx\r\n"},
        {0, "a\n.\n.b", "a\r\n.\r\n.b"},
        {1, "a\n.\n.b\r\n..", "a\r\n..\r\n..b\r\n..."},
        {1, ".", ".."},
    };
    for (const Row &row : rows) {
        process_context.hardened = row.hardened;
        SmtpStub stub(take_mail);
        packet_sendmail("127.0.0.1", stub.port(), "h", "m@h\nx", "a@x", "S\nBcc: b@x\r\n", row.text.c_str());
        const std::string blank = row.hardened != 0 ? " " : "\n", both = row.hardened != 0 ? "  " : "\r\n";
        EXPECT_NE(stub.heard().find("\r\nmail from: m@h" + blank + "x\r\n"), std::string::npos) << stub.heard();
        EXPECT_NE(stub.heard().find("From: m@h" + blank + "x\r\nSubject: S" + blank + "Bcc: b@x" + both + "\r\n\r\n" +
                                    row.on_the_wire + "\r\n\r\n.\r\n"),
                  std::string::npos)
            << stub.heard();
    }
}

TEST_F(MailDialogue, NamesEachRecipient) {
    struct Row {
        std::string list, named;
    };
    const Row rows[] = {
        {" ,a@x,\t b@x\n,c@x, ", "rcpt to: a@x\r\nrcpt to: b@x\r\nrcpt to: c@x\r\n"},
        {std::string(255, 'r'), "rcpt to: " + std::string(255, 'r') + "\r\n"},
        {std::string(256, 'r') + "begun anew", "rcpt to: begun\r\nrcpt to: anew\r\n"},
    };
    for (const Row &row : rows) {
        SmtpStub stub(take_mail);
        Mail mail = mail_for(stub);
        mail.to = row.list;
        EXPECT_EQ(packet_mail_deliver(mail, 20s), 0);
        const std::string heard = stub.heard();
        const size_t begin = heard.find("example\r\n", heard.find("mail from")) + 9;
        EXPECT_EQ(heard.substr(begin, heard.find("data\r\n") - begin), row.named);
    }
}

TEST_F(MailDialogue, GoesOverTheWireAsItWasGivenWhateverItsLength) {
    SmtpStub stub(take_mail);
    const std::string host(5000, 'h'), from(7000, 'f'), to = "a@x" + std::string(9000, ',') + "b@x";
    const Mail mail{"127.0.0.1", stub.port(), host, from, to, "s", std::string(3000, '\n')};
    EXPECT_EQ(packet_mail_deliver(mail, 20s), 0);
    std::string text;
    for (int line = 0; line < 3000; ++line) text += "\r\n";
    EXPECT_EQ(stub.heard(), "helo " + host + "\r\nmail from: " + from +
                                "\r\nrcpt to: a@x\r\nrcpt to: b@x\r\ndata\r\nTo: " + to + "\r\nFrom: " + from +
                                "\r\nSubject: s\r\n\r\n" + text + "\r\n\r\n.\r\nquit\r\n");
}

TEST_F(MailDialogue, LooksAtNoAnswerButTheFirst) {
    EXPECT_EQ(deliver([](Peer &peer) {  // in pieces, with lines that are passed over
                  for (const char character : std::string("220-a\r\n220 b\r\n500 what\r\n250 so\r\n")) {
                      peer.say({character});
                      usleep(500);
                  }
                  take_mail(peer);
              }),
              0);
    std::string heard;
    EXPECT_EQ(deliver([&](Peer &peer) {  // refuses, and its greeting is taken for the first answer
                  peer.say("220 mx250\r\n");
                  for (std::string line = peer.line(); !line.empty(); line = peer.line()) {
                      if (line == "data\r\n") peer.message();
                      peer.say("550 no\r\n");
                  }
                  heard = peer.heard;
              }),
              0);
    EXPECT_EQ(heard.substr(heard.size() - 11), "\r\n.\r\nquit\r\n");
}

TEST_F(MailDialogue, EndsWithAServerThatEnds) {
    EXPECT_EQ(deliver([](Peer &) {}), 0);
    EXPECT_EQ(deliver([](Peer &peer) { peer.line(), peer.say("250 ok\r\n250"); }), 0);
    const int rude = deliver([](Peer &peer) { peer.reset(); });
    EXPECT_TRUE(rude == 0 || rude == PACKETERRSEND || rude == PACKETERRRECV) << rude;

    const OwnedFd silent(socket(AF_INET, SOCK_STREAM, 0));  // bound, and nobody listens
    const sockaddr_in any = address_of("127.0.0.1", 0);
    ASSERT_EQ(bind(silent.get(), reinterpret_cast<const sockaddr *>(&any), sizeof any), 0);
    const Mail nobody{"127.0.0.1", port_of(silent.get()), "h", "f@h", "a@x", "s", "t"};
    EXPECT_EQ(packet_mail_deliver(nobody, 20s), PACKETERRCONNECT);
    EXPECT_EQ(errno, ECONNREFUSED);
}

TEST_F(MailDialogue, SharesItsTimeAmongAllSteps) {
    const auto babbling = [](Peer &peer) {
        const std::string lines(1000, '\n');
        for (int block = 0; block < 2000; ++block) peer.say(lines);
        peer.is_left_within(30'000);
    };
    EXPECT_EQ(deliver(babbling, 20ms), PACKETERRTIMEOUT);

    const auto slow = [](Peer &peer) {  // each answer in time, all of them together not
        for (std::string line = peer.line(); !line.empty(); line = peer.line()) {
            usleep(60'000);
            peer.say("250 ok\r\n");
        }
    };
    EXPECT_EQ(deliver(slow, 150ms), PACKETERRTIMEOUT);

    std::atomic<bool> is_over = false;
    SmtpStub deaf([&](Peer &) {
        while (!is_over) usleep(1000);
    });
    Mail large = mail_for(deaf);
    large.send_host = std::string(32 << 20, 'x');
    const int result = packet_mail_deliver(large, 1s);
    EXPECT_TRUE(result == PACKETERRSEND || result == PACKETERRTIMEOUT) << result;  // the latter on a busy machine
    is_over = true;
}

std::atomic<int> signals_seen = 0;

/** The script sends signals to the client while that waits for the rest of an answer. */
TEST_F(MailDialogue, GoesOnAfterASignalUnlessTheProcessIsToEnd) {
    static bool is_the_end;
    const pthread_t client = pthread_self();
    const auto interrupted = [](const std::function<void(Peer &)> &script) {
        is_the_end = false;
        signals_seen = 0;
        process_context.running = 1;
        return deliver(script);
    };
    const auto end_it = [&](Peer &peer) {
        is_the_end = true;
        while (!peer.is_left_within(10)) pthread_kill(client, SIGUSR1);
    };
    struct sigaction before {
    }, interrupt{};
    interrupt.sa_handler = [](int) {
        if (is_the_end) process_context.running = 0;
        ++signals_seen;
    };
    sigaction(SIGUSR1, &interrupt, &before);
    EXPECT_EQ(interrupted([&](Peer &peer) {
                  peer.line();
                  peer.say("2");
                  for (int wanted = 1; wanted <= 5; ++wanted) {
                      usleep(10'000);
                      pthread_kill(client, SIGUSR1);
                      while (signals_seen < wanted) usleep(100);
                  }
                  peer.say("50 ok\r\n");
                  take_mail(peer);
              }),
              0);
    EXPECT_EQ(interrupted(end_it), PACKETERRINTR);
    EXPECT_EQ(interrupted([&](Peer &peer) {
                  for (std::string line; line != "data\r\n"; peer.say("250 ok\r\n")) line = peer.line();
                  peer.message();
                  peer.say("250 taken\r\n");
                  peer.line();
                  end_it(peer);
              }),
              -1)
        << "the mail is taken, but not the farewell";
    sigaction(SIGUSR1, &before, nullptr);
}

// ---- Settings -----------------------------------------------------------------------------------------------------

std::string shown(const Mail &mail) {
    return mail.smtp_host + ":" + std::to_string(mail.smtp_port) + " " + mail.send_host + " " + mail.from + " " +
           mail.to + " " + mail.subject;
}

using MailSettings = SocketTest;

TEST_F(MailSettings, ComeFromTheCallerTheFileOrADefault) {
    const std::string full =
        "smtphost mx.example\nsmtpport 2525\nsendhost web.example\nmailaddr ops\nadminmail a@x, b@x\n";
    const std::string fixed = "velmora Gathering Server Notification", longest(127, 'n'), longer(200, 'n');
    char machine[128] = "";
    gethostname(machine, sizeof machine - 1);
    const std::string name = machine;
    struct Row {
        std::string file;
        int mode;
        Mail given;
        std::string expected, bind_ip = "";
    };
    const Mail brief{.to = "t@x", .subject = "s", .text = "t"}, no_recipient{.text = "t"};
    const Row rows[] = {
        {full, 1, no_recipient, "mx.example:2525 web.example ops@web.example a@x, b@x " + fixed},
        {full, 2, {.smtp_host = "m", .text = "t"}, "m:25 web.example ops@web.example a@x, b@x " + fixed},
        {full, 2, {.smtp_port = 7, .text = "t"}, "mx.example:7 web.example ops@web.example a@x, b@x " + fixed},
        {full, 1, {"m", 1, "h", "f@g", "t@x", "s", "t"}, "m:1 h f@g t@x s"},
        {full, 0, brief, "localhost:25 " + name + " velmora@" + name + " t@x s"},
        {"smtpport x\n", 1, brief, "localhost:25 1.2.3.4 velmora@1.2.3.4 t@x s", "1.2.3.4"},
        {"sendhost " + longer, 1, brief, "localhost:25 " + longer + " velmora@" + longer.substr(0, 119) + " t@x s"},
        {"mailaddr f", 1, brief, "localhost:25 " + longest + " f@" + longest.substr(2) + " t@x s", longer},
        {full, 1 | PROCESS_MODE_LOCAL_CONFIG, no_recipient,
         "g_MailServer:26 g_MailSendHost g_MailAddress@g_MailSendHost g_AdminMail " + fixed, "1.2.3.4"},
    };
    for (const Row &row : rows) {
        root.write("etc/mail.cfg", row.file);
        Child child([&](Child &self) {
            process_context.mode = row.mode;
            if (!row.bind_ip.empty()) process_context.bindIp = row.bind_ip.c_str();
            config_variable_source = [](const char *asked) { return asked == "g_MailServerPort"s ? "26" : asked; };
            Mail mail = row.given, again = row.given;
            if (packet_mail_complete(mail) != 0) return 1;
            self.report(shown(mail));
            root.write("etc/mail.cfg", "smtphost other\nadminmail other\n");
            if (packet_mail_complete(again) != 0) return 1;
            return shown(again) == shown(mail) ? 0 : 2;  // the file is read once
        });
        EXPECT_EQ(child.next_report(), row.expected);
        EXPECT_EQ(child.exit_code(), 0);
    }
}

TEST_F(MailSettings, AreToldWhenVerbose) {
    const std::string path = root.path("etc/mail.cfg");
    Child child([&](Child &self) {
        process_context.mode = PROCESS_MODE_FOREGROUND;
        process_context.verbose = 1;
        SmtpStub stub(take_mail);
        self.report(std::to_string(stub.port()));
        return packet_sendmail("127.0.0.1", stub.port(), "h", "", "a@x", "s\n", std::string(41, 't').c_str());
    });
    const std::string port = child.next_report();
    EXPECT_EQ(child.exit_code(), 0);
    const std::string lines = std::regex_replace(child.output(), std::regex("test: packet_sendmail: "), "");
    EXPECT_EQ(lines, "mailcfgfile " + path + "\npsmtphost 127.0.0.1\npsmtpport " + port + "\npsendhost h\n" +
                         "test: config_read2paa: Cannot open config file \"" + path +
                         "\" No such file or directory\npfromaddr velmora@h\nptoaddr a@x\npsubject s.\nptext " +
                         std::string(40, 't') + "\nconnected to 127.0.0.1\n");
}

TEST_F(MailSettings, WithoutRecipientsOrTextAreRefusedOnStandardError) {
    const auto told_for = [](const char *to, const char *text) {
        testing::internal::CaptureStderr();
        EXPECT_EQ(packet_sendmail("127.0.0.1", 1, "h", "f@h", to, "a\nb", text), PACKETERRINVAL);
        return testing::internal::GetCapturedStderr();
    };
    EXPECT_EQ(told_for(nullptr, nullptr), "packet_sendmail: Cannot send mail \"a.b\", no recipients given!\n");
    EXPECT_EQ(told_for("a@x", ""), "packet_sendmail: Cannot send mail \"a.b\", no text given!\n");
}

// ---- Lines --------------------------------------------------------------------------------------------------------

using ReadLine = SocketTest;

TEST_F(ReadLine, TakesOneLineAndNoByteMore) {
    int ends[2];
    ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM, 0, ends), 0);
    OwnedFd reader(ends[0]), writer(ends[1]);
    const auto say = [&](const std::string &text) { send(writer.get(), text.data(), text.size(), 0); };
    const auto next = [&](int size) {
        timeval left{0, 1000};
        std::string line(20, '#');
        const int count = packet_readline(reader.get(), line.data(), size, &left);
        return count < 0 ? std::to_string(count) : line.substr(0, static_cast<size_t>(count) + 1);
    };
    say("one\ntwo");
    EXPECT_EQ(next(20), "one\n#");
    EXPECT_EQ(next(20), std::to_string(PACKETERRTIMEOUT)) << "and what was read of the line is lost";
    say("12345678\n");
    EXPECT_EQ(next(5), "1234#");
    EXPECT_EQ(next(1), "5#");
    EXPECT_EQ(next(0), std::to_string(PACKETERRINTR));
    EXPECT_EQ(next(20), "678\n#");
    say("end");
    writer.reset();
    EXPECT_EQ(next(20), "end#");
    EXPECT_EQ(next(20), "#");

    char byte = 0;
    for (const int socket : {-1, FD_SETSIZE})
        EXPECT_EQ(packet_readline(socket, &byte, 1, nullptr), PACKETERRBADSOCKET);
}

}  // namespace
