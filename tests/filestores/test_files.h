// File helpers for the store tests: a scratch folder per test and whole-file reads and writes.
#pragma once

#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <iterator>
#include <random>
#include <string>

namespace docadmin::test {

namespace fs = std::filesystem;

inline std::string ReadAll(const fs::path& p) {
    std::ifstream f(p, std::ios::binary);
    EXPECT_TRUE(f.good()) << "cannot read " << p;
    return std::string(std::istreambuf_iterator<char>(f), {});
}

inline void WriteAll(const fs::path& p, const std::string& data) {
    std::ofstream f(p, std::ios::binary | std::ios::trunc);
    f.write(data.data(), static_cast<std::streamsize>(data.size()));
    ASSERT_TRUE(f.good()) << "cannot write " << p;
}

// Bytes that deflate well but are not all alike.
inline std::string TextBytes(size_t n, unsigned seed = 1) {
    static const char* words[] = {"alpha ", "beta ", "gamma ", "delta\n", "epsilon ", "zeta "};
    std::mt19937 rng(seed);
    std::string s;
    while (s.size() < n)
        s += words[rng() % 6];
    s.resize(n);
    return s;
}

inline std::string RandomBytes(size_t n, unsigned seed = 2) {
    std::mt19937 rng(seed);
    std::string s(n, '\0');
    for (auto& c : s)
        c = static_cast<char>(rng());
    return s;
}

// The message of the E that AAction raises; a test failure when it raises none.
template <class E, class F>
std::string MessageOf(F AAction) {
    try {
        AAction();
    } catch (const E& e) {
        return e.Message();
    }
    ADD_FAILURE() << "no exception";
    return {};
}

// A folder of its own for each test, removed afterwards.
class ScratchDir {
  public:
    ScratchDir() {
        const auto* info = ::testing::UnitTest::GetInstance()->current_test_info();
        std::string name = std::string(info->test_suite_name()) + "_" + info->name();
        for (auto& c : name)
            if (c == '/') c = '_';
        path_ = fs::temp_directory_path() /
                ("docadmin_filestores_" + name + "_" + std::to_string(std::random_device{}()));
        fs::remove_all(path_);
        fs::create_directories(path_);
    }
    ~ScratchDir() {
        std::error_code ec;
        fs::remove_all(path_, ec);
    }
    const fs::path& path() const { return path_; }
    fs::path operator/(const std::string& name) const { return path_ / name; }

  private:
    fs::path path_;
};

// Names in a folder, sorted.
inline std::vector<std::string> ListNames(const fs::path& dir) {
    std::vector<std::string> r;
    for (auto& e : fs::directory_iterator(dir))
        r.push_back(e.path().filename().string());
    std::sort(r.begin(), r.end());
    return r;
}

}  // namespace docadmin::test
