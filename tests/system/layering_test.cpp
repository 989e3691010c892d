/* Which folder includes which: includes run downward only, and from outside a folder only its public headers are
 * included. Reads every source of the tree. */
#include <gtest/gtest.h>
#include <filesystem>
#include <fstream>
#include <map>
#include <regex>
#include <set>
#include <string>
#include <vector>

namespace fs = std::filesystem;

namespace {

using Names = std::set<std::string>;

/** The libraries and what each may include besides itself. Folders that aren't here are never included. */
const std::map<std::string, Names> libraries = {
    {"process", {}},
    {"foundation", {"process"}},
    {"packet", {"foundation", "process"}},
    {"ivs", {"packet", "foundation", "process"}},
    {"raserver", {"ivs", "packet", "foundation", "process"}},
    {"oci", {"process"}},
    {"gateway", {"raserver", "oci", "packet", "foundation", "process"}},
    {"genhtml", {"foundation", "process"}},
};
const Names programs = {"tools", "examples", "tests", "bench", "fuzz"};  // may include any library

const Names publicHeaders = {
    "process/velproc.h",   "process/owned.h",     "process/printable.h", "process/loopclock.h", "process/linelimit.h",
    "foundation/paa.h",    "foundation/config.h", "packet/packet.h",     "packet/crypto.h",     "packet/typecodes.h",
    "packet/bytereader.h", "ivs/ivs.h",           "ivs/runloop.h",       "raserver/raextern.h", "raserver/raserver.h",
    "oci/oci.h",           "gateway/vloci.h",     "genhtml/genhtml.h",   "genhtml/chfilel.h",
};

struct Include {
    fs::path file;
    std::string folder, included, includedFolder;
    std::string shown() const { return file.generic_string() + " includes " + included; }
};

std::string first_part(const std::string &path) { return path.substr(0, path.find('/')); }

std::vector<Include> all_includes() {
    std::vector<Include> found;
    const std::regex line(R"(\s*#\s*include\s*\"([^\"]+)\".*)");
    std::vector<std::string> folders(programs.begin(), programs.end());
    for (const auto &[folder, may] : libraries) folders.push_back(folder);
    for (const std::string &folder : folders) {
        for (const auto &entry : fs::recursive_directory_iterator(fs::path(VELMORA_SOURCE_DIR) / folder)) {
            const std::string kind = entry.path().extension();
            if (kind != ".h" && kind != ".cpp" && kind != ".c") continue;
            const fs::path file = entry.path().lexically_relative(VELMORA_SOURCE_DIR);
            std::ifstream source(entry.path());
            std::smatch parts;
            for (std::string text; std::getline(source, text);) {
                if (!std::regex_match(text, parts, line)) continue;
                found.push_back({file, folder, parts[1], first_part(parts[1])});
            }
        }
    }
    return found;
}

TEST(Layering, IncludesRunDownwardOnlyAndToPublicHeaders) {
    const std::vector<Include> includes = all_includes();
    EXPECT_GT(includes.size(), 100U) << "the sources were not found";
    for (const Include &include : includes) {
        SCOPED_TRACE(include.shown());
        EXPECT_TRUE(fs::exists(fs::path(VELMORA_SOURCE_DIR) / include.included)) << "paths begin at the root";
        if (include.folder == include.includedFolder) continue;
        if (programs.contains(include.folder)) {
            EXPECT_TRUE(libraries.contains(include.includedFolder));
        } else {
            EXPECT_TRUE(libraries.at(include.folder).contains(include.includedFolder));
            EXPECT_TRUE(publicHeaders.contains(include.included));
        }
    }
}

TEST(Layering, TheContainerAndTheTypeCodesStandAlone) {
    for (const Include &include : all_includes()) {
        const std::string file = include.file.generic_string();
        const bool is_container = file.starts_with("foundation/paa");
        EXPECT_NE(file, "packet/typecodes.h") << include.shown();
        EXPECT_TRUE(!is_container || include.includedFolder == "foundation") << include.shown();
    }
}

}  // namespace
