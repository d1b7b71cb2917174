// Folder paths, import of local folders and export to disk.
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <functional>

#include "components_fixtures.h"

namespace docadmin::test {
namespace {

class FoldersTest : public TreeTest {
  protected:
    void SetUp() override {
        TreeTest::SetUp();
        Admin = std::make_unique<TTestDocAdmin>();
        Store = new TTestStore(Temp / "store");
        Admin->SetDocFileLoader(Store);
    }
    void TearDown() override {
        Admin.reset();
        TreeTest::TearDown();
    }
    // A stored document named ADocName with the content in the store.
    TDocument* Stored(TDocDirectory* dir, const std::string& name, const std::string& content) {
        return Admin->SaveDoc(nullptr, chAdded, LocalFile("src_" + content, content), dir, name, 0);
    }

    std::unique_ptr<TTestDocAdmin> Admin;
    TTestStore* Store = nullptr;
};

TEST_F(FoldersTest, CreateFolderStructReusesExistingLevels) {
    Admin->SetAutoSave(false);
    TDocDirectory* c = Admin->CreateFolderStruct(nullptr, "\"a\",\"b, c\"");
    EXPECT_EQ(c->Path(), "\"a\",\"b, c\"");
    EXPECT_EQ(c->ChangeState(), chAdded);
    EXPECT_EQ(c->CreaID(), Admin->CurrentUserID());
    TDocDirectory* d = Admin->CreateFolderStruct(nullptr, "a,\"b, c\",d");
    EXPECT_EQ(d->ParentDir(), c);
    EXPECT_EQ(Admin->Directories()->ChildDirectoriesInMemory().size(), 1u);
    EXPECT_EQ(Admin->CreateFolderStruct(c, ""), c);
    // Through the resource interface, relative to a directory.
    IPtr<IRessource> e =
        IPtr<IRessource>(static_cast<IRessource*>(c))->Do_CreateFolderStruct("d,e");
    EXPECT_EQ(IntfToDirectory(e.get())->ParentDir(), d);
}

TEST_F(FoldersTest, ImportTakesAFolderAndDoublesOnRepeat) {
    WriteFile(Temp / "in/top/one.txt", "1");
    WriteFile(Temp / "in/top/sub/two.txt", "22");
    fs::create_directories(Temp / "in/top/empty");
    Admin->SetAutoSave(false);
    std::vector<std::string> events;
    Admin->OnDownloadDocument = [&](TObject*, const std::string& f) {
        events.push_back(ExtractDirName(f));
    };
    Admin->ImportDirectory(Temp / "in/top", nullptr);
    Admin->ImportDirectory(Temp / "nothing here", nullptr);  // silent
    EXPECT_EQ(events, (std::vector<std::string>{"top", "empty", "sub"}));
    ASSERT_EQ(Admin->Directories()->ChildDirectoriesInMemory().size(), 1u);
    TDocDirectory* top = Admin->Directories()->GetChildDirectorys(0);
    EXPECT_EQ(top->Titel(), "top");
    ASSERT_EQ(top->DocumentCount(), 1);
    EXPECT_EQ(top->GetDocuments(0)->DocName(), Temp / "in/top/one.txt");
    EXPECT_EQ(top->GetDocuments(0)->ChangeState(), chAdded);
    EXPECT_EQ(top->ChildDirectoryCount(), 2);

    IPtr<IDirectory>(static_cast<IDirectory*>(Admin->Directories()))->Do_Import(Temp / "in/top/");
    EXPECT_EQ(Admin->Directories()->ChildDirectoriesInMemory().size(), 1u);  // merged
    EXPECT_EQ(top->DocumentCount(), 2);
    EXPECT_EQ(Admin->GetIsInTree(top->GetChildDirectorys(1), top), true);
    EXPECT_EQ(Admin->GetIsInTree(top, top->GetChildDirectorys(1)), false);
}

TEST_F(FoldersTest, ExportNumbersDuplicatesAndSkipsEmptyDirectories) {
    TDocDirectory* docs = Admin->AddDirectory(nullptr, "Docs");
    Stored(docs, "a.txt", "first");
    Stored(docs, "a.txt", "second");
    Stored(docs, "a.txt", "third");
    TDocDirectory* weird = Admin->AddDirectory(docs, "x/y:z*?");
    Stored(weird, "q<1>.txt", "q");
    Admin->AddDirectory(docs, "empty");
    Admin->AddDirectory(Admin->AddDirectory(docs, "outer"), "inner");

    Admin->ExportDirectory(Temp / "out", nullptr, false, "", "");
    EXPECT_EQ(Listing(Temp / "out"),
              (std::vector<std::string>{"Docs/", "Docs/a.txt", "Docs/a_2.txt", "Docs/a_3.txt",
                                        "Docs/x_y_z__/", "Docs/x_y_z__/q_1_.txt"}));
    EXPECT_EQ(ReadFile(Temp / "out/Docs/a_2.txt"), "second");
    EXPECT_FALSE(Admin->HasChanges());  // export changes nothing

    // A second export into the same place counts on.
    Admin->ExportDirectory(Temp / "out", docs, false, "*.TXT", "");
    EXPECT_TRUE(fs::exists(Temp / "out/Docs/a_6.txt"));
}

TEST_F(FoldersTest, ExportPatternsAndMissingFiles) {
    TDocDirectory* docs = Admin->AddDirectory(nullptr, "Docs");
    TDocDirectory* keep = Admin->AddDirectory(docs, "Keep");
    Stored(keep, "k.txt", "k");
    TDocument* lost = Stored(docs, "lost.txt", "lost");
    Stored(docs, "b.pdf", "b");

    // A start directory that doesn't match writes nothing, even though a child would.
    Admin->ExportDirectory(Temp / "p1", docs, false, "", "K*");
    EXPECT_FALSE(fs::exists(Temp / "p1"));
    Admin->ExportDirectory(Temp / "p2", docs, false, "*.pdf", "*");
    EXPECT_EQ(Listing(Temp / "p2"), (std::vector<std::string>{"Docs/", "Docs/b.pdf"}));

    fs::remove(Temp / ("store/" + lost->RemoteFileName()));
    EXPECT_THROW(Admin->ExportDirectory(Temp / "p3", docs, false, "", ""),
                 EFileNotFoundInRepositoryException);
    Admin->ExportDirectory(Temp / "p4", docs, true, "", "");
    EXPECT_TRUE(fs::exists(Temp / "p4/Docs/b.pdf"));
    EXPECT_TRUE(fs::exists(Temp / "p4/Docs/Keep/k.txt"));
}

TEST_F(FoldersTest, ExportKeepsEveryTitleInsideItsDestination) {
    // Titles and names as another client might have written them.
    TDocDirectory* up = Admin->AddDirectory(Admin->AddDirectory(nullptr, ".."), "..");
    Stored(Admin->AddDirectory(up, "victim"), "p.txt", "p");
    Stored(Admin->AddDirectory(up, ""), "..", "dots");
    Stored(Admin->AddDirectory(nullptr, "."), "../../evil.txt", "evil");  // saved as evil.txt
    Stored(Admin->AddDirectory(nullptr, "a/../../b"), "%FF.txt", "bytes");

    const std::string dest = Temp / "exp/a/b";
    Admin->ExportDirectory(dest, nullptr, false, "", "");
    EXPECT_EQ(Listing(Temp / "exp"),
              (std::vector<std::string>{"a/", "a/b/", "a/b/_../", "a/b/_../_../", "a/b/_../_../_/",
                                        "a/b/_../_../_/_..", "a/b/_../_../victim/",
                                        "a/b/_../_../victim/p.txt", "a/b/_./", "a/b/_./evil.txt",
                                        "a/b/a_.._.._b/", "a/b/a_.._.._b/\xFF.txt"}));
    EXPECT_EQ(ReadFile(dest + "/a_.._.._b/\xFF.txt"), "bytes");
}

TEST_F(FoldersTest, ExportNeverWritesThroughALink) {
    TDocDirectory* docs = Admin->AddDirectory(nullptr, "Docs");
    Stored(docs, "a.txt", "new");
    WriteFile(Temp / "victim.txt", "keep");
    fs::create_directories(Temp / "victim");

    // A link where a file goes counts as taken; the file gets the next name.
    fs::create_directories(Temp / "out1/Docs");
    fs::create_symlink(Temp / "victim.txt", Temp / "out1/Docs/a.txt");
    Admin->ExportDirectory(Temp / "out1", nullptr, false, "", "");
    EXPECT_EQ(ReadFile(Temp / "victim.txt"), "keep");
    EXPECT_EQ(ReadFile(Temp / "out1/Docs/a_2.txt"), "new");

    // A link where a folder goes stops the export.
    fs::create_directories(Temp / "out2");
    fs::create_directory_symlink(Temp / "victim", Temp / "out2/Docs");
    EXPECT_EQ(MessageOf<EInOutError>(
                  [&] { Admin->ExportDirectory(Temp / "out2", nullptr, false, "", ""); }),
              "'" + (Temp / "out2/Docs") + "' is a symbolic link; links are not followed");
    EXPECT_TRUE(fs::is_empty(Temp / "victim"));
}

TEST_F(FoldersTest, ImportSkipsLinksPipesAndLoopsAndNamesWhatItSkipped) {
    const std::string in = Temp / "in/top";
    WriteFile(in + "/real.txt", "r");
    WriteFile(in + "/sub/inner.txt", "i");
    WriteFile(Temp / "outside.txt", "secret");
    fs::create_symlink(Temp / "outside.txt", in + "/out.txt");
    fs::create_symlink(in + "/real.txt", in + "/in.txt");
    fs::create_directory_symlink(in, in + "/sub/loop");
    fs::create_directory_symlink(in + "/sub", in + "/subling");
    ASSERT_EQ(::mkfifo((in + "/pipe").c_str(), 0600), 0);

    std::vector<std::string> skipped;
    Admin->OnImportSkipped = [&](TObject*, const std::string& path, const std::string& why) {
        skipped.push_back(fs::path(path).lexically_relative(in).string() + ": " + why);
    };
    auto documents = [&] {
        std::vector<std::string> r;
        std::function<void(TDocDirectory*, const std::string&)> walk = [&](TDocDirectory* d,
                                                                           const std::string& p) {
            for (TDocument* doc : d->DocumentsInMemory())
                r.push_back(p + ExtractFileName(doc->DocName()));
            for (TDocDirectory* c : d->ChildDirectoriesInMemory())
                walk(c, p + c->Titel() + "/");
        };
        walk(Admin->Directories(), "");
        std::sort(r.begin(), r.end());
        return r;
    };
    Admin->ImportDirectory(in, nullptr);
    EXPECT_EQ(documents(), (std::vector<std::string>{"top/real.txt", "top/sub/inner.txt"}));
    EXPECT_EQ(skipped,
              (std::vector<std::string>{"in.txt: symbolic link, not followed",
                                        "out.txt: symbolic link, not followed", "pipe: named pipe",
                                        "sub/loop: symbolic link, not followed",
                                        "subling: symbolic link, not followed"}));

    // Following links: those inside are taken (a folder once), the others are named.
    Admin = std::make_unique<TTestDocAdmin>();
    Admin->SetDocFileLoader(new TTestStore(Temp / "store2"));
    Admin->SetImportFollowLinks(true);
    Admin->OnImportSkipped = [&](TObject*, const std::string& path, const std::string& why) {
        skipped.push_back(fs::path(path).lexically_relative(in).string() + ": " + why);
    };
    skipped.clear();
    Admin->ImportDirectory(in, nullptr);
    EXPECT_EQ(documents(),
              (std::vector<std::string>{"top/in.txt", "top/real.txt", "top/sub/inner.txt"}));
    ASSERT_EQ(skipped.size(), 4u);
    EXPECT_EQ(skipped[0], "out.txt: symbolic link to '" +
                              fs::canonical(Temp / "outside.txt").string() +
                              "' outside the imported folder");
    EXPECT_EQ(skipped[1], "pipe: named pipe");
    EXPECT_EQ(skipped[2], "sub/loop: folder taken in already through another path (a link loop?)");
    EXPECT_EQ(skipped[3], "subling: folder taken in already through another path (a link loop?)");
}

TEST_F(FoldersTest, ImportTakesNamesThatArentUtf8AndPathsPastPathMax) {
    // 25 levels of 200-byte names that aren't UTF-8, a file in each: about 5,000 bytes of path,
    // past PATH_MAX, so the tree is made and removed through folder descriptors.
    std::vector<TDirHandle> levels;
    levels.push_back(TDirHandle::Open(Temp.Path()));
    auto name = [](int level) { return std::string(199, static_cast<char>('a' + level)) + "\xFF"; };
    levels.push_back(levels.back().OpenChild("deep", true, "deep"));
    for (int i = 0; i < 25; ++i) {
        levels.push_back(levels.back().OpenChild(name(i), true, name(i)));
        const int fd = ::openat(levels.back().Handle(), "f.txt", O_WRONLY | O_CREAT, 0600);
        ASSERT_GE(fd, 0);
        ASSERT_EQ(::write(fd, name(i).data(), 3), 3);
        ::close(fd);
    }
    Admin->ImportDirectory(Temp / "deep", nullptr);  // saves at its end (AutoSave)

    TDocDirectory* d = Admin->Directories()->GetChildDirectorys(0);
    for (int i = 0; i < 25; ++i) {
        ASSERT_EQ(d->ChildDirectoryCount(), 1);
        d = d->GetChildDirectorys(0);
        EXPECT_EQ(d->Titel(), std::string(199, static_cast<char>('a' + i)) + "%FF");
        ASSERT_EQ(d->DocumentCount(), 1);
        EXPECT_GT(d->GetDocuments(0)->DocID(), 0);
        EXPECT_EQ(ReadFile(Temp / ("store/" + d->GetDocuments(0)->RemoteFileName())),
                  name(i).substr(0, 3));
    }
    for (int i = 24; i >= 0; --i) {
        ::unlinkat(levels[static_cast<size_t>(i) + 2].Handle(), "f.txt", 0);
        ::unlinkat(levels[static_cast<size_t>(i) + 1].Handle(), name(i).c_str(), AT_REMOVEDIR);
    }
}

}  // namespace
}  // namespace docadmin::test
