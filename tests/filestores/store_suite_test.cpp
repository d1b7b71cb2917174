// One suite for every store: what a caller of any store may rely on.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <regex>

#include "legacy_files.h"
#include "store_envs.h"

namespace docadmin::test {
namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;

template <class Env>
class StoreSuite : public ::testing::Test {
  protected:
    StoreSuite() {
        auto& s = env.Store();
        s.OnTransferStart = [this](TObject*, const std::string& f, TTransferMode m) {
            static const char* modes[] = {"download", "upload", "delete"};
            events.push_back(std::string("start ") + modes[m] + " " + f);
        };
        s.OnTransfer = [this](TObject*, std::int64_t done, std::int64_t total, std::int32_t pct) {
            events.push_back("transfer " + std::to_string(done) + " " + std::to_string(total) +
                             " " + std::to_string(pct));
        };
        s.OnTransferEnd = [this](TObject*, std::int64_t total) {
            events.push_back("end " + std::to_string(total));
        };
    }
    std::string LocalFile(const std::string& name, const std::string& content) {
        const auto p = env.Local() / name;
        WriteAll(p, content);
        return p.string();
    }
    std::string Fetch(const std::string& remote) {
        const auto dest = env.Local() / "fetched";
        env.Store().DownloadFile(remote, dest.string());
        return ReadAll(dest);
    }

    Env env;
    std::vector<std::string> events;
};

using StoreEnvs = ::testing::Types<LocFileEnv, LocServerEnv>;
TYPED_TEST_SUITE(StoreSuite, StoreEnvs);

TYPED_TEST(StoreSuite, UploadNewIgnoresThePassedNameAndStoresUnderANewOne) {
    const std::string content = TextBytes(50'000);
    const std::string local = this->LocalFile("report.pdf", content);
    auto& store = this->env.Store();
    const std::string a = store.UploadFile(local, "PASSED", upmNew);
    const std::string b = store.UploadFile(local, "PASSED", upmNew);
    EXPECT_TRUE(std::regex_match(a, std::regex("[0-9A-F]{32}"))) << a;
    EXPECT_NE(a, b);
    std::vector<std::string> both{a, b};
    std::sort(both.begin(), both.end());
    EXPECT_EQ(this->env.ListRaw(), both) << "nothing else, no leftovers";
    EXPECT_EQ(this->Fetch(a), content);
    EXPECT_EQ(this->Fetch(b), content);
}

TYPED_TEST(StoreSuite, UploadChangeKeepsTheNameAndOverwrites) {
    auto& store = this->env.Store();
    const std::string name = "0C7F3A52E1B94D6E8A35D21F4E90B6C7";
    EXPECT_EQ(store.UploadFile(this->LocalFile("v1", TextBytes(30'000, 1)), name, upmChange), name);
    EXPECT_EQ(store.UploadFile(this->LocalFile("v2", TextBytes(200, 2)), name, upmChange), name);
    EXPECT_EQ(this->Fetch(name), TextBytes(200, 2));
    EXPECT_THAT(this->env.ListRaw(), ElementsAre(name));
    // Names not generated here pass through unchanged.
    EXPECT_EQ(store.UploadFile(this->LocalFile("v3", "x"), "old name.doc", upmChange),
              "old name.doc");
    EXPECT_EQ(this->Fetch("old name.doc"), "x");
}

TYPED_TEST(StoreSuite, TransfersReportStartStepAndEnd) {
    auto& store = this->env.Store();
    const std::string name = store.UploadFile(this->LocalFile("letter.txt", "hello"), "", upmNew);
    this->Fetch(name);
    store.RemoveFile(name, "Letter to Smith");
    EXPECT_THAT(this->events, ElementsAre("start upload letter.txt", "transfer 0 0 0", "end 0",
                                          "start download fetched", "transfer 0 0 0", "end 0",
                                          "start delete Letter to Smith", "end 0"));
    EXPECT_THAT(this->env.ListRaw(), IsEmpty());
}

TYPED_TEST(StoreSuite, PlainAndLegacyFilesOfEarlierGenerationsArriveAsPlainContent) {
    const std::string small = TextBytes(100), larger = RandomBytes(10'000);
    ASSERT_NE(larger.substr(0, 4), "AACS");
    this->env.PutRaw("SMALL", small);
    this->env.PutRaw("LARGER", larger);
    EXPECT_EQ(this->Fetch("SMALL"), small);
    EXPECT_EQ(this->Fetch("LARGER"), larger);

    const std::string content = TextBytes(120'000, 9);
    this->env.PutRaw("GZ", DeflateWith(content, Wrapper::gzip));
    this->env.PutRaw("ZLIB", DeflateWith(content, Wrapper::zlib));
    EXPECT_EQ(this->Fetch("GZ"), content);
    EXPECT_EQ(this->Fetch("ZLIB"), content);
}

TYPED_TEST(StoreSuite, MissingFileRaisesBeforeAnyEvent) {
    const auto dest = this->env.Local() / "dest";
    const std::string name = "0000000000000000000000000000000A";
    EXPECT_EQ(MessageOf<EFileNotFoundInRepositoryException>(
                  [&] { this->env.Store().DownloadFile(name, dest.string()); }),
              this->env.MissingDownloadText(name));
    EXPECT_THAT(this->events, IsEmpty());
    EXPECT_FALSE(fs::exists(dest));
}

// Removal succeeds when the file is gone afterwards, and only then.
TYPED_TEST(StoreSuite, RemovalFailsOnlyWhenTheFileStays) {
    EXPECT_NO_THROW(this->env.Store().RemoveFile("MISSING", "the description"));
    EXPECT_THAT(this->events, ElementsAre("start delete the description", "end 0"));
    // A name the store can't delete: a folder with content stands there.
    const fs::path stuck = this->env.RawPath("STUCK");
    fs::create_directories(stuck / "inside");
    EXPECT_EQ(
        MessageOf<EKRUserMessageException>([&] { this->env.Store().RemoveFile("STUCK", "stuck"); }),
        "File " + stuck.string() + " can't be removed from the repository: Is a directory");
    EXPECT_TRUE(fs::exists(stuck / "inside"));
}

// A download fails, leaving an existing destination as it was and no temporary beside it, when
// the container is cut (also exactly at a block boundary) or the content has another size than
// expected; the message names the stored file and the damage.
TYPED_TEST(StoreSuite, DamagedOrMissizedContentNeverReachesTheDestination) {
    auto& store = this->env.Store();
    const std::string content = TextBytes(1'000'000) + RandomBytes(2'000'000);
    const std::string name = store.UploadFile(this->LocalFile("big", content), "", upmNew);
    const std::string raw = this->env.GetRaw(name);
    ASSERT_EQ(raw.substr(0, 4), "AACS");
    const std::uint32_t firstPacked =
        static_cast<std::uint8_t>(raw[128]) | static_cast<std::uint8_t>(raw[129]) << 8 |
        static_cast<std::uint8_t>(raw[130]) << 16 | static_cast<std::uint8_t>(raw[131]) << 24;
    this->env.PutRaw("CUT", raw.substr(0, 128 + 16 + firstPacked));  // block 2 of 2 is gone
    const std::string dest = this->LocalFile("dest", "old content");
    const auto localBefore = ListNames(this->env.Local());
    EXPECT_EQ(MessageOf<Exception>([&] { store.DownloadFile("CUT", dest); }),
              "TECLStream.LoadBlock - decompression error. The header announces 2 blocks, but "
              "the file ends after block 1 (" +
                  std::to_string(128 + 16 + firstPacked) + " bytes). (while reading \"" +
                  this->env.RawPath("CUT").string() + "\" into \"" + dest + "\")");
    for (std::int64_t wrong : {std::int64_t{0}, static_cast<std::int64_t>(content.size()) + 1})
        EXPECT_THROW(store.DownloadFileOfSize(name, dest, wrong), EReadError);
    EXPECT_EQ(ReadAll(dest), "old content");
    EXPECT_EQ(ListNames(this->env.Local()), localBefore);
    EXPECT_EQ(this->env.GetRaw("CUT").size(), 128 + 16 + firstPacked) << "a read repairs nothing";

    store.DownloadFileOfSize(name, dest, static_cast<std::int64_t>(content.size()));
    EXPECT_EQ(ReadAll(dest), content);
}

// A download onto the stored file itself, by its path or through a hard link, is refused.
TYPED_TEST(StoreSuite, DownloadOntoTheStoredFileIsRefused) {
    auto& store = this->env.Store();
    const std::string name = store.UploadFile(this->LocalFile("f", TextBytes(5000)), "", upmNew);
    const std::string raw = this->env.GetRaw(name);
    const fs::path link = this->env.Local() / "link";
    fs::create_hard_link(this->env.RawPath(name), link);
    for (const fs::path& dest : {this->env.RawPath(name), link})
        EXPECT_THROW(store.DownloadFile(name, dest.string()), EKRUserMessageException) << dest;
    EXPECT_EQ(this->env.GetRaw(name), raw);
}

// The non-blocking default reports through the callback before it returns, and keeps no
// reference to it.
TYPED_TEST(StoreSuite, NonBlockedDownloadReportsThroughTheCallBack) {
    IPtr<RecordingCallBack> cb(new RecordingCallBack);
    const std::string dest = (this->env.Local() / "d").string();
    EXPECT_NO_THROW(this->env.Store().DownloadFileNonBlocked("NOPE", dest, cb.get()));
    EXPECT_THAT(cb->log,
                ElementsAre("failed " + dest + ": " + this->env.MissingDownloadText("NOPE")));

    const std::string name = this->env.Store().UploadFile(this->LocalFile("f", "abc"), "", upmNew);
    cb->log.clear();
    this->env.Store().DownloadFileNonBlocked(name, dest, cb.get());
    EXPECT_THAT(cb->log, ElementsAre("done " + dest));
    EXPECT_EQ(ReadAll(dest), "abc");

    // A failure of DownloadDone itself arrives at DownloadFailed too.
    cb->log.clear();
    cb->failInDone = true;
    EXPECT_NO_THROW(this->env.Store().DownloadFileNonBlocked(name, dest, cb.get()));
    EXPECT_THAT(cb->log, ElementsAre("done " + dest, "failed " + dest + ": disk full"));
    EXPECT_EQ(cb->RefCount(), 1);
}

TYPED_TEST(StoreSuite, RefusedRemoteNamesLeaveEverythingUntouched) {
    auto& store = this->env.Store();
    const std::string keep = store.UploadFile(this->LocalFile("keep", "kept"), "", upmNew);
    // A file beside the local folder that a name with ".." would reach.
    const std::string victim = this->LocalFile("victim", "precious");
    const std::string escape = "../local/victim";
    const auto before = this->env.ListRaw();
    this->events.clear();

    // Names of the store's own temporaries too: a clean-up would delete such a file.
    for (const std::string& bad :
         {std::string(), std::string("."), std::string(".."), escape, std::string("a\\b"),
          std::string("a/b"), std::string("/"), keep + std::string("\0x", 2),
          std::string(".~prepared.keep.tmp"), ".~" + keep}) {
        const std::string dest = (this->env.Local() / "dest").string();
        EXPECT_THROW(store.UploadFile(this->LocalFile("new", "new"), bad, upmChange),
                     EKRUserMessageException);
        EXPECT_THROW(store.DownloadFile(bad, dest), EKRUserMessageException);
        EXPECT_THROW(store.RemoveFile(bad, "x"), EKRUserMessageException);
        EXPECT_FALSE(fs::exists(dest));
    }
    EXPECT_EQ(this->env.ListRaw(), before);
    EXPECT_EQ(this->Fetch(keep), "kept");
    EXPECT_EQ(ReadAll(victim), "precious");
    EXPECT_THAT(this->events, ElementsAre("start download fetched", "transfer 0 0 0", "end 0"))
        << "a refused name raises before any event";
}

}  // namespace
}  // namespace docadmin::test
