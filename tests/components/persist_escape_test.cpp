// Names that meet the disk on both databases: rows written by hand or by other clients can't
// lead an export out of its folder, names that aren't UTF-8 survive a round trip, and a reading
// administrator creates no folder.
#include "persist_fixtures.h"

namespace docadmin::test {
namespace {

using EscapeTest = PersistTest;

TEST_P(EscapeTest, HandMadeTitlesAndNamesStayInsideTheExport) {
    auto admin = NewAdmin(kPlugin, "\"" + kPlugin + "\"");
    admin->Directories()->ChildDirectoryCount();  // makes the plug-in's folder
    const std::int64_t top = admin->Directories()->DirID();
    ASSERT_GT(top, 0);
    auto doc = [&](const std::string& name, std::int64_t parent) {
        InsertDoc(name, parent, Store(*admin).UploadFile(LocalFile("c", name), "", upmNew));
    };
    const std::int64_t up = InsertDir("..", InsertDir("..", top));
    doc("../../x.txt", up);
    doc("..", InsertDir("", up));
    doc("", InsertDir("a/../b", top));

    auto reader = NewAdmin(kPlugin, "\"" + kPlugin + "\"");
    reader->SetReadOnly(true);
    const std::string dest = Temp / "exp/a/b";
    reader->ExportDirectory(dest, nullptr, false, "", "");
    EXPECT_EQ(Listing(Temp / "exp"),
              (std::vector<std::string>{"a/", "a/b/", "a/b/_../", "a/b/_../_../",
                                        "a/b/_../_../.._.._x.txt", "a/b/_../_../_/",
                                        "a/b/_../_../_/_..", "a/b/a_.._b/", "a/b/a_.._b/_"}));
    EXPECT_EQ(ReadFile(dest + "/_../_../.._.._x.txt"), "../../x.txt");
}

TEST_P(EscapeTest, NamesThatArentUtf8AreStoredEscapedAndExportedAsTheyWere) {
    WriteFile(Temp / "in/top\xFE/a\xFF.txt", "bytes");
    {
        auto admin = NewAdmin(kPlugin, "\"" + kPlugin + "\"");
        admin->SetAutoSave(false);
        admin->ImportDirectory(Temp / "in/top\xFE", nullptr);
        admin->SaveChanges();  // PostgreSQL refuses text that isn't UTF-8: this must not fail
    }
    EXPECT_EQ(RowCount("docadmindocs", "docname", TVariant("a%FF.txt")), 1);
    EXPECT_EQ(RowCount("docadmindir", "title", TVariant("top%FE")), 1);
    auto reader = NewAdmin(kPlugin, "\"" + kPlugin + "\"");
    reader->SetReadOnly(true);
    reader->ExportDirectory(Temp / "exp", nullptr, false, "", "");
    EXPECT_EQ(ReadFile(Temp / "exp/top\xFE/a\xFF.txt"), "bytes");
}

TEST_P(EscapeTest, AReaderFindsButNeverMakesFolders) {
    const std::string typo = "\"" + kPlugin + "\",\"typo\"";
    const std::string record =
        "\"" + kPlugin + "\",Invoices#Records,{A1B2C3D4-0000-4000-8000-0000000000AA}";
    for (const std::string& path : {"\"" + kPlugin + "\"", typo, record}) {
        auto reader = NewAdmin(kPlugin, path);
        reader->SetReadOnly(true);
        EXPECT_THROW(reader->Directories()->ChildDirectoryCount(), EDocAdminFolderNotFound) << path;
        EXPECT_EQ(RowCount("docadmindir"), 0) << path;
    }
    // Once a writer has made them, the reader finds them, and still writes nothing.
    NewAdmin(kPlugin, typo)->Directories()->ChildDirectoryCount();
    NewAdmin(kPlugin, "\"" + kPlugin + "\",Invoices#Records")->Directories()->ChildDirectoryCount();
    const int rows = RowCount("docadmindir");
    auto reader = NewAdmin(kPlugin, typo);
    reader->SetReadOnly(true);
    EXPECT_EQ(reader->Directories()->ChildDirectoryCount(), 0);
    EXPECT_EQ(reader->Directories()->Titel(), "typo");
    auto recordReader = NewAdmin(kPlugin, record);
    recordReader->SetReadOnly(true);
    EXPECT_EQ(MessageOf<EDocAdminFolderNotFound>(
                  [&] { recordReader->Directories()->ChildDirectoryCount(); }),
              "Folder '{A1B2C3D4-0000-4000-8000-0000000000AA}' not found (path " + record + ")");
    EXPECT_EQ(RowCount("docadmindir"), rows);
}

DB_INSTANTIATE(EscapeTest);

}  // namespace
}  // namespace docadmin::test
