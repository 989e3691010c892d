/* Where addresses come from: the configured bind address, names, "localhost", and the small forms. */
#include <netdb.h>
#include <string.h>

#include "tests/packet/sockets.h"

namespace {

class BindAddress : public SocketTest {};
class Names : public SocketTest {};
class AddressForms : public SocketTest {};

TEST_F(BindAddress, TextComesFromTheFirstLineOfTheFileUnlessItIsAnOption) {
    EXPECT_EQ(told([] { EXPECT_EQ(packet_bindip(), nullptr); }), "") << "a missing file is no reason for a line";
    struct Row {
        std::string file;
        const char *expected;
    };
    const std::string longest(4096, 'a');
    for (const Row &row : {Row{"10.0.0.1\n", "10.0.0.1"}, Row{" \t\v\f\r10.0.0.1 \t;-\r\n", "10.0.0.1"},
                           Row{"10.0.0.1", "10.0.0.1"}, Row{"10.0.0.1 # here\nnext\n", "10.0.0.1 # here"},
                           Row{"host.example.\n", "host.example."}, Row{";;;\n", ";"}, Row{"\nhost\n", nullptr},
                           Row{" \t \r\n", nullptr}, Row{std::string(5000, 'a') + "\n", longest.c_str()}}) {
        root.write("etc/bindip", row.file);
        EXPECT_STREQ(packet_bindip(), row.expected) << row.file.substr(0, 40);
    }
    process_context.bindIp = " 10.0.0.2 \t";
    EXPECT_STREQ(packet_bindip(), " 10.0.0.2 \t") << "as it stands";
}

TEST_F(BindAddress, IsWorkedOutByItsFirstCharacter) {
    EXPECT_EQ(packet_bindaddr(), 0U);
    const std::string unknown(64, 'x');  // no label of a name may be so long: fails without a question
    for (const auto &[text, expected] : {std::pair{"127.0.0.9", "127.0.0.9"},
                                         {"9x", "0.0.0.0"},
                                         {"-127.0.0.9", "0.0.0.0"},
                                         {"localhost", "127.0.0.1"},
                                         {" 127.0.0.9", "0.0.0.0"},
                                         {unknown.c_str(), "0.0.0.0"}}) {
        process_context.bindIp = text;
        told([wanted = expected] { EXPECT_STREQ(packet_ip2str(packet_bindaddr()), wanted); });
    }
}

TEST_F(Names, GiveAddressesInHostOrder) {
    struct Row {
        const char *bind, *name;
        uint32_t expected;
    };
    for (const Row &row : {Row{nullptr, "127.0.0.5", 0x7f000005}, Row{"127.0.0.9", "127.0.0.5", 0x7f000005},
                           Row{nullptr, "localhost", 0x7f000001}, Row{"127.0.0.9", "localhost", 0x7f000009},
                           Row{"localhost", "localhost", 0x7f000001}, Row{"127.0.0.9", "LOCALHOST", 0x7f000001},
                           Row{nullptr, "255.255.255.255", 0xffffffff}}) {
        uint32_t ip = 0;
        process_context.bindIp = row.bind;
        EXPECT_EQ(packet_gethostbyname(row.name, &ip), 0) << row.name;
        EXPECT_EQ(ip, row.expected) << row.name;
    }
}

TEST_F(Names, ThatAreUnknownAreReported) {
    const std::string unknown = "9" + std::string(64, 'x');
    const std::string lines = told([&] {
        uint32_t ip = 7;
        PacketAddress *address = nullptr;
        EXPECT_EQ(packet_gethostbyname(unknown.c_str(), &ip), PACKETERRHOST);
        EXPECT_EQ(packet_srvadr_byname(unknown.c_str(), 1, &address), PACKETERRHOST);
        EXPECT_EQ(address, nullptr);
    });
    const std::string form =
        "test: packet_gethostbyname: gethostbyname\\(" + unknown + "\\) failed! h_errno -?\\d+, errmsg: .*!\n";
    EXPECT_TRUE(std::regex_match(lines, std::regex(form + form))) << lines;
    EXPECT_EQ(process_context.localIp, 0U);
}

TEST_F(Names, MakeAddressRecordsAndTheFirstIsTheHostsOwn) {
    PacketAddress *made = nullptr;
    ASSERT_EQ(packet_srvadr_byname("127.0.0.5", 0x1234, &made), 16);
    const OwnedBlock<PacketAddress> first(made);
    const unsigned char expected[16] = {2, 0, 0x12, 0x34, 127, 0, 0, 5};
    EXPECT_EQ(memcmp(first.get(), expected, 16), 0);
    ASSERT_EQ(packet_srvadr_byip(htonl(0x7f000006), htons(0x1234), &made), 16);
    const OwnedBlock<PacketAddress> second(made);
    EXPECT_EQ(second->sin_addr.s_addr, htonl(0x7f000006));
    EXPECT_EQ(second->sin_port, htons(0x1234)) << "network order here";

    process_context.bindIp = "127.0.0.9";
    ASSERT_EQ(packet_srvadr_byname("localhost", 80, &made), 16);
    const OwnedBlock<PacketAddress> bound(made);
    EXPECT_EQ(bound->sin_addr.s_addr, htonl(0x7f000009));
    EXPECT_EQ(bound->sin_port, htons(80));
    EXPECT_EQ(process_context.localIp, htonl(0x7f000005)) << "the first one stays";
}

TEST_F(Names, LocalhostIsTheMachinesOwnAddress) {
    char own[1024] = {};
    ASSERT_EQ(gethostname(own, sizeof own - 1), 0);
    const hostent *entry = gethostbyname(own);
    if (entry == nullptr) GTEST_SKIP() << "this machine does not know its own name";
    uint32_t expected;
    memcpy(&expected, entry->h_addr_list[0], sizeof expected);
    PacketAddress *made = nullptr;
    ASSERT_EQ(packet_srvadr_byname("localhost", 4000, &made), 16);
    const OwnedBlock<PacketAddress> address(made);
    EXPECT_STREQ(packet_ip2str(address->sin_addr.s_addr), std::string(packet_ip2str(expected)).c_str());
    EXPECT_EQ(process_context.localIp, expected);
}

TEST_F(AddressForms, ConvertBothWays) {
    EXPECT_STREQ(packet_ip2str(htonl(0x0a0b0c0d)), "10.11.12.13");
    EXPECT_EQ(packet_str2ip("10.11.12.13"), htonl(0x0a0b0c0d));
    for (const char *none : {"0.0.0.0", "255.255.255.255", "256.1.1.1", "name", ""})
        EXPECT_EQ(packet_str2ip(none), 0U);
    PacketAddress address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(0xc0000205);
    address.sin_port = htons(99);
    uint32_t ip = 0;
    uint16_t port = 0;
    packet_adr_get(&address, &ip, nullptr);
    packet_adr_get(&address, nullptr, &port);
    EXPECT_EQ(ip, htonl(0xc0000205));
    EXPECT_EQ(port, htons(99));
    EXPECT_STREQ(packet_adr2str(&address, sizeof address), "192.0.2.5 ( 192.0.2.5 )");
}

}  // namespace
