/* The file that an input is laid into, for the targets whose calls read files. */
#ifndef FUZZ_MEMORYFILE_H
#define FUZZ_MEMORYFILE_H

#include <sys/mman.h>
#include <unistd.h>

#include "fuzz/fuzz.h"
#include "process/owned.h"

/** A file that has a path but lies in memory. */
class MemoryFile {
public:
    MemoryFile() : fd_(memfd_create("config", MFD_CLOEXEC)), path_("/proc/self/fd/" + std::to_string(fd_.get())) {}

    void hold(const Bytes &text) {
        FUZZ_REQUIRE(ftruncate(fd_.get(), 0) == 0);
        FUZZ_REQUIRE(pwrite(fd_.get(), text.data(), text.size(), 0) == static_cast<ssize_t>(text.size()));
    }
    const char *path() const { return path_.c_str(); }
    OwnedFile open() const { return OwnedFile(fopen(path(), "re")); }

private:
    OwnedFd fd_;
    std::string path_;
};

#endif
