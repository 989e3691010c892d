/* Child processes of a test. */
#include "tests/support/child.h"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <stdio.h>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>
#include <stdexcept>
#include <thread>

namespace {

using Clock = std::chrono::steady_clock;
constexpr int ABOVE_WHAT_A_START_CLOSES = 100;  // process_init closes the descriptors up to 15
constexpr int EXIT_AFTER_EXCEPTION = 199;

int out_of_reach(int fd) {
    const int high = fcntl(fd, F_DUPFD_CLOEXEC, ABOVE_WHAT_A_START_CLOSES);
    close(fd);
    return high;
}

}  // namespace

Child::Child(const std::function<int(Child &)> &work) : outputFd_(memfd_create("output", MFD_CLOEXEC)) {
    int ends[2];
    if (outputFd_ < 0 || pipe(ends) != 0) throw std::runtime_error("no descriptors for a child process");
    outputFd_ = out_of_reach(outputFd_);
    reportRead_ = out_of_reach(ends[0]);
    reportWrite_ = out_of_reach(ends[1]);

    fflush(nullptr);
    pid_ = fork();
    if (pid_ < 0) throw std::runtime_error("no child process");
    if (pid_ > 0) {
        close(reportWrite_);
        reportWrite_ = -1;
        return;
    }
    prctl(PR_SET_PDEATHSIG, SIGKILL);  // not a trace is left of a test that was cut off
    dup2(outputFd_, STDOUT_FILENO);
    int code = EXIT_AFTER_EXCEPTION;
    try {
        code = work(*this);
    } catch (const std::exception &failure) {
        report(std::string("exception: ") + failure.what());
    }
    fflush(nullptr);
    _exit(code);
}

Child::~Child() {
    if (!ended_) {
        kill(pid_, SIGKILL);
        waitpid(pid_, nullptr, 0);
    }
    close(outputFd_);
    close(reportRead_);
}

void Child::report(const std::string &line) const {
    const std::string whole = line + "\n";
    if (write(reportWrite_, whole.data(), whole.size()) < 0) _exit(EXIT_AFTER_EXCEPTION);
}

void Child::signal(int number) const { kill(pid_, number); }

std::string Child::next_report(std::chrono::milliseconds deadline) {
    const auto end = Clock::now() + deadline;
    for (;;) {
        const size_t length = reported_.find('\n');
        if (length != std::string::npos) {
            std::string line = reported_.substr(0, length);
            reported_.erase(0, length + 1);
            return line;
        }
        const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(end - Clock::now()).count();
        pollfd source{reportRead_, POLLIN, 0};
        char block[4096];
        if (left <= 0 || poll(&source, 1, static_cast<int>(left)) <= 0) return "(nothing)";
        const ssize_t got = read(reportRead_, block, sizeof block);
        if (got <= 0) return "(nothing)";
        reported_.append(block, static_cast<size_t>(got));
    }
}

int Child::exit_code(std::chrono::milliseconds deadline) {
    const auto end = Clock::now() + deadline;
    while (!ended_) {
        int status = 0;
        if (waitpid(pid_, &status, WNOHANG) == pid_) {
            ended_ = true;
            code_ = WIFEXITED(status) ? WEXITSTATUS(status) : -WTERMSIG(status);
        } else if (Clock::now() >= end) {
            return -1000;
        } else {
            std::this_thread::sleep_for(std::chrono::milliseconds(2));
        }
    }
    return code_;
}

std::string Child::output() const {
    std::string content;
    char block[65536];
    ssize_t got;
    while ((got = pread(outputFd_, block, sizeof block, static_cast<off_t>(content.size()))) > 0) {
        content.append(block, static_cast<size_t>(got));
    }
    return content;
}

void wait_to_be_killed() {
    for (;;) pause();
}

bool is_locked_by(const std::string &path, pid_t pid) {
    const int fd = open(path.c_str(), O_RDWR | O_CLOEXEC);
    struct flock wanted {};
    wanted.l_type = F_WRLCK;
    const bool asked = fd >= 0 && fcntl(fd, F_GETLK, &wanted) == 0;
    if (fd >= 0) close(fd);
    return asked && wanted.l_type != F_UNLCK && wanted.l_pid == pid;
}
