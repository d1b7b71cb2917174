// Uploads of the local store that were prepared ahead (PrepareUploads): the stored bytes, the
// events and the failures must be those of an upload without the hint, and no prepared temporary
// may outlive its batch.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <thread>

#include "store_envs.h"

namespace docadmin::test {
namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;

class PreparedUploadTest : public LocalStoreTest {
  protected:
    std::vector<std::string> LocalFiles(int n, std::size_t size) {
        std::vector<std::string> files;
        for (int i = 0; i < n; ++i) {
            const fs::path p = dir / "local" / ("f" + std::to_string(i));
            WriteAll(p, TextBytes(size + static_cast<std::size_t>(i) * 7));
            files.push_back(p.string());
        }
        return files;
    }
    // Names in the repository that start like the store's temporaries.
    std::vector<std::string> Temporaries() {
        std::vector<std::string> r;
        for (const std::string& n : ListNames(dir / "repo"))
            if (n.rfind(".~", 0) == 0) r.push_back(n);
        return r;
    }
};

TEST_F(PreparedUploadTest, PreparedUploadsStoreTheSameBytesAndReportTheSameEvents) {
    if (std::thread::hardware_concurrency() < 2) GTEST_SKIP() << "needs a second core";
    // Blocks of 1.5 MiB: the last file spans two, the others are small.
    std::vector<std::string> files = LocalFiles(6, 3000);
    WriteAll(files.back(), TextBytes(2 * 1572864 + 11));
    auto run = [&](bool prepare, std::vector<std::string>& events) {
        auto s = Make();
        bool uploading = false;  // the checking downloads report events of their own
        s->OnCompressStart = [&](TObject*, const std::string& f, TCompressMode) {
            if (uploading) events.push_back("start " + f);
        };
        s->OnCompress = [&](TObject*, std::int32_t p) {
            if (uploading) events.push_back(std::to_string(p));
        };
        s->OnCompressEnd = [&](TObject*, const std::string& f, TCompressMode) {
            if (uploading) events.push_back("end " + f);
        };
        if (prepare) {
            s->PrepareUploads(files);
            // Time for the worker to begin: an upload waits for a container in the making.
            std::this_thread::sleep_for(std::chrono::milliseconds(200));
        }
        std::vector<std::string> stored;
        for (const std::string& f : files) {
            uploading = true;
            const std::string name = s->UploadFile(f, "", upmNew);
            uploading = false;
            stored.push_back(ReadAll(dir / "repo" / name));
            EXPECT_EQ(Fetch(*s, name), ReadAll(f));
        }
        s->EndPreparedUploads();
        if (prepare) {
            EXPECT_GE(s->PreparedUploadsTaken(), 1u) << "nothing was prepared";
        }
        return stored;
    };
    std::vector<std::string> plainEvents, preparedEvents;
    const auto plain = run(false, plainEvents);
    const auto prepared = run(true, preparedEvents);
    EXPECT_EQ(prepared, plain) << "same container bytes";
    EXPECT_EQ(preparedEvents, plainEvents);
    EXPECT_THAT(Temporaries(), IsEmpty());
}

TEST_F(PreparedUploadTest, AFileChangedAfterTheHintIsStoredAsItIsNow) {
    const std::vector<std::string> files = LocalFiles(3, 5000);
    auto s = Make();
    s->PrepareUploads(files);
    const std::string first = s->UploadFile(files[0], "", upmNew);
    // Let the worker finish the others, then change one: same size, other content and times.
    std::this_thread::sleep_for(std::chrono::milliseconds(200));
    std::string changed = ReadAll(files[1]);
    changed[0] = changed[0] == 'x' ? 'y' : 'x';
    WriteAll(files[1], changed);
    const std::size_t taken = s->PreparedUploadsTaken();
    const std::string second = s->UploadFile(files[1], "", upmNew);
    EXPECT_EQ(s->PreparedUploadsTaken(), taken) << "the stale container is not used";
    EXPECT_EQ(Fetch(*s, first), ReadAll(files[0]));
    EXPECT_EQ(Fetch(*s, second), changed);
    s->EndPreparedUploads();
    EXPECT_THAT(Temporaries(), IsEmpty()) << "the unused third one is dropped too";
    EXPECT_EQ(ListNames(dir / "repo").size(), 2u);
}

TEST_F(PreparedUploadTest, AMissingFileFailsAsWithoutTheHintAndLeavesNothing) {
    std::vector<std::string> files = LocalFiles(3, 100);
    files.insert(files.begin() + 1, (dir / "local" / "missing").string());
    auto s = Make();
    s->PrepareUploads(files);
    const std::string first = s->UploadFile(files[0], "", upmNew);
    EXPECT_THROW(s->UploadFile(files[1], "", upmNew), EFOpenError);
    // The file appears, and a retry of the same upload works.
    WriteAll(files[1], "late");
    const std::string retried = s->UploadFile(files[1], "", upmNew);
    EXPECT_EQ(Fetch(*s, retried), "late");
    // An upload the caller skips (an ignored document) is passed over; the next one still works.
    const std::string last = s->UploadFile(files[3], "", upmNew);
    EXPECT_EQ(Fetch(*s, last), ReadAll(files[3]));
    s->EndPreparedUploads();
    std::vector<std::string> names = {first, retried, last};
    std::sort(names.begin(), names.end());
    EXPECT_EQ(ListNames(dir / "repo"), names);
}

TEST_F(PreparedUploadTest, UploadsOutsideTheHintAndChangesOfANameStillWork) {
    const std::vector<std::string> files = LocalFiles(4, 2000);
    auto s = Make();
    const std::string existing = s->UploadFile(files[3], "", upmNew);
    s->PrepareUploads({files[0], files[1], files[0]});
    // The same file twice in one batch, once as a change of an existing name.
    EXPECT_EQ(s->UploadFile(files[0], existing, upmChange), existing);
    const std::string other = s->UploadFile(files[2], "", upmNew);  // not in the hint
    const std::string again = s->UploadFile(files[0], "", upmNew);
    EXPECT_EQ(Fetch(*s, existing), ReadAll(files[0]));
    EXPECT_EQ(Fetch(*s, other), ReadAll(files[2]));
    EXPECT_EQ(Fetch(*s, again), ReadAll(files[0]));
    s.reset();  // the store going away ends the batch as well
    EXPECT_THAT(Temporaries(), IsEmpty());
    EXPECT_EQ(ListNames(dir / "repo").size(), 3u);
}

}  // namespace
}  // namespace docadmin::test
