/* What a client was told is done stays done, whatever happens to the server. */
#include <gtest/gtest.h>
#include <random>
#include <thread>

#include "tests/support/serverprocess.h"

namespace {

constexpr char TABLE[] = "CREATE TABLE T (ID VARCHAR2(10) PRIMARY KEY, COUNTER VARCHAR2(8))";

TEST(Durability, NoAnsweredWriteIsLostWhenTheServerIsKilled) {
    const unsigned seed = std::random_device{}();
    printf("seed %u\n", seed);
    std::minstd_rand random(seed);
    ServerProcess server;
    server.sql(TABLE);
    int answered = 0, sent = 0;
    for (int round = 0; round < 5; ++round) {
        TestClient client{server.port()};
        std::thread killer;
        for (;;) {
            const auto reply = client.try_ask({"DB", "I", "T", "ID", std::to_string(sent), "COUNTER", "00000001"});
            ++sent;
            if (!reply) break;
            ASSERT_EQ(*reply, Strings{"0"});
            ++answered;
            if (killer.joinable()) continue;
            killer = std::thread([&, pause = std::chrono::milliseconds(10 + random() % 150)] {
                std::this_thread::sleep_for(pause);
                server.signal(SIGKILL);
            });
        }
        ASSERT_TRUE(killer.joinable()) << "no answer at all";
        killer.join();
        server.kill();
        server.start();
        const int stored = std::stoi(server.value("SELECT count(*) FROM T"));
        EXPECT_GE(stored, answered);
        EXPECT_LE(stored, sent);
        EXPECT_EQ(server.value("SELECT count(*) FROM T WHERE COUNTER IS NULL"), "0");
        EXPECT_EQ(server.value("PRAGMA integrity_check"), "ok");
        answered = stored;
    }
}

TEST(Durability, TwoServersShareOneFile) {
    ServerProcess first;
    first.sql(TABLE);
    ServerProcess second{{.database = "sqlite:" + first.database_file()}};
    TestClient one{first.port()}, two{second.port()};
    EXPECT_EQ(one.ask({"DB", "I", "T", "ID", "a", "COUNTER", "00000001"}), Strings{"0"});
    EXPECT_EQ(two.ask({"DB", "A", "T", "ID", "a", "COUNTER", "1"}), (Strings{"0", "00000002"}));
    EXPECT_EQ(two.ask({"DB", "I", "T", "ID", "a"}), Strings{"2"});
    EXPECT_EQ(one.ask({"DB", "G", "T", "ID", "a", "COUNTER"}), (Strings{"0", "00000002"}));

    std::thread other([&] {
        for (int number = 0; number < 100; ++number) two.ask({"DB", "I", "T", "ID", "two" + std::to_string(number)});
    });
    for (int number = 0; number < 100; ++number) {
        EXPECT_EQ(one.ask({"DB", "I", "T", "ID", "one" + std::to_string(number)}), Strings{"0"});
    }
    other.join();
    EXPECT_EQ(first.value("SELECT count(*) FROM T"), "201");
    first.kill();
    EXPECT_EQ(two.ask({"DB", "D", "T", "ID", "a"}), Strings{"0"}) << "the other's end is no concern";
    first.start();
}

TEST(Durability, CanBeTradedForSpeed) {
    ServerProcess server{{.databaseOptions = "?synchronous=normal&locking=exclusive"}};
    EXPECT_EQ(TestClient(server.port()).ask({"DB", "G", "T", "ID", "a", "X"}), Strings{"1002"});
    server.stop();
    EXPECT_EQ(server.root().read("data.db").substr(0, 6), "SQLite") << "the setting is no part of the path";
}

}  // namespace
