/* The headers of the libraries: each compiles alone, as C++20 and, if it is for C callers too, as C11; those compile
 * together as well, and their records have the same size in both languages. One that is added later is found by
 * itself. */
#include <gtest/gtest.h>
#include <stdlib.h>
#include <algorithm>
#include <filesystem>
#include <fstream>
#include <sstream>

#include "process/velproc.h"
#include "raserver/raserver.h"
#include "tests/support/serverprocess.h"

namespace fs = std::filesystem;

namespace {

struct Header {
    std::string path;
    bool is_for_c;  // declares C linkage, or is the plain list of type codes
};

std::vector<Header> all_headers() {
    std::vector<Header> found;
    for (const char *folder : {"process", "foundation", "packet", "ivs", "raserver", "oci", "gateway", "genhtml"}) {
        for (const auto &entry : fs::directory_iterator(fs::path(VELMORA_SOURCE_DIR) / folder)) {
            if (entry.path().extension() != ".h") continue;
            std::ostringstream text;
            text << std::ifstream(entry.path()).rdbuf();
            const std::string path = std::string(folder) + "/" + entry.path().filename().string();
            const bool has_c_linkage = text.str().find("#ifdef __cplusplus\nextern \"C\" {") != std::string::npos;
            found.push_back({path, has_c_linkage || path == "packet/typecodes.h"});
        }
    }
    return found;
}

/** What the compiler says to a source; empty if it is content. */
std::string complaints(const std::string &source, const std::string &compiler, const std::string &suffix) {
    const RootFolder folder;
    folder.write("source" + suffix, source);
    const std::string command =
        compiler +
        " -D_GNU_SOURCE -fsyntax-only -pedantic -Wall -Wextra -Wshadow -Werror -I '" VELMORA_SOURCE_DIR "' '" +
        folder.path("source" + suffix) + "' >'" + folder.path("said") + "' 2>&1";
    return system(command.c_str()) == 0 ? "" : source + folder.read("said").substr(0, 2000);
}

TEST(Headers, CompileAlone) {
    for (const auto &[path, is_for_c] : all_headers()) {
        const std::string source = "#include \"" + path + "\"\n";
        EXPECT_EQ(complaints(source, "c++ -std=c++20", ".cpp"), "");
        if (is_for_c) {
            EXPECT_EQ(complaints(source, "cc -std=c11", ".c"), "");
        }
    }
}

TEST(Headers, ForCallersAreOpenToCAndGiveRecordsTheSameSize) {
    const std::vector<Header> all = all_headers();
    std::string source;
    for (const char *chief : {"process/velproc.h", "foundation/paa.h", "foundation/config.h", "packet/packet.h",
                              "packet/typecodes.h", "ivs/ivs.h", "raserver/raextern.h", "raserver/raserver.h",
                              "oci/oci.h", "gateway/vloci.h", "genhtml/genhtml.h", "genhtml/chfilel.h"}) {
        EXPECT_TRUE(std::any_of(all.begin(), all.end(), [&](auto &it) { return it.path == chief && it.is_for_c; }))
            << chief;
        source += "#include \"" + std::string(chief) + "\"\n";
    }
    for (const auto &[record, size] :
         std::initializer_list<std::pair<const char *, size_t>>{{"PROCESS_S", sizeof(PROCESS_S)},
                                                                {"PAA_S", sizeof(PAA_S)},
                                                                {"PAA_ENTRY_S", sizeof(PAA_ENTRY_S)},
                                                                {"PacketAddress", sizeof(PacketAddress)},
                                                                {"RA_SERVER_S", sizeof(RA_SERVER_S)},
                                                                {"RA_SESSION_S", sizeof(RA_SESSION_S)},
                                                                {"RA_CLIENT_S", sizeof(RA_CLIENT_S)},
                                                                {"RA_REQUEST_S", sizeof(RA_REQUEST_S)}}) {
        source += std::string("_Static_assert(sizeof(") + record + ") == " + std::to_string(size) + ", \"size\");\n";
    }
    EXPECT_EQ(complaints(source, "cc -std=c11", ".c"), "");
}

}  // namespace
