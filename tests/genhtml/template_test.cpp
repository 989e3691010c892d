/* Templates: the cases of pages.txt, tables of conditions, and the limits of a page. */
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>
#include <fstream>
#include <sstream>
#include <string>
#include <vector>

#include "genhtml/genhtml.h"
#include "tests/support/child.h"
#include "tests/support/rootfolder.h"

namespace {

using Pairs = std::vector<std::pair<std::string, std::string>>;

struct Page {
    std::string text = {}, expected = {};
    Pairs variables = {}, files = {}, handlers = {};
    std::string title = {};
    bool is_file_only = false;
};

void PrintTo(const Page &page, std::ostream *out) { *out << page.title; }

// ---- What a page prints: each in a process and a folder of its own ---------------------------------------------------

GHS_VARIABLE_HANDLER handler_named(const std::string &kind) {
    static char text[16] = "<$x>";
    if (kind == "$") return [](char *) { return text; };
    if (kind == "pass") return [](char *) -> char * { return nullptr; };
    if (kind == "fail") {
        return [](char *) { return ghsReadConfig("none") == 0 ? nullptr : strcpy(text, "failed"); };
    }
    if (kind == "name") return [](char *asked) { return asked; };
    return [](char *) {
        static int calls;
        snprintf(text, sizeof text, "%d", ++calls);
        return text;
    };
}

/** What is printed: a line is followed by no further line feed, an error that is left comes last. */
std::string printed(const Page &page, const char *name = "page.html") {
    const RootFolder folder;
    folder.write("work/page.html", page.text);
    for (const auto &[path, content] : page.files) {
        folder.write("work/" + path, content);
        chmod(folder.path("work/" + path).c_str(), 0755);
    }
    Child child([&](Child &) {
        if (chdir(folder.path("work").c_str()) != 0) return 1;
        for (const auto &[variable, value] : page.variables) ghsSaveForReplace(variable.c_str(), value.c_str(), 0);
        for (const auto &[variable, kind] : page.handlers) {
            ghsSetVariableHandler(variable.c_str(), handler_named(kind));
        }
        ghsSetOutput([](FILE *stream, char *line) { fputs(line, stream); });
        ghsPrintTemplate(stdout, name);
        const bool has_text = ghsErrno >= 10 && ghsErrno <= 26;
        if (ghsErrno != 0) printf("(%d)%s%s", ghsErrno, has_text ? " " : "", has_text ? ghsErrMsg : "\n");
        return 0;
    });
    EXPECT_EQ(child.exit_code(), 0);
    return child.output();
}

Page as_loop(Page page) {
    page.variables.insert(page.variables.begin(), {"once0", ""});
    page.text = "<!-- #for loopname=\"1\" loopvars=\"once\" -->\n" + page.text + "<!-- #endfor loopname=\"1\" -->\n";
    return page;
}

std::string narrow(std::string text) {
    for (const auto &[wide, replacement] : Pairs{{"<!-- #", "<!--#"}, {"\" -->", "\"-->"}}) {
        for (size_t at = 0; (at = text.find(wide, at)) != std::string::npos;)
            text.replace(at, wide.size(), replacement);
    }
    return text;
}

Page narrow(Page page) {
    for (std::string *text : {&page.text, &page.expected}) *text = narrow(*text);
    for (Pairs *pairs : {&page.variables, &page.files}) {
        for (auto &[name, text] : *pairs) text = narrow(text);
    }
    return page;
}

void expect_page(const Page &page) {
    EXPECT_EQ(printed(page), page.expected);
    EXPECT_EQ(printed(narrow(page)), narrow(page).expected) << "without blanks";
    if (page.is_file_only) return;
    EXPECT_EQ(printed(as_loop(page)), page.expected) << "in a loop";
    EXPECT_EQ(printed(narrow(as_loop(page))), narrow(page).expected) << "in a loop, without blanks";
}

// ---- The file of cases -----------------------------------------------------------------------------------------------

void take_settings(Page &page, const std::string &line) {
    for (size_t at = 0; at < line.size();) {
        const std::string setting = line.substr(at, line.find("  ", at) - at);
        const size_t blank = setting.find(' ');
        const bool is_handler = setting.compare(blank, 4, " <- ") == 0;
        const size_t value = std::min(blank + (is_handler ? 4 : 3), setting.size());
        (is_handler ? page.handlers : page.variables).emplace_back(setting.substr(0, blank), setting.substr(value));
        at += setting.size() + 2;
    }
}

std::vector<Page> pages_of_file() {
    std::ifstream file(VELMORA_SOURCE_DIR "/tests/genhtml/pages.txt");
    std::vector<Page> pages;
    for (std::string line; std::getline(file, line);) {
        if (line.starts_with("===")) {
            pages.push_back({.title = line.substr(4), .is_file_only = line.ends_with("[file]")});
        } else if (!line.empty() && !pages.empty()) {
            Page &page = pages.back();
            const std::string rest = line.substr(1) + "\n";
            if (strchr(" -", line[0]) != nullptr) page.text += rest;
            if (strchr(" +", line[0]) != nullptr) page.expected += rest;
            if (line[0] == '>') page.files.emplace_back(line.substr(2), "");
            if (line[0] == '|') page.files.back().second += rest;
            if (strchr(" -+>|", line[0]) == nullptr) take_settings(page, line);
        }
    }
    return pages;
}

class Template : public testing::TestWithParam<Page> {};

TEST_P(Template, Prints) { expect_page(GetParam()); }

INSTANTIATE_TEST_SUITE_P(Cases, Template, testing::ValuesIn(pages_of_file()), [](const auto &page) {
    std::string name;
    for (const char letter : page.param.title) name += isalnum(letter) != 0 ? letter : '_';
    return name;
});

// ---- Conditions ------------------------------------------------------------------------------------------------------

struct Condition {
    bool is_true, is_true_in_loop;
    std::string kind, variable, behind;
};

/** Expects one page of all conditions, in which each tells its number and what it is. */
void expect_conditions(const Pairs &variables, const std::vector<Condition> &conditions, bool in_loop) {
    std::ostringstream text, expected;
    for (size_t i = 0; i < conditions.size(); ++i) {
        const Condition &row = conditions[i];
        const std::string name = " variable=\"" + row.variable + "\"";
        text << "<!-- #" << row.kind << name << row.behind << "\n"
             << i << ": true\n<!-- #else" << name << " -->\n"
             << i << ": false\n<!-- #endif" << name << " -->\n";
        expected << i << ((in_loop ? row.is_true_in_loop : row.is_true) ? ": true\n" : ": false\n");
    }
    Page page{text.str(), expected.str(), variables};
    if (in_loop) page = as_loop(page);
    EXPECT_EQ(printed(page), page.expected) << (in_loop ? "in a loop" : "");
    EXPECT_EQ(printed(narrow(page)), page.expected) << (in_loop ? "in a loop, " : "") << "without blanks";
}

TEST(Conditions, AreTrueOrFalse) {
    const Pairs variables = {{"x", "1"},       {"empty", ""},     {"y", "<$x>"}, {"text", "text"},
                             {"copy", "text"}, {"less", "a < b"}, {"zero", "0"}};
    std::istringstream rows(R"(
yes ifdef x -->
yes ifdef empty -->
no ifdef none -->
yes ifdef x value="1" -->
no ifdef x value="10" -->
no ifdef x value="01" -->
yes ifdef empty value="" -->
no ifdef none value="" -->
yes ifndef none -->
no ifndef x -->
yes ifndef none value="1" -->
yes ifndef x value="2" -->
no/yes ifndef x value="1"
yes ifdef y value="<$x>" -->
no ifdef <$text> -->
yes if text variable="copy" == -->
no if text == variable="none" -->
yes if none == variable="missing" -->
yes if text == variable="none" value="text" -->
no if less == value="a < b" -->
yes if less == variable="less" -->
no if none != value=" > " -->
yes if zero == value="1" <= -->
no if x != value="2" >= -->
no if text !contains value=" contains " -->
yes if x value="2" -->
yes if x == "2" -->
yes if x == value="2"
yes if x -->  == value="2"
yes if x =="2" -->)");
    std::vector<Condition> conditions;
    std::string holds;
    for (Condition row; rows >> holds >> row.kind >> row.variable && std::getline(rows, row.behind);) {
        row.is_true = holds == "yes";
        row.is_true_in_loop = holds != "no";
        conditions.push_back(row);
    }
    expect_conditions(variables, conditions, false);
    expect_conditions(variables, conditions, true);
}

/** Rows are "left operator right", with '' for an empty side. */
TEST(Conditions, CompareNumbersOrTexts) {
    Pairs variables;
    std::vector<Condition> conditions;
    const auto add = [&](bool is_true, bool is_true_in_loop, const char *rows) {
        std::istringstream words(rows);
        for (std::string left, operation, right; words >> left >> operation >> right;) {
            const std::string number = std::to_string(variables.size());
            if (left == "''") left.clear();
            if (right == "''") right.clear();
            variables.insert(variables.end(), {{number + "l", left}, {number + "r", right}});
            for (const std::string &shown : {" value=\"" + right, " variable=\"" + number + "r"}) {
                std::string behind = " ";
                behind.append(operation).append(shown).append("\" -->");
                conditions.push_back({is_true, is_true_in_loop, "if", number + "l", behind});
            }
        }
    };
    add(true, true,
        "9 < 10  10 <= 10  10 > f  f >= F  -1 < 1  ffffffff < 0  7fffffff > 0  ffffffff == -1  0x10 == 10  0x == 0");
    add(true, true, "00000010 == 10  000000010 != 10  abc == ABC  xyz == xyz  '' == ''  xyz != xy  xyz != XYZ");
    add(true, true, "abc contains bc  10 contains 1  abc !contains cb  10 !contains 010");
    add(false, false,
        "10 < 10  f > f  11 <= 10  f >= 10  80000000 > 0  000000010 == 10  000000010 >= 1  1 < 000000010");
    add(false, false, "xyz == XYZ  1g > 0  1 < 2g  '' == 0  '' <= ''  10 != 010  b < x  x >= x  1,1 >= 1");
    add(false, false, "abc contains BC  10 contains 010  abc !contains bc");
    add(false, true, "abc contains ''  '' contains ''");
    add(true, false, "abc !contains ''  '' !contains ''");
    expect_conditions(variables, conditions, false);
    expect_conditions(variables, conditions, true);
}

/** In a loop there are two variables for a name. "vw" is one whose key of the pass is "v" while its plain name is "w";
 *  "-" stands for one that isn't there. Then: is it defined, as v; is it not defined, or not as v. */
TEST(Conditions, OfALoopSeeTheKeyOfThePassAndThePlainName) {
    std::istringstream rows("-- 0011  -v 1101  -w 1001  v- 1100  vv 1100  vw 1101  w- 1001  wv 1101  ww 1001");
    Pairs variables;
    std::vector<Condition> conditions;
    for (std::string name, holds; rows >> name >> holds;) {
        if (name[0] != '-') variables.emplace_back(name + "0", name.substr(0, 1));
        if (name[1] != '-') variables.emplace_back(name, name.substr(1));
        for (size_t i = 0; i < 4; ++i) {
            const char *behind = i % 2 == 0 ? " -->" : " value=\"v\" -->";
            conditions.push_back({false, holds[i] == '1', i < 2 ? "ifdef" : "ifndef", name, behind});
        }
    }
    expect_conditions(variables, conditions, true);
}

// ---- Limits ----------------------------------------------------------------------------------------------------------

std::string repeated(int count, const std::string &text) {
    std::string all;
    for (int i = 0; i < count; ++i) all += text;
    return all;
}

TEST(Limits, OfALine) {
    std::string missing;
    for (int i = 100; i < 230; ++i) missing += "<$" + std::to_string(i) + ">";
    expect_page({missing + "\n<$x>\n", "<$100><$101>\n1\n", {{"x", "1"}}});       // 128 rounds of expansion
    expect_page({"<$x>\n", repeated(128, "a") + "<$x>\n", {{"x", "a<$x>"}}});     // those within values count
    expect_page({"[x]\n", repeated(129, "a") + "[x]\n", {{"g_Tag_X", "a[x]"}}});  // 129 rounds of tags

    const std::string longest(131070, 'v'), longer = longest + "v", half(65000, 'h');  // and a line feed, and a NUL
    expect_page({"<$x>\n", longest + "\n", {{"x", longest}}});
    expect_page({"<$x>\n", "<$x>\n", {{"x", longer}}});
    expect_page({"<$x><$x><$x>\n", "<$x><$x><$x>\n", {{"x", half}}});
    expect_page({"<$x>\n", half + "<$y>\n", {{"x", half + "<$y>"}, {"y", longer}}});
    expect_page({"[x]<$y>\n", "[x]" + half + "\n", {{"g_Tag_X", longer.substr(half.size())}, {"y", half}}});
    expect_page({"[x]<$y>[/x]\n", "%s%s%s\n", {{"g_Tag_X", "%s%s%s"}, {"y", half}}});
}

TEST(Limits, OfAPage) {
    const std::string include = "<!-- #include file=\"part.html\" -->\n";  // 129 files, with the first
    expect_page({repeated(140, include) + "end\n", repeated(128, "part\n") + "end\n", {}, {{"part.html", "part\n"}}});
    expect_page(
        {include, repeated(128, "in\n") + repeated(128, "out\n"), {}, {{"part.html", "in\n" + include + "out\n"}}});
}

TEST(Limits, OfALoop) {
    const std::string end = "<!-- #endfor loopname=\"l\" -->\n", line = "line\n";
    std::string names;
    for (int i = 0; i < 256; ++i) names += "v" + std::to_string(i) + ",";
    const std::string begin = "<!-- #for loopname=\"l\" loopvars=\"" + names + "\" -->\n";
    Page page{begin + repeated(1023, line) + end, repeated(1023, line), {{"v2540", ""}}};
    page.is_file_only = true;
    expect_page(page);
    page.variables = {{"v2550", ""}};  // the 256th name
    page.expected = "";
    expect_page(page);
    const std::string name(341, 'n');  // what of a name makes the key
    page.variables = {{name + "0", "value"}};
    page.text = "<!-- #for loopname=\"l\" loopvars=\"" + name + "m\" -->\n<$" + name + "o>\n" + end;
    page.expected = "value\n";
    expect_page(page);
    page.text = begin + repeated(1025, line) + end;
    page.expected = "(20) ghsReadFor: Too many lines in loop \"l\".\n";
    expect_page(page);
}

/** Five hundred loops in each other; a second such file within them is too much. */
TEST(Limits, OfLoopsInLoops) {
    const std::string inner = "<!-- #for loopname=\"inner\" loopvars=\"v\" -->\n";
    Page page{"<!-- #for loopname=\"l\" loopvars=\"v\" -->\n" + repeated(500, inner) +
                  "in\n<!-- #include file=\"page.html\" -->\n<!-- #endfor loopname=\"l\" -->\n",
              "in\n(10) ghsPrintFor: Out of memory.\n",
              {{"v0", ""}}};
    for (int depth = 0; depth < 170; ++depth) page.variables.emplace_back("v_" + repeated(depth + 1, "0_") + "0", "");
    page.is_file_only = true;
    expect_page(page);
}

TEST(Files, AreRefusedOrMissing) {
    constexpr char label[] = "ghsPrintTemplateRec: ";
    const auto include = [](const std::string &path) { return "<!-- #include virtual=\"" + path + "\" -->\n"; };
    for (const std::string path : {"./../part.html", "../../part.html", "a..b", "x.."}) {
        expect_page({include(path), "(26) " + (label + ("Path with \"..\", not allowed \"" + path + "\".\n"))});
    }
    const std::string name(300, 'n'), cut = name.substr(0, 127);
    expect_page({include(name), "(25) " + (label + ("Cannot open file \"" + cut + "\": File name too long.\n"))});
    EXPECT_EQ(printed({}, "none"),
              "(25) ghsPrintTemplateRec: Cannot open file \"none\": No such file or directory.\n");
    EXPECT_EQ(printed({}, "./.."), "(26) ghsPrintTemplateRec: Path with \"..\", not allowed \"./..\".\n");
}

/** By default a line feed follows each line; lines of a file are read in pieces of 4095. */
TEST(Output, IsALineAndALineFeed) {
    const RootFolder folder;
    folder.write("page.html", "<$x>\n" + std::string(4093, 'a') + "<$x>\nlast");
    Child child([&](Child &) {
        ghsSaveForReplace("x", "1", 0);
        ghsSetOutput([](FILE *, char *) {});
        ghsSetOutput(nullptr);
        ghsPrintTemplate(stdout, folder.path("page.html").c_str());
        return ghsErrno;
    });
    EXPECT_EQ(child.exit_code(), 0);
    EXPECT_EQ(child.output(), "1\n\n" + std::string(4093, 'a') + "<$\nx>\n\nlast\n");
}

TEST(Handlers, AreReplacedRemovedAndLimited) {
    Child child([&](Child &) {
        const GHS_VARIABLE_HANDLER name = handler_named("name"), other = handler_named("$");
        for (int i = 0; i < 1024; ++i) {
            if (ghsSetVariableHandler((std::to_string(i) + "h").c_str(), name) != 0) return 1;
        }
        if (ghsSetVariableHandler("one more", name) != -1) return 2;
        if (ghsSetVariableHandler("1023h", other) != 0) return 3;
        if (ghsSetVariableHandler("7h", nullptr) != 0) return 4;
        if (ghsSetVariableHandler("unknown", nullptr) != 0) return 5;
        if (ghsSetVariableHandler("one more", name) != 0) return 6;
        ghsSaveForReplace("x", "variable", 0);
        char *lines[] = {strdup("<$6h> <$7h> <$8h> <$1023h> <$one more>\n"), nullptr};
        ghsSaveForReplace("v0", "", 0);
        ghsPrintFor("", stdout, "l", "v", lines);
        return 0;
    });
    EXPECT_EQ(child.exit_code(), 0);
    EXPECT_EQ(child.output(), "6h  8h variable one more\n\n");
}

}  // namespace
