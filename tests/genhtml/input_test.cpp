/* How a request gets into the input table: every method, form and limit, and what hostile ones come to. */
#include <sys/resource.h>

#include <regex>

#include "tests/genhtml/cgi.h"

namespace {

using CgiInput = Cgi;

std::string repeated(const std::string &text, int times) {
    std::string all;
    for (int i = 0; i < times; i++) all += text;
    return all;
}

std::string too_many_items() { return error_page("ghSplit: Too many items in line to split, 1022\n"); }

TEST_F(CgiInput, CutsQueriesIntoFields) {
    const Rows<std::string, std::string> rows{
        {"", ""},
        {"a=1&b=2", "&a=1&b=2"},
        {"&a=1&&b=2&", "&a=1&b=2"},
        {"a&=b&=&c=", "&c="},
        {"a=1=2&b==3&c==", "&a=1&b=3&c="},
        {"a=1&a=2", "&a=2"},
        {"+a%09=+x+y%0a", "&a=x%20y"},
        {"%2B=%zz%4&%61=%4a%4", "&%2b=%25zz%254&a=J%254"},
        {"+=x&b=++", "&=x&b="},
        {"+=x&%20=y", "&=y"},
        {"a=x%00y&%00=z", "&a=x&=z"},
        {"g_secret=1&G_x=2&%67_s=3&+g_t=4&xg_=5", "&G%5fx=2&xg%5f=5"},
        {repeated("f=1&", 1021) + "last=1", "&f=1&last=1"},
        {repeated("f=1&", 1022), "&f=1"},
        {repeated("f=1&", 1022) + "last=1", too_many_items()},
        {repeated("f&", 100000), too_many_items()},
        {"a" + repeated("=x", 1021), "&a=x"},
        {"a" + repeated("=x", 1022), too_many_items()},
    };
    for (const auto &[query, stored] : rows) {
        SCOPED_TRACE(query.substr(0, 60));
        const bool fits = query.size() < 100000;  // in the environment
        EXPECT_EQ(both(fits ? get(query) : post(query)), stored);
    }
    EXPECT_EQ(both({{"REQUEST_METHOD=GET"}}), "");
    EXPECT_EQ(run(get("NOHTTPHEAD=1&a=1")), "&NOHTTPHEAD=1&a=1");
    EXPECT_EQ(hardened(get("NOHTTPHEAD=1&a=1")), "&a=1");
}

TEST_F(CgiInput, TakesAQueryFromTheCommandLine) {
    const std::string usage = PAGE +
                              "ghReadParse: No Request Method given. Assuming Test Mode.\n"
                              "ghReadParse: test usage: program querystring\n";
    const Rows<Strings, Strings, std::string> rows{
        {{}, {"a=1"}, "&a=1"},
        {{}, {""}, ""},
        {{}, {}, usage},
        {{}, {"a=1", "b=2"}, usage},
        {{"QUERY_STRING=q=1"}, {"a=1"}, "&a=1"},
        {{"REQUEST_METHOD=GET", "QUERY_STRING=q=1"}, {"a=1"}, "&q=1"},
        {{"REQUEST_METHOD=GET", "QUERY_STRING=q=1"}, {"a=1&NOHTTPHEAD=0"}, "&a=1&NOHTTPHEAD=0"},
        {{"REQUEST_METHOD=GET", "QUERY_STRING=q=1"}, {"NOHTTPHEAD=1", "x"}, "&q=1"},
        {{"REQUEST_METHOD=HEAD"}, {"a=1&NOHTTPHEAD="}, "&a=1&NOHTTPHEAD="},
    };
    for (const auto &[environment, arguments, stored] : rows) {
        SCOPED_TRACE(testing::PrintToString(arguments));
        EXPECT_EQ(both({environment, "", arguments}), stored);
    }
}

TEST_F(CgiInput, ReadsOnlyTheFirstTime) {
    const auto again = [] { setenv("QUERY_STRING", "b=2", 1), ghReadParse(0, nullptr), print_input(); };
    EXPECT_EQ(both(get("a=1"), again), "&a=1");
}

TEST_F(CgiInput, AnswersOtherMethodsWithAHead) {
    const std::regex head(
        "Last-Modified: [A-Z][a-z]{2}, \\d\\d [A-Z][a-z]{2} \\d{4} \\d\\d:\\d\\d:\\d\\d GMT\n"
        "Content-Length: (\\d+)\nContent-Type: text/html\n\n");
    for (const char *method : {"HEAD", "PUT", "get", ""}) {
        Child child(work({{std::string("REQUEST_METHOD=") + method, "QUERY_STRING=a=1"}}, print_input));
        EXPECT_EQ(child.exit_code(), 0);
        const std::string output = child.output();
        std::smatch parts;
        ASSERT_TRUE(std::regex_match(output, parts, head)) << output;
        EXPECT_EQ(parts[1], std::to_string(child.pid()));
    }
}

TEST_F(CgiInput, ReadsAsMuchOfABodyAsItsLengthSays) {
    const auto of_length = [](const std::string &length, const std::string &query = "q=2") {
        Request request = post("a=1&b=2").with("QUERY_STRING=" + query);
        if (length == "none") request.environment.pop_back();
        return length == "none" ? request : request.with("CONTENT_LENGTH=" + length);
    };
    const std::string too_long = error_page("ghReadParse: POST input too long, 2147483647 bytes\n");
    EXPECT_EQ(both(post("a=1&b=2")), "&a=1&b=2");
    EXPECT_EQ(both(post("a=1")), "&a=1");
    EXPECT_EQ(both(post(std::string("a=1\0&b=2", 8))), "&a=1") << "a text ends at its first zero byte";
    const Rows<const char *, const char *> rows{
        {"7", "&q=2&a=1&b=2"},
        {"5", "&q=2&a=1"},
        {"100", "&q=2&a=1&b=2"},
        {"0", "&q=2"},
        {"-7", "&q=2"},
        {"seven", "&q=2"},
        {"", ""},
        {"none", ""},
        {"99999999999999999999", too_long.c_str()},
    };
    for (const auto &[length, stored] : rows) EXPECT_EQ(both(of_length(length)), stored) << length;
    EXPECT_EQ(both(of_length("3", "")), "&a=1");
}

TEST_F(CgiInput, LimitsBodiesThatAreNoForms) {
    const auto print_length = [] {
        char *value = nullptr;
        ghInFetch("a", &value);
        printf("%zu", strlen(value));
    };
    const auto answer = [&](size_t size, const std::string &query) {
        return both(post("a=" + std::string(size - 2, 'x')).with("QUERY_STRING=" + query), print_length);
    };
    const std::string refused = error_page("ghReadParse: POST input too long, 1048576 bytes\n");
    EXPECT_EQ(answer(1048575, ""), "1048573");
    EXPECT_EQ(answer(1048576, ""), refused);
    EXPECT_EQ(answer(1048571, "q=1"), "1048569") << "the query and what joins it count";
    EXPECT_EQ(answer(1048572, "q=1"), refused);

    for (const char *type :
         {"multipart/form-data", "Multipart/form-data; boundary=B", "multipart/mixed; boundary=B"}) {
        EXPECT_EQ(both(post("a=1", type)), "&a=1") << type;
    }
}

std::string part(const std::string &head, const std::string &body) {
    return "--BOUND\r\nContent-Disposition: form-data" + head + "\r\n\r\n" + body + "\r\n";
}
std::string file_part(const std::string &body) {
    return part("; name=\"f\"; filename=\"c%3A+x\"\r\nContent-Type: text/x; y \t", body);
}
std::string stored_file(const std::string &body) {
    return "&f=" + body + "&f%5fMIMETYPE=text%2fx%3b%20y&f%5fFILENAME=c%3a%20x";
}

TEST_F(CgiInput, CutsFormsIntoParts) {
    const std::string end = "--BOUND--\r\n", a = part("; name=\"a\"", "1"), z = part("; name=\"z\"", "26") + end;
    std::string many, stored_many;
    for (int number = 0; number < 2000; number++) {
        const std::string name = "f" + std::to_string(number);
        many += part("; name=\"" + name + "\"", "1");
        stored_many += "&" + name + "=1";
    }
    const Rows<const char *, std::string, std::string> rows{
        {"two fields", a + z, "&a=1&z=26"},
        {"text in front", "to whom it may concern\r\n" + a + z, "&a=1&z=26"},
        {"decoded and trimmed", part("; name=\"%61+b\"", " x+y%41\r\n ") + z, "&a%20b=x%20yA&z=26"},
        {"no blank", part(";name=\"a\";x", "1") + z, "&a=1&z=26"},
        {"own name", part("; name=\"g_a\"", "1") + part("; name=\"%67_a\"", "1") + z, "&z=26"},
        {"no name", part("", "1") + part("; name=a", "2") + part("; name=\"a", "3") + z, "&z=26"},
        {"a head in a part without a name", part("", "Content-Disposition: x; name=\"b\"\r\n\r\n1") + z, "&z=26"},
        {"no disposition", "--BOUND\r\nContent-Type: x; name=\"a\"\r\n\r\n1\r\n" + z, "&z=26"},
        {"empty", part("; name=\"a\"", "") + z, "&a=&z=26"},
        {"no body", "--BOUND\r\nContent-Disposition: form-data; name=\"a\"\r\n\r\n" + z, "&z=26"},
        {"a long line", part("; name=\"a\"", std::string(10000, 'x')) + z, "&a=" + std::string(10000, 'x') + "&z=26"},
        {"long upload", file_part(repeated("12345\n", 3000)) + z, stored_file(repeated("12345%0a", 3000)) + "&z=26"},
        {"boundary in a line", part("; name=\"a\"", "1\r\nxBOUNDx\r\n2") + z, "&a=1&z=26"},
        {"upload", file_part("+%41 \r\nx\r\n") + z, stored_file("%2b%2541%20%0d%0ax%0d%0a") + "&z=26"},
        {"bytes to escape", file_part(std::string("\0\1\2\3", 4)) + end, stored_file("%02%03%02%04%02%05%03")},
        {"line feeds", file_part("x\r\n\n") + end, stored_file("x%0d%0a%0a")},
        {"a line of its own", "--BOUND\r\n; name=\"f\"\r\n" + a + end, "&a=1"},
        {"empty file field", part("; name=\"f\"; filename=\"\"\r\nContent-Type: text/x", "") + z, "&f=%0d%0a&z=26"},
        {"upload without type", part("; name=\"f\"; filename=\"x\"", "one\r\ntwo") + z, "&f=two&z=26"},
        {"the last of equal names", a + part("; name=\"a\"", "2") + z, "&a=2&z=26"},
        {"many parts", many + z, stored_many + "&z=26"},
        {"no end", a + part("; name=\"b\"", "2"), "&a=1&b=2"},
        {"cut in a body", a.substr(0, a.size() - 2), "&a=1"},
        {"cut in a head", a + z.substr(0, 30), "&a=1"},
        {"bare line feeds", "--BOUND\nContent-Disposition: form-data; name=\"a\"\n\n1\n--BOUND--\n", ""},
        {"no boundary", "Content-Disposition: form-data; name=\"a\"\r\n\r\n1\r\n", ""},
        {"nothing", "", ""},
    };
    for (const auto &[what, body, stored] : rows) EXPECT_EQ(both(form(body)), stored) << what;

    EXPECT_EQ(both(form("--BOUND\r\nContent-Disposition: x; name=\"a\"\r\n\r\nx\r\n\n\n--BOUND")), "&a=x");
    EXPECT_EQ(both(form(file_part("x\n").substr(0, file_part("x\n").size() - 2) + end)), stored_file("x%0a"));
    EXPECT_EQ(both(form(a + z, "\"BOUND\"")), "") << "all that follows the sign is the boundary";
    EXPECT_EQ(both(form(a + z).with("QUERY_STRING=q=1&a=2")), "&a=2&z=26&q=1");
    EXPECT_EQ(both(form(a + z).with("CONTENT_LENGTH=" + std::to_string(a.size()))), "&a=1");
    EXPECT_EQ(both(form(a + z).with("CONTENT_LENGTH=")), "&a=1&z=26");
    EXPECT_EQ(run(form(part("; name=\"NOHTTPHEAD\"", "1"))), "&NOHTTPHEAD=1");
    EXPECT_EQ(hardened(form(part("; name=\"NOHTTPHEAD\"", "1"))), "");
}

TEST_F(CgiInput, ReadsLinesInAFormFitForTexts) {
    const auto pieces = [this](const std::string &body, int size, const std::string &length) {
        return both({{"CONTENT_LENGTH=" + length}, body, {""}}, [size] {
            char piece[100];
            for (int got = 1, times = 0; got > 0 && times < 9; times++) {
                got = ghfgets(piece, size, stdin);
                printf("%d %s|", got, OwnedBlock<char>(ghEncode(got > 0 ? piece : "")).get());
            }
        });
    };
    EXPECT_EQ(pieces(std::string("ab\0c\n\1\2", 7), 5, ""), "4 ab%02%03|2 c%0a|4 %02%04%02%05|0 |");
    EXPECT_EQ(pieces("abcdef\n\n", 5, "100"), "3 abc|3 def|1 %0a|1 %0a|0 |");
    EXPECT_EQ(pieces("abcdef", 100, "4"), "4 abcd|0 |");
    EXPECT_EQ(pieces("abcdef", 2, ""), "0 |");
}

TEST_F(CgiInput, HoldsOfAFormNoMoreThanItsFields) {
    const auto memory = [] {
        struct rusage used {};
        getrusage(RUSAGE_SELF, &used);
        return used.ru_maxrss / 1024;
    };
    static long at_start;
    const auto taken = [&](Request request) {
        request.before = [memory] { at_start = memory(); };
        return std::stol(run(request, [memory] { printf("%ld", memory() - at_start); }));
    };
#ifdef __SANITIZE_ADDRESS__
    constexpr long SET_ASIDE = 600;  // freed blocks that the checks keep
#else
    constexpr long SET_ASIDE = 0;
#endif
    constexpr size_t SIZE = 50 << 20;
    EXPECT_LT(taken(form(std::string(SIZE, 'x'))), 10) << "no boundary";
    EXPECT_LT(taken(form(std::string(SIZE / 5, '\n'), std::string(100000, 'B'))), 10) << "a long boundary";
    EXPECT_LT(taken(form(file_part("") + std::string(SIZE / 5, '\0'))), 5 * 10 + SET_ASIDE)
        << "escaped twice as long";
    EXPECT_LT(taken(form(repeated(part("; name=\"a\"; filename=\"x\"", "1"), 100000))), 10 + SET_ASIDE)
        << "one field";
}

TEST_F(CgiInput, RefusesLargeBodiesByTheStricterRules) {
    const auto refused = [](const std::string &call, const char *bytes) {
        return error_page(call + ": POST input too long, " + bytes + " bytes\n");
    };
    const std::string page = hardened(form(std::string((64 << 20) + 1, 'x')));
    EXPECT_NE(page.find("<P><B>\nghProcess_Post_Method: POST input too long, 67108865 bytes\n"), std::string::npos)
        << page;

    const auto limited = [](Request request) {
        request.before = [] { ghSaveForReplace("g_MaxPost", "7", 0); };
        return request;
    };
    EXPECT_EQ(both(limited(post("a=1&b=2"))), "&a=1&b=2");
    EXPECT_EQ(run(limited(post("a=1&b=22"))), "&a=1&b=22");
    EXPECT_EQ(hardened(limited(post("a=1&b=22"))), refused("ghReadParse", "8"));
    EXPECT_EQ(hardened(limited(form("--BOUND\r\n"))), refused("ghProcess_Post_Method", "9"));
    EXPECT_EQ(hardened(limited(form("").with("CONTENT_LENGTH=8"))), refused("ghProcess_Post_Method", "8"));
    EXPECT_EQ(hardened(limited(form("1234567").with("CONTENT_LENGTH="))), "");
    EXPECT_EQ(hardened(limited(form("12345678").with("CONTENT_LENGTH="))), refused("ghProcess_Post_Method", "8"));
}

TEST_F(CgiInput, TellsItsStepsInTheTrace) {
    Request request = get("g_a=x%0aL2024&GHDEBUG=%07&a+long+key=22&a+long+key=1");
    request.before = [] { process_context.trace = 1; };
    const auto program = [] { ghInDump(), free(ghIn2Hidden(nullptr)); };
    const std::string line = "---------------------------\n";
    EXPECT_EQ(std::regex_replace(run(request, program), std::regex("T[0-9.]+ PID [0-9]+: |AT [A-Z].{23}"), ""),
              "ghInStore: NOT STORED key = \"g_a\" val = \"x.L2024\"\n\n\nSTARTED \n"
              "ghReadParse: \"g_a=x%0aL2024&GHDEBUG=%07&a+long+key=22&a+long+key=1\"\n" +
                  line + "CGI Parameters (total 2)\n" + line + "GHDEBUG    => [.]\na long key => [1]\n" + line +
                  "ghIn2Hidden: started\nghIn2Hidden: malloced " + std::to_string(2 * (27 + 20) + 6 * 19 + 1) +
                  " bytes\nghIn2Hidden: done\n");

    Request upload = form(part("; name=\"%0aT\"; filename=\"x\"\r\nContent-Type: \x1b", "1"));
    upload.before = request.before;
    const std::string lines = run(upload, [] { free(ghReplaceHTMLLinks("\nhttp://x\r\n")); });
    EXPECT_NE(lines.find("key:\".T\" val:\"(1 bytes file with Content-Type: .\"\n"), std::string::npos) << lines;
    EXPECT_NE(lines.find("prefix \".\" start \"http://x..\" postfix \"\"\n"), std::string::npos) << lines;
}

}  // namespace
