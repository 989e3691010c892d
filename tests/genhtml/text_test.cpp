/* Beneath the templates: text helpers, dates, the filter of active content, variables, key files, memory, scripts. */
#include <signal.h>
#include <stdarg.h>
#include <sys/stat.h>

#include "tests/genhtml/cgi.h"

namespace {

/** A new string of a call, released; "(null)" for none. */
std::string taken(char *text) {
    const OwnedBlock<char> owner(text);
    return text != nullptr ? text : "(null)";
}

std::string value_of(const char *name) {
    char *value = nullptr;
    return ghsVarFetch(name, &value) ? value : "(none)";
}

TEST(Texts, AreEncodedDecodedAndProtected) {
    EXPECT_EQ(taken(ghsEncode("aZ09 +%&_.\x80\xff\n")), "aZ09%20%2b%25%26%5f%2e%80%ff%0a");
    EXPECT_EQ(taken(ghsEncode(nullptr)), "");
    const std::pair<const char *, const char *> coded[] = {
        {"a+b%20c", "a b c"}, {"%41%4a%4A%fF", "AJJ\xff"}, {"100%", "100%"},
        {"%4", "%4"},         {"%4g%g4", "%4g%g4"},        {"%%41", "%A"},
        {"%2541", "%41"},
    };
    for (const auto &[text, plain] : coded) EXPECT_EQ(taken(ghsDecode(text)), plain) << text;
    EXPECT_EQ(taken(ghsHtmlProtect("<a href=\"x\">&amp;'</a>")),
              "&#60;a href=&#34;x&#34;&#62;&#38;amp;'&#60;/a&#62;");
    EXPECT_EQ(taken(ghsHtmlProtect("<$x><#y><")), "<$x&#62;&#60;#y&#62;&#60;");
    EXPECT_EQ(ghsHtmlProtect(nullptr), nullptr);
}

TEST(Texts, AreReplacedUpToALimitOfMatches) {
    EXPECT_EQ(taken(ghsReplace("aaaaa", "aa", "b", 0)), "bba");
    EXPECT_EQ(taken(ghsReplace("x.x.x", "x", "<x>", 1)), "<x>.x.x");
    EXPECT_EQ(taken(ghsReplace("x.x.x", "x", nullptr, 2)), "..x");
    EXPECT_EQ(taken(ghsReplace("x.x.x", "x", "y", -1)), "y.y.y");
    EXPECT_EQ(taken(ghsReplace("text", "", "y", 0)), "text");
    EXPECT_EQ(taken(ghsReplace("text", nullptr, "y", 0)), "text");
    EXPECT_EQ(taken(ghsReplace(nullptr, "x", "y", 0)), "");

    const std::string long_text = "x" + std::string(200000, 'l');  // more than a line may have
    EXPECT_EQ(taken(ghsReplace(long_text.c_str(), "x", "y", 0)), long_text);
    EXPECT_EQ(ghsErrno, 0);
}

TEST(Texts, HaveTokens) {
    const Rows<const char *, const char *, const char *, std::string, std::string> rows{
        // found: "inside start length"
        {"a<b>c<d>e", "<", ">", "b 1 3", "d 5 3"},
        {"<a<b>c>", "<", ">", "a<b 0 5", "b 2 3"},
        {"<<a>>", "<<", ">>", "a 0 5", "a 0 5"},
        {"x>y<z", "<", ">", "", ""},
        {"<a>b> <c", "<", ">", "a 0 3", "a 0 3"},
        {"<<<a>", "<<", ">", "<a 0 5", "<a 0 5"},
        {"<>", "<", ">", " 0 2", " 0 2"},
        {"-a-b-", "-", "-", "a 0 3", "b 2 3"},
        {"<a", "<", ">", "", ""},
        {"<", "<", "<", "", ""},
        {"", "<", ">", "", ""},
    };
    for (const auto &[text, open, close, first, last] : rows) {
        for (const auto &[find, expected] : {std::pair{&ghsFindToken, first}, {&ghsFindLastToken, last}}) {
            int start = -7, length = -7;
            const OwnedBlock<char> inside(find(text, open, close, &start, &length));
            const std::string found = std::to_string(start) + " " + std::to_string(length);
            EXPECT_EQ(inside ? inside.get() + (" " + found) : found, expected.empty() ? "-7 -7" : expected) << text;
        }
    }
    EXPECT_EQ(ghsFindLastToken("<a>", "", ">", nullptr, nullptr), nullptr);
    EXPECT_EQ(ghsFindLastToken("<a>", "<", nullptr, nullptr, nullptr), nullptr);
    EXPECT_EQ(taken(ghsFindToken("<a>", "<", ">", nullptr, nullptr)), "a");
}

TEST(Texts, AreSearchedRegardlessOfCaseAndWithoutTheirBlanks) {
    char text[] = " \t\v aBc", *place = text;
    EXPECT_STREQ(ghsSkipBlanks(&place), "aBc");
    EXPECT_EQ(place, text + 4);
    EXPECT_EQ(ghsStrStr(text, "bC", 0), nullptr);
    EXPECT_EQ(ghsStrStr(text, "Bc", 0), text + 5);
    EXPECT_EQ(ghsStrStr(text, "bC", 1), text + 5);
    EXPECT_EQ(ghsStrStr(nullptr, "b", 1), nullptr);
    EXPECT_EQ(ghsStrStr(text, nullptr, 0), nullptr);
}

TEST(Dates, AreTextsOfLocalTime) {
    constexpr char utc[] = "UTC", berlin[] = "CET-1CEST,M3.5.0,M10.5.0/3";
    const Rows<const char *, const char *, time_t, const char *> rows{
        {utc, "20010203040506", 981173106, "20010203040506"},
        {berlin, "20010703040506", 994125906, "20010703040506"},
        {utc, "20010203040506789", 981173106, "20010203040506"},
        {utc, "2001", 978307199, "20001231235959"},  // its month and day are zeros
        {utc, "20010230120000", 983404799, "20010228235959"},
        {berlin, "20010325023000", 985481999, "20010325015959"},  // the hour that summer takes
        {utc, "19600101000000", 0, "19700101000000"},
        {utc, "21000101000000", 2147483646, "20380119031406"},
        {utc, nullptr, 0, "19700101000000"},
    };
    for (const auto &[zone, text, time, nearest] : rows) {
        setenv("TZ", zone, 1);
        EXPECT_EQ(ghsStr2Time(text), time) << text;
        EXPECT_STREQ(ghsTime2Str(time), nearest);
    }
    unsetenv("TZ");
}

TEST(Texts, LoseTheirActiveContent) {
    const Rows<std::string, const char *, int> rows{
        {"plain <b>text</b> & more", "plain <b>text</b> & more", 0},
        {"<script>x</script>", "  cript>x</script>", 1},
        {"< \t SCRIPT", "  \t  CRIPT", 1},
        {"<noscript><iFrame><object>", "  oscript>  Frame>  bject>", 3},
        {"<embed src=a.htm>", "  mbed src=a.htm>", 1},
        {"<EMBED HTML", "  MBED HTML", 1},
        {"<embed src=a.mid> htm", "<embed src=a.mid> htm", 0},
        {"<scripts> <embed Htm>", "<scripts> <embed Htm>", 0},
        {"&{x};", "  x};", 1},
        {"& {x}; &amp; & x{", "   x}; &amp; & x{", 1},
        {"<$COOKIE> < $AUTH> <$AUTHOR> <$cookie>", " $COOKIE>   $AUTH> <$AUTHOR> <$cookie>", 2},
        {"onclick ONLOAD aonErrorb", "  click   LOAD a  Errorb", 3},
        {"onAbort onBlur onChange onFocus onMouseout onMouseOver onReset onSelect onSubmit onUnload",
         "  Abort   Blur   Change   Focus   Mouseout   MouseOver   Reset   Select   Submit   Unload", 10},
        {"on click, onward, onmouse", "on click, onward, onmouse", 0},
        {"<&{script>", "    cript>", 2},  // what one change lays open goes as well
        {"< < &{ <script", "< <      cript", 2},
        {"<<script <", "<  cript <", 1},
    };
    for (const auto &[text, filtered, changes] : rows) {
        std::string copy = text;
        EXPECT_EQ(ghsFilterActiveContent(copy.data()), changes) << text;
        EXPECT_EQ(copy, filtered);
    }
}

TEST(Variables, AreStoredOnceAndProtectedAsAsked) {
    EXPECT_EQ(ghsVarDefined("x"), 0);
    char untouched[] = "untouched", *value = untouched;
    EXPECT_EQ(ghsVarFetch(nullptr, &value), 0);
    EXPECT_STREQ(value, "untouched");
    EXPECT_EQ(ghsVarFetch("x", &value), 0);
    EXPECT_STREQ(value, "");

    EXPECT_EQ(ghsSaveForReplace("x", "<1>", 1), 0);
    EXPECT_EQ(ghsSaveForReplace("x", "<2>", 0), 0);
    EXPECT_EQ(ghsSaveForReplace("null", nullptr, 0), 0);
    EXPECT_EQ(ghsSaveForReplace("", "nothing", 0), 0);
    EXPECT_EQ(ghsSaveForReplace(nullptr, "nothing", 0), 0);
    ghsSaveForReplace("g_x", "<3>", 0);
    EXPECT_EQ(value_of("x"), "<2>");
    EXPECT_EQ(value_of("null"), "");
    EXPECT_EQ(value_of(""), "(none)");

    ghsProtectAll();
    ghsProtectAll();  // once is enough, until a value comes that isn't protected
    EXPECT_EQ(value_of("x"), "&#60;2&#62;");
    EXPECT_EQ(value_of("g_x"), "<3>");
    ghsSaveForReplace("y", "<4>", 0);
    ghsProtectAll();
    EXPECT_EQ(value_of("y"), "&#60;4&#62;");
    EXPECT_EQ(value_of("x"), "&#38;#60;2&#38;#62;");

    EXPECT_EQ(taken(ghsExpandVariable("<$y> <#none>[<#n<$none>ull>]")), "&#60;4&#62; []");
    ghsReplaceRemove("x");
    ghsReplaceRemove(nullptr);
    EXPECT_EQ(ghsVarDefined("x"), 0);
    ghsReplaceFree();
    EXPECT_EQ(ghsVarDefined("y"), 0);
    ghsSaveForReplace("y", "5", 0);
    EXPECT_EQ(value_of("y"), "5");
    ghsReplaceFree();
}

TEST(KeyFile, IsReadByLines) {
    const RootFolder root;
    root.write("keys",
               "# comment\n#\n  # comment\n \t\nplain value  with blanks \t\n\tindented\tvalue # not a comment\n"
               "empty\nlines one\\ntwo\\\\n\nlong a \\ \n   b\\\n\tc \nended a\\\\\n  \nagain 1\nagain 2\nslash\\\n"
               "two a\\\\\nb\nwide " +
                   std::string(5000, 'w') + "\nlast end\\");
    PAA_S *const table = ghsReadArray(nullptr, root.path("keys").c_str());
    ASSERT_NE(table, nullptr);
    const std::pair<std::string, std::string> entries[] = {
        {"plain", "value  with blanks"},
        {"indented", "value # not a comment"},
        {"empty", ""},
        {"lines", "one\ntwo\\\n"},
        {"long", "a bc"},
        {"ended", "a\\"},
        {"again", "2"},
        {"slash\\", ""},
        {"two", "a\\b"},
        {"wide", std::string(4090, 'w')},
        {std::string(910, 'w'), ""},
        {"last", "end"},
    };
    for (const auto &[key, expected] : entries) {
        char *value = nullptr;
        EXPECT_TRUE(ghsHashFetch(table, key.c_str(), &value)) << key;
        EXPECT_EQ(value, expected) << key;
    }
    EXPECT_EQ(static_cast<size_t>(table->count), std::size(entries));
    EXPECT_EQ(ghsReadArray(table, root.path("none").c_str()), nullptr);
    EXPECT_EQ(ghsErrMsg,
              "ghsReadArray: Cannot open file \"" + root.path("none") + "\": No such file or directory.\n");
    EXPECT_EQ(ghsErrno, 25);
    EXPECT_NE(table->count, 0) << "the caller's table stays";
    paaDestroy(table);

    EXPECT_EQ(ghsReadConfig("./../keys"), -1);
    EXPECT_EQ(ghsErrno, 26);
    EXPECT_EQ(ghsReadConfig(root.path("keys").c_str()), 0);
    EXPECT_EQ(value_of("again"), "2");
    ghsReplaceFree();
}

TEST(Memory, IsZeroedCopiedAndJoined) {
    const OwnedBlock<char> zeros(static_cast<char *>(ghsMalloc(nullptr, 1000)));
    EXPECT_EQ(std::string(zeros.get(), 1000), std::string(1000, '\0'));
    EXPECT_EQ(taken(static_cast<char *>(ghsMemdup("t", "copy", 5))), "copy");
    EXPECT_EQ(taken(ghsStrdup("t", nullptr)), "");
    EXPECT_EQ(taken(ghsStrcat("t", nullptr, nullptr)), "");
    EXPECT_EQ(taken(ghsStrcat("t", "a", nullptr)) + taken(ghsStrcat("t", "", "b")) + taken(ghsStrcat("t", "c", "d")),
              "abcd");
    EXPECT_EQ(taken(ghsNStrcat("t", nullptr)), "");
#define TEN "0", "1", "2", "3", "4", "5", "6", "7", "8", "9"
    std::string seventy;
    for (int i = 0; i < 70; ++i) seventy += std::to_string(i % 10);
    EXPECT_EQ(taken(ghsNStrcat("t", "first", TEN, TEN, TEN, TEN, TEN, TEN, TEN, static_cast<char *>(nullptr))),
              "first" + seventy);

    EXPECT_EQ(ghsErrno, 0);
    EXPECT_STREQ(ghsErrMsg, "t: Ok.\n");
    testing::internal::CaptureStdout();
    for (const int size : {-1, 0}) EXPECT_EQ(ghsMalloc("t", size), nullptr);
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "") << "it would stand before the page's header";
    EXPECT_EQ(ghsErrno, 10);
    EXPECT_STREQ(ghsErrMsg, "t: Out of memory.\n");

    std::string many;
    for (int i = 0; i < 3000; ++i) many += "word, ";
    std::vector<char *> items(3002);
    EXPECT_EQ(ghsSplit(many.c_str(), ", ", items.data()), 3001) << "the end in the delimiters as a whole is an item";
    EXPECT_EQ(items[3001], nullptr);
    EXPECT_EQ(taken(items[2999]) + "|" + taken(items[3000]), "word|");
    for (size_t i = 0; i < 2999; ++i) free(items[i]);
    EXPECT_EQ(ghsSplit("b ", ", ", items.data()), 1) << "half of them is none";
    free(items[0]);
}

// ---- Scripts: programs in the folders of a platform --------------------------------------------------------------------

class Scripts : public Cgi {
protected:
    void SetUp() override {
        program("site/cgi/page", "echo \"page$SETTING\"; for word; do echo \"[$word]\"; done");
        program("site/cgi/own.pl", "echo not run by itself");
        program("bin/gathering/report", "echo report; for word; do echo \"[$word]\"; done");
        program("bin/gathering/count.pl", "");
        program("bin/perl", "echo perl \"$@\"");
        program("site/bin/gathering/admin.pl", "");
        program("site/bin/perl", "echo admin perl \"$@\"");
        program("site/cgi/code", "exit $1");
        program("site/cgi/killed", "kill -9 $$");
        folder.write("site/cgi/text", "not a program\n");
    }
    void program(const std::string &path, const std::string &script) const {
        folder.write(path, "#!/bin/sh\n" + script + "\n");
        chmod(folder.path(path).c_str(), 0755);
    }
    /** What a command prints, and its code. Fields of the query are variables as well. */
    std::string called(const std::string &command, const std::string &query = "") const {
        Request request = get(query).with("SETTING=!");
        request.before = [] {
            EXPECT_EQ(chdir("site/cgi"), 0);
            signal(SIGCHLD, SIG_IGN);  // as some web servers leave it
        };
        return run(request, [&command] {
            ghIn2Replace(0);
            printf("> ");
            ghsCallScript(command.c_str());
            printf("%d", ghsErrno);
        });
    }
};

TEST_F(Scripts, AreFoundRunAndToldTheirDepth) {
    const std::pair<const char *, std::string> rows[] = {
        {"", "> 0"},
        {"page", "> page!\n[&NOHTTPHEAD=1]\n0"},
        {"page?a b=c \"d  e\"f \"g", "> page!\n[a]\n[b=c]\n[\"d  e\"]\n[f]\n[\"g&NOHTTPHEAD=1]\n0"},
        {"page a?b", "> 2"},
        {"page $(id);`id` | > * &", "> page!\n[$(id);`id`]\n[|]\n[>]\n[*]\n[&&NOHTTPHEAD=1]\n0"},
        {"report a?b", "> 2"},
        {"report a b", "> report\n[a]\n[b]\n0"},
        {"own.pl?x", "> perl ./own.pl x&NOHTTPHEAD=1\n0"},
        {"count.pl x", "> perl ../../bin/gathering/count.pl x\n0"},
        {"none", "> 2"},
        {"../cgi/page", "> 1"},
        {"a..b", "> 1"},
        {"page ..", "> page!\n[..&NOHTTPHEAD=1]\n0"},
        {"code?7 ", "> 7"},
        {"text", "> 255"},
        {"/bin/sh", "> 2"},
    };
    for (const auto &[command, expected] : rows) EXPECT_EQ(called(command), expected) << command;
    EXPECT_EQ(called("admin.pl x", "selfurl=/administration/"), "> admin perl ../bin/gathering/admin.pl x\n0");
    EXPECT_EQ(called("killed"), "> 137");

    EXPECT_EQ(called("page", "NOHTTPHEAD=8"), "> page!\n[&NOHTTPHEAD=9]\n0");
    EXPECT_EQ(called("page", "NOHTTPHEAD=9"), "> 12");
    EXPECT_EQ(called("page", "NOHTTPHEAD=x"), "> page!\n[&NOHTTPHEAD=1]\n0");
    EXPECT_EQ(called("page", "NOHTTPHEAD=-5"), "> page!\n[&NOHTTPHEAD=1]\n0");

    std::string many = "code?5";  // with the program and the depth's word 1022 in all
    for (int i = 0; i < 1020; ++i) many += " x";
    EXPECT_EQ(called(many), "> 5");
    EXPECT_EQ(called(many + " x"), "> 12");
}

TEST_F(Scripts, ThatCannotBeStartedPrintNothingOfThePageTwice) {
    folder.write("page.html", "first\n<!-- #include script=\"site/cgi/text\" -->\n");
    const auto page = [] {
        const OwnedFile file(fopen("printed", "w"));
        ghsPrintTemplate(file.get(), "page.html");
        printf("%d", ghsErrno);
    };
    EXPECT_EQ(run(get(""), page), "255");
    EXPECT_EQ(folder.read("printed"), "first\n\nError running script, errno=<255>\n\nsite/cgi/text\n");
}

}  // namespace
