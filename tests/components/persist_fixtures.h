// Fixtures of the persistence tests: a TDBDocAdmin on a fresh database (SQLite file or a private
// PostgreSQL schema, by test parameter) with a real local store in a temporary folder, whose
// transfers can be made to fail, and a scripted answerer for the host's message dialog.
#pragma once

#include <gtest/gtest.h>

#include <algorithm>
#include <deque>
#include <memory>
#include <string>

#include "_DBBackend.h"
#include "_Dialogs.h"
#include "_TDBDocAdmin.h"
#include "_TDocFileLoaderLocFile.h"
#include "components_fixtures.h"
#include "host/db/db_test_support.h"
#include "host/runtime/test_main_interface.h"

namespace docadmin::test {

// The host as far as an administrator needs it: the database and nothing else.
class TPersistMain : public TTestMainInterface {
  public:
    IDBFieldSchema* GetDBFieldSchema() override {
        return const_cast<IDBFieldSchema*>(DB->GetFieldSchema());
    }
    IDBInterface* GetDBInterface() override { return DB; }

    IDBInterface* DB = nullptr;
};

// The local store with counters and switches for failures.
class TFlakyStore : public TDocFileLoaderLocFile {
  public:
    explicit TFlakyStore(const std::string& AFolder) : TDocFileLoaderLocFile(nullptr) {
        SetUseCompression(false);
        SetFilePath(AFolder);
    }
    std::string UploadFile(const std::string& LocalFileName, const std::string& RemoteFileName,
                           TUploadMode Mode) override {
        ++Uploads;
        if (FailUploadsAfter >= 0 && FailUploadsAfter-- == 0) FailUploads = 1;
        if (FailUploads > 0) {
            --FailUploads;
            throw EInOutError("Upload of '" + LocalFileName + "' failed: no space left");
        }
        std::string r = TDocFileLoaderLocFile::UploadFile(LocalFileName, RemoteFileName, Mode);
        if (CloseGracefully) throw EIdConnClosedGracefully("Connection Closed Gracefully.");
        return r;
    }
    void RemoveFile(const std::string& RemoteFile, const std::string& ADescription) override {
        ++Removes;
        if (OnRemove) OnRemove();
        if (FailRemoves)
            throw EKRUserMessageException("File " + RemotePath(RemoteFile) +
                                          " can't be removed from the repository: read-only");
        TDocFileLoaderLocFile::RemoveFile(RemoteFile, ADescription);
    }
    bool Has(const std::string& remote) const { return fs::exists(RemotePath(remote)); }
    std::string Content(const std::string& remote) const { return ReadFile(RemotePath(remote)); }

    int Uploads = 0;
    int Removes = 0;
    int FailUploads = 0;        // so many uploads fail before the next one works
    int FailUploadsAfter = -1;  // after so many uploads the next one fails (-1: never)
    bool FailRemoves = false;
    std::function<void()> OnRemove;
    bool CloseGracefully = false;
};

inline const std::string kPlugin = "{0C7D51E2-1F0B-4C55-9E7A-3B8F2D6A4C10}";

// The path of a record's folder below the plug-in's "Invoices#Records" folder.
inline std::string RecordPath(const std::string& ARecord) {
    return "\"" + kPlugin + "\",Invoices#Records," + ARecord;
}

// A stored document, as StoreOne leaves it.
struct TStored {
    std::int64_t DirID = 0;
    std::int32_t DocID = 0;
    std::string Remote;
};

class PersistTest : public docadmin::testing::DBTest {
  public:
    using DBTest::Insert;
    using DBTest::Set;

    void SetUp() override {
        DBTest::SetUp();
        if (IsSkipped() || HasFatalFailure()) return;
        Main.DB = DB.get();
        FPrevAnswerer =
            SetMessageDlgAnswerer([this](const std::string& msg, TMsgDlgType, TMsgDlgButtons) {
                DialogMessages.push_back(msg);
                if (Answers.empty()) return mrAbort;
                const int a = Answers.front();
                Answers.pop_front();
                return a;
            });
    }
    void TearDown() override {
        SetMessageDlgAnswerer(FPrevAnswerer);
        DBTest::TearDown();
    }

    // An administrator of kPlugin (or another plug-in value) on the test's database and store.
    std::unique_ptr<TDBDocAdmin> NewAdmin(const std::string& APlugin = kPlugin,
                                          const std::string& ARootPath = "") {
        auto admin = std::make_unique<TDBDocAdmin>(nullptr);
        admin->SetMainInterface(&Main);
        admin->SetPluginGUID(APlugin);
        admin->SetPlugin(APlugin);
        admin->SetRootDirectoryPath(ARootPath);
        admin->SetDocFileLoader(new TFlakyStore(StoreDir()));
        return admin;
    }
    static TFlakyStore& Store(TDBDocAdmin& AAdmin) {
        return *static_cast<TFlakyStore*>(AAdmin.DocFileLoader());
    }
    std::string StoreDir() const { return Temp / "store"; }
    std::string LocalFile(const std::string& name, const std::string& content) {
        const std::string path = Temp / ("in/" + name);
        WriteFile(path, content);
        return path;
    }
    // A folder "A" with one document "a.txt" of the content, saved through the administrator.
    TStored StoreOne(TDBDocAdmin& admin, const std::string& content = "v1") {
        admin.Directories()->ChildDirectoryCount();
        TDocDirectory* a = admin.AddDirectory(nullptr, "A");
        TDocument* doc = admin.SaveDoc(nullptr, chAdded, LocalFile("a.txt", content), a, "", 0);
        return {a->DirID(), doc->DocID(), doc->RemoteFileName()};
    }
    // The rows of a schema, all columns, with an optional equality filter.
    std::unique_ptr<TKRRecordSet> Rows(const std::string& schema, const std::string& field = "",
                                       const TVariant& value = TVariant()) {
        auto rs = Set(schema);
        rs->SetSelectAll(true);
        if (!field.empty()) AddFilter(rs->GetFilters(), field, value);
        rs->Open();
        return rs;
    }
    int RowCount(const std::string& schema, const std::string& field = "",
                 const TVariant& value = TVariant()) {
        return Rows(schema, field, value)->GetRecordCount();
    }
    std::unique_ptr<TKRRecordSet> Row(const std::string& schema, std::int64_t id) {
        return Rows(schema, "id", TVariant(static_cast<long long>(id)));
    }
    static std::uint64_t Statements() { return DBStatementCount(); }
    // Rows as another client may have written them, past the administrator's checks.
    std::int64_t InsertDir(const std::string& title, std::int64_t parent,
                           const std::string& plugin = kPlugin) {
        return Insert("docadmindir", {{"title", TVariant(title)},
                                      {"parentdirid", TVariant(static_cast<long long>(parent))},
                                      {"pluginguid", TVariant(plugin)}});
    }
    std::int64_t InsertDoc(const std::string& name, std::int64_t dir,
                           const std::string& remote = "") {
        return Insert("docadmindocs", {{"docname", TVariant(name)},
                                       {"dirid", TVariant(static_cast<long long>(dir))},
                                       {"fllocname", TVariant(remote)},
                                       {"flversion", TVariant("1.0.0.0")}});
    }

    TPersistMain Main;
    TTempDir Temp;
    std::deque<int> Answers;  // answers of the dialog, in order; Abort when none is left
    std::vector<std::string> DialogMessages;

  private:
    TMessageDlgAnswerer FPrevAnswerer;
};

}  // namespace docadmin::test
