// Folder paths, import of local folders and export to disk.
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
    std::vector<std::string> Listing(const std::string& root) {
        std::vector<std::string> r;
        for (auto& e : fs::recursive_directory_iterator(root))
            r.push_back(fs::relative(e.path(), root).string() + (e.is_directory() ? "/" : ""));
        std::sort(r.begin(), r.end());
        return r;
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

}  // namespace
}  // namespace docadmin::test
