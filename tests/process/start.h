/* What the tests of the process framework share: argument vectors that a start may change, and the forms of the
 * lines that it writes. Only for use inside a Child: a process starts once. */
#ifndef TESTS_PROCESS_START_H
#define TESTS_PROCESS_START_H

#include <gtest/gtest.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <deque>
#include <regex>
#include <string>
#include <vector>

#include "process/velproc.h"
#include "tests/support/child.h"
#include "tests/support/rootfolder.h"

using Strings = std::vector<std::string>;

/** A vector as main gets it: writable texts, a null behind the last. */
class Arguments {
public:
    explicit Arguments(const Strings &texts) : count(static_cast<int>(texts.size())), texts_(texts) {
        for (std::string &text : texts_) vector.push_back(text.data());
        vector.push_back(nullptr);
    }
    /** The first `count` arguments, a blank between two. */
    std::string left() const {
        std::string joined;
        for (int i = 0; i < count; i++) joined += (i > 0 ? " " : "") + std::string(vector[i]);
        return joined;
    }
    int count;
    std::vector<char *> vector;

private:
    Strings texts_;
};

struct StartForm {
    int daemon = 0, log = 0, processes = 0;
};

/** process_init with arguments that stay: the context keeps option values by reference. */
inline int start(const Strings &arguments, StartForm form = {}) {
    static std::deque<Arguments> kept;
    Arguments &given = kept.emplace_back(arguments);
    return process_init(&given.count, given.vector.data(), form.daemon, form.log, form.processes);
}

/** The same with the root directory given; a failure to start ends the child. */
inline void start_or_die(const RootFolder &root, Strings arguments, StartForm form = {}) {
    arguments.insert(arguments.end(), {"-VELROOT", root.path()});
    if (const int failure = start(arguments, form)) _exit(100 - failure);
}

/** Work in a process of its own, to its end: "<exit code> <what it wrote to standard output>". */
inline std::string outcome(const std::function<int(Child &self)> &work) {
    Child child(work);
    const std::string code = std::to_string(child.exit_code());
    return code + " " + child.output();
}

/** A process that holds an instance slot, has reported "ready" and waits. */
inline int hold_slot(const Child &self, const RootFolder &root, const std::string &name) {
    umask(0);
    start_or_die(root, {name}, {.processes = 8});
    self.report("ready");
    wait_to_be_killed();
}

namespace form {
const std::string L = R"(L\d{14} )";
const std::string E = R"(E\d{14}\.\d{6} PID \d+:\nETEXT=)";
const std::string T = R"(T\d{14}\.\d{6} PID \d+: )";
const std::string CTIME = R"([A-Z][a-z]{2} [A-Z][a-z]{2} [ \d]\d \d\d:\d\d:\d\d \d{4}\n)";
}  // namespace form

/** Whether a text is of a form, which is put together of several. */
inline testing::AssertionResult matches(const std::string &text, std::initializer_list<std::string> parts) {
    std::string expression;
    for (const std::string &part : parts) expression += part;
    if (std::regex_match(text, std::regex(expression))) return testing::AssertionSuccess();
    return testing::AssertionFailure() << "\"" << text << "\"\n is not of the form\n" << expression;
}

inline std::string without_first_line(const std::string &text) { return text.substr(text.find('\n') + 1); }

/** A log without what the error mail says about itself: for tests of the other lines. */
inline std::string without_mail(const std::string &text) {
    return std::regex_replace(text, std::regex("Process_mailout: [^\n]*\n"), "");
}

inline std::string eight_digits(pid_t pid) {
    const std::string digits = std::to_string(pid);
    return std::string(8 - digits.size(), '0') + digits;
}

#endif
