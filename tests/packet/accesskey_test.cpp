/* Access keys: the file, the look-ups, envelopes, and what becomes of datagrams on their way in and out.
 *
 * The key table is one for a process and loaded once, so each file is tried in a process of its own. No name service
 * is asked: a label of 64 characters fails without a question, and "10.1" is 10.0.0.1 in another form. */
#include <string.h>
#include <numeric>
#include <set>

#include "packet/accessi.h"
#include "packet/crypto.h"
#include "tests/packet/sockets.h"
#include "tests/support/bytes.h"

using namespace std::string_literals;

namespace {

const std::string OWN_TEXT = "bcdefghijklmnopabcdefghijklmnopa", OWN_KEY = "123456789abcdef0123456789abcdef0";
const std::string LABEL = "test: packet_accesskey_by_ip: ";

/** A text or a key in hex of one digit only. */
std::string all(char digit) { return std::string(32, digit); }

/** "<key> <flags>" */
std::string key_of(const char *ip) {
    int flags = -1;
    const unsigned char *key = packet_accesskey_by_ip(packet_str2ip(ip), &flags);
    return (key != nullptr ? hex_of(key, 16) : "none") + " " + std::to_string(flags);
}

class AccessKeys : public SocketTest {
protected:
    AccessKeys() {
        process_context.logReady = 1;
        process_context.noAccessKeyCheck = 0;
        process_context.mode = 0;
        packet_own_ip = 0;
    }
    const Bytes key = bytes_of(OWN_KEY);
    std::string lines;

    /** Does the work, with its expectations, in a process of its own; `lines` is what that wrote. */
    void in_child(const std::function<void()> &work) {
        Child child([&](Child &) {
            work();
            return HasFailure() ? 1 : 0;
        });
        EXPECT_EQ(child.exit_code(), 0) << child.output();
        lines = child.output();
    }
    void with_file(const std::string &file, const std::function<void()> &work) {
        root.write("etc/access.key", file);
        in_child(work);
    }
    /** The same, where look-ups of 10.0.0.1 and so on are all the work. */
    void expect_keys(const std::string &file, const std::vector<std::string> &expected) {
        with_file(file, [&] {
            for (size_t at = 0; at < expected.size(); at++) {
                EXPECT_EQ(key_of(("10.0.0." + std::to_string(at + 1)).c_str()), expected[at]);
            }
        });
    }
    int lines_with(const std::string &wanted) const {
        int count = 0;
        for (size_t at = 0; (at = lines.find(wanted, at)) != std::string::npos; at++) count++;
        return count;
    }
};
class Envelopes : public AccessKeys {};
class Arrivals : public AccessKeys {
protected:
    Arrivals() { packet_bound_ip = LOOPBACK; }
    const std::string ownFile = "127.0.0.1 " + OWN_TEXT + "\n";
};

TEST_F(AccessKeys, AreDecodedStepByStep) {
    for (const auto &[text, expected] :
         {std::pair{OWN_TEXT, OWN_KEY},
          {OWN_TEXT + "z", OWN_KEY},
          {"0123456789abcdefghijklmnopqrstuv", "01234567890123456789abcdef012345"},
          {"ABCDEFGHIJKLMNOPQRSTUVWXYZabcdef", "789abcdef0123456789abcdef0012345"},
          {"bcde", "12347723401234772340123477234012"},  // a restart costs a step: what was there stays, or is joined
          {"", all('7')},
          {"1" + all('-'), "10" + std::string(30, '7')},
          {"-1-1\x80 {`@[/:", "77777777777777101077777777777777"}}) {
        Bytes target(17, 0x77);
        EXPECT_EQ(packet_hex2bin(text.c_str(), target.data(), 16), 32);
        EXPECT_EQ(hex_of(target), expected + "77") << text;
    }
}

TEST_F(AccessKeys, OfAFileAreDecodedOneOverTheOther) {
    expect_keys("10.0.0.1 " + OWN_TEXT + "\n10.0.0.2 bcde\n10.0.0.3 EnCrypt \t " + std::string(31, 'b') +
                    "\n10.0.0.4 encrypt" + OWN_TEXT + "A\n",
                {OWN_KEY + " 1", "12345723401234f1234012349b234012 1",  // the key in front shows through
                 std::string(31, '1') + "0 2", OWN_KEY + " 2", "none 0"});
}

TEST_F(AccessKeys, OfNamesAreFoundUnderTheirAddress) {
    process_context.bindIp = "127.0.0.9";
    with_file("localhost encrypt " + OWN_TEXT + "\n10.7 " + OWN_TEXT + "\n10.0.0.7 " + all('3') + "\n", [] {
        int flags = 7;
        const unsigned char *found = packet_accesskey_by_name("localhost", &flags);
        EXPECT_EQ(flags, PACKETKEYENCRYPT);
        EXPECT_EQ(key_of("127.0.0.9"), OWN_KEY + " 2");
        PacketAddress address{};
        address.sin_addr.s_addr = packet_str2ip("127.0.0.9");
        EXPECT_EQ(packet_accesskey_by_adr(&address, nullptr), found);
        EXPECT_EQ(packet_accesskey_by_name(std::string(64, 'x').c_str(), &flags), nullptr);
        EXPECT_EQ(flags, PACKETKEYNONE);
        EXPECT_EQ(key_of("10.0.0.7"), all('3') + " 1") << "its own entry comes first";
    });
    const std::string says = "test: Packet access key for IP ";
    EXPECT_TRUE(lines.starts_with(says + "10.7\n" + says + "10.0.0.7\n" + says + "127.0.0.9\ntest: packet_get"));
}

TEST_F(AccessKeys, FileIsReadAtTheFirstNeedAndNeverAgain) {
    in_child([&] {
        EXPECT_EQ(key_of("10.0.0.1"), "none 0");
        root.write("etc/access.key", "10.0.0.1 " + OWN_TEXT + "\n");
        EXPECT_EQ(key_of("10.0.0.1"), "none 0");
    });
    EXPECT_EQ(lines,
              LABEL + "Cannot open config file \"" + root.path("etc/access.key") + "\" No such file or directory\n");
    in_child([] {
        for (const auto &[off, found] : {std::pair{1, "none 0"s}, {0, OWN_KEY + " 1"}, {1, "none 0"s}}) {
            process_context.noAccessKeyCheck = off;
            EXPECT_EQ(key_of("10.0.0.1"), found) << "a look-up while no key is asked for is none";
        }
    });
    root.write("here/config/access.key", "10.0.0.1 " + all('3') + "\n");
    for (const int mode : {0, static_cast<int>(PROCESS_MODE_LOCAL_CONFIG)}) {
        in_child([&] {
            process_context.mode = mode;
            ASSERT_EQ(chdir(root.path("here").c_str()), 0);
            EXPECT_EQ(key_of("10.0.0.1"), (mode == 0 ? OWN_KEY : all('3')) + " 1");
        });
    }
    process_context.rootDir = nullptr;
    in_child([] { EXPECT_EQ(key_of("10.0.0.1"), "none 0"); });
    EXPECT_EQ(lines, "");
}

TEST_F(AccessKeys, EmptyKeyDamagesThoseAheadOfIt) {
    const std::string zero = "00" + std::string(30, '3');
    const std::string file = "10.0.0.1 " + zero + "\n10.0.0.2 encrypt " + all('1') + "\n10.0.0.3 " + all('3') +
                             "\n10.0.0.4 encrypt\n10.0.0.5 " + all('2') + "\n";
    // The first key begins with a zero byte and so counts as empty itself. The second holds no digits: it becomes the
    // one decoded last and loses its mark. The third is made of digits that spell itself.
    expect_keys(file, {"none 0", all('3') + " 1", all('3') + " 1", "none 0", all('2') + " 1"});
    const std::string bad = LABEL + "Bad or missing accesskey for host \"10.0.0.";
    EXPECT_TRUE(lines.starts_with(bad + "4\"\n" + bad + "1\"\ntest: Packet")) << lines;

    process_context.logReady = 0;  // and the fourth then gets the key of the entry in front
    expect_keys(file, {zero + " 1", all('1') + " 2", all('3') + " 1", all('3') + " 2", all('2') + " 1"});
    EXPECT_EQ(lines, "");
}

TEST_F(AccessKeys, EachNameIsLookedUpOnce) {
    std::string file;
    for (int host = 1; host <= 100; host++) {
        file += "9" + std::string(64, 'x') + std::to_string(host) + " " + OWN_TEXT + "\n";
        file += "10." + std::to_string(host) + " " + OWN_TEXT + "\n";  // gives one more entry each
    }
    with_file(file, [] { EXPECT_EQ(key_of("10.0.0.100"), OWN_KEY + " 1"); });
    EXPECT_EQ(lines_with("test: packet_gethostbyname: gethostbyname("), 100);
    EXPECT_EQ(lines_with(LABEL + "cannot resolve IP address of host \"9xx"), 100);
    EXPECT_EQ(lines_with("test: Packet access key for IP 10."), 200);
}

/* ---- Envelopes draw random numbers, and those ask for the own key: so these have processes of their own too. --- */

Bytes enveloped(const Bytes &key, const Bytes &plain) {
    const auto length = static_cast<int>(plain.size());
    Bytes envelope(plain.size() + PACKET_ENVELOPE_ROOM);
    envelope.resize(static_cast<size_t>(packet_encrypt(key.data(), plain.data(), length, envelope.data())));
    return envelope;
}

TEST_F(Envelopes, HoldTheSessionKeyThePaddingAndThePacket) {
    struct Row {
        int length, size, padding;
    };
    in_child([&] {
        process_context.trace = 1;
        std::set<Bytes> sessions;
        for (const Row &row : {Row{1, 33, 15}, Row{16, 33, 0}, Row{17, 49, 15}, Row{21, 49, 11}, Row{548, 577, 12}}) {
            Bytes plain(static_cast<size_t>(row.length));
            std::iota(plain.begin(), plain.end(), uint8_t{1});
            Bytes envelope(static_cast<size_t>(row.size) + 1, 0x5c), opened(envelope);
            ASSERT_EQ(packet_encrypt(key.data(), plain.data(), row.length, envelope.data()), row.size);
            EXPECT_EQ(envelope[0], 165);
            EXPECT_EQ(envelope.back(), 0x5c) << "written behind the end";

            Bytes session(16), inside(static_cast<size_t>(row.size) - 17);
            packet_aes_decrypt(key.data(), envelope.data() + 1, 16, session.data());
            packet_aes_decrypt(session.data(), envelope.data() + 17, row.size - 17, inside.data());
            EXPECT_TRUE(sessions.insert(session).second) << "a session key came again";
            EXPECT_EQ(hex_of(inside), hex_of(Bytes(static_cast<size_t>(row.padding), 0xa5)) + hex_of(plain));

            int length = -1;
            const unsigned char *found =
                packet_decrypt(key.data(), envelope.data(), row.size, opened.data(), &length);
            ASSERT_EQ(found, opened.data() + 17 + row.padding);
            EXPECT_EQ(Bytes(found, found + length), plain);
            EXPECT_EQ(opened[0], 165);
            EXPECT_EQ(opened.back(), 0x5c);
        }
    });
    Bytes untouched(200, 9);
    EXPECT_EQ(packet_encrypt(key.data(), key.data(), -1, untouched.data()), 0);
    EXPECT_EQ(packet_decrypt(key.data(), key.data(), -15, untouched.data(), nullptr), nullptr);
    EXPECT_EQ(untouched, Bytes(200, 9));
    EXPECT_EQ(lines_with(": PA.ENCRYPT IN 21 OUT 49\n"), 1) << lines;
    EXPECT_EQ(lines_with(": PA.DECRYPT IN 49 OUT 21\n"), 1) << lines;
}

/** What the access step makes of a datagram: whether it is accepted, whether it was opened, and how it then stands. */
std::string arrived(Bytes packet) {
    keyAccepted = 7;
    const int length = packet_access_step(packet.data(), static_cast<int>(packet.size()), "packet_read");
    packet.resize(static_cast<size_t>(length));
    return std::to_string(keyAccepted) + (packet_came_in_envelope() != 0 ? " opened " : " as sent ") + hex_of(packet);
}

TEST_F(Arrivals, AreMarkedByKeyOrEnvelope) {
    with_file(ownFile, [&] {
        const std::string inner = "840001", shown = "a4" + OWN_KEY + inner, falsely = "a4" + all('1') + inner;
        for (const std::string &packet : {inner, falsely, shown.substr(0, 32), std::string(), std::string("a5"),
                                          hex_of(Bytes(32, 165)), hex_of(Bytes(34, 165))}) {
            EXPECT_EQ(arrived(bytes_of(packet)), "0 as sent " + packet);
        }
        for (const std::string &packet : {shown, "a4" + OWN_KEY}) {
            EXPECT_EQ(arrived(bytes_of(packet)), "1 as sent " + packet);
        }
        for (const std::string &packet : {inner, shown, falsely, "01a5"s, ""s}) {
            for (const std::string &lost : {""s, "a5"s, hex_of(Bytes(18, 0xa5))}) {
                if (packet.empty() && lost.empty()) continue;
                EXPECT_EQ(arrived(enveloped(key, bytes_of(lost + packet))), "1 opened " + packet) << lost;
            }
        }
        EXPECT_TRUE(arrived(enveloped(Bytes(16, 9), {1})).starts_with("1 opened ")) << "noise, and nothing tells";
        process_context.hardened = 1;
        for (const std::string &packet : {inner, falsely, shown.substr(0, 32), shown}) {
            const std::string mark = packet == shown ? "1" : "0";
            EXPECT_EQ(arrived(enveloped(key, bytes_of(packet))), mark + " opened " + packet) << "hardened";
        }
        process_context.hardened = 0;
        for (size_t place = 1; place <= 16; place++) {
            Bytes wrong = bytes_of(shown);
            wrong[place] ^= 0x80;
            EXPECT_EQ(arrived(wrong)[0], '0') << "differs at " << place;
        }
        process_context.noAccessKeyCheck = 1;
        for (const Bytes &packet : {enveloped(key, {1}), bytes_of(falsely), bytes_of(inner)}) {
            EXPECT_EQ(arrived(packet), "1 as sent " + hex_of(packet));
        }
    });
    with_file("127.0.0.2 " + OWN_TEXT + "\n", [&] {
        for (const Bytes &packet : {enveloped(key, {1}), bytes_of("a4" + OWN_KEY)}) {
            EXPECT_EQ(arrived(packet), "0 as sent " + hex_of(packet)) << "this host has no key";
        }
    });
}

TEST_F(Arrivals, OwnKeyIsThatOfTheBoundAddressOrOfLocalhost) {
    const std::string unknown(64, 'x'), file = "10.0.0.1 " + OWN_TEXT + "\n10.0.0.2 " + OWN_TEXT + "\n";
    struct Row {
        const char *bound, *configured, *own;
    };
    for (const Row &row : {Row{"10.0.0.1", "10.0.0.2", "10.0.0.1"}, Row{"0.0.0.0", "10.0.0.2", "10.0.0.2"},
                           Row{"0.0.0.0", unknown.c_str(), "255.255.255.255"}}) {
        with_file(file, [&] {
            packet_bound_ip = packet_str2ip(row.bound);
            process_context.bindIp = row.configured;
            EXPECT_EQ(packet_own_key() != nullptr, row.configured != unknown);
            EXPECT_EQ(packet_own_key(), packet_accesskey_by_ip(packet_own_ip, nullptr));
            EXPECT_STREQ(packet_ip2str(packet_own_ip), row.own);
        });
        EXPECT_EQ(lines_with("failed!"), row.configured == unknown ? 1 : 0) << "it was tried again";
    }
}

TEST_F(Arrivals, ComeThroughASocketAsTheyWereSent) {
    with_file(ownFile, [&] {
        const OwnedFd server(packet_clt_socket_ip(LOOPBACK)), client(packet_clt_socket_ip(LOOPBACK));
        const PacketAddress to = name_of(server.get());
        for (const bool waiting : {true, false}) {
            EXPECT_EQ(packet_send_encrypted(client.get(), key.data(), "plain", 5, &to, sizeof to), 0);
            char read[200];
            PacketAddress from;
            int size = sizeof from;
            EXPECT_EQ(waiting ? packet_read(server.get(), read, sizeof read, &from, &size, nullptr)
                              : packet_readUDP(server.get(), read, sizeof read, nullptr, nullptr),
                      5);
            EXPECT_EQ(std::string(read, 5), "plain");
            EXPECT_EQ(std::exchange(keyAccepted, 0), 1);
        }
        process_context.hardened = 1;
        Bytes packet = bytes_of("a4" + OWN_KEY + "070809");
        for (const size_t head : {17, 0}) {  // without its key, and with it
            const auto length = static_cast<int>(packet.size() - head);
            EXPECT_EQ(packet_send_encrypted(client.get(), key.data(), &packet[head], length, &to, sizeof to), 0);
            Bytes read(200);
            read.resize(static_cast<size_t>(packet_readUDP(server.get(), read.data(), 200, nullptr, nullptr)));
            EXPECT_EQ(hex_of(read), hex_of(packet));
            EXPECT_EQ(std::exchange(keyAccepted, 0), 1);
        }
        EXPECT_EQ(packet_send_encrypted(client.get(), key.data(), "", 0, &to, sizeof to), PACKETERRMEM);
        EXPECT_EQ(packet_send_encrypted(-1, key.data(), "x", 1, &to, sizeof to), PACKETERRBADSOCKET);
    });
}

}  // namespace
