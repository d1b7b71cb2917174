// The tree handle: loading in the call and in a background job, notices held back during a load,
// the document view used through its interface only, items that outlive the handle, and
// arguments that aren't items of the handle's tree.
#include <atomic>
#include <chrono>
#include <functional>
#include <thread>

#include "_KRBackgroundJobs.h"
#include "_MainThreadQueue.h"
#include "_TDocAdminObject.h"
#include "host/runtime/test_wait.h"
#include "persist_fixtures.h"

namespace docadmin::test {
namespace {

using namespace std::chrono_literals;

const std::string kRecord1 = "{D0C0B1EC-0000-4000-8000-000000000001}";
const std::string kRecord2 = "{D0C0B1EC-0000-4000-8000-000000000002}";

// The persistence host plus a background job scheduler.
class TSchedulingMain : public TPersistMain {
  public:
    HRESULT QueryInterface(const TGUID& iid, void** obj) override {
        if (iid == IKRBackgroundJobScheduler::IID) return Scheduler->QueryInterface(iid, obj);
        return TPersistMain::QueryInterface(iid, obj);
    }
    TBackgroundJobScheduler* Scheduler = nullptr;
};

// Writes every notice it gets as a line.
class TLogNotifier : public TInterfacedImpl<IRessourceContainerNotify> {
  public:
    void Do_ContainerNotify(TRessourceContainerNotifyType AType, IRessourceContainer*) override {
        Log.push_back("notify " + std::to_string(AType));
    }
    void Do_RessourceRemoved(IRessource* ARessource) override {
        Log.push_back("removed " + ARessource->Get_Caption());
    }
    void Do_ChildsChanged(IRessourceContainer*, IRessource* ARessource) override {
        Log.push_back("childs " + (ARessource ? ARessource->Get_Caption() : "root"));
    }
    std::vector<std::string> Log;
};

// Occupies the loaders' group until released, so that a loader job waits behind it.
class TBlockerJob : public TKRCustomBackgroundJob {
  public:
    TBlockerJob(std::atomic<bool>& AGo, std::atomic<bool>& ARunning)
        : TKRCustomBackgroundJob(nullptr, nullptr, false), FGo(AGo), FRunning(ARunning) {}
    void Execute() override {
        FRunning = true;
        while (!FGo)
            std::this_thread::sleep_for(1ms);
    }

  private:
    std::atomic<bool>& FGo;
    std::atomic<bool>& FRunning;
};

class DocAdminObjectTest : public PersistTest {
  public:
    void SetUp() override {
        PersistTest::SetUp();
        SchedulingMain.DB = Main.DB;
        SchedulingMain.Scheduler = &Scheduler;
        Scheduler.SetGroupLimit(1, 1);
    }
    void TearDown() override {
        Go = true;
        EXPECT_TRUE(Scheduler.WaitForGroup(1, 10000));
        PersistTest::TearDown();
    }

    IPtr<TDocAdminObject> NewHandle(bool ALoad, bool ABackground, bool AScheduler = true,
                                    const std::string& ARecord = kRecord1) {
        auto admin = NewAdmin(kPlugin, RecordPath(ARecord));
        if (AScheduler) admin->SetMainInterface(&SchedulingMain);
        return IPtr<TDocAdminObject>(
            new TDocAdminObject(admin.release(), ALoad, "Invoices", 42, ABackground, false));
    }
    // Loader jobs scheduled from now on wait until UnblockLoaders.
    void BlockLoaders() {
        Go = true;  // an earlier blocker must have left the group first
        ASSERT_TRUE(Scheduler.WaitForGroup(1, 10000));
        Go = false;
        Running = false;
        Scheduler.ScheduleJob(new TBlockerJob(Go, Running), 1);
        ASSERT_TRUE(PumpUntil([&] { return Running.load(); }));
    }
    void UnblockLoaders() { Go = true; }

    TBackgroundJobScheduler Scheduler{2};
    TSchedulingMain SchedulingMain;
    std::atomic<bool> Go{true}, Running{false};
};

TEST_P(DocAdminObjectTest, ABackgroundLoadOwnsTheTreeAndSendsOneNoticeOfEachKindAfterIt) {
    ASSERT_NO_FATAL_FAILURE(BlockLoaders());
    auto h = NewHandle(true, true);
    IPtr<IRessourceContainer> c(h.get());
    IPtr<TLogNotifier> n(new TLogNotifier);
    c->Do_RegisterNotifier(n.get());
    c->Do_RegisterNotifier(n.get());

    TKRDocAdminObjLoaderBackgroundJob* job = h->LoaderBackgroundJob();
    ASSERT_NE(job, nullptr);
    EXPECT_EQ(job->Container(), h.get());
    h->Load(true, false);  // a second load while the job waits does nothing
    EXPECT_EQ(h->LoaderBackgroundJob(), job);
    EXPECT_EQ(Scheduler.JobCount(1), 2);
    EXPECT_EQ(c->Get_Count(), 0);  // the tree is the job's until it ends
    EXPECT_FALSE(c->Do_InvalidateChilds(true));
    EXPECT_TRUE(n->Log.empty());

    // The load creates the record's folders: several changes, child-count and load notices.
    UnblockLoaders();
    ASSERT_TRUE(PumpUntil([&] { return h->LoaderBackgroundJob() == nullptr; }));
    EXPECT_TRUE(h->Loaded());
    EXPECT_TRUE(h->DocAdmin()->Directories()->LoadingState().Contains(lsDocumentsLoaded));
    EXPECT_EQ(h->DocAdmin()->Directories()->Titel(), kRecord1);
    EXPECT_EQ(n->Log, (std::vector<std::string>{"notify 0", "notify 2", "childs root"}));

    // Once loaded, notices go out at once; an unregistered notifier hears nothing more.
    n->Log.clear();
    IPtr<IDirectoryRoot> root(h.get());
    root->Do_AddDirectory(nullptr, "Letters");
    EXPECT_EQ(n->Log, (std::vector<std::string>{"childs root", "notify 0"}));
    c->Do_UnregisterNotifier(n.get());
    root->Do_AddDirectory(nullptr, "Bills");
    EXPECT_EQ(n->Log.size(), 2u);
}

TEST_P(DocAdminObjectTest, AReloadOrAUseOfTheTreeCancelsAPendingJobWhoseEndThenChangesNothing) {
    ASSERT_NO_FATAL_FAILURE(BlockLoaders());
    auto h = NewHandle(true, true);
    IPtr<IRessourceContainer> c(h.get());
    TKRDocAdminObjLoaderBackgroundJob* first = h->LoaderBackgroundJob();
    ASSERT_NE(first, nullptr);
    c->Do_Reload(true);
    TKRDocAdminObjLoaderBackgroundJob* second = h->LoaderBackgroundJob();
    ASSERT_NE(second, nullptr);
    EXPECT_NE(second, first);
    EXPECT_EQ(first->Container(), nullptr);
    // The first job ends (cancelled, never run) while the second still waits.
    ASSERT_TRUE(PumpUntil([&] { return Scheduler.JobCount(1) == 2; }));
    EXPECT_EQ(h->LoaderBackgroundJob(), second);
    EXPECT_FALSE(h->Loaded());
    UnblockLoaders();
    ASSERT_TRUE(PumpUntil([&] { return h->LoaderBackgroundJob() == nullptr; }));
    EXPECT_TRUE(h->Loaded());

    // A call that needs the tree takes it back from a job that waits and works in the call.
    ASSERT_NO_FATAL_FAILURE(BlockLoaders());
    c->Do_Reload(true);
    ASSERT_NE(h->LoaderBackgroundJob(), nullptr);
    IPtr<IDirectoryRoot> root(h.get());
    EXPECT_NE(root->Do_AddDirectory(nullptr, "Now").get(), nullptr);
    EXPECT_EQ(h->LoaderBackgroundJob(), nullptr);
    UnblockLoaders();
    ASSERT_TRUE(Scheduler.WaitForGroup(1, 10000));
    EXPECT_EQ(h->LoaderBackgroundJob(), nullptr);
    EXPECT_EQ(root->Get_RootDirectoryCount(), 1);
    EXPECT_EQ(RowCount("docadmindir", "title", TVariant("Now")), 1);
}

TEST_P(DocAdminObjectTest, WithoutASchedulerABackgroundRequestLoadsInTheCallWithoutDocuments) {
    NewHandle(true, false, false);  // creates the record's folder: new folders count as loaded
    auto h = NewHandle(true, true, false);
    EXPECT_EQ(h->LoaderBackgroundJob(), nullptr);
    EXPECT_TRUE(h->Loaded());
    const TLoadingStateSet loaded = h->DocAdmin()->Directories()->LoadingState();
    EXPECT_TRUE(loaded.Contains(lsRootDirectoryLoaded));
    EXPECT_FALSE(loaded.Contains(lsDocumentsLoaded));
    // A reload that asks for a load can't have one in the background here: it stays unloaded.
    IPtr<IRessourceContainer>(h.get())->Do_Reload(true);
    EXPECT_FALSE(h->Loaded());
    EXPECT_EQ(h->LoaderBackgroundJob(), nullptr);
}

TEST_P(DocAdminObjectTest, TheDocumentViewWorksThroughItsInterfaceAlone) {
    IPtr<IDirectoryRoot> root(NewHandle(true, false).get());
    IPtr<IRessourceContainer> c;
    ASSERT_TRUE(Supports(root.get(), c));
    IPtr<TLogNotifier> n(new TLogNotifier);
    c->Do_RegisterNotifier(n.get());

    IPtr<IDirectory> dir = root->Do_AddDirectory(nullptr, "Letters");
    ASSERT_GT(dir->Get_DirID(), 0);
    IPtr<IDocument> doc = root->Do_SaveDocument(dir.get(), "a.txt", LocalFile("a.txt", "alpha"), 0);
    const std::int32_t id = doc->Get_DocID();
    ASSERT_GT(id, 0);
    EXPECT_EQ(root->Do_GetDirectoryByTitle(nullptr, "Letters")->Get_DirID(), dir->Get_DirID());
    EXPECT_TRUE(root->Get_IsInTree(dir.get(), root->Get_RootDir().get()));
    EXPECT_FALSE(root->Get_HasChanges());

    std::string name;
    ASSERT_TRUE(root->Do_DownloadFileByID(id, Temp / "out1", name));
    EXPECT_EQ(name, "a.txt");
    EXPECT_EQ(ReadFile(Temp / "out1"), "alpha");
    ASSERT_TRUE(root->Do_ReplaceFileByID(id, LocalFile("b.txt", "beta"), ramDefault));
    ASSERT_TRUE(root->Do_DownloadFileByID(id, Temp / "out2", name));
    EXPECT_EQ(ReadFile(Temp / "out2"), "beta");

    // The replacement by id went past the tree: a reload shows it to the export.
    c->Do_Reload(false);
    ASSERT_TRUE(root->Do_ExportDirectory(nullptr, Temp / "export", false, "", ""));
    EXPECT_EQ(ReadFile(Temp / "export/Letters/a.txt"), "beta");

    ASSERT_TRUE(root->Do_DeleteDocumentByID(id));
    EXPECT_EQ(RowCount("docadmindocs"), 0);
    EXPECT_EQ(n->Log.back(), "removed a");
    EXPECT_THROW(root->Do_DownloadFileByID(id, Temp / "out3", name),
                 EDocAdminFileNotFoundInRepository);
    EXPECT_EQ(name, "");
}

TEST_P(DocAdminObjectTest, AHandleNotLoadedYetFindsItsFolderBeforeReadingItsDocuments) {
    IPtr<IDirectoryRoot>(NewHandle(true, false).get())
        ->Do_SaveDocument(nullptr, "a.txt", LocalFile("a.txt", "alpha"), 0);
    IPtr<IDirectoryRoot> root(NewHandle(false, false).get());
    IPtr<IDirectory> top = root->Get_RootDir();
    ASSERT_EQ(top->Get_DocumentCount(), 1);
    EXPECT_EQ(top->Get_Document(0)->Get_DocName(), "a.txt");
    EXPECT_EQ(top->Get_Title(), kRecord1);
}

TEST_P(DocAdminObjectTest, WhatIsNoItemOfThisTreeRaisesAndChangesNothing) {
    IPtr<IDirectoryRoot> root(NewHandle(true, false).get());
    IPtr<IDirectoryRoot> other(NewHandle(true, false, true, kRecord2).get());
    IPtr<IDirectory> foreign = other->Do_AddDirectory(nullptr, "Elsewhere");
    IPtr<IDocument> foreignDoc =
        other->Do_SaveDocument(foreign.get(), "x.txt", LocalFile("x.txt", "x"), 0);
    // Deleted and saved: it left the tree, though it still knows its parent.
    IPtr<IDirectory> gone = root->Do_AddDirectory(nullptr, "Gone");
    root->Do_DeleteDirectory(gone.get());
    IPtr<IDocument> mine = root->Do_SaveDocument(nullptr, "m.txt", LocalFile("m.txt", "mine"), 0);
    const std::string folder = Temp / "in";

    const std::vector<std::function<void(IDirectory*)>> onDirectory = {
        [&](IDirectory* d) { root->Do_AddDirectory(d, "child"); },
        [&](IDirectory* d) { root->Do_SaveDocument(d, "y.txt", LocalFile("y.txt", "y"), 0); },
        [&](IDirectory* d) { root->Do_DeleteDirectory(d); },
        [&](IDirectory* d) { root->Do_GetDirectoryByTitle(d, "child"); },
        [&](IDirectory* d) { root->Get_IsInTree(d, nullptr); },
        [&](IDirectory* d) { root->Do_CreateFolderStruct(d, "\"a\",\"b\""); },
        [&](IDirectory* d) { root->Do_ImportDirectory(d, folder); },
        [&](IDirectory* d) { root->Do_ExportDirectory(d, Temp / "export", false, "", ""); },
    };
    for (IDirectory* d : {foreign.get(), gone.get()})
        for (size_t i = 0; i < onDirectory.size(); ++i)
            EXPECT_THROW(onDirectory[i](d), EDocAdminException) << d->Get_Title() << " #" << i;
    const std::vector<std::function<void(IDocument*)>> onDocument = {
        [&](IDocument* d) { root->Do_DeleteDocument(d); },
        [&](IDocument* d) { root->Do_DownloadFile(d, Temp / "out"); },
        [&](IDocument* d) { root->Do_ReplaceFile(d, LocalFile("z.txt", "z"), ramDefault); },
    };
    for (IDocument* d : {foreignDoc.get(), static_cast<IDocument*>(nullptr)})
        for (size_t i = 0; i < onDocument.size(); ++i)
            EXPECT_THROW(onDocument[i](d), EDocAdminException) << "#" << i;
    EXPECT_THROW(root->Do_DeleteDirectory(nullptr), EDocAdminException);
    EXPECT_EQ(MessageOf<EDocAdminException>([&] { root->Do_AddDirectory(gone.get(), "child"); }),
              "Directory 'Gone' is not part of this document tree");

    // An id beyond 32 bits is not cut down to the id of another document.
    const std::int64_t wide = (std::int64_t{1} << 32) + mine->Get_DocID();
    EXPECT_THROW(root->Do_DeleteDocumentByID(wide), EDocAdminFileNotFoundInRepository);
    std::string name;
    EXPECT_THROW(root->Do_DownloadFileByID(wide, Temp / "out", name),
                 EDocAdminFileNotFoundInRepository);

    EXPECT_FALSE(root->Get_HasChanges());
    EXPECT_FALSE(other->Get_HasChanges());
    EXPECT_EQ(RowCount("docadmindocs"), 2);
    EXPECT_EQ(RowCount("docadmindir", "title", TVariant("Elsewhere")), 1);
    EXPECT_EQ(RowCount("docadmindir", "title", TVariant("child")), 0);
}

TEST_P(DocAdminObjectTest, ItemsHeldAfterTheHandleGoesStayUsableAndDetached) {
    const std::int32_t before = TCustomStorageItem::InstanceCount();
    IPtr<TLogNotifier> n(new TLogNotifier);
    IPtr<IDirectory> rootDir, dir;
    IPtr<IDocument> doc;
    {
        auto h = NewHandle(true, false);
        h->OnDestroy = [&](TObject* Sender) {
            n->Log.push_back(static_cast<TDocAdminObject*>(Sender)->DocAdmin() ? "destroy"
                                                                               : "no admin");
        };
        IPtr<IDirectoryRoot> root(h.get());
        IPtr<IRessourceContainer>(h.get())->Do_RegisterNotifier(n.get());
        dir = root->Do_AddDirectory(nullptr, "Letters");
        doc = root->Do_SaveDocument(dir.get(), "a.txt", LocalFile("a.txt", "alpha"), 0);
        rootDir = root->Get_RootDir();
        n->Log.clear();
    }
    EXPECT_EQ(n->Log, (std::vector<std::string>{"notify 1", "destroy"}));
    EXPECT_EQ(rootDir->Get_Title(), kRecord1);
    EXPECT_EQ(dir->Get_Title(), "Letters");
    EXPECT_EQ(dir->Get_DocumentCount(), 1);
    EXPECT_EQ(doc->Get_DocName(), "a.txt");
    EXPECT_EQ(doc->Get_Directory().get(), dir.get());
    IPtr<IRessource> r;
    ASSERT_TRUE(Supports(doc.get(), r));
    EXPECT_EQ(r->Get_Container().get(), nullptr);
    EXPECT_THROW(doc->Do_Download(Temp / "out"), EDocAdminException);
    rootDir.reset();
    dir.reset();
    doc.reset();
    r.reset();
    EXPECT_EQ(TCustomStorageItem::InstanceCount(), before);
}

TEST_P(DocAdminObjectTest, ALoadKeepsChangesNotYetSavedInATreeInUse) {
    auto admin = NewAdmin(kPlugin, RecordPath(kRecord1));
    admin->SetAutoSave(false);
    IPtr<TDocAdminObject> h(new TDocAdminObject(admin.release(), false, "", 0, false, false));
    IPtr<IDirectoryRoot> root(h.get());
    root->Do_AddDirectory(nullptr, "Draft");
    EXPECT_EQ(IPtr<IRessourceContainer>(h.get())->Get_Count(), 1);
    EXPECT_TRUE(root->Get_HasChanges());
    root->Do_SaveChanges();
    EXPECT_EQ(RowCount("docadmindir", "title", TVariant("Draft")), 1);
}

DB_INSTANTIATE(DocAdminObjectTest);

}  // namespace
}  // namespace docadmin::test
