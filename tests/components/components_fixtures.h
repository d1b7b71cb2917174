// Test doubles for the document tree: a file store in a temporary folder, an in-memory user
// access, and an administrator with a small in-memory persistence.
#pragma once

#include <gtest/gtest.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <map>
#include <set>
#include <string>
#include <vector>

#include "_TBaseDocAdmin.h"
#include "host/test_helpers.h"

namespace docadmin::test {

namespace fs = std::filesystem;

// Every entry below root, relative, folders with a trailing '/', sorted.
inline std::vector<std::string> Listing(const std::string& root) {
    std::vector<std::string> r;
    for (auto& e : fs::recursive_directory_iterator(root))
        r.push_back(fs::relative(e.path(), root).string() + (e.is_directory() ? "/" : ""));
    std::sort(r.begin(), r.end());
    return r;
}

// Keeps files flat in a folder under generated names.
class TTestStore : public TBaseDocFileLoader {
  public:
    explicit TTestStore(const std::string& folder) : TBaseDocFileLoader(nullptr), FFolder(folder) {
        fs::create_directories(folder);
    }
    std::string UploadFile(const std::string& LocalFileName, const std::string& RemoteFileName,
                           TUploadMode Mode) override {
        const std::string name = Mode == upmNew ? GenerateNewFileName() : RemoteFileName;
        fs::copy_file(LocalFileName, FFolder + "/" + name, fs::copy_options::overwrite_existing);
        return name;
    }
    void DownloadFile(const std::string& RemoteFile, const std::string& DestFileName) override {
        ++Downloads;
        if (!fs::exists(FFolder + "/" + RemoteFile))
            throw EFileNotFoundInRepositoryException("File '" + RemoteFile +
                                                     "' not found in repository!");
        fs::copy_file(FFolder + "/" + RemoteFile, DestFileName,
                      fs::copy_options::overwrite_existing);
    }
    void RemoveFile(const std::string& RemoteFile, const std::string& /*ADescription*/) override {
        if (!RemoveFailure.empty()) throw EInOutError(RemoveFailure);
        if (!fs::remove(FFolder + "/" + RemoteFile))
            throw EFileNotFoundInRepositoryException("File '" + RemoteFile + "' not found!");
    }
    bool Has(const std::string& remote) const { return fs::exists(FFolder + "/" + remote); }

    int Downloads = 0;
    std::string RemoveFailure;  // when set, RemoveFile raises with this text

  private:
    std::string FFolder;
};

// Rights held in memory.
class TTestUserAccess : public TInterfacedImpl<IUserAccess> {
  public:
    std::int32_t GetUserID() override { return UserID; }
    bool IsReadOnly() override { return ReadOnly; }
    std::int32_t GetGroupAccessMode(std::int64_t AGroupID) override {
        auto it = Modes.find(AGroupID);
        return it == Modes.end() ? 0 : it->second;
    }
    TKRACLDataTableController* GetACLTableController(const std::string& ATableName) override {
        // Only compared against null by the tree, never dereferenced.
        static int marker;
        return ACLTables.count(ATableName) ? reinterpret_cast<TKRACLDataTableController*>(&marker)
                                           : nullptr;
    }

    std::int32_t UserID = 7;
    bool ReadOnly = false;
    std::map<std::int64_t, std::int32_t> Modes;  // group -> mode; missing groups have mode 0
    std::set<std::string> ACLTables;
};

// An administrator whose "database" is a map of saved documents. Directory loads only mark the
// directory loaded (and can be scripted); a save gives new items ids and uploads new files.
class TTestDocAdmin : public TBaseDocAdmin {
  public:
    struct TRow {
        std::string Name;
        std::string Remote;
    };

    explicit TTestDocAdmin(TComponent* AOwner = nullptr) : TBaseDocAdmin(AOwner) {}

    bool DoSaveChanges() override {
        ++SaveCalls;
        if (OnSave) OnSave();
        bool any = false;
        SaveDir(Directories(), any);
        return any;
    }
    void LoadDirectories(TDocDirectory* ADirectory, const std::string& AName) override {
        LoadDirectoriesCalls.push_back(AName);
        if (OnLoadDirectories) OnLoadDirectories(ADirectory, AName);
        ADirectory->SetLoadingState(lsChildDirectoriesLoaded);
    }
    void LoadFilesForDirectory(const std::vector<TDocDirectory*>& ADirs) override {
        for (TDocDirectory* d : ADirs) {
            ++LoadFilesCalls;
            d->SetLoadingState(lsDocumentsLoaded);
        }
    }
    std::string GetDocumentFileInfo(std::int32_t ADocumentID, std::string& ADocName,
                                    TDateTime& ADate, bool AGenerateIfEmpty) override {
        TBaseDocAdmin::GetDocumentFileInfo(ADocumentID, ADocName, ADate, AGenerateIfEmpty);
        auto it = Rows.find(ADocumentID);
        if (it == Rows.end()) return {};
        ADocName = it->second.Name;
        return it->second.Remote;
    }
    void DeleteDocumentRow(std::int32_t ADocumentID) override { Rows.erase(ADocumentID); }

    std::function<void(TDocDirectory*, const std::string&)> OnLoadDirectories;
    std::function<void()> OnSave;
    std::vector<std::string> LoadDirectoriesCalls;
    int LoadFilesCalls = 0;
    int SaveCalls = 0;
    std::map<std::int32_t, TRow> Rows;
    std::int32_t NextID = 100;

  private:
    void SaveDir(TDocDirectory* dir, bool& any) {
        for (TDocDirectory* child : dir->ChildDirectoriesInMemory()) {
            if (child->ChangeState() == chAdded) {
                child->SetDirID(NextID++);
                child->SetChangeState(chNone);
                any = true;
            }
            SaveDir(child, any);
        }
        const auto& docs = dir->DocumentsInMemory();
        for (size_t i = docs.size(); i-- > 0;) {
            TDocument* doc = docs[i];
            if (doc->ChangeState() == chNone) continue;
            any = true;
            if (doc->ChangeState() == chDeleted) {
                Rows.erase(doc->DocID());
                if (OnDeleteDocument) OnDeleteDocument(this, doc);
                dir->DeleteDocument(static_cast<std::int32_t>(i));
                continue;
            }
            doc->BeginLoad();
            if (doc->ChangeState() == chAdded) {
                doc->SetRemoteFileName(DocFileLoader()->UploadFile(doc->LocalFile(), "", upmNew));
                doc->SetDocID(NextID++);
            }
            doc->SetDocName(ExtractFileName(doc->DocName()));
            doc->SetChangeState(chNone);
            doc->SetFileHasChanged(false);
            doc->EndLoad();
            Rows[doc->DocID()] = {doc->DocName(), doc->RemoteFileName()};
        }
    }
};

// Every test ends with no storage item alive.
class TreeTest : public ::testing::Test {
  protected:
    void SetUp() override { FItemsBefore = TCustomStorageItem::InstanceCount(); }
    void TearDown() override { EXPECT_EQ(TCustomStorageItem::InstanceCount(), FItemsBefore); }

    // A local file with content in the test's folder.
    std::string LocalFile(const std::string& name, const std::string& content = "x") {
        const std::string path = Temp / name;
        WriteFile(path, content);
        return path;
    }

    std::int32_t ItemsBefore() const { return FItemsBefore; }

    TTempDir Temp;

  private:
    std::int32_t FItemsBefore = 0;
};

}  // namespace docadmin::test
