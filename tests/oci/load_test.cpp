/* Which library a database address leads to, and which never. */
#include <gtest/gtest.h>
#include <unistd.h>
#include <cstdlib>
#include <filesystem>

#include "process/velproc.h"
#include "tests/oci/ocisession.h"
#include "tests/support/child.h"
#include "tests/support/rootfolder.h"

namespace {

constexpr char DRIVER[] = VELMORA_LIB_DIR "/velmora-oci-sqlite.so";

/** Loads in a fresh process, where nothing was loaded before: the result, and what was logged. */
std::pair<int, std::string> load_alone(const char *address, const std::string &home,
                                       const std::string &directory = "/") {
    Child child([&](Child &self) {
        if (home.empty()) {
            unsetenv("ORACLE_HOME");
        } else {
            setenv("ORACLE_HOME", home.c_str(), 1);
        }
        if (chdir(directory.c_str()) != 0) return 9;
        OCI_CALLS_S calls{}, untouched{};
        const int result = oci_load(address, &calls);
        const bool filled = calls.OCIInitialize != nullptr && calls.OCITerminate != nullptr;
        if (result == 0 && !filled) return 8;
        if (result != 0 && memcmp(&calls, &untouched, sizeof calls) != 0) return 7;
        self.report("loaded");
        return result == 0 ? 0 : 1;
    });
    const int code = child.exit_code();
    return {code, child.output()};
}

TEST(Load, FindsOurDriverBesideTheProgram) { EXPECT_EQ(load_alone("sqlite:x.db", "").first, 0); }

TEST(Load, FindsAnotherLibraryInItsHome) {
    RootFolder home;
    std::filesystem::create_directory(home.path("lib"));
    std::filesystem::copy(DRIVER, home.path("lib/libclntsh.so"));
    for (const char *address : {"ORCL", "", "//host:1521/service"})
        EXPECT_EQ(load_alone(address, home.path()).first, 0) << address;
}

TEST(Load, ReportsAMissingOrBrokenLibrary) {
    RootFolder home;
    home.write("lib/libclntsh.so", "no library at all");
    for (const std::string &place : {home.path(), std::string("/no/such/home"), std::string()}) {
        const auto [code, log] = load_alone("ORCL", place);
        EXPECT_EQ(code, 1) << place;
        EXPECT_NE(log, "") << place;
    }
}

TEST(Load, TakesNothingFromTheWorkingDirectory) {
    RootFolder trap;
    for (const char *name : {"libclntsh.so", "lib/libclntsh.so", "velmora-oci-postgresql.so"}) {
        trap.write(name, "");
        std::filesystem::copy(DRIVER, trap.path(name), std::filesystem::copy_options::overwrite_existing);
    }
    EXPECT_EQ(load_alone("ORCL", "", trap.path()).first, 1);
    EXPECT_EQ(load_alone("ORCL", ".", trap.path()).first, 1) << "a home that is no full path";
}

TEST(Load, KeepsTheCopiesOfTwoDriversApart) {
    RootFolder home;
    std::filesystem::create_directory(home.path("lib"));
    std::filesystem::copy(DRIVER, home.path("lib/libclntsh.so"));
    Child child([&](Child &) {
        setenv("ORACLE_HOME", home.path().c_str(), 1);
        setenv("VELMORA_OCI_SQLITE_FILE", home.path("named.db").c_str(), 1);
        OCI_CALLS_S ours{}, theirs{};
        EXPECT_EQ(oci_load("sqlite:x", &ours), 0);
        EXPECT_EQ(oci_load("ORCL", &theirs), 0);
        EXPECT_NE(reinterpret_cast<void *>(ours.OCIStmtExecute), reinterpret_cast<void *>(theirs.OCIStmtExecute));
        OciSession session{theirs};
        EXPECT_EQ(session.open("ORCL").status, OCI_SUCCESS);
        return testing::Test::HasFailure() ? 1 : 0;
    });
    EXPECT_EQ(child.exit_code(), 0) << child.output();
    EXPECT_TRUE(std::filesystem::exists(home.path("named.db")));
}

}  // namespace
