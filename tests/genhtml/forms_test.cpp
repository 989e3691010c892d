/* What a page carries on to the next one, and the input as template variables. What goes out as a query or as hidden
 * fields comes back as it was. */
#include <regex>

#include "tests/genhtml/cgi.h"

namespace {

using CgiForms = Cgi;
using Call = char *(*)(char **keys);

/** Prints what a call makes of a list of keys. */
Program listing(Call call, Strings keys) {
    return [call, keys]() mutable {
        std::vector<char *> list;
        for (std::string &key : keys) list.push_back(key.data());
        list.push_back(nullptr);
        print(call(list.data()));
    };
}

std::string field(const std::string &key, const std::string &value) {
    return "<INPUT TYPE=\"hidden\" NAME=\"" + key + "\" VALUE=\"" + value + "\">\n";
}

void print_variables(const Strings &names) {
    for (const std::string &name : names) {
        char *value = nullptr;
        const bool is_set = ghReplaceFetch(name.c_str(), &value) == 1;
        printf("%s%c%s\n", name.c_str(), is_set ? '=' : '?', value);
    }
}

TEST_F(CgiForms, MakesQueriesAndHiddenFields) {
    const Request request = get("a=1&b=%22%3C%24x%26&c=");
    EXPECT_EQ(both(request, listing(ghIn2Query, {"a", "x"})), "&b=%22%3c%24x%26&c=");
    EXPECT_EQ(both(request, listing(ghIn2Query, {})), "&a=1&b=%22%3c%24x%26&c=");
    EXPECT_EQ(both(get(""), listing(ghIn2Query, {})), "");
    const auto fields = listing(ghIn2Hidden, {"c", "x", "b", "a"});
    EXPECT_EQ(run(request, fields), field("c", "") + field("b", "&#34;<$x&#38;") + field("a", "1"));
    EXPECT_EQ(hardened(request, fields), field("c", "") + field("b", "&#34;&#60;$x&#38;") + field("a", "1"));
    EXPECT_EQ(both(get("%3Ck%22=1"), listing(ghIn2Hidden, {"<k\""})), field("&#60;k&#34;", "1"));
    EXPECT_EQ(both(get(""), listing(ghIn2Hidden, {"a"})), "");

    std::string many;
    for (int i = 0; i < 5000; i++) many += field("b", "&#34;<$x&#38;");
    EXPECT_EQ(run(request, listing(ghIn2Hidden, Strings(5000, "b"))), many) << "more than the input's own fields";

    const Program of_variables = [] {
        ghSaveForReplace("a", "<of a variable>", 0);
        listing(ghReplace2Hidden, {"a", "b"})();
    };
    EXPECT_EQ(both(request, of_variables), field("a", "&#60;of a variable&#62;"));
    EXPECT_EQ(both(get(""), of_variables), "") << "without any input";
}

TEST_F(CgiForms, BringsValuesBackAsTheyWere) {
    std::string bytes;
    for (int byte = 1; byte < 256; byte++) bytes += static_cast<char>(byte);
    const Strings values{bytes,         "",           "a=b&c=d",           "%41+%zz%",
                         "\"><script>", "&#34;&amp;", "<$name>[b]<#name>", "#inc #def <"};
    const auto store = [&values] {
        for (const std::string &value : values) ghInStore(("k<" + value).c_str(), value.c_str());
    };
    const std::string query = run(get(""), [=] { store(), print_input(); });
    EXPECT_EQ(both(get(query)), query);

    const auto shown_by_a_browser = [](std::string text) {
        for (const auto &[code, shown] : Rows<const char *, const char *>{
                 {"&#60;", "<"}, {"&#62;", ">"}, {"&#34;", "\""}, {"&#91;", "["}, {"&#35;", "#"}, {"&#38;", "&"}}) {
            text = std::regex_replace(text, std::regex(code), shown);
        }
        return text;
    };
    for (const std::string &value : values) {
        const auto page = [&] { ghInStore("k", value.c_str()), listing(ghIn2Hidden, {"k"})(); };
        const std::string html = run(get(""), page), marked = html.substr(0, html.size() - 3);
        EXPECT_EQ(marked.find('"', field("k", "").size() - 3), std::string::npos) << "ends too early";
        EXPECT_EQ(shown_by_a_browser(html), field("k", value));

        folder.write("page", "<$g_fields>");
        for (const Call call : {ghIn2Hidden, ghReplace2Hidden}) {
            const auto template_page = [&value, call] {
                ghInStore("k", value.c_str()), ghIn2Replace(0);
                ghSaveForReplace("name", "expanded", 0), ghSaveForReplace("g_Tag_B", "<b>", 0);
                char key[] = "k", *keys[] = {key, nullptr};
                ghSaveForReplace("g_fields", OwnedBlock<char>(call(keys)).get(), 0);
                ghPrintTemplate(stdout, "page");
            };
            EXPECT_EQ(shown_by_a_browser(hardened(get(""), template_page)), PAGE + field("k", value) + "\n");
        }
    }
}

TEST_F(CgiForms, MakesVariablesOfTheInput) {
    const Request request = get("a=<$g_x>[b]<%23y>%26&T_t=<$t>+[&b=%23inc%23def%23x<");
    const auto copied = [](int protect) {
        return [protect] {
            ghInStore("G_x", "1");
            ghIn2Replace(protect);
            print_variables({"a", "b", "T_t", "x"});
        };
    };
    EXPECT_EQ(run(request, copied(0)), "a=<$g_x>[b]<#y>&\nb=#inc#def#x<\nT_t=<$t> [\nx?\n");
    EXPECT_EQ(run(request, copied(1)), "a=<$g_x&#62;[b]&#60;#y&#62;&#38;\nb=#inc#def#x&#60;\nT_t=<$t&#62; [\nx?\n");
    EXPECT_EQ(hardened(request, copied(0)),
              "a=&#60;$g_x>&#91;b]&#60;#y>&\nb=&#35;inc&#35;def#x&#60;\nT_t=&#60;$t> &#91;\nx?\n");
    EXPECT_EQ(hardened(request, copied(1)),
              "a=&#60;$g_x&#62;&#91;b]&#60;#y&#62;&#38;\nb=&#35;inc&#35;def#x&#60;\nT_t=&#60;$t&#62; &#91;\nx?\n");

    const auto of_templates = [] {
        ghT_2Replace();
        print_variables({"a", "T_t", "T_t_p", "T_t_e"});
    };
    EXPECT_EQ(run(request, of_templates), "a?\nT_t=<$t> [\nT_t_p=<$t&#62; [\nT_t_e=%3c%24t%3e%20%5b\n");
    EXPECT_EQ(hardened(request, of_templates),
              "a?\nT_t=&#60;$t> &#91;\nT_t_p=&#60;$t&#62; &#91;\nT_t_e=%3c%24t%3e%20%5b\n");
}

TEST_F(CgiForms, TakesRightsOutOfTheInput) {
    EXPECT_EQ(
        both(get("isAdmin=1&isMember=1&isVisitor=1&chataccess=1&chatreadaccess=1&chatwriteaccess=1&readaccess=1&"
                 "writeaccess=1&owneraccess=1&rightsaccess=1&deleteaccess=1&CITY_OWN=1&CITY_WRITE=1&UPDATEOK=1&"
                 "isOwner=1&isowner=1&a=1"),
             [] { ghInRemoveAccess(), print_input(); }),
        "&isowner=1&a=1");
    EXPECT_EQ(both(get(""), [] { ghInRemoveAccess(), print_input(); }), "");
}

TEST_F(CgiForms, ReplacesRegardlessOfCase) {
    const Rows<const char *, const char *, const char *, const char *> rows{
        {"aXbxc", "x", "--", "a--b--c"}, {"AaAaA", "aaa", "b", "baA"},
        {nullptr, "x", "y", ""},         {"text", "", "y", "text"},
        {"text", nullptr, "y", "text"},  {"text", "T", nullptr, "ex"},
        {"text", "z", "y", "text"},      {"", "x", "y", ""},
    };
    for (const auto &[text, old, fresh, result] : rows) {
        const auto call = [text = text, old = old, fresh = fresh] { print(ghCaseReplace(text, old, fresh)); };
        EXPECT_EQ(run(get(""), call), result);
    }
}

TEST_F(CgiForms, MakesLinksOfAddresses) {
    const auto link = [](const std::string &url) {
        return "<A HREF=\"" + url + "\" TARGET=\"newbrowser\">" + url + "</A> ";
    };
    const Rows<const char *, std::string> rows{
        {"", ""},
        {"none: https://x HTTP://y", "none: https://x HTTP://y"},
        {"at http://x/?a&b, now", "at " + link("http://x/?a&#38;b,") + " now"},
        {"http://x http://", link("http://x") + " " + link("http://")},
        {"<http://x>\nhttp://y", "&#60;" + link("http://x&#62;\nhttp://y")},
    };
    for (const auto &[text, result] : rows) {
        EXPECT_EQ(run(get(""), [text = text] { print(ghReplaceHTMLLinks(text)); }), result);
    }
}

TEST_F(CgiForms, ReadsFilesOfTags) {
    folder.write("x.bml",
                 "<A B>\nno name\nx <KEY_1> dropped\n one\n two<\n three </KEY_1> dropped\n<E></E>\n</E>\n"
                 "<KEY_1>\nfour\n</KEY_1>\n<OPEN>\nlast");
    const auto read = [](const char *path) {
        return [path] {
            PAA_S *table = ghBMLToArray(nullptr, path);
            for (const char *key : {"A B", "KEY_1", "E", "OPEN"}) {
                char *value = nullptr;
                if (ghHashFetch(table, key, &value)) printf("%s=[%s]\n", key, value);
            }
            puts(table != nullptr ? "table" : "none");
            if (table != nullptr) paaDestroy(table);
        };
    };
    EXPECT_EQ(run(get(""), read("x.bml")), "KEY_1=[ one\n two<\n three four\n]\nOPEN=[last]\ntable\n");
    EXPECT_EQ(run(get(""), read("x")),
              error_page("ghBMLToArray: Cannot open file \"x\": No such file or directory\n") + "none\n");
    EXPECT_EQ(run(get(""), read("./../x.bml")),
              error_page("ghBMLToArray: Cannot open file \"./../x.bml\": bad path containing \"..\"\n") + "none\n");
}

TEST_F(CgiForms, CutsAndCounts) {
    const auto cut = [](const char *text, const char *delimiters) {
        char *items[1024];
        std::string pieces;
        const int count = ghSplit(text, delimiters, items);
        for (int i = 0; i < count; i++) pieces += std::string(OwnedBlock<char>(items[i]).get()) + "|";
        return items[count] == nullptr ? pieces : "no end";
    };
    EXPECT_EQ(cut("a=", "="), "a||");
    EXPECT_EQ(cut("=b", "="), "b|");
    EXPECT_EQ(cut(";,a;b,;c,", ",;"), "a|b|c|") << "ends in one of the delimiters only";
    EXPECT_EQ(cut("a;b,;", ",;"), "a|b||");
    EXPECT_EQ(cut("", "="), "");

    folder.write("x", std::string(5000, 'x') + "\n\nlast");
    EXPECT_EQ(ghCountLines(folder.path("x").c_str()), 4) << "the first one in two pieces";
    EXPECT_EQ(ghCountLines(folder.path("y").c_str()), 0);
    EXPECT_EQ(ghIsBlank(nullptr) + ghIsBlank("") + ghIsBlank(" \t\r\n\v\f"), 3);
    EXPECT_EQ(ghIsBlank(" x"), 0);
    setenv("SCRIPT_NAME", "///a/b", 1);
    EXPECT_STREQ(OwnedBlock<char>(ghSelfUrl()).get(), "/a/b");
    unsetenv("SCRIPT_NAME");
    EXPECT_STREQ(OwnedBlock<char>(ghSelfUrl()).get(), "Scriptname not set");
}

}  // namespace
