/* How a program answers: the header, the error page, the debug file and the logs, which others may write to and tamper
 * with, and the time limit. */
#include <fcntl.h>
#include <poll.h>
#include <sys/stat.h>

#include <filesystem>
#include <fstream>
#include <regex>

#include "genhtml/chfilel.h"
#include "tests/genhtml/cgi.h"

namespace {

namespace fs = std::filesystem;
using namespace std::string_literals;
using CgiOutput = Cgi;

const std::string TEXT_HEAD = "Content-Type: text/html\n", COOKIE = "Set-Cookie: VELMORA=v; Path=/p; DOMAIN=d;",
                  PRIVATE = "Cache-Control: private\n\n";

void set_cookie() { ghSetCookie("v", "/p", "d"); }

TEST_F(CgiOutput, SendsOneHeaderInFrontOfTheFirstText) {
    const Rows<const char *, Program, std::string> rows{
        {"", [] {}, PAGE},
        {"", set_cookie, TEXT_HEAD + COOKIE + "\n" + PRIVATE},
        {"", [] { ghSetCookie("a", "b", "c"), set_cookie(); }, TEXT_HEAD + COOKIE + "\n" + PRIVATE},
        {"", [] { ghSetCookieDate("soon"), set_cookie(); }, TEXT_HEAD + COOKIE + " EXPIRES=soon;\n" + PRIVATE},
        {"", [] { ghSetCookieDate("soon"); }, PAGE},
        {"", [] { ghSetCookie(nullptr, "/p", "d"); }, PAGE},
        {"", [] { ghSetCookie("v", nullptr, "d"); }, PAGE},
        {"", [] { set_cookie(), ghSetCookie("v", "/p", nullptr); }, PAGE},
        {"SETCOOKIE=two", [] {}, PAGE},
        {"SETCOOKIE=", set_cookie, TEXT_HEAD + COOKIE + "\n" + PRIVATE},
        {"SETCOOKIE=X%3D2", [] { set_cookie(), ghSetCookieDate("soon"); },
         TEXT_HEAD + COOKIE + " EXPIRES=soon;\nSet-Cookie: X=2; Path=/p; DOMAIN=d; EXPIRES=soon;\n" + PRIVATE},
        {"", [] { ghSetContentType("a/b"), ghSetContentType("text/plain"); }, "Content-Type: text/plain\n\n"},
        {"SETDATE=20240109020305", [] {}, "Last-Modified: Tue, 09 Jan 2024 02:03:05 GMT\n" + PAGE},
        {"SETDATE=20240219", [] {}, "Last-Modified: Mon, 19 Feb 2024 00:00:00 GMT\n" + PAGE},
        {"SETDATE=20240219102030CET+x", [] {}, "Last-Modified: Mon, 19 Feb 2024 10:20:30 CET x\n" + PAGE},
        {"SETDATE=", [] {}, PAGE},
        {"SETDATE=1960", [] {}, PAGE},
        {"NOHTTPHEAD=x1", [] {}, PAGE},
    };
    for (const auto &[query, setup, header] : rows) {
        const auto page = [call = setup] { call(), ghPrintf("%s %d", "one", 2), ghPrintf(" %c", '3'); };
        EXPECT_EQ(both(get(query), page), header + "one 2 3");
    }
}

TEST_F(CgiOutput, EndsHeaderValuesAtTheirFirstControlCharacter) {
    const std::string answer = "Last-Modified: Tue, 09 Jan 2024 02:03:05 CET\nContent-Type: text/plain\n" + COOKIE +
                               " EXPIRES=soon;\nSet-Cookie: X=2; Path=/p; DOMAIN=d; EXPIRES=soon;\n" + PRIVATE +
                               "page";
    for (const char *tail : {"\nX-Evil: 1\n\n<script>", "\r\nX-Evil: 1", "\x1b[2J", "\x7fx", "\n"}) {
        const Request request = {
            {}, "", {"SETDATE=20240109020305CET" + std::string(tail) + "&SETCOOKIE=X%3D2" + tail}};
        const auto with = [tail](const char *text) { return std::string(text) + tail; };
        const auto page = [with] {
            ghSetCookie(with("v").c_str(), with("/p").c_str(), with("d").c_str());
            ghSetCookieDate(with("soon").c_str());
            ghSetContentType(with("text/plain").c_str());
            ghPrintf("page");
        };
        EXPECT_EQ(both(request, page), answer);
        EXPECT_EQ(both(get(""), [with] { ghFrameKludge(with("top").c_str()); }),
                  "Content-Type: text/html\nWindow-target: top\n\n");
    }
}

TEST_F(CgiOutput, LeavesTheHeaderOffForASubScript) {
    const auto two_texts = [] { ghPrintf("one"), ghPrintf("two"); };
    const Request from_parent{{}, "", {"NOHTTPHEAD=1"}};
    folder.write("page.html", "<p>\n");
    const auto a_template = [] { ghPrintTemplate(stdout, "page.html"); };
    EXPECT_EQ(both(from_parent, two_texts), "two") << "the text of the first call goes with the header";
    EXPECT_EQ(both(from_parent, a_template), "<p>\n\n");
    EXPECT_EQ(both(get(""), a_template), PAGE + "<p>\n\n");
    EXPECT_EQ(run(get("NOHTTPHEAD=2x"), two_texts), "two");
    EXPECT_EQ(hardened(get("NOHTTPHEAD=2x"), two_texts), PAGE + "onetwo") << "from a client";
}

TEST_F(CgiOutput, SendsAWindowTargetInsteadOfTheHeader) {
    const auto target = [] { ghFrameKludge("top"); };
    EXPECT_EQ(both(get(""), [=] { set_cookie(), ghSetContentType("a/b"), target(), target(), ghPrintf("x"); }),
              "Content-Type: text/html\nWindow-target: top\n\nx");
    EXPECT_EQ(both(get(""), [=] { ghPrintf("x"), target(); }), PAGE + "x");
}

TEST_F(CgiOutput, EndsCallsThatFailInTheErrorPage) {
    const std::string missing = "\"nowhere\": No such file or directory.\n";
    const Rows<Program, std::string> rows{
        {[] { ghInStore(nullptr, "x"); }, "ghInStore: Invalid parameter\n"},
        {[] { ghHashFetch(nullptr, nullptr, nullptr); }, "ghHashFetch: Invalid parameter\n"},
        {[] { ghInFetch("a", nullptr); }, "ghHashFetch: Invalid parameter\n"},
        {[] { ghReplaceRemove(nullptr); }, "ghReplaceRemove: Invalid parameter\n"},
        {[] { ghReplaceHTMLLinks(nullptr); }, "ghReplaceHTMLLinks: Invalid Parameter\n"},
        {[] { ghReadConfig("nowhere"); }, "ghsReadConfig: Cannot open file " + missing},
        {[] { ghReadArray(nullptr, "nowhere"); }, "ghsReadArray: Cannot open file " + missing},
    };
    for (const auto &[call, text] : rows) {
        const auto page = [fail = call] { fail(), ghPrintf("still there"); };
        EXPECT_EQ(run(get(""), page), error_page(text));
    }
    const Rows<Program, std::string> late_rows{
        {set_cookie, "cookie, \"v\", \"/p\", \"d\""},
        {[] { ghSetCookieDate("soon"); }, "cookiedate, \"soon\""},
        {[] { ghSetContentType("a\nL2"); }, "content-type, \"a\nL2\""},
    };
    for (const auto &[call, what] : late_rows) {
        const auto page = [set = call] { ghPrintf("x"), set(), ghPrintf("still there"); };
        const std::string error = error_page("Too late to set " + what + ", header already printed\n");
        EXPECT_EQ(run(get(""), page), PAGE + "x" + error.substr(PAGE.size()));
    }
    EXPECT_NE(folder.read("logs/gherror.log").find("content-type, \"a.L2\""), std::string::npos);
}

TEST_F(CgiOutput, KeepsIncludesBelowTheTemplatesByTheStricterRules) {
    folder.write("pages/in", "in\n");
    folder.write("out", "out\n");
    fs::create_symlink("../out", folder.path("pages/link"));
    const auto include = [this](const std::string &file) {
        folder.write("page", "<!-- #include file=\"" + file + "\" -->\n");
        return [] { ghSaveForReplace("g_TemplateRoot", "pages", 0), ghPrintTemplate(stdout, "page"); };
    };
    EXPECT_EQ(both(get(""), include("pages/in")), PAGE + "in\n\n");
    for (const auto &outside : {"out"s, "pages/link"s, "pages"s, "pagesx"s, folder.path("out")}) {
        const std::string told = "ghsPrintTemplateRec: Cannot open file &#34;" + outside + "&#34;: ";
        EXPECT_EQ(hardened(get(""), include(outside)), error_page(told + "Permission denied.\n"));
    }
    EXPECT_EQ(run(get(""), include("out")), PAGE + "out\n\n");
}

TEST_F(CgiOutput, TellsAnErrorOnThePageAndInTheLog) {
    const Request request{{"REQUEST_METHOD=GET", "QUERY_STRING=k%0ay=" + std::string(59, 'v') + "%e4%0a%22",
                           "SCRIPT_NAME=//cgi/<x>\x1b", "SERVER_ADMIN=<a@b>", "REQUEST_URI=/x\nL2024 forged",
                           "HTTP_USER_AGENT=\x1b[31m\xe4", "REMOTE_ADDR=10.0.0.1"}};
    const auto fail = [] { ghError("<b> %d\n", 7), exit(0); };
    const auto page = [](const std::string &script, const std::string &text, const std::string &admin) {
        return PAGE + "<h1>An error occured</h1>\n<P>While accessing the script /cgi/" + script + "\n<P><B>\n" +
               text + " 7\n</B>\n<P>Please inform the server administrator " + admin + " of the error\n";
    };
    EXPECT_EQ(run(request, fail), page("<x>\x1b", "<b>", "<a@b>"));
    EXPECT_EQ(hardened(request, fail), page("&#60;x&#62;\x1b", "&#60;b&#62;", "&#60;a@b&#62;"));

    const std::string record =
        "LTIME Script /cgi/<x>.: \n<b> 7\n\n REQUEST_METHOD = \"GET\"\n"
        " REQUEST_URI = \"/x.L2024 forged\"\n HTTP_REFERER = \"\"\n"
        " HTTP_USER_AGENT = \".[31m\xe4\"\n REMOTE_HOST = \"\"\n REMOTE_ADDR = \"10.0.0.1\"\n"
        " k.y = \"" +
        std::string(59, 'v') + ",\"\n \",\"\"\n";
    EXPECT_EQ(std::regex_replace(folder.read("logs/gherror.log"), std::regex("L\\d{14} "), "LTIME "),
              record + record);

    fs::remove_all(folder.path("logs"));
    EXPECT_EQ(run(request, fail), page("<x>\x1b", "<b>", "<a@b>")) << "without a directory for logs";
}

TEST_F(CgiOutput, WritesEventsWhereItMay) {
    const auto log = [this](const char *name) {
        EXPECT_EQ(both(get(""),
                       [=] {
                           ghSaveForReplace("g_cgiDirectory", "sub", 0);
                           ghLogEvent(name, "%s %d", "visit", 1);
                           ghPrintf("done");
                       }),
                  PAGE + "done");
    };
    const auto lines = [this](const char *file) {
        return std::regex_replace(folder.read(file), std::regex("L\\d{14} "), "LTIME ");
    };
    const std::string two = "LTIME visit 1\nLTIME visit 1\n";  // one by each set of rules
    folder.write("sub/logs/kept", "");
    log("ev");
    EXPECT_EQ(lines("logs/ev.log"), two);
    for (const char *bad : {"../ev", "x/../../logs/ev", ".", "nowhere/ev", ""}) log(bad);
    EXPECT_EQ(lines("logs/ev.log"), two);
    EXPECT_EQ(lines("logs/.log"), two) << "a name like any other";
    for (const char *outside : {"ev.log", "sub/ev.log"}) EXPECT_FALSE(fs::exists(folder.path(outside)));

    // A link in the log's place is left alone; the other directory serves.
    folder.write("target", "");
    const std::string place = folder.path("logs/ev.log"), second = "sub/logs/ev.log";
    fs::remove(place);
    fs::create_symlink(folder.path("target"), place);
    log("ev");
    EXPECT_EQ(lines(second.c_str()), two);
    EXPECT_EQ(folder.read("target"), "");
    fs::remove_all(folder.path("logs"));
    log("ev");
    EXPECT_EQ(lines(second.c_str()), two + two);

    // A user who isn't root may write to a pipe; one that nobody reads doesn't hold the page up.
    folder.write("logs/kept", "");
    mkfifo(place.c_str(), 0666);
    for (const char *open_to_all : {"", "logs", "logs/ev.log"}) {
        fs::permissions(folder.path(open_to_all), fs::perms::all);
    }
    Request request = get("");
    request.before = [] { EXPECT_TRUE(geteuid() != 0 || setuid(65534) == 0); };
    EXPECT_EQ(run(request, [] { ghLogEvent("ev", "visit"), ghPrintf("done"); }), PAGE + "done");
}

TEST_F(CgiOutput, KeepsTheRecordsOfTwoWritersApart) {
    constexpr int RECORDS = 200, LENGTH = 20000;  // longer than what leaves in one write
    const auto writer = [](char letter) {
        return [letter] {
            const std::string text(LENGTH, letter);
            for (int i = 0; i < RECORDS; i++) ghLogEvent("ev", "%s", text.c_str());
        };
    };
    Child first(work(get(""), writer('a'))), second(work(get(""), writer('b')));
    EXPECT_EQ(first.exit_code(std::chrono::seconds(60)), 0);
    EXPECT_EQ(second.exit_code(std::chrono::seconds(60)), 0);

    std::ifstream log(folder.path("logs/ev.log"));
    int count = 0;
    for (std::string line; std::getline(log, line); count++) {
        ASSERT_EQ(line.size(), strlen("L20240102030405 ") + LENGTH) << line.substr(0, 100);
        ASSERT_EQ(line.find_first_not_of(line.back(), 16), std::string::npos) << "record " << count;
    }
    EXPECT_EQ(count, 2 * RECORDS);
}

TEST_F(CgiOutput, LocksTheFirstByteAndMovesToTheEnd) {
    folder.write("logs/kept", "12345");
    const std::string path = folder.path("logs/kept");
    Child child([&](Child &self) {
        const OwnedFd file(open(path.c_str(), O_RDWR));
        for (const auto &call : {chfilel_lock, chfilel_unlock}) {
            lseek(file.get(), 0, SEEK_SET);
            const int result = call(file.get());
            self.report(std::to_string(result) + " " + std::to_string(lseek(file.get(), 0, SEEK_CUR)) + " " +
                        std::to_string(call(-1)));
            while (getppid() != 1 && folder.read(call == chfilel_lock ? "go" : "end").empty()) usleep(1000);
        }
        return 0;
    });
    EXPECT_EQ(child.next_report(), "0 5 -1");
    EXPECT_TRUE(is_locked_by(path, child.pid()));
    folder.write("go", "x");
    EXPECT_EQ(child.next_report(), "0 5 -1");
    EXPECT_FALSE(is_locked_by(path, child.pid())) << "though it still runs";
    folder.write("end", "x");
    EXPECT_EQ(child.exit_code(), 0);
}

TEST_F(CgiOutput, WritesADebugFileOnlyWhereItIsAskedFor) {
    const auto debug = [](const char *path) {
        return [path] {
            ghDebugFile(path);
            ghDebug("%s\n", "debug");
            ghPrintf("page %d", ghDebugEnabled());
        };
    };
    EXPECT_EQ(both(get(""), debug("debug.log")), PAGE + "page 0");
    EXPECT_FALSE(fs::exists(folder.path("debug.log")));

    folder.write("ghdebug", "");
    const auto written = [this] {
        const std::string text = folder.read("debug.log");
        fs::remove(folder.path("debug.log"));
        return std::regex_replace(text, std::regex("AT [A-Z].{23}\n"), "AT ...\n");
    };
    EXPECT_EQ(run(get(""), debug("debug.log")), PAGE + "page 1");
    EXPECT_EQ(written(), "\n\nSTARTED AT ...\ndebug\n" + PAGE + "page 1");
    EXPECT_EQ(run(get(""), [&] { set_cookie(), debug("debug.log")(); }),
              TEXT_HEAD + COOKIE + "\n" + PRIVATE + "page 1");
    EXPECT_EQ(written(), "\n\nSTARTED AT ...\ndebug\n" + TEXT_HEAD + "Set-Cookie: NAME=v; Path=/p; DOMAIN=d\n" +
                             PRIVATE + "page 1");
    EXPECT_EQ(run(get(""), [] { ghPrintf("page %d", ghDebugEnabled()); }), PAGE + "page 0") << "no name";

    folder.write("target", "");
    fs::create_symlink("target", folder.path("link"));
    const std::string cut(1024, 'x');
    const Rows<std::string, std::string> refused{
        {"x/../debug.log", "\"..\" in path not allowed"},
        {"nowhere/x", strerror(ENOENT)},
        {"link", strerror(ELOOP)},
        {cut, strerror(ENAMETOOLONG)},
    };
    for (const auto &[path, reason] : refused) {
        const std::string given = path == cut ? cut + "yz" : path;
        const std::string page = both(get(""), debug(given.c_str()));
        EXPECT_EQ(page, PAGE + "Cannot open debug file \"" + std::string(path).append("\" ").append(reason) + "\n");
    }
    EXPECT_EQ(folder.read("target"), "");
}

TEST_F(CgiOutput, EndsAProgramWhenItsTimeIsUp) {
    folder.write("ghdebug", "");
    EXPECT_EQ(run(get(""),
                  [] {
                      ghDebugFile("debug.log");
                      ghPrintf("half a page");
                      ghSelfDestruct(1);
                      for (;;) pause();
                  }),
              PAGE + "half a page");
    EXPECT_TRUE(folder.read("debug.log").ends_with("half a pageZero seconds to self destruction!\n"));

    // Nobody reads the page: its end can't be written.
    int ends[2];
    ASSERT_EQ(pipe2(ends, O_CLOEXEC), 0);
    const OwnedFd unread(ends[0]), page(ends[1]);
    run(get(""), [&] {
        dup2(page.get(), STDOUT_FILENO);
        ghSelfDestruct(1);
        for (;;) ghPrintf("%1000d", 1);
    });
}

}  // namespace
