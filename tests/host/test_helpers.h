// Helpers of many tests: a temporary folder per test, whole files read and written, and the
// message of an expected exception.
#pragma once

#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <string>

#include "_SysUtils.h"

namespace docadmin::test {

inline void WriteFile(const std::filesystem::path& APath, const std::string& AContent) {
    if (APath.has_parent_path()) std::filesystem::create_directories(APath.parent_path());
    std::ofstream(APath, std::ios::binary | std::ios::trunc) << AContent;
}

inline std::string ReadFile(const std::filesystem::path& APath) {
    std::ifstream in(APath, std::ios::binary);
    return std::string(std::istreambuf_iterator<char>(in), {});
}

// The message of the E that AOp raises; "(no exception)" when it raises none. Other exceptions
// pass through and fail the test.
template <class E = Exception, class F>
std::string MessageOf(F&& AOp) {
    try {
        AOp();
    } catch (const E& e) {
        return e.Message();
    }
    return "(no exception)";
}

// Sets or clears an environment variable for its scope.
class TScopedEnv {
  public:
    TScopedEnv(const char* name, const char* value) : FName(name) {
        if (const char* old = std::getenv(name)) FOld = old, FHadOld = true;
        if (value)
            setenv(name, value, 1);
        else
            unsetenv(name);
    }
    ~TScopedEnv() {
        if (FHadOld)
            setenv(FName.c_str(), FOld.c_str(), 1);
        else
            unsetenv(FName.c_str());
    }

  private:
    std::string FName, FOld;
    bool FHadOld = false;
};

// A folder of its own below the temporary folder for one test, removed afterwards.
class TTempDir {
  public:
    // Named after the prefix, the running test, the process and a counter, so that parallel
    // runs and several folders of one test don't meet.
    explicit TTempDir(const std::string& APrefix = "docadmin") {
        static std::atomic<int> counter{0};
        const auto* info = ::testing::UnitTest::GetInstance()->current_test_info();
        std::string name = APrefix + "_" + std::to_string(::getpid()) + "_" +
                           std::to_string(++counter) + "_" +
                           (info ? std::string(info->test_suite_name()) + "_" + info->name() : "");
        std::replace(name.begin(), name.end(), '/', '_');  // parameterised: "Case/sqlite"
        FDir = std::filesystem::temp_directory_path() / name;
        std::filesystem::remove_all(FDir);
        std::filesystem::create_directories(FDir);
    }
    ~TTempDir() {
        std::error_code ec;
        std::filesystem::remove_all(FDir, ec);
    }
    TTempDir(const TTempDir&) = delete;
    TTempDir& operator=(const TTempDir&) = delete;

    const std::filesystem::path& Dir() const { return FDir; }
    std::string Path() const { return FDir.string(); }
    std::string operator/(const std::string& AName) const { return (FDir / AName).string(); }

  private:
    std::filesystem::path FDir;
};

}  // namespace docadmin::test
