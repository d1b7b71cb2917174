// The legacy compression test: real streams of both wrappers are recognised, plain files that
// merely start like one are not.
#include <gtest/gtest.h>

#include "_GZTools.h"
#include "legacy_files.h"
#include "test_files.h"

namespace docadmin::test {
namespace {

class GZToolsTest : public ::testing::Test {
  protected:
    bool Check(const std::string& content) {
        const auto p = dir / "f";
        WriteAll(p, content);
        return IsCompressedGZFile(p.string());
    }
    ScratchDir dir;
};

TEST_F(GZToolsTest, RecognisesBothWrappersSmallAndLarge) {
    for (Wrapper w : {Wrapper::gzip, Wrapper::zlib}) {
        for (size_t n : {size_t{0}, size_t{1}, size_t{5000}, size_t{3'000'000}}) {
            EXPECT_TRUE(Check(DeflateWith(TextBytes(n), w)))
                << (w == Wrapper::gzip ? "gzip " : "zlib ") << n;
            // Incompressible content gives a stream of stored blocks.
            EXPECT_TRUE(Check(DeflateWith(RandomBytes(n), w, 1))) << n;
        }
    }
}

TEST_F(GZToolsTest, PlainLookalikeCutAndMissingFilesAreNotCompressed) {
    // "x\x9c", "x\x01", "x\xda" are valid zlib headers; 1F 8B 08 is a gzip header.
    for (std::string head : {std::string("\x78\x9c"), std::string("\x78\x01"),
                             std::string("\x78\xda"), std::string("\x1f\x8b\x08\x00", 4)}) {
        EXPECT_FALSE(Check(head + TextBytes(100))) << "100 bytes";
        EXPECT_FALSE(Check(head + TextBytes(200'000))) << "200,000 bytes";
        EXPECT_FALSE(Check(head + RandomBytes(200'000))) << "random";
        EXPECT_FALSE(Check(head)) << "header alone";
    }
    const std::string z = DeflateWith(TextBytes(10'000), Wrapper::zlib);
    EXPECT_FALSE(Check(z.substr(0, z.size() / 2))) << "a short file must end its stream";
    EXPECT_FALSE(Check(""));
    EXPECT_FALSE(Check("AACS"));
    EXPECT_FALSE(Check(TextBytes(10'000)));
    EXPECT_FALSE(IsCompressedGZFile((dir / "missing").string()));
}

}  // namespace
}  // namespace docadmin::test
