/* What a page costs on the CGI toolkit against the same page printed by stdio alone: whole processes, from their start
 * to their end. They take turns, so that all see the same machine at the same time; before that it is made sure that
 * both print the same. The times are medians; absolute ones mean little on a shared machine. */
#include <fcntl.h>
#include <spawn.h>
#include <stdlib.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <filesystem>
#include <string>
#include <vector>

namespace {

using Words = std::vector<std::string>;

/** The time of one process in microseconds: of the clock, and of the processor. */
struct Times {
    double clock, processor;
};

struct Contender {
    const char *name;
    Words words;
    std::vector<Times> runs = {};

    double median(double Times::*which) const {
        std::vector<double> times;
        for (const Times &run : runs) times.push_back(run.*which);
        std::nth_element(times.begin(), times.begin() + static_cast<long>(times.size() / 2), times.end());
        return times[times.size() / 2];
    }
};

[[noreturn]] void fail(const std::string &what) {
    fprintf(stderr, "pages: %s\n", what.c_str());
    exit(1);
}

/** Runs a program to its end with its standard output in a file. */
Times run(const Words &words, const char *output) {
    std::vector<char *> vector;
    for (const std::string &word : words) vector.push_back(const_cast<char *>(word.c_str()));
    vector.push_back(nullptr);
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_addopen(&actions, STDOUT_FILENO, output, O_WRONLY | O_CREAT | O_TRUNC, 0600);

    char *no_environment[] = {nullptr};
    pid_t pid = 0;
    int status = 0;
    struct rusage used {};
    const auto start = std::chrono::steady_clock::now();
    if (posix_spawn(&pid, vector[0], &actions, nullptr, vector.data(), no_environment) != 0) fail("no " + words[0]);
    if (wait4(pid, &status, 0, &used) != pid || status != 0) fail(words[0] + " failed");
    const std::chrono::duration<double, std::micro> elapsed = std::chrono::steady_clock::now() - start;
    posix_spawn_file_actions_destroy(&actions);
    const auto micro = [](const timeval &time) {
        return 1e6 * static_cast<double>(time.tv_sec) + static_cast<double>(time.tv_usec);
    };
    return {elapsed.count(), micro(used.ru_utime) + micro(used.ru_stime)};
}

std::string printed(const Words &words) {
    char path[] = "/tmp/pages-XXXXXX";
    close(mkstemp(path));
    run(words, path);
    std::string text;
    FILE *file = fopen(path, "re");
    for (int byte; (byte = getc(file)) != EOF;) text += static_cast<char>(byte);
    fclose(file);
    unlink(path);
    return text;
}

/** Lets all take turns and prints their medians, with the ratio to the one that `base` gives for each. */
void compete(std::vector<Contender> contenders, int rounds) {
    for (int round = 0; round < rounds; round++) {
        for (Contender &each : contenders) each.runs.push_back(run(each.words, "/dev/null"));
    }
    const double clock = contenders[0].median(&Times::clock), processor = contenders[0].median(&Times::processor);
    for (const Contender &each : contenders) {
        printf("%-34s %8.0f us %6.2f   processor %8.0f us %6.2f\n", each.name, each.median(&Times::clock),
               each.median(&Times::clock) / clock, each.median(&Times::processor),
               each.median(&Times::processor) / processor);
    }
    printf("\n");
}

}  // namespace

int main(int argc, char **argv) {
    const std::string directory = std::filesystem::read_symlink("/proc/self/exe").parent_path();
    const std::string page = "template=" VELMORA_SOURCE_DIR "/bench/pages.html&rows=";
    const int rounds = argc > 1 ? atoi(argv[1]) : 100;
    if (rounds < 1) fail("usage: pages [ROUNDS]");
    const Words plain{directory + "/plain_page"}, plain_rows{plain[0], "1000"};
    const auto toolkit = [&directory](const std::string &query) { return Words{directory + "/cgi_page", query}; };
    const Words line = toolkit(""), rows = toolkit(page + "1000"), many = toolkit(page + "10000");
    if (printed(line) != printed(plain) || printed(rows) != printed(plain_rows)) fail("the pages differ");

    printf("%zu bytes in 1000 rows; medians of %d, and their ratio to the first\n", printed(rows).size(), rounds);
    compete({{"one line, stdio", plain}, {"one line, toolkit", line}}, rounds);
    compete({{"1000 rows, stdio", plain_rows}, {"1000 rows, toolkit", rows}}, rounds);
    compete({{"1000 rows, toolkit", rows}, {"10000 rows, toolkit", many}}, rounds);
}
