// The contract every store inherits: remote names, the compress step with its events, and the
// three generations of stored files.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <regex>
#include <set>

#include "_TBaseDocFileLoader.h"
#include "legacy_files.h"
#include "test_files.h"

namespace docadmin::test {
namespace {

using ::testing::ElementsAre;

// A store that stores nothing, enough to exercise the base class.
class NullStore : public TBaseDocFileLoader {
  public:
    NullStore() : TBaseDocFileLoader(nullptr) {}
    std::string UploadFile(const std::string&, const std::string&, TUploadMode) override {
        return {};
    }
    void DownloadFile(const std::string&, const std::string&) override {}
    void RemoveFile(const std::string&, const std::string&) override {}
    using TBaseDocFileLoader::CompressFile;
};

TEST(FileStoreContract, GeneratedNamesAre32UpperHexDigitsAndDiffer) {
    const std::regex form("[0-9A-F]{32}");
    std::set<std::string> seen;
    for (int i = 0; i < 100; ++i) {
        const std::string n = TBaseDocFileLoader::GenerateNewFileName();
        EXPECT_TRUE(std::regex_match(n, form)) << n;
        seen.insert(n);
    }
    EXPECT_EQ(seen.size(), 100u);
}

TEST(FileStoreContract, RemoteNamesThatCouldLeaveTheFolderAreRefused) {
    // (Every store refuses the others too: see the store suite.)
    EXPECT_EQ(MessageOf<EKRUserMessageException>(
                  [] { TBaseDocFileLoader::CheckRemoteFileName(std::string("ab\0cd", 5)); }),
              "Invalid remote file name \"ab\\0cd\"!");
    // Names not generated here are still accepted as they come.
    for (const char* good : {"0C7F3A52E1B94D6E8A35D21F4E90B6C7", "old-name.doc", "...", "a b"})
        EXPECT_NO_THROW(TBaseDocFileLoader::CheckRemoteFileName(good)) << good;
}

// The compress step on real files, with its events recorded.
class CompressStepTest : public ::testing::Test {
  protected:
    CompressStepTest() {
        store.OnCompressStart = [this](TObject* s, const std::string& f, TCompressMode m) {
            EXPECT_EQ(s, &store);
            events.push_back(std::string("start ") + (m == cmCompress ? "c " : "u ") + f);
        };
        store.OnCompressEnd = [this](TObject*, const std::string& f, TCompressMode m) {
            events.push_back(std::string("end ") + (m == cmCompress ? "c " : "u ") + f);
        };
        store.OnCompress = [this](TObject*, std::int32_t p) {
            EXPECT_GT(p, 0);
            EXPECT_LT(p, 100);
            if (!steps.empty()) {
                EXPECT_GE(p, steps.back()) << "progress must not go back";
            }
            steps.push_back(p);
        };
    }
    std::string Path(const std::string& name) { return (dir / name).string(); }
    std::string RoundTrip(const std::string& content) {
        WriteAll(Path("plain"), content);
        store.CompressFile(Path("plain"), Path("packed"), cmCompress);
        store.CompressFile(Path("packed"), Path("back"), cmUnCompress);
        return ReadAll(Path("back"));
    }

    ScratchDir dir;
    NullStore store;
    std::vector<std::string> events;
    std::vector<std::int32_t> steps;
};

TEST_F(CompressStepTest, ContainerRoundTripRaisesStartOnceAndEndTwice) {
    const std::string content = TextBytes(5'000'000);
    WriteAll(Path("plain"), content);
    EXPECT_TRUE(store.CompressFile(Path("plain"), Path("packed"), cmCompress));
    EXPECT_EQ(ReadAll(Path("packed")).substr(0, 4), "AACS");
    EXPECT_LT(fs::file_size(Path("packed")), content.size() / 2);
    EXPECT_THAT(events, ElementsAre("start c " + Path("plain"), "end c " + Path("plain"),
                                    "end c " + Path("plain")));
    EXPECT_FALSE(steps.empty()) << "a file of several blocks reports steps";

    events.clear();
    steps.clear();
    EXPECT_TRUE(store.CompressFile(Path("packed"), Path("back"), cmUnCompress));
    EXPECT_EQ(ReadAll(Path("back")), content);
    EXPECT_THAT(events, ElementsAre("start u " + Path("packed"), "end u " + Path("packed"),
                                    "end u " + Path("packed")));
}

TEST_F(CompressStepTest, EmptyFileRaisesStartAndEndOnce) {
    EXPECT_EQ(RoundTrip(""), "");
    // Both directions: start and end once each.
    EXPECT_THAT(events, ElementsAre("start c " + Path("plain"), "end c " + Path("plain"),
                                    "start u " + Path("packed"), "end u " + Path("packed")));
}

TEST_F(CompressStepTest, PlainFilesArriveUnchanged) {
    // Shorter than a container header; longer, not starting with the signature; one that starts
    // with the signature but is no container; one that starts like a zlib stream and isn't.
    for (const std::string& content :
         {TextBytes(100), RandomBytes(10'000), std::string("AACS") + TextBytes(50),
          std::string("\x78\x9c") + TextBytes(20'000)}) {
        WriteAll(Path("stored"), content);
        store.CompressFile(Path("stored"), Path("out"), cmUnCompress);
        EXPECT_EQ(ReadAll(Path("out")), content) << content.size() << " bytes";
    }
    EXPECT_FALSE(events.empty()) << "a plain copy reports like a container";
}

TEST_F(CompressStepTest, LegacyFilesOfBothWrappersAreInflatedWithoutEvents) {
    const std::string content = TextBytes(300'000, 7) + RandomBytes(100'000);
    for (Wrapper w : {Wrapper::gzip, Wrapper::zlib}) {
        WriteAll(Path("legacy"), DeflateWith(content, w));
        WriteAll(Path("out"), "old content that must go");
        store.CompressFile(Path("legacy"), Path("out"), cmUnCompress);
        EXPECT_EQ(ReadAll(Path("out")), content);
    }
    // Members of a gzip file one after the other are one file, also for the container verb.
    WriteAll(Path("legacy"),
             DeflateWith("first ", Wrapper::gzip) + DeflateWith(content, Wrapper::gzip));
    UnpackStoredFile(Path("legacy"), Path("out"), nullptr);
    EXPECT_EQ(ReadAll(Path("out")), "first " + content);
    EXPECT_TRUE(events.empty());
    EXPECT_TRUE(steps.empty());
}

// A missing source fails at its opening; a cut legacy file is recognised, then fails inflating.
TEST_F(CompressStepTest, MissingOrDamagedSourceRaises) {
    for (TCompressMode m : {cmCompress, cmUnCompress})
        EXPECT_THROW(store.CompressFile(Path("nothing"), Path("out"), m), EFOpenError);
    std::string legacy = DeflateWith(TextBytes(400'000), Wrapper::gzip);
    legacy.resize(legacy.size() * 3 / 4);
    WriteAll(Path("legacy"), legacy);
    EXPECT_THROW(InflateLegacyFile(Path("legacy"), Path("out")), EReadError);
}

// The same file as input and output, by name or through a hard link, is refused both ways
// before anything is written.
TEST_F(CompressStepTest, SameFileAsInputAndOutputIsRefused) {
    const std::string content = TextBytes(10'000);
    WriteAll(Path("f"), content);
    fs::create_hard_link(Path("f"), Path("link"));
    for (const char* out : {"f", "link"}) {
        for (TCompressMode m : {cmCompress, cmUnCompress})
            EXPECT_THROW(store.CompressFile(Path("f"), Path(out), m), EKRUserMessageException);
        EXPECT_THROW(UnpackStoredFile(Path("f"), Path(out), nullptr), EKRUserMessageException);
    }
    EXPECT_EQ(ReadAll(Path("f")), content);
}

}  // namespace
}  // namespace docadmin::test
