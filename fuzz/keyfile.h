/* A root directory with a file of access keys, for the targets that open envelopes: the library reads the file once
 * in a process. */
#ifndef FUZZ_KEYFILE_H
#define FUZZ_KEYFILE_H

#include <sys/stat.h>
#include <unistd.h>

#include "fuzz/fuzz.h"
#include "packet/packet.h"

/** Makes the directory, has the library read the keys in it, and removes it. */
class KeyFile {
public:
    explicit KeyFile(const std::string &keys) {
        become_a_silent_process();
        char root[] = "/tmp/fuzz-root-XXXXXX";
        FUZZ_REQUIRE(mkdtemp(root) != nullptr);
        const std::string folder = std::string(root) + "/etc", path = folder + "/access.key";
        FUZZ_REQUIRE(mkdir(folder.c_str(), 0700) == 0);
        FILE *file = fopen(path.c_str(), "w");
        FUZZ_REQUIRE(file != nullptr && fputs(keys.c_str(), file) >= 0 && fclose(file) == 0);

        process_context.rootDir = root;
        packet_accesskey_by_ip(htonl(INADDR_LOOPBACK), nullptr);
        process_context.rootDir = nullptr;
        unlink(path.c_str());
        rmdir(folder.c_str());
        rmdir(root);
    }
};

#endif
