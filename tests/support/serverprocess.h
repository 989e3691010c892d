/* The real server program, started for one test: on a free port of this machine, in a root folder of its own, over an
 * empty database file.
 *
 * When the test ends the server is stopped. A server that died by itself, ended with another exit code than 0 or left
 * a sanitizer's report in its log fails the test, and a failed test shows the end of the log. */
#ifndef TESTS_SUPPORT_SERVERPROCESS_H
#define TESTS_SUPPORT_SERVERPROCESS_H

#include <sys/types.h>
#include <cstdint>
#include <memory>
#include <string>

#include "tests/support/logwatch.h"
#include "tests/support/rootfolder.h"
#include "tests/support/testclient.h"

/** How a program ended, and what it wrote. */
struct ProgramEnd {
    int code;  // exit code, or the negated signal number
    std::string output;
    std::string errors;
};

/** Runs a program of ours to its end. Its place is the directory of the programs; `environment` is added. */
ProgramEnd run_program(const Strings &words, const Strings &environment = {});

/** An UDP port of `host` that nobody uses. Not one of those that the system hands out to clients by itself. */
uint16_t free_port(const char *host = "127.0.0.1");

class ServerProcess {
public:
    struct Settings {
        Strings options = {};              // in front of the usual ones
        bool joinedPort = false;           // "-p4000" instead of "-p 4000"
        Strings environment = {};          // NAME=value, besides the test's own
        std::string names = "";            // content of the file that maps logical names to physical ones
        std::string database = "";         // value of -odb; empty: the file that sql() works on
        std::string databaseOptions = "";  // behind that file's name
        bool checkKeys = false;            // leave -NOACCESSKEYCHECK out
        std::string keys = "";             // content of etc/access.key; these are checked
        bool daemon = false;               // leave -D out: with the handlers that a daemon alone has
        const char *host = "127.0.0.1";    // address to bind to
    };

    ServerProcess() : ServerProcess(Settings{}) {}
    explicit ServerProcess(Settings settings);
    ~ServerProcess();
    ServerProcess(const ServerProcess &) = delete;
    ServerProcess &operator=(const ServerProcess &) = delete;

    uint16_t port() const { return port_; }
    pid_t pid() const { return pid_; }
    const RootFolder &root() const { return *root_; }
    std::string database_file() const { return root_->path("data.db"); }

    std::string log() const { return root_->log(name()); }
    LogWatch watch() const { return LogWatch(root_->path("log/" + name())); }
    std::string name() const { return "raserver." + std::to_string(port_); }

    /** Runs statements on the server's database file, from outside of the server. */
    void sql(const std::string &text) const;

    /** The first value of the first row; "NULL" for none. */
    std::string value(const std::string &text) const;

    /** Waits until the server sleeps, so that a signal meets it between two events. */
    void wait_idle() const;

    void signal(int number) const;

    /** Ends the server with SIGTERM; gives the exit code. */
    int stop();

    /** Ends the server at once, with no chance to tidy up. */
    void kill();

    /** Starts it again after stop or kill, on the same port, folder and file. */
    void start();

private:
    Strings arguments() const;
    pid_t daemon_of(pid_t launched) const;
    bool wait_until_serving();
    int wait_for_end();
    void report();

    Settings settings_;
    const std::unique_ptr<RootFolder> root_ = std::make_unique<RootFolder>();
    uint16_t port_;
    pid_t pid_ = -1;
};

#endif
