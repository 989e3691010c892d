/* A root directory of its own for one test: log/, status/ and etc/ below a fresh temporary directory.
 *
 * It is removed at the end, unless the test has failed: then it stays and its path is printed. Only the process that
 * made it removes it, so a test may fork as it likes. */
#ifndef TESTS_SUPPORT_ROOTFOLDER_H
#define TESTS_SUPPORT_ROOTFOLDER_H

#include <sys/types.h>
#include <string>

class RootFolder {
public:
    RootFolder();
    ~RootFolder();
    RootFolder(const RootFolder &) = delete;
    RootFolder &operator=(const RootFolder &) = delete;

    const std::string &path() const { return path_; }
    std::string path(const std::string &relative) const { return path_ + "/" + relative; }

    /** Content of log/<name>; empty without such a file. */
    std::string log(const std::string &name) const { return read("log/" + name); }

    /** Content of a file below the root; empty without such a file. */
    std::string read(const std::string &relative) const;

    /** Writes a file below the root, with any byte in it; makes the directories in front of it. */
    void write(const std::string &relative, const std::string &text) const;

private:
    std::string path_;
    pid_t maker_;
};

#endif
