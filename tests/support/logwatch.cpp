/* Reads a log file from the place where the watch began. */
#include "tests/support/logwatch.h"

#include <filesystem>
#include <fstream>
#include <sstream>
#include <thread>

namespace {

long size_of(const std::string &path) {
    std::error_code failure;
    const auto size = std::filesystem::file_size(path, failure);
    return failure ? 0 : static_cast<long>(size);
}

}  // namespace

LogWatch::LogWatch(std::string path) : path_(std::move(path)), start_(size_of(path_)) {}

std::string LogWatch::text() const {
    std::ifstream file(path_, std::ios::binary);
    std::ostringstream content;
    if (!file) return "";
    if (size_of(path_) >= start_) file.seekg(start_);
    content << file.rdbuf();
    return content.str();
}

int occurrences(const std::string &text, const std::string &wanted) {
    int found = 0;
    for (size_t at = text.find(wanted); at != std::string::npos; at = text.find(wanted, at + wanted.size())) found++;
    return found;
}

bool LogWatch::wait_for(const std::string &wanted, std::chrono::milliseconds deadline) const {
    const auto end = std::chrono::steady_clock::now() + deadline;
    while (!saw(wanted)) {
        if (std::chrono::steady_clock::now() >= end) return saw(wanted);
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
    return true;
}
