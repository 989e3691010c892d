/* Whom a server serves: the forms of its two options, their order, and patterns. And the map of addresses. */
#include <string.h>

#include "ivs/ivs.h"
#include "tests/packet/sockets.h"

namespace {

using Strings = std::vector<std::string>;

/** Lists live as long as their process, so each case has one of its own. */
class IpCheck : public SocketTest {
protected:
    struct Outcome {
        std::string lines, verdicts;  // 1 or 0 for each address
    };
    /** What comes of a vector of arguments, in which one text may not change but by the call. */
    Outcome check(Strings arguments, const Strings &addresses) {
        Child child([&](Child &self) {
            std::vector<char *> vector;
            for (std::string &each : arguments) vector.push_back(each.data());
            vector.push_back(nullptr);
            ivsIpCheckInit(static_cast<int>(arguments.size()), vector.data());
            fflush(stdout);
            std::string verdicts;
            for (const std::string &each : addresses) {
                verdicts += std::to_string(ivsIpCheck(packet_str2ip(each.c_str())));
            }
            fflush(stdout);
            for (const std::string &each : arguments) verdicts += each.rfind("-ip", 0) == 0 ? " unmarked" : "";
            self.report(verdicts);
            return 0;
        });
        const std::string verdicts = child.next_report();
        EXPECT_EQ(child.exit_code(), 0);
        return {child.output(), verdicts};
    }
    /** "+" and "-" in front of each entry that the start has told of. */
    static Strings entries(const std::string &lines) {
        Strings all;
        const std::regex line("IP.LOG: Access (allowed|denied) from \"(.*)\"\n");
        for (std::sregex_iterator at(lines.begin(), lines.end(), line), end; at != end; ++at) {
            all.push_back(((*at)[1] == "allowed" ? "+" : "-") + (*at)[2].str());
        }
        return all;
    }
};

TEST_F(IpCheck, ReadsItsOptionsInAllForms) {
    struct Row {
        Strings arguments, entries;
    };
    for (const Row &row : {
             Row{{"server"}, {"+127.0.0.1"}},
             Row{{"-ipallow10.0.0.1"}, {"+10.0.0.1"}},
             Row{{"-ipallow", "10.0.0.1", "-ipdeny", "10.0.0.2"}, {"+10.0.0.1", "-10.0.0.2"}},
             Row{{"-ipdeny10.0.0.1"}, {"-10.0.0.1"}},
             Row{{"-ipallow=10.*"}, {"+=10.*"}},
             Row{{"-ipallow", " 10.0.0.1\t 10.0.0.2  ", "-ipallow10.0.0.3"}, {"+10.0.0.1", "+10.0.0.3", "+10.0.0.2"}},
             Row{{"-ipallow a* b* c*", "-ipallow d* e* f*"}, {"+a*", "+d*", "+b*", "+c*", "+e*", "+f*"}},
             Row{{"-ipdeny", "10.* 11.*"}, {"-10.*", "-11.*"}},
             Row{{"-ipallow"}, {"+127.0.0.1"}},
             Row{{"-ipallow", ""}, {"+127.0.0.1"}},
             Row{{"-ipallow", " \t"}, {"+127.0.0.1"}},
             Row{{"-ipdeny", ""}, {"+127.0.0.1"}},
             Row{{"-ipallow", "-ipdeny", "9.*"}, {"+-Ipdeny", "-9.*"}},
             Row{{"-ipallow", "no.such.host.invalid"}, {"+no.such.host.invalid"}},
         }) {
        const Outcome outcome = check(row.arguments, {});
        EXPECT_EQ(entries(outcome.lines), row.entries) << outcome.lines;
        EXPECT_EQ(outcome.verdicts, "") << "options are marked as read";
    }
}

TEST_F(IpCheck, AnEmptyDenialTakesTheLatestEntryAway) {
    const Strings asked{"10.0.0.1", "10.0.0.2"};
    struct Row {
        Strings arguments, entries;
        std::string verdicts;
    };
    for (const Row &row : {
             Row{{"-ipallow10.0.0.1", "-ipdeny", ""}, {"+", "-"}, "00"},
             Row{{"-ipallow10.0.0.1", "-ipallow10.0.0.2", "-ipdeny", "", "-ipallow10.0.0.3"},
                 {"+10.0.0.1", "+", "+10.0.0.3", "-"},
                 "10"},
             Row{{"-ipdeny10.0.0.1", "-ipdeny", "", "-ipdeny", " "}, {"-"}, "11"},
             Row{{"-ipdeny10.0.0.1", "-ipallow10.*", "-ipdeny", "", "-ipdeny", "", "-ipdeny10.0.0.2"},
                 {"+", "-10.0.0.1", "-", "-10.0.0.2"},
                 "00"},
         }) {
        const Outcome outcome = check(row.arguments, asked);
        EXPECT_EQ(entries(outcome.lines), row.entries) << outcome.lines;
        EXPECT_EQ(outcome.verdicts, row.verdicts);
    }
}

TEST_F(IpCheck, ServesTheAllowedButForTheDenied) {
    const Strings asked{"127.0.0.1", "10.0.0.1", "10.1.0.1", "100.0.0.1", "192.168.1.1"};
    struct Row {
        Strings arguments;
        std::string verdicts;
    };
    for (const Row &row : {
             Row{{}, "10000"},
             Row{{"-ipallow10.0.0.1"}, "01000"},
             Row{{"-ipallow10.*"}, "01100"},
             Row{{"-ipallow10*"}, "01110"},
             Row{{"-ipallow*"}, "11111"},
             Row{{"-ipallow*1"}, "00000"},
             Row{{"-ipallow10.0.0.1*"}, "01000"},
             Row{{"-ipallow192.168.1.1 127.0.0.1"}, "10001"},
             Row{{"-ipdeny10.*"}, "10011"},
             Row{{"-ipallow10*", "-ipdeny10.1.*"}, "01010"},
             Row{{"-ipdeny*", "-ipallow*"}, "00000"},
             Row{{"-ipallowlocalhost"}, "10000"},
             Row{{"-ipallow=127.0.0.1"}, "00000"},
         }) {
        EXPECT_EQ(check(row.arguments, asked).verdicts, row.verdicts) << testing::PrintToString(row.arguments);
    }
    const std::string unknown(64, 'x');  // no label of a name may be so long: fails without a question
    process_context.bindIp = unknown.c_str();
    EXPECT_EQ(check({}, asked).verdicts, "00000") << "without an address of its own a server serves nobody";
    process_context.bindIp = nullptr;

    const std::string lines = check({"-ipallow10.*", "-ipdeny10.0.0.1"}, {"11.0.0.1", "10.0.0.1", "10.0.0.2"}).lines;
    EXPECT_NE(lines.find("\"10.0.0.1\"\n"
                         "test: IP.LOG: Request from IP address \"11.0.0.1\" not allowed by configuration.\n"
                         "test: IP.LOG: Request from IP address \"10.0.0.1\" denied by configuration.\n"),
              std::string::npos)
        << lines;
}

/* ---- The map ---------------------------------------------------------------------------------------------------------- */

using IpMap = SocketTest;

std::string found(int (*call)(uint32_t, uint16_t, uint32_t *, uint16_t *), const char *ip, uint16_t port) {
    uint32_t other_ip = 0;
    uint16_t other_port = 0;
    if (call(ntohl(packet_str2ip(ip)), port, &other_ip, &other_port) == 0) return "none";
    return std::string(packet_ip2str(htonl(other_ip))) + ":" + std::to_string(other_port);
}

TEST_F(IpMap, ReadsItsFile) {
    EXPECT_EQ(told([] { EXPECT_EQ(ivsReadIpMapFile(nullptr), 0); }), "") << "the usual file may be missing";
    const std::string path = root.path("map.cfg");
    EXPECT_NE(told([] {
                  EXPECT_EQ(ivsReadIpMapFile("map.cfg"), 0);
              }).find("ivsReadIpMapFile: Failed to open " + path + ", No such file or directory\n"),
              std::string::npos);
    root.write("map.cfg",
               "# comment\n\n10.0.0.1:4000 192.168.0.1:5000\n10.0.0.2:4000x\t192.168.0.2:70000\n"
               "10.0.0.1:4000 192.168.0.3:5003\n"
               "10.0.0.9:1\n10.0.0.9:1 192.168.0.9 :2\n10.0.0.9 192.168.0.9:2\n10.0.0.9:1 192.168.0.9:x\n");
    const std::string lines = told([&] { EXPECT_EQ(ivsReadIpMapFile(path.c_str()), 3); });
    const std::string head = "ivsReadIpMapFile: File " + path + " Line ";
    for (const std::string &line : {std::string("Mapping 10.0.0.1/10.0.0.1:4000 to 192.168.0.1/192.168.0.1:5000\n"),
                                    std::string("Mapping 10.0.0.2/10.0.0.2:4000 to 192.168.0.2/192.168.0.2:4464\n"),
                                    head + "6, Strange left column \"10.0.0.9:1\", right column missing?\n",
                                    head + "7, Strange right column \"192.168.0.9 :2\", contains a space\n",
                                    head + "8, Failed to create \"from\" ipmap structure for \"10.0.0.9\"\n",
                                    head + "9, Failed to create \"to\" ipmap structure for \"192.168.0.9\"\n"}) {
        EXPECT_NE(lines.find(line), std::string::npos) << line << lines;
    }
    EXPECT_EQ(found(ivsIpMapFrom, "10.0.0.1", 4000), "192.168.0.3:5003") << "the later line";
    EXPECT_EQ(found(ivsIpMapFrom, "10.0.0.2", 4000), "192.168.0.2:4464");
    EXPECT_EQ(found(ivsIpMapFrom, "10.0.0.1", 4001), "none");
    EXPECT_EQ(found(ivsIpMapFrom, "10.0.0.9", 1), "none");
    EXPECT_EQ(found(ivsIpMapTo, "192.168.0.1", 5000), "10.0.0.1:4000");
    EXPECT_EQ(found(ivsIpMapTo, "10.0.0.1", 4000), "none");
    EXPECT_EQ(ivsIpMapTo(ntohl(packet_str2ip("192.168.0.1")), 5000, nullptr, nullptr), 1);

    root.write("etc/gpserver.cfg", "10.0.0.1:4000 192.168.0.4:5004\n");
    told([] { EXPECT_EQ(ivsReadIpMapFile(""), 1); });
    EXPECT_EQ(found(ivsIpMapFrom, "10.0.0.1", 4000), "192.168.0.4:5004");
}

}  // namespace
