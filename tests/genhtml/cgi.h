/* A CGI program for one test: a process with the environment and the standard input of a request, in a folder of its
 * own, which reads the request and does what the test says. However it ends, its exit status is 0. */
#ifndef TESTS_GENHTML_CGI_H
#define TESTS_GENHTML_CGI_H

#include <gtest/gtest.h>
#include <stdlib.h>
#include <sys/mman.h>
#include <unistd.h>
#include <functional>
#include <string>
#include <tuple>
#include <vector>

#include "genhtml/genhtml.h"
#include "process/owned.h"
#include "tests/support/child.h"
#include "tests/support/rootfolder.h"

using Strings = std::vector<std::string>;
using Program = std::function<void()>;
template <class... Columns>
using Rows = std::vector<std::tuple<Columns...>>;

struct Request {
    Strings environment;
    std::string body = "";
    Strings arguments = {};         // behind the program's name
    Program before = [] {};         // what the program does before it reads the request
    Strings more_environment = {};  // put there by with()
    Request with(const std::string &setting) const {
        Request changed = *this;
        changed.more_environment.push_back(setting);
        return changed;
    }
};

inline Request get(const std::string &query) { return {{"REQUEST_METHOD=GET", "QUERY_STRING=" + query}}; }

inline Request post(const std::string &body, const std::string &type = "application/x-www-form-urlencoded") {
    return {{"REQUEST_METHOD=POST", "CONTENT_TYPE=" + type, "CONTENT_LENGTH=" + std::to_string(body.size())}, body};
}

inline Request form(const std::string &body, const std::string &boundary = "BOUND") {
    return post(body, "multipart/form-data; boundary=" + boundary);
}

/** Prints a new string and frees it. */
inline void print(char *text) { fputs(OwnedBlock<char>(text).get(), stdout); }

/** Prints what has been stored, oldest first, as "&key=value" with all but letters and digits encoded. */
inline void print_input() { print(ghIn2Query(nullptr)); }

const std::string PAGE = "Content-Type: text/html\n\n";  // the header of a page that sets nothing
inline std::string error_page(const std::string &text) {
    return std::string(PAGE) +
           "<h1>An error occured</h1>\n<P>While accessing the script Scriptname not set\n<P><B>\n" + text + "</B>\n";
}

class Cgi : public testing::Test {
protected:
    RootFolder folder;

    Cgi() { folder.write("logs/kept", ""); }

    /** The work of a Child: reads the request and runs the program. */
    std::function<int(Child &)> work(const Request &request, const Program &program) const {
        return [this, request, program](Child &) {
            const OwnedFd input(memfd_create("input", MFD_CLOEXEC));
            const auto length = static_cast<ssize_t>(request.body.size());
            if (write(input.get(), request.body.data(), request.body.size()) != length) return 1;
            if (lseek(input.get(), 0, SEEK_SET) != 0 || dup2(input.get(), STDIN_FILENO) < 0) return 2;
            if (chdir(folder.path().c_str()) != 0) return 3;
            clearenv();
            setenv("TZ", "UTC", 1);
            for (const Strings *settings : {&request.environment, &request.more_environment}) {
                for (const std::string &setting : *settings) {
                    const size_t sign = setting.find('=');
                    setenv(setting.substr(0, sign).c_str(), setting.substr(sign + 1).c_str(), 1);
                }
            }
            static Strings words;
            static std::vector<char *> vector;
            words = request.arguments;
            words.insert(words.begin(), "program");
            for (std::string &word : words) vector.push_back(word.data());
            vector.push_back(nullptr);
            request.before();
            ghReadParse(static_cast<int>(words.size()), vector.data());
            program();
            return 0;
        };
    }
    /** What the program prints. */
    std::string run(const Request &request, const Program &program = print_input) const {
        Child child(work(request, program));
        EXPECT_EQ(child.exit_code(std::chrono::seconds(60)), 0);
        return child.output();
    }
    std::string hardened(const Request &request, const Program &program = print_input) const {
        return run(request.with("VELHARDEN=1"), program);
    }
    /** What it prints by both sets of rules alike. */
    std::string both(const Request &request, const Program &program = print_input) const {
        std::string plain = run(request, program);
        EXPECT_EQ(hardened(request, program), plain) << "by the stricter rules";
        return plain;
    }
};

#endif
