// Saving a tree: what reaches the tables and the store, and what stays in memory on failure.
#include <thread>

#include "_TKRSQLDeleteNotifyListener.h"
#include "persist_fixtures.h"

namespace docadmin::test {
namespace {

using SaveTest = PersistTest;

TEST_P(SaveTest, NothingChangedSavesNothingANewTreeGetsKeysParentsFirst) {
    auto admin = NewAdmin();
    int saved = 0;
    admin->OnSaved = [&](TObject*) { ++saved; };
    admin->Directories()->ChildDirectoryCount();
    const auto before = Statements();
    EXPECT_FALSE(admin->DoSaveChanges());
    admin->SaveChanges();
    EXPECT_EQ(saved, 0);
    EXPECT_EQ(Statements(), before);

    admin->BeginUpdate();
    TDocDirectory* a = admin->AddDirectory(nullptr, "A");
    TDocDirectory* b = admin->AddDirectory(a, "B");
    TDocument* doc = admin->SaveDoc(nullptr, chAdded, LocalFile("x.txt", "hello"), b, "", 3);
    admin->EndUpdate();
    EXPECT_EQ(saved, 1);
    ASSERT_GT(a->DirID(), 0);
    ASSERT_GT(b->DirID(), 0);
    ASSERT_GT(doc->DocID(), 0);
    EXPECT_EQ(doc->ChangeState(), chNone);
    EXPECT_EQ(doc->DocName(), "x.txt");
    EXPECT_TRUE(b->LoadingState().Contains(lsDocumentsLoaded));

    auto dirB = Row("docadmindir", b->DirID());
    EXPECT_EQ(dirB->ValueByName(0, "parentdirid").GetRealValue(), a->DirID());
    EXPECT_EQ(dirB->ValueByName(0, "pluginguid").GetAsString(), kPlugin);
    EXPECT_EQ(Row("docadmindir", a->DirID())->ValueByName(0, "parentdirid").GetRealValue(), 0);
    auto row = Row("docadmindocs", doc->DocID());
    EXPECT_EQ(row->ValueByName(0, "dirid").GetRealValue(), b->DirID());
    EXPECT_EQ(row->ValueByName(0, "docname").GetAsString(), "x.txt");
    EXPECT_EQ(row->ValueByName(0, "flsize").GetAsInteger(), 5);
    EXPECT_EQ(row->ValueByName(0, "doctags").GetAsInteger(), 3);
    EXPECT_EQ(row->ValueByName(0, "fllocname").GetAsString(), doc->RemoteFileName());
    EXPECT_EQ(Store(*admin).Content(doc->RemoteFileName()), "hello");
}

TEST_P(SaveTest, DocumentAddedAndDeletedBeforeSaveLeavesNoTrace) {
    auto admin = NewAdmin();
    admin->Directories()->ChildDirectoryCount();
    std::vector<TDocument*> deleted;
    admin->OnDeleteDocument = [&](TObject*, TDocument* d) { deleted.push_back(d); };
    admin->BeginUpdate();
    TDocument* doc = admin->SaveDoc(nullptr, chAdded, LocalFile("t.txt", "x"), nullptr, "", 0);
    admin->DeleteDocument(doc);
    const auto before = Statements();
    admin->EndUpdate();
    EXPECT_EQ(Statements(), before);
    EXPECT_EQ(Store(*admin).Uploads, 0);
    EXPECT_EQ(Store(*admin).Removes, 0);
    EXPECT_EQ(deleted, std::vector<TDocument*>{doc});
    EXPECT_TRUE(admin->Directories()->DocumentsInMemory().empty());
    EXPECT_EQ(RowCount("docadmindocs"), 0);
}

TEST_P(SaveTest, MetadataChangeWritesEveryFieldAndNoFile) {
    auto admin = NewAdmin();
    const TStored s = StoreOne(*admin, "body");
    TDocument* doc = admin->Directories()->GetChildDirectorys(0)->GetDocuments(0);
    // Spoil the row behind the administrator's back: the save must write every field again.
    IPtr<IDBSQLStatement> st = DB->CreateStatement("");
    st->SetSchemaItem(GetSchemaByName(DB->GetFieldSchema(), "docadmindocs").get());
    st->SetStatementKind(1);
    st->AddFilter("id", TVariant(static_cast<long long>(s.DocID)));
    for (const char* f : {"dirid", "flsize", "creaid", "lastchangedid", "globalaclgrp", "doctags"})
        st->AddField(f, TVariant(99));
    st->AddField("flversion", TVariant("spoilt"));
    for (const char* f : {"fldate", "creadate", "lastchangedtsp"})
        st->AddField(f, TVariant::FromDate(1.0));
    st->Execute();

    const int uploads = Store(*admin).Uploads;
    admin->BeginUpdate();
    doc->SetDocName("renamed.txt");
    doc->SetChangeState(chChanged);
    admin->EndUpdate();
    EXPECT_EQ(Store(*admin).Uploads, uploads);
    EXPECT_EQ(doc->ChangeState(), chNone);

    auto row = Row("docadmindocs", s.DocID);
    EXPECT_EQ(row->ValueByName(0, "docname").GetAsString(), "renamed.txt");
    EXPECT_EQ(row->ValueByName(0, "dirid").GetRealValue(), s.DirID);
    EXPECT_EQ(row->ValueByName(0, "flsize").GetAsInteger(), 4);
    EXPECT_EQ(row->ValueByName(0, "flversion").GetAsString(), FileVersionToStr(doc->Version()));
    EXPECT_EQ(row->ValueByName(0, "fllocname").GetAsString(), s.Remote);
    EXPECT_DOUBLE_EQ(row->ValueByName(0, "fldate").GetAsFloat(), doc->Date());
    EXPECT_DOUBLE_EQ(row->ValueByName(0, "creadate").GetAsFloat(), doc->CreaDate());
    EXPECT_DOUBLE_EQ(row->ValueByName(0, "lastchangedtsp").GetAsFloat(), doc->ChangeDate());
    EXPECT_EQ(row->ValueByName(0, "creaid").GetRealValue(), doc->CreaID());
    EXPECT_EQ(row->ValueByName(0, "lastchangedid").GetRealValue(), doc->ChangeID());
    EXPECT_EQ(row->ValueByName(0, "globalaclgrp").GetRealValue(), doc->ACLGroupID());
    EXPECT_EQ(row->ValueByName(0, "doctags").GetAsInteger(), 0);
    EXPECT_EQ(RowCount("docadmin_docarchive"), 0);
}

TEST_P(SaveTest, DeletingADirectoryRemovesDocumentsRowsAndItems) {
    TStored s;
    std::int64_t sub = 0;
    {
        auto admin = NewAdmin();
        s = StoreOne(*admin, "one");
        TDocDirectory* a = admin->Directories()->GetChildDirectorys(0);
        TDocDirectory* b = admin->AddDirectory(a, "B");
        admin->SaveDoc(nullptr, chAdded, LocalFile("b.txt", "two"), b, "", 0);
        sub = b->DirID();
    }
    ASSERT_EQ(RowCount("docadmindir"), 2);
    auto admin = NewAdmin();
    std::vector<std::string> gone;
    admin->OnDeleteDirectory = [&](TObject*, TDocDirectory* d) { gone.push_back(d->Titel()); };
    // Rows as they stand just before each directory row is deleted: the documents have gone in
    // the first pass, and the parent's row "A" goes while the child's "B" still stands.
    struct TCounts {
        int docs, a, b;
        bool operator==(const TCounts&) const = default;
    };
    std::vector<TCounts> beforeDirDelete;
    TKRSQLDeleteNotifyListener listener(nullptr);
    listener.OnExecute = [&](TObject*, IKRSQLDeleteNotify* e) {
        if (e->IsTable("docadmindir"))
            beforeDirDelete.push_back({RowCount("docadmindocs"),
                                       RowCount("docadmindir", "title", TVariant("A")),
                                       RowCount("docadmindir", "title", TVariant("B"))});
        if (!e->CanDeclareDependents()) e->NoDependentsDeclared();
    };
    TDocDirectory* a = admin->Directories()->GetChildDirectorys(0);
    ASSERT_EQ(a->Titel(), "A");
    admin->DeleteDirectory(a);
    EXPECT_EQ(beforeDirDelete, (std::vector<TCounts>{{0, 1, 1}, {0, 0, 1}}));
    EXPECT_EQ(RowCount("docadmindir"), 0);
    EXPECT_EQ(RowCount("docadmindocs"), 0);
    EXPECT_EQ(Store(*admin).Removes, 2);
    EXPECT_FALSE(Store(*admin).Has(s.Remote));
    EXPECT_EQ(admin->Directories()->ChildDirectoriesInMemory().size(), 0u);
    // The items leave depth first.
    EXPECT_EQ(gone, (std::vector<std::string>{"B", "A"}));
    (void)sub;
}

TEST_P(SaveTest, ReplaceInPlaceWithoutArchiveOrArchiveOncePerSave) {
    auto admin = NewAdmin();
    const TStored s = StoreOne(*admin, "v1");
    TDocument* doc = admin->Directories()->GetChildDirectorys(0)->GetDocuments(0);

    // Without archive the new content still goes to a new file; the old one goes after the row.
    admin->ReplaceFile(doc, LocalFile("v2.txt", "v2-2"), false, ramNoArchive);
    const std::string v2 = doc->RemoteFileName();
    EXPECT_NE(v2, s.Remote);
    EXPECT_EQ(Store(*admin).Content(v2), "v2-2");
    EXPECT_FALSE(Store(*admin).Has(s.Remote));
    EXPECT_EQ(RowCount("docadmin_docarchive"), 0);
    EXPECT_EQ(doc->ArchiveMode(), ramDefault);

    // Two replacements in one save: one archive row, with the stored version's values.
    admin->BeginUpdate();
    admin->ReplaceFile(doc, LocalFile("v3.txt", "v3-33"), false, ramDefault);
    admin->ReplaceFile(doc, LocalFile("v4.txt", "v4-444"), false, ramArchive);
    admin->EndUpdate();
    ASSERT_EQ(RowCount("docadmin_docarchive"), 1);
    EXPECT_NE(doc->RemoteFileName(), v2);
    EXPECT_EQ(Store(*admin).Content(doc->RemoteFileName()), "v4-444");
    EXPECT_EQ(Store(*admin).Content(v2), "v2-2");
    auto arch = Rows("docadmin_docarchive");
    EXPECT_EQ(arch->ValueByName(0, "fllocname").GetAsString(), v2);
    EXPECT_EQ(arch->ValueByName(0, "flsize").GetAsInteger(), 4);
    EXPECT_EQ(arch->ValueByName(0, "docadmindocid").GetRealValue(), s.DocID);
    EXPECT_EQ(arch->ValueByName(0, "dirid").GetRealValue(), s.DirID);
    EXPECT_EQ(arch->ValueByName(0, "docname").GetAsString(), "a.txt");
    auto row = Row("docadmindocs", s.DocID);
    EXPECT_EQ(row->ValueByName(0, "fllocname").GetAsString(), doc->RemoteFileName());
    EXPECT_EQ(row->ValueByName(0, "flsize").GetAsInteger(), 6);
}

TEST_P(SaveTest, FailedUploadAbortKeepsNewDocumentAddedAndOldRowAndFile) {
    auto admin = NewAdmin();
    const TStored s = StoreOne(*admin, "old");
    TDocDirectory* a = admin->Directories()->GetChildDirectorys(0);
    TDocument* old = a->GetDocuments(0);
    admin->SetAutoSave(false);
    admin->BeginUpdate();
    TDocument* fresh = admin->SaveDoc(nullptr, chAdded, LocalFile("n.txt", "new"), a, "", 0);
    admin->ReplaceFile(old, LocalFile("o2.txt", "replaced"), false, ramDefault);
    admin->EndUpdate();

    Store(*admin).FailUploads = 10;
    EXPECT_THROW(admin->SaveChanges(), EAbort);
    ASSERT_EQ(DialogMessages.size(), 1u);
    EXPECT_NE(DialogMessages[0].find("no space left"), std::string::npos);
    // Documents are walked last to first: the new one failed first.
    EXPECT_EQ(fresh->ChangeState(), chAdded);
    EXPECT_TRUE(fresh->RemoteFileName().empty());
    EXPECT_EQ(RowCount("docadmindocs"), 1);
    EXPECT_EQ(old->ChangeState(), chChanged);

    // Ignore the new one, then the changed one fails too: its row and file stay, and no archive
    // row is written, since the row is archived only with the change that replaces it.
    Answers = {mrIgnore, mrAbort};
    EXPECT_THROW(admin->SaveChanges(), EAbort);
    EXPECT_EQ(fresh->ChangeState(), chAdded);
    auto row = Row("docadmindocs", s.DocID);
    EXPECT_EQ(row->ValueByName(0, "fllocname").GetAsString(), s.Remote);
    EXPECT_EQ(row->ValueByName(0, "flsize").GetAsInteger(), 3);
    EXPECT_EQ(Store(*admin).Content(s.Remote), "old");
    EXPECT_EQ(RowCount("docadmin_docarchive"), 0);

    // Retry until the store works again: one archive row, however many attempts it took.
    Store(*admin).FailUploads = 2;
    Answers = {mrRetry, mrRetry};
    admin->SaveChanges();
    EXPECT_EQ(fresh->ChangeState(), chNone);
    EXPECT_EQ(old->ChangeState(), chNone);
    EXPECT_EQ(RowCount("docadmindocs"), 2);
    EXPECT_EQ(RowCount("docadmin_docarchive"), 1);
    EXPECT_EQ(Store(*admin).Content(old->RemoteFileName()), "replaced");
}

TEST_P(SaveTest, OffTheMainThreadAFailureAbortsWithoutDialog) {
    auto admin = NewAdmin();
    admin->Directories()->ChildDirectoryCount();
    admin->SetAutoSave(false);
    TDocument* doc = admin->SaveDoc(nullptr, chAdded, LocalFile("t.txt", "x"), nullptr, "", 0);
    Store(*admin).FailUploads = 1;
    Answers = {mrRetry};
    bool aborted = false;
    std::thread worker([&] {
        try {
            admin->SaveChanges();
        } catch (const EAbort&) {
            aborted = true;
        }
    });
    worker.join();
    EXPECT_TRUE(aborted);
    EXPECT_TRUE(DialogMessages.empty());
    EXPECT_EQ(doc->ChangeState(), chAdded);
}

// A connection closed gracefully after an upload, and a file already gone at its removal, count
// as done.
TEST_P(SaveTest, StoreAnswersThatMeanDoneAreNoFailure) {
    auto admin = NewAdmin();
    const TStored s = StoreOne(*admin, "x");
    fs::remove(StoreDir() + "/" + s.Remote);
    admin->DeleteDocument(admin->Directories()->GetChildDirectorys(0)->GetDocuments(0));
    EXPECT_EQ(RowCount("docadmindocs"), 0);
    Store(*admin).CloseGracefully = true;
    TDocument* doc = admin->SaveDoc(nullptr, chAdded, LocalFile("t.txt", "x"), nullptr, "", 0);
    EXPECT_EQ(doc->ChangeState(), chNone);
    EXPECT_GT(doc->DocID(), 0);
    EXPECT_TRUE(DialogMessages.empty());
}

TEST_P(SaveTest, UnknownSectionsFailBeforeAnythingIsWritten) {
    auto admin = NewAdmin();
    admin->Directories()->ChildDirectoryCount();
    admin->SetDirSection("nosuchdirs");
    admin->SetAutoSave(false);
    admin->AddDirectory(nullptr, "A");
    EXPECT_EQ(MessageOf<Exception>([&] { admin->DoSaveChanges(); }),
              "Not all dbsections found! Required sections: docadmindocs, nosuchdirs");
    EXPECT_EQ(RowCount("docadmindir"), 0);
}

TEST_P(SaveTest, UpdateDocumentWithIDReplacesByIdOnlyAndAFailedUploadLeavesTheRow) {
    auto admin = NewAdmin();
    const TStored s = StoreOne(*admin, "first");
    const int uploads = Store(*admin).Uploads;
    EXPECT_FALSE(admin->UpdateDocumentWithID(admin.get(), s.DocID + 1000, LocalFile("u", "u"),
                                             admin->DocFileLoader(), true, true));
    EXPECT_EQ(Store(*admin).Uploads, uploads);
    EXPECT_EQ(RowCount("docadmin_docarchive"), 0);

    // Without archive: content in a new file, the old file removed after the row, version
    // raised, no archive row.
    ASSERT_TRUE(admin->UpdateDocumentWithID(admin.get(), s.DocID, LocalFile("u1.txt", "second"),
                                            admin->DocFileLoader(), false, false));
    auto row = Row("docadmindocs", s.DocID);
    const std::string r1 = row->ValueByName(0, "fllocname").GetAsString();
    EXPECT_NE(r1, s.Remote);
    EXPECT_FALSE(Store(*admin).Has(s.Remote));
    EXPECT_EQ(row->ValueByName(0, "docname").GetAsString(), "a.txt");
    EXPECT_EQ(row->ValueByName(0, "flsize").GetAsInteger(), 6);
    EXPECT_EQ(Store(*admin).Content(r1), "second");
    const std::string v1 = row->ValueByName(0, "flversion").GetAsString();
    EXPECT_EQ(RowCount("docadmin_docarchive"), 0);

    // With archive: the row as it stood goes to the archive, the content to a new name.
    ASSERT_TRUE(admin->UpdateDocumentWithID(admin.get(), s.DocID, LocalFile("u2.txt", "third!!"),
                                            admin->DocFileLoader(), true, true));
    row = Row("docadmindocs", s.DocID);
    const std::string remote = row->ValueByName(0, "fllocname").GetAsString();
    EXPECT_NE(remote, r1);
    EXPECT_EQ(Store(*admin).Content(remote), "third!!");
    EXPECT_EQ(Store(*admin).Content(r1), "second");
    EXPECT_EQ(row->ValueByName(0, "docname").GetAsString(), "u2.txt");
    EXPECT_TRUE(CompareFileVersion(StrToFileVersion(row->ValueByName(0, "flversion").GetAsString()),
                                   StrToFileVersion(v1)) > 0);
    auto arch = Rows("docadmin_docarchive");
    ASSERT_EQ(arch->GetRecordCount(), 1);
    EXPECT_EQ(arch->ValueByName(0, "fllocname").GetAsString(), r1);
    EXPECT_EQ(arch->ValueByName(0, "flversion").GetAsString(), v1);
    EXPECT_EQ(arch->ValueByName(0, "flsize").GetAsInteger(), 6);
    EXPECT_EQ(arch->ValueByName(0, "dirid").GetRealValue(), s.DirID);
    EXPECT_EQ(arch->ValueByName(0, "docadmindocid").GetRealValue(), s.DocID);

    // A failed upload leaves the row as it was.
    Store(*admin).FailUploads = 1;
    EXPECT_THROW(admin->UpdateDocumentWithID(admin.get(), s.DocID, LocalFile("f.txt", "longer!!"),
                                             admin->DocFileLoader(), false, true),
                 EInOutError);
    row = Row("docadmindocs", s.DocID);
    EXPECT_EQ(row->ValueByName(0, "docname").GetAsString(), "u2.txt");
    EXPECT_EQ(row->ValueByName(0, "flsize").GetAsInteger(), 7);
}

DB_INSTANTIATE(SaveTest);

}  // namespace
}  // namespace docadmin::test
