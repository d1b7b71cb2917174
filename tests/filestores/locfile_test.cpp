// The local stores' own behaviour: their settings, the repository folder and its seeding, the
// compression setting, error texts and uploads that are cut short.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <signal.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include "legacy_files.h"
#include "store_envs.h"

namespace docadmin::test {
namespace {

using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::IsEmpty;
using ::testing::StartsWith;

TEST_F(LocalStoreTest, FolderComesFromTheSelectedDatabaseOrTheDefaultDocRoot) {
    host.dbSettings.clear();
    EXPECT_EQ(Make()->FilePath(), host.defaultDocRoot);
    EXPECT_TRUE(fs::is_directory(host.defaultDocRoot)) << "created on first use";

    host.dbSettings[{0, "DocumentsPath"}] = "$UserDocuments$docs/";
    auto s = Make();
    EXPECT_EQ(s->FilePath(), host.userDocuments + "/docs") << "expanded, separator dropped";
    EXPECT_TRUE(fs::is_directory(s->FilePath()));
    EXPECT_EQ(TDocFileLoaderLocFile::SelectedDatabaseLocalDocPath(&host), "$UserDocuments$docs/");

    s->SetFilePath((dir / "other").string() + "/");
    EXPECT_EQ(s->FilePath(), (dir / "other").string());
}

TEST_F(LocalStoreTest, OfflineFolderComesFromTheOfflineDatabase) {
    host.dbSettings[{0, "DocumentsPath"}] = (dir / "online").string();
    EXPECT_EQ(Make(true)->FilePath(), host.userDocuments + "/offlinedocroot")
        << "no offline database";
    host.hasOffline = true;
    EXPECT_EQ(Make(true)->FilePath(), host.userDocuments + "/offlinedocroot")
        << "offline database without a path";
    host.dbSettings[{1, "DocumentsPath"}] = (dir / "mirror").string();
    EXPECT_EQ(Make(true)->FilePath(), (dir / "mirror").string());
    EXPECT_FALSE(fs::exists(dir / "online")) << "offline mode never touches the online folder";
}

TEST_F(LocalStoreTest, ServerFolderComesFromFileRootElseTheSelectedDatabase) {
    host.dbSettings[{0, "DocumentsPath"}] = (dir / "db").string();
    EXPECT_EQ(Make<TDocFileLoaderLocServer>()->FilePath(), (dir / "db").string());
    host.local.strings[{"DOCSRV", "FileRoot"}] = (dir / "srv").string() + "/";
    host.hasOffline = true;
    host.dbSettings[{1, "DocumentsPath"}] = (dir / "mirror").string();
    EXPECT_EQ(Make<TDocFileLoaderLocServer>(true)->FilePath(), (dir / "srv").string())
        << "the server store ignores offline mode";
}

TEST_F(LocalStoreTest, NoCompressionStoresPlainFilesStillReadsContainersExceptOnTheServer) {
    const std::string content = TextBytes(2'000'000);
    const std::string local = LocalFile("doc", content);

    const std::string older = Make()->UploadFile(local, "", upmNew);
    EXPECT_EQ(ReadAll(dir / "repo" / older).substr(0, 4), "AACS") << "compression by default";

    host.user.bools[{"DocAdmin", "NoCompression"}] = true;
    auto plain = Make();
    EXPECT_FALSE(plain->UseCompression());
    const std::string newer = plain->UploadFile(local, "", upmNew);
    EXPECT_EQ(ReadAll(dir / "repo" / newer), content);
    EXPECT_EQ(Fetch(*plain, newer), content);
    EXPECT_EQ(Fetch(*plain, older), content);

    // The server store compresses regardless.
    host.local.strings[{"DOCSRV", "FileRoot"}] = (dir / "srv").string();
    auto server = Make<TDocFileLoaderLocServer>();
    EXPECT_TRUE(server->UseCompression());
    const std::string name = server->UploadFile(local, "", upmNew);
    EXPECT_EQ(ReadAll(dir / "srv" / name).substr(0, 4), "AACS");
    EXPECT_EQ(Fetch(*server, name), content);
}

TEST_F(LocalStoreTest, UploadReportsCompressEvents) {
    auto s = Make();
    std::vector<std::string> events;
    s->OnCompressStart = [&](TObject*, const std::string& f, TCompressMode m) {
        events.push_back("start " + f + (m == cmCompress ? " c" : " u"));
    };
    s->OnCompressEnd = [&](TObject*, const std::string& f, TCompressMode) {
        events.push_back("end " + f);
    };
    const std::string local = LocalFile("doc", TextBytes(1000));
    s->UploadFile(local, "", upmNew);
    EXPECT_THAT(events, ElementsAre("start " + local + " c", "end " + local, "end " + local));
}

TEST_F(LocalStoreTest, FolderThatCannotBeCreatedRaisesEFCreateError) {
    WriteAll(dir / "afile", "x");
    host.dbSettings[{0, "DocumentsPath"}] = (dir / "afile" / "repo").string();
    const std::string message = MessageOf<EFCreateError>([&] { Make(); });
    EXPECT_THAT(message, StartsWith("Error creating docroot \"" +
                                    (dir / "afile" / "repo").string() + "\"!\r\n"));
    EXPECT_THAT(message, HasSubstr("Not a directory"));
}

TEST_F(LocalStoreTest, NewFolderIsSeededOnceFromTheOldRootWithoutOverwriting) {
    const auto seed = dir / "olddata" / "docroot";
    fs::create_directories(seed / "subfolder");
    WriteAll(seed / "A", "a");
    WriteAll(seed / "B.old", "b");
    WriteAll(seed / "subfolder" / "C", "c");
    host.seedDocRoot = seed.string() + "/";
    host.dbSettings[{0, "DocumentsPath"}] = (dir / "new").string();

    auto s = Make();
    EXPECT_THAT(ListNames(dir / "new"), ElementsAre("A", "B.old")) << "files only, no recursion";
    EXPECT_TRUE(fs::exists(seed / "A")) << "the old files stay";

    // An existing folder is never touched again.
    fs::remove(dir / "new" / "A");
    WriteAll(seed / "D", "d");
    Make();
    EXPECT_THAT(ListNames(dir / "new"), ElementsAre("B.old"));

    // Offline stores and SetFilePath without migration don't seed.
    host.dbSettings[{0, "DocumentsPath"}] = (dir / "unseeded").string();
    s->SetFilePath((dir / "unseeded").string(), false);
    EXPECT_THAT(ListNames(dir / "unseeded"), IsEmpty());

    // A name that already stands keeps its content; the other files still come.
    struct Seeder : TDocFileLoaderLocFile {
        using TDocFileLoaderLocFile::SeedFromOldRoot;
        using TDocFileLoaderLocFile::TDocFileLoaderLocFile;
    } seeder(nullptr);
    seeder.SetFilePath((dir / "partial").string(), false);
    WriteAll(dir / "partial" / "A", "mine");
    seeder.SeedFromOldRoot(seed.string());
    EXPECT_THAT(ListNames(dir / "partial"), ElementsAre("A", "B.old", "D"));
    EXPECT_EQ(ReadAll(dir / "partial" / "A"), "mine");

    // A folder is not seeded from itself.
    host.seedDocRoot = (dir / "same").string();
    host.dbSettings[{0, "DocumentsPath"}] = (dir / "same").string();
    EXPECT_NO_THROW(Make());
    EXPECT_THAT(ListNames(dir / "same"), IsEmpty());
}

// A missing local file fails the upload before any transfer ends and leaves no temporary.
TEST_F(LocalStoreTest, UploadOfAMissingLocalFileRaisesAndLeavesNothing) {
    const std::string missing = (dir / "local" / "missing.txt").string();
    EXPECT_THROW(Make()->UploadFile(missing, "", upmNew), EFOpenError);  // compressed
    host.user.bools[{"DocAdmin", "NoCompression"}] = true;
    auto s = Make();
    bool ended = false;
    s->OnTransferEnd = [&](TObject*, std::int64_t) { ended = true; };
    EXPECT_THAT(MessageOf<EKRUserMessageException>([&] { s->UploadFile(missing, "", upmNew); }),
                StartsWith("Local file " + missing +
                           " not found. Can't save to repository! (No such file"));
    EXPECT_FALSE(ended);
    EXPECT_THAT(ListNames(dir / "repo"), IsEmpty());
}

// A store whose upload stops between writing the content and putting it in place, as a crash
// there would.
class CrashingStore : public TDocFileLoaderLocFile {
  public:
    using TDocFileLoaderLocFile::TDocFileLoaderLocFile;
    bool crash = false;

  protected:
    void CommitUpload(TTempFile& Temp, const std::string& Target) override {
        if (crash) {
            // The content stands complete beside the target, under another name.
            EXPECT_EQ(fs::path(Temp.Path()).parent_path(), fs::path(Target).parent_path());
            EXPECT_TRUE(fs::exists(Temp.Path()));
            throw EInOutError("power failure");
        }
        TDocFileLoaderLocFile::CommitUpload(Temp, Target);
    }
};

TEST_F(LocalStoreTest, UploadCutShortBeforeTheRenameLeavesTheOldContent) {
    for (bool noCompression : {false, true}) {
        host.user.bools[{"DocAdmin", "NoCompression"}] = noCompression;
        auto s = Make<CrashingStore>();
        const std::string name = s->UploadFile(LocalFile("v1", "old content"), "", upmNew);
        s->crash = true;
        EXPECT_THROW(s->UploadFile(LocalFile("v2", TextBytes(3'000'000)), name, upmChange),
                     EInOutError);
        EXPECT_EQ(Fetch(*s, name), "old content");
        EXPECT_THAT(ListNames(dir / "repo"), ElementsAre(name));
        s->RemoveFile(name, "");
    }
}

TEST_F(LocalStoreTest, LeftoverOfAnInterruptedUploadDoesNotDisturb) {
    // What a real crash leaves: a complete or partial temporary file beside the target.
    auto s = Make();
    const std::string name = s->UploadFile(LocalFile("v1", "old"), "", upmNew);
    WriteAll(dir / "repo" / (".~" + name + ".0123.tmp"), "half");
    EXPECT_EQ(Fetch(*s, name), "old");
    EXPECT_EQ(s->UploadFile(LocalFile("v2", "new"), name, upmChange), name);
    EXPECT_EQ(Fetch(*s, name), "new");

    // Seeding from such a folder leaves the leftovers behind.
    host.seedDocRoot = (dir / "repo").string();
    host.dbSettings[{0, "DocumentsPath"}] = (dir / "moved").string();
    Make();
    EXPECT_THAT(ListNames(dir / "moved"), ElementsAre(name));
}

TEST_F(LocalStoreTest, ManyUploadsFromTwoStoresLeaveOnlyTheRemoteNames) {
    // Temporary names are drawn per process; two stores on one folder must still never share one.
    auto a = Make();
    auto b = Make();
    b->SetUseCompression(false);
    std::vector<std::string> names;
    for (int i = 0; i < 20; ++i) {
        TDocFileLoaderLocFile& s = i % 2 == 0 ? *a : *b;
        names.push_back(s.UploadFile(LocalFile("n" + std::to_string(i), "new " + std::to_string(i)),
                                     "", upmNew));
    }
    // Both stores rewrite the same name in turn; the last content wins.
    for (int i = 0; i < 6; ++i) {
        TDocFileLoaderLocFile& s = i % 2 == 0 ? *a : *b;
        EXPECT_EQ(s.UploadFile(LocalFile("c", "change " + std::to_string(i)), names[0], upmChange),
                  names[0]);
    }
    EXPECT_EQ(Fetch(*a, names[0]), "change 5");
    for (int i = 1; i < 20; ++i)
        EXPECT_EQ(Fetch(*b, names[static_cast<std::size_t>(i)]), "new " + std::to_string(i));
    std::vector<std::string> sorted = names;
    std::sort(sorted.begin(), sorted.end());
    EXPECT_EQ(ListNames(dir / "repo"), sorted) << "no temporary file is left behind";
}

// With compression off, a file that a reader would take for a container or a legacy compressed
// file still goes into a container, so that it comes back byte for byte.
TEST_F(LocalStoreTest, NoCompressionStillPacksFilesThatWouldBeMisread) {
    host.user.bools[{"DocAdmin", "NoCompression"}] = true;
    auto s = Make();
    const std::string text = TextBytes(100'000);
    for (const std::string& content :
         {DeflateWith(text, Wrapper::gzip), DeflateWith(text, Wrapper::zlib),
          DeflateWith("a", Wrapper::gzip) + DeflateWith(text, Wrapper::gzip),
          "AACS" + RandomBytes(500)}) {
        const std::string name = s->UploadFile(LocalFile("f", content), "", upmNew);
        EXPECT_EQ(ReadAll(dir / "repo" / name).substr(0, 4), "AACS");
        EXPECT_EQ(Fetch(*s, name), content);
    }
}

// A file whose container would pass the format's offsets is stored as it is, unless it would
// then read back as something else: that is refused and leaves nothing behind.
TEST_F(LocalStoreTest, FilesTooLargeForAContainerAreStoredPlainOrRefused) {
    const std::uint64_t saved = TECLStream::MaxFileOffset;
    TFinally restore{[saved] { TECLStream::MaxFileOffset = saved; }};
    TECLStream::MaxFileOffset = 4000;
    for (bool noCompression : {false, true}) {
        host.user.bools[{"DocAdmin", "NoCompression"}] = noCompression;
        auto s = Make();
        const std::string random = RandomBytes(10'000);
        const std::string plain = s->UploadFile(LocalFile("r", random), "", upmNew);
        EXPECT_EQ(ReadAll(dir / "repo" / plain), random);
        EXPECT_EQ(Fetch(*s, plain), random);
        if (!noCompression) {
            const std::string text = TextBytes(10'000);
            const std::string packed = s->UploadFile(LocalFile("t", text), "", upmNew);
            EXPECT_EQ(ReadAll(dir / "repo" / packed).substr(0, 4), "AACS") << "still fits";
            s->RemoveFile(packed, "");
        }
        for (const std::string& misread :
             {"AACS" + random, DeflateWith(RandomBytes(10'000), Wrapper::gzip)}) {
            // Stored, it would read back as another file.
            EXPECT_THAT(MessageOf<EKRUserMessageException>(
                            [&] { s->UploadFile(LocalFile("m", misread), plain, upmChange); }),
                        HasSubstr("too large for a container"));
        }
        EXPECT_THAT(ListNames(dir / "repo"), ElementsAre(plain));
        EXPECT_EQ(ReadAll(dir / "repo" / plain), random);
        s->RemoveFile(plain, "");
    }
}

// A write that the system refuses says which file and why, also in the bare stream texts; the
// destination of a failed download keeps its content.
TEST_F(LocalStoreTest, WriteFailuresNameTheFileAndTheReason) {
    auto s = Make();
    const std::string content = RandomBytes(300'000);
    const std::string local = LocalFile("big", content);
    const std::string name = s->UploadFile(local, "", upmNew);
    const std::string dest = LocalFile("dest", "old");
    struct rlimit saved {};
    ASSERT_EQ(::getrlimit(RLIMIT_FSIZE, &saved), 0);
    auto* oldHandler = ::signal(SIGXFSZ, SIG_IGN);
    struct rlimit small = saved;
    small.rlim_cur = 100'000;  // writes beyond this fail with EFBIG
    ASSERT_EQ(::setrlimit(RLIMIT_FSIZE, &small), 0);
    std::vector<std::string> messages;
    for (bool compress : {true, false}) {
        s->SetUseCompression(compress);
        try {
            s->UploadFile(local, name, upmChange);
        } catch (const Exception& e) {
            messages.push_back(e.Message());
        }
    }
    try {
        s->DownloadFile(name, dest);
    } catch (const Exception& e) {
        messages.push_back(e.Message());
    }
    ::setrlimit(RLIMIT_FSIZE, &saved);
    ::signal(SIGXFSZ, oldHandler);
    ASSERT_EQ(messages.size(), 3u);
    const std::string target = (dir / "repo" / name).string();
    EXPECT_THAT(messages[0], StartsWith("Stream write error: File too large (while storing"));
    EXPECT_THAT(messages[1], HasSubstr("File too large (while storing"));
    for (std::size_t i = 0; i < 2; ++i)
        EXPECT_THAT(messages[i], HasSubstr("as \"" + target + "\")"));
    EXPECT_EQ(messages[2], "Stream write error: File too large (while reading \"" + target +
                               "\" into \"" + dest + "\")");
    EXPECT_EQ(ReadAll(dest), "old");
    EXPECT_EQ(Fetch(*s, name), content);
    EXPECT_THAT(ListNames(dir / "repo"), ElementsAre(name));
}

// A temporary whose process died is removed when a store next starts on the folder; one that a
// live process holds stays.
TEST_F(LocalStoreTest, TemporariesOfDeadProcessesGoAtTheNextStart) {
    fs::create_directories(dir / "repo");
    int ready[2];
    ASSERT_EQ(::pipe(ready), 0);
    const pid_t child = ::fork();
    ASSERT_GE(child, 0);
    if (child == 0) {
        // An upload in progress, killed before it ends.
        TTempFile temp((dir / "repo").string(), "0123456789ABCDEF0123456789ABCDEF");
        (void)!::write(temp.Handle(), "partial", 7);
        (void)!::write(ready[1], "x", 1);
        ::pause();
        ::_exit(0);
    }
    char c = 0;
    ASSERT_EQ(::read(ready[0], &c, 1), 1);
    ::close(ready[0]);
    ::close(ready[1]);
    TTempFile live((dir / "repo").string(), "LIVE");
    (void)!::write(live.Handle(), "live", 4);
    EXPECT_EQ(ListNames(dir / "repo").size(), 2u);
    Make();
    EXPECT_EQ(ListNames(dir / "repo").size(), 2u) << "the child still holds its lock";
    ::kill(child, SIGKILL);
    ::waitpid(child, nullptr, 0);
    Make();
    EXPECT_THAT(ListNames(dir / "repo"), ElementsAre(fs::path(live.Path()).filename().string()));
}

}  // namespace
}  // namespace docadmin::test
