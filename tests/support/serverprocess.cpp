/* Starts, watches and ends the real server for a test. */
#include "tests/support/serverprocess.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sqlite3.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstring>
#include <fstream>
#include <random>
#include <sstream>
#include <thread>

#include "tests/support/addresses.h"

namespace {
using namespace std::chrono_literals;
constexpr auto START_DEADLINE = 60s;  // generous: sanitizers, and other tests on the same two cores
constexpr size_t SHOWN_LOG = 8000;

std::string read_file(const std::string &path) {
    std::ifstream file(path, std::ios::binary);
    std::stringstream text;
    text << file.rdbuf();
    return text.str();
}

/** Forks and runs a program; both outputs go into files. The program dies with the test. */
pid_t launch(const Strings &words, const Strings &environment, const std::string &output, const std::string &errors) {
    std::vector<char *> argv;
    for (const std::string &word : words) argv.push_back(const_cast<char *>(word.c_str()));
    argv.push_back(nullptr);
    const pid_t pid = fork();
    if (pid != 0) return pid;
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    for (const std::string &entry : environment) putenv(const_cast<char *>(entry.c_str()));
    dup2(open(output.c_str(), O_WRONLY | O_CREAT | O_APPEND, 0644), STDOUT_FILENO);
    dup2(open(errors.c_str(), O_WRONLY | O_CREAT | O_APPEND, 0644), STDERR_FILENO);
    execv(argv[0], argv.data());
    _exit(127);
}

int exit_code(int status) { return WIFEXITED(status) ? WEXITSTATUS(status) : -WTERMSIG(status); }

bool is_free(const char *host, uint16_t port) {
    const int fd = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    const sockaddr_in address = address_of(host, port);
    const bool bound = bind(fd, reinterpret_cast<const sockaddr *>(&address), sizeof address) == 0;
    close(fd);
    return bound;
}

/** A connection of its own to a database file, for one statement text. */
class Connection {
public:
    explicit Connection(const std::string &file) {
        EXPECT_EQ(sqlite3_open(file.c_str(), &database_), SQLITE_OK);
        sqlite3_busy_timeout(database_, 20000);
    }
    ~Connection() { sqlite3_close(database_); }

    std::string first_value(const std::string &text) {
        std::string value = "NULL";
        bool first = true;
        auto context = std::tie(value, first);
        char *message = nullptr;
        const auto take = [](void *given, int, char **values, char **) {
            auto &[target, fresh] = *static_cast<std::tuple<std::string &, bool &> *>(given);
            if (fresh && values[0] != nullptr) target = values[0];
            fresh = false;
            return 0;
        };
        EXPECT_EQ(sqlite3_exec(database_, text.c_str(), take, &context, &message), SQLITE_OK)
            << text << ": " << message;
        sqlite3_free(message);
        return value;
    }

private:
    sqlite3 *database_ = nullptr;
};
}  // namespace

uint16_t free_port(const char *host) {
    static std::minstd_rand random(std::random_device{}());
    for (;;) {
        const auto port = static_cast<uint16_t>(10000 + random() % 20000);
        if (is_free(host, port)) return port;
    }
}

ProgramEnd run_program(const Strings &words, const Strings &environment) {
    RootFolder folder;
    Strings full = words;
    full[0] = std::string(VELMORA_BIN_DIR "/") + full[0];
    int status = 0;
    waitpid(launch(full, environment, folder.path("output"), folder.path("errors")), &status, 0);
    return {exit_code(status), folder.read("output"), folder.read("errors")};
}

ServerProcess::ServerProcess(Settings settings) : settings_(std::move(settings)), port_(free_port(settings_.host)) {
    root_->write("names.map", settings_.names);
    if (!settings_.keys.empty()) root_->write("etc/access.key", settings_.keys);
    start();
}

ServerProcess::~ServerProcess() {
    if (pid_ > 0) {
        EXPECT_EQ(stop(), 0) << "the server did not end in order";
    }
    report();
}

Strings ServerProcess::arguments() const {
    const std::string database =
        settings_.database.empty() ? "sqlite:" + database_file() + settings_.databaseOptions : settings_.database;
    Strings words{VELMORA_BIN_DIR "/raserver"};
    words.insert(words.end(), settings_.options.begin(), settings_.options.end());
    const std::string port = std::to_string(port_);
    for (const std::string &word : settings_.joinedPort ? Strings{"-p" + port} : Strings{"-p", port}) {
        words.push_back(word);
    }
    const Strings usual{"-VELROOT", root_->path(), "-BINDIP", settings_.host, "-odb", database,
                        "-oid",     "tester",      "-opw",    "secret",       "-f",   root_->path("names.map")};
    words.insert(words.end(), usual.begin(), usual.end());
    if (!settings_.daemon) words.push_back("-D");
    if (!settings_.checkKeys && settings_.keys.empty()) words.push_back("-NOACCESSKEYCHECK");
    return words;
}

void ServerProcess::start() {
    for (int tries = 0; tries < 5; ++tries) {
        if (settings_.daemon) prctl(PR_SET_CHILD_SUBREAPER, 1);  // a daemon without a parent becomes our child
        pid_ = launch(arguments(), settings_.environment, root_->path("output"), root_->path("output"));
        if (settings_.daemon) pid_ = daemon_of(pid_);
        if (wait_until_serving()) return;
        const int code = wait_for_end();
        if (code != 104) {
            FAIL() << "the server did not start: code " << code << "\n" << root_->read("output");
        }
        port_ = free_port(settings_.host);  // taken between the look and the bind
    }
    FAIL() << "no port";
}

/** The daemon behind a program that was launched, as its status file shows it. */
pid_t ServerProcess::daemon_of(pid_t launched) const {
    waitpid(launched, nullptr, 0);
    const auto deadline = std::chrono::steady_clock::now() + START_DEADLINE;
    while (std::chrono::steady_clock::now() < deadline) {
        const pid_t shown = std::atoi(root_->read("status/" + name() + ".1").c_str());
        if (shown != 0) return shown;
        std::this_thread::sleep_for(2ms);
    }
    return launched;  // has ended, and is not waited for twice
}

/** The first tick comes before the first datagram is read: whoever answers a ping has tried its database. */
bool ServerProcess::wait_until_serving() {
    const auto deadline = std::chrono::steady_clock::now() + START_DEADLINE;
    TestClient probe(port_, settings_.host);
    while (std::chrono::steady_clock::now() < deadline) {
        siginfo_t ended{};
        waitid(P_PID, static_cast<id_t>(pid_), &ended, WEXITED | WNOHANG | WNOWAIT);
        if (ended.si_pid != 0) return false;
        probe.send("\x97");
        if (const auto pong = probe.receive(20ms); pong && *pong == "\x98") return true;
        std::this_thread::sleep_for(2ms);
    }
    ::kill(pid_, SIGKILL);
    return false;
}

int ServerProcess::wait_for_end() {
    const auto deadline = std::chrono::steady_clock::now() + START_DEADLINE;
    int status = 0;
    while (waitpid(pid_, &status, WNOHANG) == 0) {
        if (std::chrono::steady_clock::now() > deadline) ::kill(pid_, SIGKILL);
        std::this_thread::sleep_for(1ms);
    }
    pid_ = -1;
    return exit_code(status);
}

int ServerProcess::stop() {
    signal(SIGTERM);
    return wait_for_end();
}

void ServerProcess::kill() {
    signal(SIGKILL);
    EXPECT_EQ(wait_for_end(), -SIGKILL) << "the server had died before";
}

void ServerProcess::signal(int number) const {
    if (pid_ > 0) ::kill(pid_, number);
}

void ServerProcess::wait_idle() const {
    const std::string path = "/proc/" + std::to_string(pid_) + "/stat";
    for (int tries = 0; tries < 5000; ++tries) {
        const std::string stat = read_file(path);
        const size_t end = stat.rfind(") ");
        if (end != std::string::npos && stat[end + 2] == 'S') return;
        std::this_thread::sleep_for(1ms);
    }
    ADD_FAILURE() << "the server never came to rest";
}

void ServerProcess::sql(const std::string &text) const { Connection(database_file()).first_value(text); }

std::string ServerProcess::value(const std::string &text) const {
    return Connection(database_file()).first_value(text);
}

void ServerProcess::report() {
    const std::string text = root_->read("output") + log();
    for (const char *mark : {"AddressSanitizer", "LeakSanitizer", "runtime error:"}) {
        EXPECT_EQ(text.find(mark), std::string::npos) << "the log holds a sanitizer's report";
    }
    if (testing::Test::HasFailure()) {
        printf("--- log of %s ---\n%s\n", name().c_str(),
               text.substr(text.size() - std::min(text.size(), SHOWN_LOG)).c_str());
    }
}
