// Helpers shared by tests: a private temporary root per test, and the fixture that gives every
// test a fresh process's state.
#pragma once

#include <gtest/gtest.h>

#include <cstdint>
#include <cstdlib>
#include <filesystem>
#include <functional>
#include <iterator>
#include <memory>
#include <random>
#include <string>

#include "base/Folder.h"
#include "base/ProcessState.h"

namespace FerritTest {

// A fresh directory under the system temp folder, removed at destruction.
class TempDir {
  public:
    TempDir() {
        std::string pattern =
            (std::filesystem::temp_directory_path() / "ferrit-test-XXXXXX").string();
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

// Draws from 0 to a bound, inclusive, from a fixed seed: a test that hands the library its
// random source sees the same draws at every run.
inline std::function<uint64_t(uint64_t)> seededDraws(uint64_t seed) {
    auto engine = std::make_shared<std::mt19937_64>(seed);
    return [engine](uint64_t maxInclusive) {
        return std::uniform_int_distribution<uint64_t>(0, maxInclusive)(*engine);
    };
}

// A bundler's output: lines of script-like text from a fixed seed, so that the patches made of
// it, and the sizes tests check, are the same at every run.
inline std::string scriptText(size_t size, uint64_t seed) {
    static const char* const kWords[] = {"function", "return", "const", "let", "this", "value",
                                         "render",   "state",  "props", "=>",  "if",   "else"};
    std::mt19937_64 engine(seed);
    std::string text;
    while (text.size() < size) {
        text += kWords[engine() % std::size(kWords)];
        text += engine() % 7 == 0 ? ";\n" : " ";
        text += std::to_string(engine() % 100000);
        text += ' ';
    }
    text.resize(size);
    return text;
}

// Each test begins and ends with the process-wide state of a fresh process (one reset puts back
// every singleton and every slot the composition root fills), with its own temporary root.
class ProcessTest : public ::testing::Test {
  protected:
    void SetUp() override {
        FerritCore::ProcessState::resetForTesting();
        FerritCore::setRootPath(temp_.root());
    }
    void TearDown() override { FerritCore::ProcessState::resetForTesting(); }

    TempDir temp_;
};

}  // namespace FerritTest
