/* Runs a piece of a test in a process of its own: the state of the libraries is one for a process, and some calls
 * fork, redirect descriptors or end the process.
 *
 * The work reports to the test line by line, through a descriptor that survives what process_init does to the low
 * ones; its standard output is collected. A child that still runs at the end of the test is killed. */
#ifndef TESTS_SUPPORT_CHILD_H
#define TESTS_SUPPORT_CHILD_H

#include <sys/types.h>
#include <chrono>
#include <functional>
#include <string>

class Child {
public:
    /** Starts the work in a new process; what it returns becomes the exit code. */
    explicit Child(const std::function<int(Child &self)> &work);
    ~Child();
    Child(const Child &) = delete;
    Child &operator=(const Child &) = delete;

    // For the work, in the new process (and in a daemon that it became):
    void report(const std::string &line) const;

    // For the test:
    pid_t pid() const { return pid_; }
    void signal(int number) const;

    /** Next line that was reported; "(nothing)" if none comes before the deadline. */
    std::string next_report(std::chrono::milliseconds deadline = std::chrono::seconds(15));

    /** Waits for the end: the exit code, -n after signal number n, -1000 if it does not end in time. */
    int exit_code(std::chrono::milliseconds deadline = std::chrono::seconds(15));

    /** What the child wrote to standard output until now. */
    std::string output() const;

private:
    pid_t pid_;
    int outputFd_;
    int reportRead_ = -1, reportWrite_ = -1;
    std::string reported_;
    bool ended_ = false;
    int code_ = 0;
};

/** Work for a child that has done its part and waits to be killed. */
[[noreturn]] void wait_to_be_killed();

/** Whether `pid` holds a record lock on the file. */
bool is_locked_by(const std::string &path, pid_t pid);

#endif
