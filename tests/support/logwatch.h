/* Looks at a log file from now on: only what was written since the watch was made counts.
 *
 * A file that does not exist yet counts as empty. After the file was replaced by a shorter one the watch starts over
 * at its beginning. */
#ifndef TESTS_SUPPORT_LOGWATCH_H
#define TESTS_SUPPORT_LOGWATCH_H

#include <chrono>
#include <string>

/** How many times `wanted` stands in a text, without overlaps. */
int occurrences(const std::string &text, const std::string &wanted);

class LogWatch {
public:
    explicit LogWatch(std::string path);

    /** What was written since the watch was made. */
    std::string text() const;

    /** Whether `wanted` stands in it. */
    bool saw(const std::string &wanted) const { return text().find(wanted) != std::string::npos; }

    /** How many times `wanted` stands in it. */
    int count(const std::string &wanted) const { return occurrences(text(), wanted); }

    /** Waits until it stands there, at most until the deadline; false if it never came. */
    bool wait_for(const std::string &wanted, std::chrono::milliseconds deadline = std::chrono::seconds(10)) const;

private:
    std::string path_;
    long start_;
};

#endif
