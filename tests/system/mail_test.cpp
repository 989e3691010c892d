/* The mail tool and a real mail server: what arrives, what is told when nothing does, and a server's error on its way
 * into a mailbox. */
#include <gtest/gtest.h>
#include <unistd.h>
#include <filesystem>
#include <regex>

#include "tests/support/serverprocess.h"
#include "tests/support/smtpstub.h"

namespace {

std::string settings_for(const MailServer &mail_server) {
    return "smtphost 127.0.0.1\nsmtpport " + std::to_string(mail_server.port()) +
           "\nsendhost www.example.org\nadminmail ops@example.org, night@example.org\n";
}

std::string header(const std::string &mail, const std::string &name) {
    std::smatch found;
    return std::regex_search(mail, found, std::regex("(?:^|\n)" + name + ": ([^\n]*)\n")) ? found[1].str() : "(none)";
}

std::string body(const std::string &mail) { return mail.substr(mail.find("\n\n") + 2); }

TEST(MailTool, DeliversTheTextAsItIs) {
    const MailServer mail_server;
    RootFolder root;
    root.write("etc/mail.cfg", settings_for(mail_server));
    const ProgramEnd end = run_program({"chmail", "-s", "A subject\n", "-t", "one\n.\n.two\r\n\n..\n\xc3\xa9"},
                                       {"VELROOT=" + root.path()});
    EXPECT_EQ(end.code, 0);
    EXPECT_EQ(end.output + end.errors, "");

    const std::vector<std::string> mails = mail_server.mails(1);
    ASSERT_EQ(mails.size(), 1U);
    EXPECT_EQ(header(mails[0], "To"), "ops@example.org, night@example.org");
    EXPECT_EQ(header(mails[0], "From"), "velmora@www.example.org");
    EXPECT_EQ(header(mails[0], "Subject"), "A subject");
    EXPECT_EQ(header(mails[0], "X-MailFrom"), "velmora@www.example.org");
    EXPECT_EQ(header(mails[0], "X-RcptTo"), "ops@example.org, night@example.org");
    EXPECT_EQ(body(mails[0]), "one\n.\n.two\n\n..\n\xc3\xa9\n\n");
}

TEST(MailTool, TellsWhyNothingWasSent) {
    RootFolder root;
    struct Row {
        std::string settings;
        Strings words;
        int code;
        std::string told;  // the beginning of the tool's own line
    };
    const std::string nobody = "adminmail a@x\nsmtphost 127.0.0.1\nsmtpport 1\n";
    const Row rows[] = {
        {"smtphost 127.0.0.1\n", {"-s", "a", "-t", "b"}, 1, "not sent: there is no adminmail in etc/mail.cfg"},
        {nobody, {"-s", "-t", "-t", "-s"}, 1, "not sent: no connection to the mail server"},
        {nobody, {"-s", "a"}, 2, "-t TEXT is missing"},
        {nobody, {"-t", "b"}, 2, "-s SUBJECT is missing"},
        {nobody, {"-s", "a", "-t", "b", "c"}, 2, "too many words: \"c\""},
        {nobody, {"-s", "a", "-t"}, 2, "option -t needs a value"},
        {nobody, {"-x"}, 2, "unknown option -x"},
        {nobody, {"-VELROOT"}, 2, "option -VELROOT needs a value"},
    };
    for (const Row &row : rows) {
        root.write("etc/mail.cfg", row.settings);
        const ProgramEnd end = run_program(joined({"chmail", "-VELROOT", root.path()}, row.words));
        EXPECT_EQ(end.code, row.code) << end.errors;
        EXPECT_NE(end.errors.find("chmail: " + row.told), std::string::npos) << end.errors;
        EXPECT_EQ(end.output, "");
    }
    EXPECT_EQ(run_program({"chmail", "-s", "a", "-t", "b"}, {"VELROOT="}).code, 2);
}

TEST(ErrorMail, OfAServerReachesTheOperatorOnce) {
    const MailServer mail_server;
    const ServerProcess server;
    server.root().write("etc/mail.cfg", settings_for(mail_server));
    std::filesystem::create_directory(server.root().path("bin"));
    std::filesystem::create_symlink(VELMORA_BIN_DIR "/chmail", server.root().path("bin/chmail"));
    const LogWatch log = server.watch();
    TestClient client(server.port());
    client.ask({"DB", "G"});
    ASSERT_EQ(mail_server.mails(1).size(), 1U) << log.text();
    client.ask({"DB", "G"});
    EXPECT_TRUE(log.wait_for("Process_mailout: Not sending a mail again!\n"));

    const std::vector<std::string> mails = mail_server.mails(1);
    ASSERT_EQ(mails.size(), 1U);
    EXPECT_EQ(header(mails[0], "Subject").substr(0, 26), "Gathering Server Error at ");
    char host[256] = "";
    gethostname(host, sizeof host - 1);
    const std::string begin = "\nError message from Gathering Server process " + server.name() + " running on host " +
                              host + "\n\nPID " + std::to_string(server.pid()) + ":\nETEXT=";
    EXPECT_EQ(body(mails[0]).substr(0, begin.size()), begin);
    EXPECT_NE(mails[0].find("Table name not defined.\n"), std::string::npos) << mails[0];
    EXPECT_FALSE(log.saw("chmail:")) << log.text();
}

}  // namespace
