/* Whom a server serves: the forms of its two options, their order, and patterns. And the map of addresses. */
#include <string.h>

#include "ivs/ivs.h"
#include "tests/packet/sockets.h"

namespace {

using Strings = std::vector<std::string>;

const Strings ASKED{"127.0.0.1", "10.0.0.1", "10.0.0.2", "10.1.0.1", "100.0.0.1"};

/** Lists live as long as their process, so each case has one of its own. */
class IpCheck : public SocketTest {
protected:
    std::string lines, verdicts;  // 1 or 0 for each address

    /** Brings about `lines` and `verdicts` by a vector of arguments, in which one text may not change but by the call. */
    void check(Strings arguments, const Strings &addresses = ASKED) {
        Child child([&](Child &self) {
            std::vector<char *> vector;
            for (std::string &each : arguments) vector.push_back(each.data());
            vector.push_back(nullptr);
            ivsIpCheckInit(static_cast<int>(arguments.size()), vector.data());
            std::string marks;
            for (const std::string &each : addresses) {
                marks += std::to_string(ivsIpCheck(packet_str2ip(each.c_str())));
            }
            for (const std::string &each : arguments) marks += each.rfind("-ip", 0) == 0 ? " unmarked" : "";
            self.report(marks);
            return 0;
        });
        verdicts = child.next_report();
        EXPECT_EQ(child.exit_code(), 0);
        lines = child.output();
    }
    /** The entries that the start has told of, with "+" or "-" in front of each. */
    std::string entries() const {
        std::string all;
        const std::regex line("IP.LOG: Access (allowed|denied) from \"(.*)\"\n");
        for (std::sregex_iterator at(lines.begin(), lines.end(), line), end; at != end; ++at) {
            all += ((*at)[1] == "allowed" ? " +" : " -") + (*at)[2].str();
        }
        return all;
    }
};

TEST_F(IpCheck, ServesTheAllowedButForTheDenied) {
    const std::string unknown(64, 'x');  // no label of a name may be so long: fails without a question
    struct Row {
        Strings arguments;
        std::string entries, verdicts;
    };
    for (const Row &row : {
             // The forms of the options, and their order
             Row{{"server"}, " +127.0.0.1", "10000"},
             Row{{"-ipallow10.0.0.1"}, " +10.0.0.1", "01000"},
             Row{{"-ipallow", "10.0.0.1", "-ipdeny", "10.0.0.2"}, " +10.0.0.1 -10.0.0.2", "01000"},
             Row{{"-ipallow=10.*"}, " +=10.*", "00000"},
             Row{{"-ipallow", " 10.0.0.1\t 10.0.0.2  ", "-ipallow10.1.*"}, " +10.0.0.1 +10.1.* +10.0.0.2", "01110"},
             Row{{"-ipallow a* b* c*", "-ipallow d* e* f*"}, " +a* +d* +b* +c* +e* +f*", "00000"},
             Row{{"-ipdeny", "10.* 11.*"}, " -10.* -11.*", "10001"},
             Row{{"-ipallow"}, " +127.0.0.1", "10000"},
             Row{{"-ipallow", " \t"}, " +127.0.0.1", "10000"},
             Row{{"-ipdeny", ""}, " +127.0.0.1", "10000"},
             Row{{"-ipallow", "-ipdeny", "9.*"}, " +-Ipdeny -9.*", "00000"},
             Row{{"-ipallow", unknown}, " +" + unknown, "00000"},
             // Patterns
             Row{{"-ipallow10*"}, " +10*", "01111"},
             Row{{"-ipallow*"}, " +*", "11111"},
             Row{{"-ipallow*1"}, " +*1", "00000"},
             Row{{"-ipallow10.0.0.1*"}, " +10.0.0.1*", "01000"},
             Row{{"-ipallow10*", "-ipdeny10.1.*"}, " +10* -10.1.*", "01101"},
             Row{{"-ipdeny*", "-ipallow*"}, " +* -*", "00000"},
             // An empty denial takes the latest entry away
             Row{{"-ipallow10.0.0.1", "-ipdeny", ""}, " + -", "00000"},
             Row{{"-ipallow10.0.0.1", "-ipallow*", "-ipdeny", "", "-ipallow9.*"}, " +10.0.0.1 + +9.* -", "01000"},
             Row{{"-ipdeny10.0.0.1", "-ipdeny", "", "-ipdeny", " "}, " -", "11111"},
             Row{{"-ipdeny10.0.0.1", "-ipallow10.*", "-ipdeny", "", "-ipdeny", "", "-ipdeny10.0.0.2"},
                 " + -10.0.0.1 - -10.0.0.2",
                 "00000"},
         }) {
        check(row.arguments);
        EXPECT_EQ(entries(), row.entries) << lines;
        EXPECT_EQ(verdicts, row.verdicts) << testing::PrintToString(row.arguments);
    }
    process_context.bindIp = unknown.c_str();
    check({});
    EXPECT_EQ(verdicts, "00000") << "without an address of its own a server serves nobody";
}

TEST_F(IpCheck, TellsWhomItRefuses) {
    check({"-ipallow10.*", "-ipdeny10.0.0.1"}, {"11.0.0.1", "10.0.0.1", "10.0.0.2"});
    EXPECT_TRUE(
        lines.ends_with("\"10.0.0.1\"\n"
                        "test: IP.LOG: Request from IP address \"11.0.0.1\" not allowed by configuration.\n"
                        "test: IP.LOG: Request from IP address \"10.0.0.1\" denied by configuration.\n"))
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
