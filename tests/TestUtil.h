// Helpers shared by tests: a private temporary root per test.
#pragma once

#include <gtest/gtest.h>

#include <cstdlib>
#include <filesystem>
#include <string>

namespace FerritTest {

// A fresh directory under the system temp folder, removed at destruction.
class TempDir {
public:
    TempDir() {
        std::string pattern = (std::filesystem::temp_directory_path() / "ferrit-test-XXXXXX").string();
        char* made = ::mkdtemp(pattern.data());
        EXPECT_NE(made, nullptr);
        path_ = pattern;
    }
    ~TempDir() {
        std::error_code ignored;
        std::filesystem::remove_all(path_, ignored);
    }
    const std::filesystem::path& path() const { return path_; }
    // The path with a trailing "/".
    std::string root() const { return path_.string() + "/"; }

private:
    std::filesystem::path path_;
};

}  // namespace FerritTest
