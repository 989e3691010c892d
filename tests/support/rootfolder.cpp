/* The temporary root directory of a test. */
#include "tests/support/rootfolder.h"

#include <gtest/gtest.h>
#include <stdlib.h>
#include <unistd.h>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <sstream>

namespace fs = std::filesystem;

RootFolder::RootFolder() : maker_(getpid()) {
    std::string pattern = (fs::temp_directory_path() / "velmora-test-XXXXXX").string();
    if (mkdtemp(pattern.data()) == nullptr) throw std::runtime_error("no temporary directory: " + pattern);
    path_ = pattern;
    for (const char *folder : {"log", "status", "etc"}) fs::create_directory(path(folder));
}

RootFolder::~RootFolder() {
    if (getpid() != maker_) return;
    if (testing::Test::HasFailure()) {
        std::cerr << "The root directory of the failed test is kept: " << path_ << "\n";
        return;
    }
    std::error_code ignored;
    fs::remove_all(path_, ignored);
}

std::string RootFolder::read(const std::string &relative) const {
    std::ifstream file(path(relative), std::ios::binary);
    std::ostringstream content;
    if (file) content << file.rdbuf();
    return content.str();
}

void RootFolder::write(const std::string &relative, const std::string &text) const {
    fs::create_directories(fs::path(path(relative)).parent_path());
    std::ofstream(path(relative), std::ios::binary) << text;
}
