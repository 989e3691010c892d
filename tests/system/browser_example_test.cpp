/* The record browser of examples/browser, through its CGI interface: environment and standard input in, a page out, and
 * the database looked at afterwards. ./test --web does the same in a browser. */
#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>
#include <fstream>
#include <regex>
#include <sstream>

#include "tests/support/child.h"
#include "tests/support/serverprocess.h"

namespace {

constexpr char PROGRAM_FOLDER[] = VELMORA_BIN_DIR "/../browser";

class BrowserExample : public testing::Test {
protected:
    ServerProcess server{{.options = {"-HARDEN"}, .names = "MEMBERS USERS\n"}};
    std::string address = "127.0.0.1:" + std::to_string(server.port());

    void SetUp() override {
        std::ostringstream demo;
        demo << std::ifstream(VELMORA_SOURCE_DIR "/examples/browser/demo.sql").rdbuf();
        server.sql(demo.str());
    }

    std::string run(const char *method, const std::string &query, const std::string &body, const char *origin) const {
        server.root().write("body", body);
        Child child([&](Child &) {
            setenv("RASERVER", address.c_str(), 1);
            setenv("VELHARDEN", "1", 1);
            setenv("SCRIPT_NAME", "/records", 1);
            setenv("HTTP_HOST", "here", 1);
            setenv("HTTP_ORIGIN", origin, 1);
            setenv("REQUEST_METHOD", method, 1);
            setenv("QUERY_STRING", query.c_str(), 1);
            setenv("CONTENT_TYPE", "application/x-www-form-urlencoded", 1);
            setenv("CONTENT_LENGTH", std::to_string(body.size()).c_str(), 1);
            dup2(open(server.root().path("body").c_str(), O_RDONLY), STDIN_FILENO);
            if (chdir(PROGRAM_FOLDER) == 0) execl("./records", "records", nullptr);
            return 127;
        });
        EXPECT_EQ(child.exit_code(std::chrono::seconds(60)), 0);
        return child.output();
    }
    std::string get(const std::string &query) const { return run("GET", query, "", "http://here"); }
    std::string post(const std::string &body, const char *origin = "http://here") const {
        return run("POST", "", body, origin);
    }
};

/** Every first group of a pattern in a page, one a line. */
std::string all(const std::string &page, const std::string &pattern) {
    const std::regex expression(pattern);
    std::string found;
    for (std::sregex_iterator next(page.begin(), page.end(), expression), end; next != end; ++next) {
        found += (*next)[1].str() + "\n";
    }
    return found;
}

std::string ids(const std::string &page) { return all(page, "<th scope=\"row\"><a [^>]*>([^<]*)</a>"); }

/** The query behind a link to another page of the list; empty without one. */
std::string query_of(const std::string &page, const std::string &relation) {
    std::string query = all(page, "rel=\"" + relation + "\" href=\"/records\\?([^\"]*)\"");
    query = std::regex_replace(query, std::regex("&#38;"), "&");
    return query.substr(0, query.find('\n'));
}

TEST_F(BrowserExample, PagesThroughAllRecordsAndBack) {
    struct Row {
        const char *query, *order;
    };
    constexpr Row rows[] = {
        {"table=PLACES", "ID"},
        {"table=PLACES&sort=ID&order=down", "ID DESC"},
        {"table=PLACES&sort=COUNTRY", "COUNTRY, ID"},  // which several records have in common
        {"table=PLACES&sort=COUNTRY&order=down&rows=25", "COUNTRY DESC, ID DESC"},
    };
    for (const Row &row : rows) {
        std::string page = get(row.query);
        Strings pages{ids(page)};
        for (; !query_of(page, "next").empty(); pages.push_back(ids(page))) page = get(query_of(page, "next"));
        std::string joined,
            sorted = "SELECT group_concat(ID, char(10)) || char(10) FROM (SELECT ID FROM PLACES ORDER BY ";
        for (const std::string &one : pages) joined += one;
        EXPECT_EQ(joined, server.value(sorted.append(row.order).append(")"))) << row.query;
        ASSERT_GT(pages.size(), 2U);
        for (size_t i = pages.size() - 1; i-- > 0;) {
            page = get(query_of(page, "prev"));
            EXPECT_EQ(ids(page), pages[i]) << row.query;
        }
        EXPECT_EQ(query_of(page, "prev"), "");
    }
    EXPECT_EQ(ids(get("table=PLACES&filter=b*n")), "bergen\nbern\nbremen\n");
    EXPECT_EQ(ids(get("table=PLACES&filter=erg")), "bergen\n") << "a filter without wildcards may stand anywhere";
}

TEST_F(BrowserExample, ChangesRecordsByForms) {
    const std::string record = "do=record&id=new&done=";
    const auto redirected = [&](const std::string &page) {
        const size_t start = page.find("Location: /records?");
        return start == std::string::npos ? page : page.substr(start + 19, page.find('\n', start) - start - 19);
    };
    EXPECT_EQ(redirected(post("table=PLACES&sort=NAME&do=insert&f_ID=new&f_NAME=N&f_COUNTRY=C&f_NOTE=a%0D%0Ab")),
              "table=PLACES&sort=NAME&" + record + "insert");
    EXPECT_EQ(server.value("SELECT NAME || COUNTRY || NOTE || VISITS FROM PLACES WHERE ID = 'new'"),
              "NCa\nb00000000");
    redirected(post("table=PLACES&do=update&id=new&f_ID=other&f_NAME=M&f_COUNTRY="));
    EXPECT_EQ(server.value("SELECT NAME || ifnull(COUNTRY, '-') FROM PLACES WHERE ID = 'new'"), "M-");
    EXPECT_EQ(redirected(post("table=PLACES&do=count&id=new&column=VISITS&by=17")),
              "table=PLACES&" + record + "count");
    EXPECT_EQ(server.value("SELECT VISITS FROM PLACES WHERE ID = 'new'"), "00000011");
    EXPECT_NE(get("table=PLACES&do=record&id=new").find("<span class=\"value\">17</span>"), std::string::npos);
    EXPECT_EQ(redirected(post("table=PLACES&do=delete&id=new")), "table=PLACES&id=new&done=delete");
    EXPECT_EQ(server.value("SELECT COUNT(*) FROM PLACES WHERE ID = 'new'"), "0");
}

TEST_F(BrowserExample, ShowsValuesThatCanDoNothing) {
    const std::string value = "<$g_self> <#g_self> [b]x[/b] <script>\"' onclick=&amp; javascript:";
    const std::string shown =
        "&#60;$g_self&#62; &#60;#g_self&#62; &#91;b]x&#91;/b] &#60;script&#62;&#34;' onclick=&#38;amp; javascript:";
    server.sql("UPDATE PLACES SET NOTE = replace('" + std::regex_replace(value, std::regex("'"), "''") +
               "', '', '')");
    const std::string encoded = "%3C$g_self%3E%5Bb%5D%22%3E";  // the same in everything that a request says
    for (const std::string &query :
         Strings{"table=PLACES", "table=PLACES&do=record&id=oslo", "table=PLACES&do=confirm&id=oslo"}) {
        EXPECT_NE(get(query).find(shown), std::string::npos) << query;
    }
    for (std::string query :
         Strings{"table=", "table=PLACES&filter=", "table=PLACES&do=new&filter=", "table=PLACES&do=record&id=",
                 "table=PLACES&do=confirm&id=oslo&x=", "table=PLACES&done=", "table=PLACES&done=insert&id="}) {
        query += encoded;
        const std::string page = get(query);
        EXPECT_EQ(all(page, "(\\[b|<\\$|/records>|b\\]\")"), "") << page;
    }
}

TEST_F(BrowserExample, TellsEachFailure) {
    const std::string before = server.value("SELECT group_concat(ID || VISITS) FROM PLACES");
    const auto expect = [](const std::string &page, const std::string &status, const std::string &text) {
        EXPECT_EQ(page.substr(0, page.find(' ', 8)), "Status: " + status) << page;
        EXPECT_NE(page.find(text), std::string::npos) << page;
    };
    expect(get("table=PLACES&do=record&id=atlantis"), "404", "There is no record “atlantis” any more");
    expect(post("table=PLACES&do=update&id=atlantis&f_NAME=x"), "404", "any more");
    expect(post("table=PLACES&do=delete&id=atlantis"), "404", "any more");
    expect(post("table=PLACES&do=insert&f_ID=oslo&f_NAME=kept"), "422", "There is a record “oslo” already");
    expect(post("table=PLACES&do=insert&f_NAME=kept"), "422", "value=\"kept\"");
    expect(post("table=PLACES&do=update&id=oslo&f_NAME=" + std::string(41, 'x')), "422", "Name is too long");
    expect(post("table=PLACES&do=count&id=oslo&column=VISITS&by=1x"), "422", "no number");
    expect(post("table=PLACES&do=count&id=oslo&column=NAME&by=1"), "422", "no number");
    expect(get("table=PLACES&do=delete&id=oslo"), "405", "A link changes nothing here");
    expect(post("table=PLACES&do=delete&id=oslo", "http://there"), "403", "another site");
    expect(get("table=PLACES&do=record"), "400", "Which record?");
    expect(get("table=SECRETS"), "404", "no table");
    EXPECT_EQ(server.value("SELECT group_concat(ID || VISITS) FROM PLACES"), before);

    server.sql("DROP TABLE USERS");
    expect(get("table=MEMBERS"), "502", "The server does not know this table");
    address = "127.0.0.1:" + std::to_string(free_port());
    expect(get("table=PLACES"), "504", "The server does not answer");
}

}  // namespace
