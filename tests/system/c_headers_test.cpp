/* Each public header compiles alone, as C11 and as C++20; a header that is added later is found by itself. */
#include <gtest/gtest.h>
#include <stdlib.h>
#include <algorithm>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>
#include <vector>

#include "process/velproc.h"
#include "raserver/raserver.h"
#include "tests/support/rootfolder.h"
#include "tests/system/c_headers.h"

namespace fs = std::filesystem;

namespace {

using Names = std::vector<std::string>;

/** Headers of the libraries for C callers: those that declare C linkage, and the plain list of type codes. */
struct Headers {
    Names forC, forCppOnly;

    Headers() {
        const fs::path root = VELMORA_SOURCE_DIR;
        for (const char *folder :
             {"process", "foundation", "packet", "ivs", "raserver", "oci", "gateway", "genhtml"}) {
            if (!fs::exists(root / folder)) continue;
            for (const auto &entry : fs::directory_iterator(root / folder)) {
                if (entry.path().extension() != ".h") continue;
                std::ifstream file(entry.path());
                std::ostringstream text;
                text << file.rdbuf();
                const std::string name = std::string(folder) + "/" + entry.path().filename().string();
                const bool plain = name == "packet/typecodes.h";
                const bool has_c_linkage = text.str().find("#ifdef __cplusplus\nextern \"C\" {") != std::string::npos;
                (plain || has_c_linkage ? forC : forCppOnly).push_back(name);
            }
        }
    }
};

/** What the compiler says to a file that includes nothing but this header; empty if it is content. */
std::string complaints(const RootFolder &folder, const std::string &header, const std::string &compiler,
                       const std::string &suffix) {
    folder.write("alone" + suffix, "#include \"" + header + "\"\n");
    const std::string command = compiler + " -fsyntax-only -Wall -Wextra -Wshadow -Werror -I '" + VELMORA_SOURCE_DIR +
                                "' '" + folder.path("alone" + suffix) + "' >'" + folder.path("said") + "' 2>&1";
    const int status = system(command.c_str());
    return status == 0 ? "" : header + ":\n" + folder.read("said").substr(0, 2000);
}

constexpr char C11[] = "cc -std=c11 -pedantic -D_GNU_SOURCE", CPP20[] = "c++ -std=c++20 -pedantic -D_GNU_SOURCE";

TEST(PublicHeaders, CompileAloneInBothLanguages) {
    const Headers headers;
    const RootFolder folder;
    for (const std::string &header : headers.forC) {
        EXPECT_EQ(complaints(folder, header, C11, ".c"), "");
        EXPECT_EQ(complaints(folder, header, CPP20, ".cpp"), "");
    }
}

TEST(PublicHeaders, OfTheFoldersOwnUseCompileAloneAsCpp) {
    const Headers headers;
    const RootFolder folder;
    for (const std::string &header : headers.forCppOnly) EXPECT_EQ(complaints(folder, header, CPP20, ".cpp"), "");
}

TEST(PublicHeaders, AreOpenToC) {
    const Headers headers;
    for (const char *chief :
         {"process/velproc.h", "foundation/paa.h", "foundation/config.h", "packet/packet.h", "packet/typecodes.h",
          "ivs/ivs.h", "raserver/raextern.h", "raserver/raserver.h", "oci/oci.h", "gateway/vloci.h"}) {
        EXPECT_NE(std::find(headers.forC.begin(), headers.forC.end(), chief), headers.forC.end()) << chief;
    }
}

#define CPP_SIDE(record) {#record, sizeof(record)},

TEST(PublicHeaders, GiveRecordsTheSameSizeInBothLanguages) {
    const RecordSize sizes[] = {C_HEADERS_RECORDS(CPP_SIDE){nullptr, 0}};
    for (size_t i = 0; sizes[i].name != nullptr; i++) {
        ASSERT_STREQ(c_record_sizes[i].name, sizes[i].name);
        EXPECT_EQ(c_record_sizes[i].size, sizes[i].size) << sizes[i].name;
    }
}

}  // namespace
