#include "_TDBDocAdmin.h"

#include "_Dialogs.h"
#include "_DocArchive.h"
#include "_TUniqueFolderCache.h"

namespace docadmin {

namespace {

TVariant Int(std::int64_t v) {
    return TVariant(static_cast<long long>(v));
}

// Parser comparisons to filter types, by the parser's numbering.
TFilterType MapCompare(TSQLParserCompare ACompare) {
    static constexpr TFilterType kMap[] = {ftEqual,     ftExactEqual, ftNotEqual,     ftLess,
                                           ftLessEqual, ftGreater,    ftGreaterEqual, ftLike,
                                           ftInList,    ftNotInList};
    const auto i = static_cast<size_t>(ACompare);
    if (i >= std::size(kMap))
        throw Exception("Unknown comparison " + std::to_string(static_cast<int>(i)) +
                        " in a document filter");
    return kMap[i];
}

TFilterLink MapLink(int ALink) {
    return ALink == plOr ? flOr : ALink == plAnd ? flAnd : flNone;
}

int StatementKind(TChangeState AState) {
    switch (AState) {
        case chAdded:
            return 0;
        case chChanged:
            return 1;
        case chDeleted:
            return 2;
        default:
            Assert(false, "TDBDocAdmin.SaveChanges: not implemented ChangeState!");
            return -1;
    }
}

// Keys are 64 bits in the tables; the tree keeps the low 32 bits of its ids.
std::int32_t Low32(std::int64_t v) {
    return static_cast<std::int32_t>(static_cast<std::uint32_t>(v & 0xFFFFFFFF));
}

// Ends a transaction after a failure; the failure is the one to report, not the rollback's.
void RollbackQuietly(IDBInterface& ADB, std::int64_t ATransaction) noexcept {
    try {
        ADB.RollbackTransaction(ATransaction);
    } catch (...) {
    }
}

// Limits a change of a document row to the row that still names the remote file it was loaded
// with. Rows from before the file store may have no remote name: empty or null.
void AddLoadedRemoteFilter(IDBSQLStatement& AStatement, const std::string& ARemote) {
    if (!ARemote.empty()) {
        AStatement.AddFilter("fllocname", TVariant(ARemote), ftExactEqual, flAnd);
        return;
    }
    AStatement.AddFilter("fllocname", TVariant(std::string()), ftExactEqual, flAnd, pOpen);
    AStatement.AddFilter("fllocname", TVariant(), ftIsNull, flOr, pClose);
}

// A parent or directory id as written to a row: the tree's root may still carry -1 (not loaded).
std::int64_t RowDirID(const TDocDirectory* ADir) {
    return ADir && ADir->DirID() > 0 ? ADir->DirID() : 0;
}

}  // namespace

// ---- Loader record sets

TBaseLoaderRecordSet::TBaseLoaderRecordSet(TComponent* AOwner) : TKRRecordSet(AOwner) {}

TDBDocAdmin* TBaseLoaderRecordSet::DocAdminOwner() const {
    auto* owner = dynamic_cast<TDBDocAdmin*>(Owner());
    Assert(owner != nullptr, "A loader record set belongs to a TDBDocAdmin");
    return owner;
}

void TBaseLoaderRecordSet::InternalSetFiltersToSchema(TFilterContext AContext) {
    TKRRecordSet::InternalSetFiltersToSchema(AContext);
    if (FDisableRecordFlagFilter) return;
    TDBDocAdmin* owner = DocAdminOwner();
    if (owner->ActiveRecordFlagTypes() == 0) return;
    TRecordFlagsPlugin* flags = owner->RecordFlagsPlugin();
    if (!flags || !flags->Available()) return;
    IDBFieldSchemaItem* schema = GetActiveSchema();
    if (IPtr<IKRRecordFlagsTable> table = flags->GetPlugin(schema->GetSQLTableName()))
        table->AddFlagTypesCondition(schema->GetFilters(), schema->GetKeyFieldName(),
                                     owner->ActiveRecordFlagTypes());
}

void TBaseLoaderRecordSet::ApplySQLFilterGroup(const TSQLParserFilterGroup& AGroup) {
    IDBFieldSchemaItem* schema = GetActiveSchema();
    IDBSchemaFilters* filters = schema->GetFilters();
    if (AGroup.Link != plNone) AddFilterGroup(filters, pOpen, MapLink(AGroup.Link));
    for (const TSQLParserFilter& f : AGroup.Filters) {
        if (f.LeftKind != pvkFieldName || f.RightKind != pvkValue)
            throw Exception("Error in DOC:\\\\ WHERE-Filter: Left value \"" + f.LeftValue +
                            "\" must be a fieldname and right value \"" + f.RightValue +
                            "\" must be a value!");
        const TFilterType type = MapCompare(f.Compare);
        const TFilterLink link = MapLink(f.Link);
        if (f.LeftValue == "recordflags") {
            TDBDocAdmin* owner = DocAdminOwner();
            TRecordFlagsPlugin* flags = owner->RecordFlagsPlugin();
            if (!flags) throw Exception("Filtering by record flags needs the record flags service");
            IPtr<IKRRecordFlagsTable> table = flags->GetPlugin(schema->GetSQLTableName());
            if (!table) throw Exception("No record flags for table " + schema->GetSQLTableName());
            IPtr<IIntegerListData> ids(new TIntegerListData(new TSortedIntegerList, true));
            const std::int64_t meta = GetSchemaName() == owner->DirSection()
                                          ? owner->DirectoryRecordFlagsMetaID()
                                          : owner->DocumentRecordFlagsMetaID();
            table->FlagNamesToIDs(f.RightValue, meta, ids->Get_List());
            table->AddFlagIDsCondition(filters, schema->GetKeyFieldName(), ids->Get_List(), type,
                                       link);
            continue;
        }
        // The value goes as text; the data layer converts it for the column.
        AddFilter(filters, f.LeftValue, TVariant(f.RightValue), type, link);
    }
    for (const TSQLParserFilterGroup& g : AGroup.Groups)
        ApplySQLFilterGroup(g);
    if (AGroup.Link != plNone) AddFilterGroup(filters, pClose, flAnd);
}

void TDocLoaderRecordSet::InternalSetFiltersToSchema(TFilterContext AContext) {
    TBaseLoaderRecordSet::InternalSetFiltersToSchema(AContext);
    TDBDocAdmin* owner = DocAdminOwner();
    if (!owner->HasSQLFilters()) return;
    IDBSchemaFilters* filters = GetActiveSchema()->GetFilters();
    AddFilterGroup(filters, pOpen, flAnd, ftEqual);
    ApplySQLFilterGroup(owner->SQLFilters()->WhereGroup());
    AddFilterGroup(filters, pClose, flAnd, ftEqual);
}

// ---- TDBDocAdmin

TDBDocAdmin::TDBDocAdmin(TComponent* AOwner)
    : TBaseDocAdmin(AOwner), FDirSection("docadmindir"), FDocSection("docadmindocs") {}

IDBInterface* TDBDocAdmin::Database() const {
    IDBInterface* db = MainInterface() ? MainInterface()->GetDBInterface() : nullptr;
    if (!db) throw EDocAdminException("The document administrator has no database");
    return db;
}

void TDBDocAdmin::PrepareLoader(TBaseLoaderRecordSet& ASet, bool ADirectories) {
    ASet.SetDatabase(Database());
    ASet.SetSchemaName(ADirectories ? FDirSection : FDocSection);
    ASet.SetDBATransactionID(FDBATransactionID);
    ASet.SetUpdateMode(umWriteBack);
    ASet.SetOptions({rsoUserRowRights});
    static const std::vector<const char*> kDirIDs = {"parentdirid", "creaid", "lastchangedid",
                                                     "globalaclgrp"};
    static const std::vector<const char*> kDocIDs = {"dirid", "creaid", "lastchangedid"};
    for (const char* field : ADirectories ? kDirIDs : kDocIDs)
        ASet.GetSelectFieldOptions(field).DisableLookupValueLoading = true;
}

// ---- Loading

void TDBDocAdmin::LoadDirectories(TDocDirectory* ADirectory, const std::string& AUniqueFolderName) {
    if (!ADirectory->LoadingState().Contains(lsChildDirectoriesLoaded) &&
        ADirectory->ChangeState() != chAdded)
        ADirectory->DeleteChildFileObjects({lsChildDirectoriesLoaded});
    NotifyLoadingState(lsDocumentLoadingStarted);
    {
        TFinally finished{[this] { NotifyLoadingState(lsDocumentLoadingFinished); }};
        QueryDirectories(ADirectory, AUniqueFolderName);
    }
    ADirectory->SetLoadingState(lsChildDirectoriesLoaded);
}

void TDBDocAdmin::QueryDirectories(TDocDirectory* ADirectory,
                                   const std::string& AUniqueFolderName) {
    const bool recordRoot =
        !AUniqueFolderName.empty() && TUniqueFolderCache::GetIsRecordRootFolder(AUniqueFolderName);
    if (FUniqueFolderCache && recordRoot &&
        FUniqueFolderCache->LoadUniqueFolder(FPlugin, AUniqueFolderName, ADirectory))
        return;

    TDirectoryLoaderRecordSet rs(this);
    PrepareLoader(rs, true);
    if (!AUniqueFolderName.empty()) {
        // A unique folder is found by its title wherever it stands.
        AddFilter(rs.GetFilters(), "title", TVariant(AUniqueFolderName));
        rs.SetDisableRecordFlagFilter(true);
    } else if (ADirectory->DirID() < 1) {
        rs.SetUniqueFolderName(std::string());
        rs.OnSetFiltersToSchema = [this](TObject* Sender) { RootFolderFilter(Sender); };
        rs.SetDisableRecordFlagFilter(true);
    } else {
        AddFilter(rs.GetFilters(), "parentdirid", Int(ADirectory->DirID()));
    }

    if (FPlugin == GlobalPluginGUID) {
        AddFilter(rs.GetFilters(), "pluginguid", TVariant(std::string()));
    } else if (FPlugin != AllPluginsGUID) {
        if (FAllwaysLoadGlobal) {
            AddFilterGroup(rs.GetFilters(), pOpen, flAnd);
            AddFilter(rs.GetFilters(), "pluginguid", TVariant(FPlugin), ftEqual, flNone);
            AddFilter(rs.GetFilters(), "pluginguid", TVariant(std::string()), ftEqual, flOr);
            AddFilterGroup(rs.GetFilters(), pClose, flAnd);
        } else {
            AddFilter(rs.GetFilters(), "pluginguid", TVariant(FPlugin));
        }
    }

    rs.Open();
    const int cTitle = rs.GetFieldIndex("title");
    const int cPlugin = rs.GetFieldIndex("pluginguid");
    const int cCreaDate = rs.GetFieldIndex("creadate");
    const int cCreaID = rs.GetFieldIndex("creaid");
    const int cACL = rs.GetFieldIndex("globalaclgrp");
    const int cRecUID = rs.GetFieldIndex("globalrecuid");
    const int cChangeDate = rs.GetFieldIndex("lastchangedtsp");
    const int cChangeID = rs.GetFieldIndex("lastchangedid");
    TDocDirectory* first = nullptr;
    for (int i = 0; i < rs.GetRecordCount(); ++i) {
        TDocDirectory* dir = ADirectory->AddChildDirectory();
        if (!first) first = dir;
        dir->SetDirID(rs.GetDBIDByRecNo(i));
        dir->SetTitel(rs.ValueByIndex(i, cTitle).GetAsString());
        dir->SetPlugin(rs.ValueByIndex(i, cPlugin).GetAsString());
        dir->SetCreaDate(rs.ValueByIndex(i, cCreaDate).GetAsFloat());
        dir->SetCreaID(Low32(rs.ValueByIndex(i, cCreaID).GetRealValue()));
        dir->SetACLGroupID(rs.ValueByIndex(i, cACL).GetRealValue());
        dir->SetGlobalRecUID(rs.ValueByIndex(i, cRecUID).GetAsString());
        dir->SetChangeDate(rs.ValueByIndex(i, cChangeDate).GetAsFloat());
        dir->SetChangeID(Low32(rs.ValueByIndex(i, cChangeID).GetRealValue()));
        // The setters mark the item; it is as stored.
        dir->SetChangeState(chNone);
    }
    if (FUniqueFolderCache && recordRoot && first) FUniqueFolderCache->CacheUniqueFolder(first);
}

void TDBDocAdmin::RootFolderFilter(TObject* Sender) {
    auto* rs = dynamic_cast<TDirectoryLoaderRecordSet*>(Sender);
    Assert(rs != nullptr, "TDBDocAdmin.RootFolderFilter: not a directory loader");
    IDBSchemaFilters* filters = rs->GetActiveSchema()->GetFilters();
    if (rs->UniqueFolderName().empty()) {
        // Top level: the parent is no row of the table (0, or a row that has gone). A parent
        // written as null by some other tool counts as top level too.
        AddFilterGroup(filters, pOpen, flAnd);
        TClientSQLFilter* f = AddFilter(filters, "parentdirid", TVariant(), ftNotInList, flNone);
        f->SetSubSelect(FDirSection, "id");
        AddFilter(filters, "parentdirid", TVariant(), ftIsNull, flOr);
        AddFilterGroup(filters, pClose, flAnd);
    } else {
        TClientSQLFilter* f = AddFilter(filters, "parentdirid", TVariant(), ftInList, flAnd);
        f->SetSubSelect(FDirSection, "id");
        AddFilter(f->GetSubSelectFilters(), "title", TVariant(rs->UniqueFolderName()));
    }
}

void TDBDocAdmin::LoadFilesForDirectory(const std::vector<TDocDirectory*>& ADirs) {
    TSortedIntegerList ids;
    for (TDocDirectory* dir : ADirs) {
        if (dir->LoadingState().Contains(lsDocumentsLoaded) || dir->ChangeState() == chAdded)
            continue;
        dir->DeleteChildFileObjects({lsDocumentsLoaded});
        ids.Add(RowDirID(dir));
    }
    if (ids.Count() == 0) return;

    TDocLoaderRecordSet rs(this);
    PrepareLoader(rs, false);
    rs.GetOrderFields()->SetOrder("docname", true, false);
    AddFilter(rs.GetFilters(), "dirid", TVariant(ids.GetAsCommaText()), ftInList);
    rs.Open();

    const int cDirID = rs.GetFieldIndex("dirid");
    const int cName = rs.GetFieldIndex("docname");
    const int cRemote = rs.GetFieldIndex("fllocname");
    const int cVersion = rs.GetFieldIndex("flversion");
    const int cSize = rs.GetFieldIndex("flsize");
    const int cDate = rs.GetFieldIndex("fldate");
    const int cCreaDate = rs.GetFieldIndex("creadate");
    const int cCreaID = rs.GetFieldIndex("creaid");
    const int cACL = rs.GetFieldIndex("globalaclgrp");
    const int cRecUID = rs.GetFieldIndex("globalrecuid");
    const int cTags = rs.GetFieldIndex("doctags");
    const int cChangeDate = rs.GetFieldIndex("lastchangedtsp");
    const int cChangeID = rs.GetFieldIndex("lastchangedid");
    for (int i = 0; i < rs.GetRecordCount(); ++i) {
        const std::int32_t dirID = Low32(rs.ValueByIndex(i, cDirID).GetRealValue());
        TDocDirectory* dir = nullptr;
        for (TDocDirectory* d : ADirs)
            if (RowDirID(d) == dirID && ids.IndexOf(dirID) >= 0) {
                dir = d;
                break;
            }
        if (!dir) continue;
        TDocument* doc = dir->AddDocument();
        doc->BeginLoad();
        TFinally endLoad{[doc] { doc->EndLoad(); }};
        doc->SetDocID(Low32(rs.GetDBIDByRecNo(i)));
        doc->SetDocName(rs.ValueByIndex(i, cName).GetAsString());
        doc->SetRemoteFileName(rs.ValueByIndex(i, cRemote).GetAsString());
        doc->SetVersion(StrToFileVersion(rs.ValueByIndex(i, cVersion).GetAsString(), 4));
        doc->SetSize(rs.ValueByIndex(i, cSize).GetAsInteger());
        doc->SetDate(rs.ValueByIndex(i, cDate).GetAsFloat());
        doc->SetCreaDate(rs.ValueByIndex(i, cCreaDate).GetAsFloat());
        doc->SetCreaID(Low32(rs.ValueByIndex(i, cCreaID).GetRealValue()));
        doc->SetACLGroupID(rs.ValueByIndex(i, cACL).GetRealValue());
        doc->SetGlobalRecUID(rs.ValueByIndex(i, cRecUID).GetAsString());
        doc->SetDocumentTags(
            static_cast<TDocAdminDocTags>(rs.ValueByIndex(i, cTags).GetAsInteger()));
        doc->SetChangeDate(rs.ValueByIndex(i, cChangeDate).GetAsFloat());
        doc->SetChangeID(Low32(rs.ValueByIndex(i, cChangeID).GetRealValue()));
        doc->SetChangeState(chNone);
    }
    for (TDocDirectory* dir : ADirs)
        if (ids.IndexOf(RowDirID(dir)) >= 0 && dir->ChangeState() != chAdded)
            dir->SetLoadingState(lsDocumentsLoaded);
}

std::string TDBDocAdmin::GetDocumentFileInfo(std::int32_t ADocumentID, std::string& ADocName,
                                             TDateTime& ADate, bool AGenerateIfEmpty) {
    TBaseDocAdmin::GetDocumentFileInfo(ADocumentID, ADocName, ADate, AGenerateIfEmpty);
    if (ADocumentID <= 0) return {};
    TKRRecordSet rs(this);
    rs.SetDatabase(Database());
    rs.SetSchemaName(FDocSection);
    rs.SetDBATransactionID(FDBATransactionID);
    rs.SetUpdateMode(umWriteBack);
    rs.SetSelectAll(false);
    for (const char* field : {"id", "fllocname", "docname", "fldate"})
        rs.GetSelectFields()->Add(field);
    AddFilter(rs.GetFilters(), "id", Int(ADocumentID));
    rs.Open();
    if (rs.GetRecordCount() == 0) return {};
    if (AGenerateIfEmpty && rs.ValueByName(0, "fllocname").GetAsString().empty()) {
        // Rows from before the file store got a remote name on first use.
        rs.ValueByName(0, "fllocname", true).SetAsString(TBaseDocFileLoader::GenerateNewFileName());
        rs.SaveRecordNumber(0);
    }
    ADocName = rs.ValueByName(0, "docname").GetAsString();
    ADate = rs.ValueByName(0, "fldate").GetAsFloat();
    return rs.ValueByName(0, "fllocname").GetAsString();
}

// ---- Saving

bool TDBDocAdmin::DoSaveChanges() {
    IDBInterface* db = Database();
    IPtr<IDBFieldSchemaItem> dirItem = GetSchemaByName(db->GetFieldSchema(), FDirSection);
    IPtr<IDBFieldSchemaItem> docItem = GetSchemaByName(db->GetFieldSchema(), FDocSection);
    IPtr<IDBSQLStatement> statement = db->CreateStatement(FPluginGUID);
    statement->SetDBATransactionID(FDBATransactionID);
    if (!dirItem || !docItem)
        throw Exception("Not all dbsections found! Required sections: " + FDocSection + ", " +
                        FDirSection);
    bool saved = false;
    if (FDocFileLoader) {
        // Tell the store what the first pass will upload, so it can prepare the transfers.
        std::vector<std::string> uploads;
        CollectUploads(FDirectories, uploads);
        if (!uploads.empty()) FDocFileLoader->PrepareUploads(uploads);
    }
    TFinally endUploads{[this] {
        if (FDocFileLoader) FDocFileLoader->EndPreparedUploads();
    }};
    const bool batched = FBatchSize > 0;
    FCommittedDocuments = 0;
    if (batched) {
        FBatchOrder.clear();
        CollectUploadDocuments(FDirectories, FBatchOrder);
        FBatchNext = 0;
        BeginSaveBatch();
        statement->SetDBATransactionID(FDBATransactionID);
    }
    try {
        SaveDirectoryTree(*statement, dirItem.get(), docItem.get(), FDirectories, true, saved);
        SaveDirectoryTree(*statement, dirItem.get(), docItem.get(), FDirectories, false, saved);
        if (batched) {
            FBatchOpen = false;
            FBatchCommit();
            FCommittedDocuments += FBatchDocuments;
            FUploaded.clear();
        }
    } catch (...) {
        if (batched) {
            if (FBatchOpen) {
                FBatchOpen = false;
                try {
                    FBatchRollback();
                } catch (...) {  // the original failure is the one to report
                }
            }
            // Files uploaded ahead whose rows were rolled back or never written.
            for (auto& [doc, remote] : FUploaded)
                DropUpload(remote);
            FUploaded.clear();
            FPendingRemovals.clear();
        }
        throw;
    }
    RemoveDeletedDirectories(FDirectories);
    if (FDBATransactionID == 0 || batched) RemovePendingFiles();
    return saved;
}

void TDBDocAdmin::SetSaveBatching(std::size_t ABatchSize, std::function<void()> ABegin,
                                  std::function<void()> ACommit, std::function<void()> ARollback) {
    FBatchSize = ABatchSize;
    FBatchBegin = std::move(ABegin);
    FBatchCommit = std::move(ACommit);
    FBatchRollback = std::move(ARollback);
}

void TDBDocAdmin::BeginSaveBatch() {
    // The uploads run with no transaction open, so that other writers never wait for them.
    const std::size_t end = std::min(FBatchOrder.size(), FBatchNext + FBatchSize);
    for (; FBatchNext < end; ++FBatchNext) {
        TDocument* doc = FBatchOrder[FBatchNext];
        bool skipped = false;
        const std::string remote = SaveDocumentFile(doc, skipped);
        if (!skipped) FUploaded[doc] = remote;
    }
    FBatchBegin();
    FBatchOpen = true;
    FBatchDocuments = 0;
}

void TDBDocAdmin::DocumentSaved(IDBSQLStatement& AStatement) {
    if (FBatchSize == 0) return;
    if (++FBatchDocuments < FBatchSize) return;
    FBatchOpen = false;
    FBatchCommit();
    FCommittedDocuments += FBatchDocuments;
    FUploaded.clear();
    RemovePendingFiles();
    BeginSaveBatch();
    AStatement.SetDBATransactionID(FDBATransactionID);
}

void TDBDocAdmin::DropUpload(const std::string& ARemoteFile) noexcept {
    if (ARemoteFile.empty() || !FDocFileLoader) return;
    try {
        FDocFileLoader->RemoveFile(ARemoteFile, std::string());
    } catch (...) {  // left as a file that no row names
    }
}

// The local files that SaveDirectoryTree's first pass uploads, in the order it uploads them:
// the subdirectories' documents first, depth first, then the directory's own from last to first.
void TDBDocAdmin::CollectUploads(TDocDirectory* ADirectory, std::vector<std::string>& AFiles) {
    for (TDocDirectory* child : ADirectory->ChildDirectoriesInMemory())
        CollectUploads(child, AFiles);
    const auto& docs = ADirectory->DocumentsInMemory();
    for (size_t i = docs.size(); i-- > 0;) {
        const TDocument* doc = docs[i];
        const TChangeState state = doc->ChangeState();
        if (state == chAdded || (state == chChanged && doc->FileHasChanged()))
            AFiles.push_back(doc->LocalFile());
    }
}

void TDBDocAdmin::CollectUploadDocuments(TDocDirectory* ADirectory,
                                         std::vector<TDocument*>& ADocs) {
    for (TDocDirectory* child : ADirectory->ChildDirectoriesInMemory())
        CollectUploadDocuments(child, ADocs);
    const auto& docs = ADirectory->DocumentsInMemory();
    for (size_t i = docs.size(); i-- > 0;) {
        TDocument* doc = docs[i];
        const TChangeState state = doc->ChangeState();
        if (state == chAdded || (state == chChanged && doc->FileHasChanged())) ADocs.push_back(doc);
    }
}

void TDBDocAdmin::SaveDirectoryTree(IDBSQLStatement& AStatement, IDBFieldSchemaItem* ADirItem,
                                    IDBFieldSchemaItem* ADocItem, TDocDirectory* ADirectory,
                                    bool AAddedPass, bool& ASaved) {
    for (size_t i = 0; i < ADirectory->ChildDirectoriesInMemory().size(); ++i) {
        TDocDirectory* child = ADirectory->ChildDirectoriesInMemory()[i];
        // Again for each child: the recursion and the documents select other tables.
        AStatement.SetSchemaItem(ADirItem);
        const TChangeState state = child->ChangeState();
        const bool inPass =
            AAddedPass ? state == chAdded : (state == chChanged || state == chDeleted);
        if (state != chNone && inPass) {
            AStatement.SetStatementKind(StatementKind(state));
            AStatement.AddFilter("id", Int(child->DirID()), ftExactEqual, flAnd);
            AStatement.AddField("title", TVariant(child->Titel()));
            AStatement.AddField("pluginguid", TVariant(child->Plugin()));
            AStatement.AddField("parentdirid", Int(RowDirID(child->ParentDir())));
            AStatement.AddField("creadate", TVariant::FromDate(child->CreaDate()));
            AStatement.AddField("creaid", Int(child->CreaID()));
            AStatement.AddField("globalaclgrp", Int(GetStoragItemACLGroup(child)));
            if (state == chAdded) {
                std::int64_t id = 0;
                AStatement.ExecuteInsert(id);
                child->SetDirID(Low32(id));
            } else {
                AStatement.Execute();
            }
            if (state != chDeleted) {
                if (state == chAdded) {
                    // A new directory has nothing stored below it yet.
                    child->SetLoadingState(lsDocumentsLoaded);
                    child->SetLoadingState(lsChildDirectoriesLoaded);
                }
                child->SetChangeState(chNone);
                if (OnChangeDirectoryState) OnChangeDirectoryState(this, child);
            }
            ASaved = true;
        }
        SaveDirectoryTree(AStatement, ADirItem, ADocItem, child, AAddedPass, ASaved);
    }
    if (AAddedPass) SaveDirectoryDocuments(AStatement, ADocItem, ADirectory, ASaved);
}

std::string TDBDocAdmin::SaveDocumentFile(TDocument* ADocument, bool& ASkipped) {
    ASkipped = false;
    const TChangeState state = ADocument->ChangeState();
    if (state != chAdded && !(state == chChanged && ADocument->FileHasChanged())) return {};
    if (auto it = FUploaded.find(ADocument); it != FUploaded.end()) return it->second;
    for (;;) {
        try {
            // Always a new remote name, also for a change that archives nothing: the old file
            // stays untouched until the changed row is committed.
            return FDocFileLoader->UploadFile(ADocument->LocalFile(), std::string(), upmNew);
        } catch (const EIdConnClosedGracefully&) {
            return {};
        } catch (const EAbort&) {
            throw;
        } catch (const std::exception& e) {
            const std::string what = "Storing '" + ADocument->LocalFile() + "' failed: " + e.what();
            switch (MessageDlg(what, mtError, MsgDlgButtons({mbAbort, mbRetry, mbIgnore}))) {
                case mrRetry:
                    continue;
                case mrIgnore:
                    ASkipped = true;
                    return {};
                default:
                    throw EAbort("Operation aborted. " + what);
            }
        }
    }
}

void TDBDocAdmin::SaveDocumentRow(IDBSQLStatement& AStatement, TDocument* ADocument,
                                  TChangeState AState, const std::string& ALoadedRemote,
                                  const std::string& ANewRemote) {
    TDocument* doc = ADocument;
    const bool newFile = !ANewRemote.empty();
    const bool archive = AState == chChanged && newFile && doc->ArchiveMode() != ramNoArchive;
    IDBInterface* db = Database();
    // Without a caller's transaction the row and its archive row get one of their own, so that
    // they stand or fall together.
    const std::int64_t ownTx = FDBATransactionID == 0 ? db->BeginTransaction() : 0;
    const std::int64_t tx = ownTx != 0 ? ownTx : FDBATransactionID;
    AStatement.SetDBATransactionID(tx);
    try {
        AStatement.SetStatementKind(StatementKind(AState));
        AStatement.AddFilter("id", Int(doc->DocID()), ftExactEqual, flAnd);
        // A stored row is changed only while it is the one that was loaded.
        if (AState != chAdded) AddLoadedRemoteFilter(AStatement, ALoadedRemote);
        if (AState != chDeleted) {
            AStatement.AddField("dirid", Int(RowDirID(doc->Directory())));
            AStatement.AddField("docname", TVariant(ExtractFileName(ConvertToFileName(
                                               ExtractFileName(doc->DocName()), false, 250))));
            AStatement.AddField("flsize", Int(doc->Size()));
            AStatement.AddField("flversion", TVariant(FileVersionToStr(doc->Version())));
            AStatement.AddField("fllocname", TVariant(newFile ? ANewRemote : ALoadedRemote));
            AStatement.AddField("fldate", TVariant::FromDate(doc->Date()));
            AStatement.AddField("creadate", TVariant::FromDate(doc->CreaDate()));
            AStatement.AddField("creaid", Int(doc->CreaID()));
            AStatement.AddField("lastchangedtsp", TVariant::FromDate(doc->ChangeDate()));
            AStatement.AddField("lastchangedid", Int(doc->ChangeID()));
            AStatement.AddField("globalaclgrp", Int(GetStoragItemACLGroup(doc)));
            AStatement.AddField("doctags", TVariant(static_cast<int>(doc->DocumentTags())));
        }
        if (AState == chAdded) {
            std::int64_t id = 0;
            AStatement.ExecuteInsert(id);
            doc->SetDocID(Low32(id));
        } else {
            AStatement.Execute();
            if (AStatement.RowsAffected() == 0)
                throw ChangedByOtherUser(doc->DocID(), ExtractFileName(doc->DocName()),
                                         "reload it and try again.");
        }
        // The version that the new file replaces: the row names the old file, which stays.
        // PostgreSQL writes it outside a caller's transaction; SQLite, on the thread holding
        // the write lock, can only write it within.
        if (archive) {
            const bool separate =
                ownTx == 0 && db->GetBackendKind() == TDBBackendKind::bkPostgreSQL;
            ArchiveDocumentVersion(this, doc, separate ? 0 : tx);
        }
        if (ownTx != 0) db->CommitTransaction(ownTx);
    } catch (...) {
        if (ownTx != 0) RollbackQuietly(*db, ownTx);
        AStatement.SetDBATransactionID(FDBATransactionID);
        throw;
    }
    AStatement.SetDBATransactionID(FDBATransactionID);
    // Files the row named until now: gone with a deletion, or replaced without an archived
    // version. They are removed once the change is committed.
    if (AState == chDeleted || (AState == chChanged && newFile && !archive))
        QueueFileRemoval(doc->DocID(), ALoadedRemote, ExtractFileName(doc->DocName()));
}

void TDBDocAdmin::SaveDirectoryDocuments(IDBSQLStatement& AStatement, IDBFieldSchemaItem* ADocItem,
                                         TDocDirectory* ADirectory, bool& ASaved) {
    if (ADirectory->DocumentsInMemory().empty()) return;
    AStatement.SetSchemaItem(ADocItem);
    // Last to first: saved deletions leave the list.
    for (size_t i = ADirectory->DocumentsInMemory().size(); i-- > 0;) {
        TDocument* doc = ADirectory->DocumentsInMemory()[i];
        const TChangeState state = doc->ChangeState();
        if (state == chNone) continue;
        Assert(FDocFileLoader != nullptr, "TDBDocAdmin.SaveChanges: no file store");
        const bool neverStored = state == chDeleted && doc->ChangeStateBeforeDeleted() == chAdded;
        if (!neverStored) {
            bool skipped = false;
            const std::string loadedRemote = doc->RemoteFileName();
            const std::string newRemote = SaveDocumentFile(doc, skipped);
            if (skipped) continue;  // ignored: no row, state kept
            try {
                SaveDocumentRow(AStatement, doc, state, loadedRemote, newRemote);
            } catch (...) {
                FUploaded.erase(doc);
                DropUpload(newRemote);
                throw;
            }
            if (!newRemote.empty()) doc->SetRemoteFileName(newRemote);
        }
        if (state == chDeleted) {
            if (OnDeleteDocument) OnDeleteDocument(this, doc);
            ADirectory->DeleteDocument(static_cast<std::int32_t>(i));
        } else {
            doc->BeginLoad();
            {
                TFinally endLoad{[doc] { doc->EndLoad(); }};
                doc->SetDocName(ExtractFileName(doc->DocName()));
                doc->SetChangeState(chNone);
                doc->SetFileHasChanged(false);
                doc->SetArchiveMode(ramDefault);
            }
            if (OnChangeDocumentState) OnChangeDocumentState(this, doc, state);
        }
        ASaved = true;
        if (!neverStored) DocumentSaved(AStatement);
        AStatement.SetSchemaItem(ADocItem);
    }
}

void TDBDocAdmin::RemoveDeletedDirectories(TDocDirectory* ADirectory) {
    for (size_t i = ADirectory->ChildDirectoriesInMemory().size(); i-- > 0;) {
        TDocDirectory* child = ADirectory->ChildDirectoriesInMemory()[i];
        RemoveDeletedDirectories(child);
        if (child->ChangeState() != chDeleted) continue;
        RemoveFromPendingList(child);
        if (OnDeleteDirectory) OnDeleteDirectory(this, child);
        ADirectory->DeleteDirectory(static_cast<std::int32_t>(i));
    }
}

void TDBDocAdmin::UpdateDocumentFileInfo(std::int32_t ADocumentID, const std::string& AFileName,
                                         bool AChangeFileName, TDateTime ADate) {
    IDBInterface* db = Database();
    IPtr<IDBSQLStatement> st = db->CreateStatement(FPluginGUID);
    st->SetDBATransactionID(FDBATransactionID);
    st->SetSchemaItem(GetSchemaByName(db->GetFieldSchema(), FDocSection).get());
    st->SetStatementKind(1);
    st->AddFilter("id", Int(ADocumentID), ftExactEqual, flAnd);
    st->AddField("fldate", TVariant::FromDate(ADate));
    if (AChangeFileName) st->AddField("docname", TVariant(ExtractFileName(AFileName)));
    st->Execute();
}

void TDBDocAdmin::DeleteDocumentRow(std::int32_t ADocumentID) {
    IDBInterface* db = Database();
    IPtr<IDBSQLStatement> st = db->CreateStatement(FPluginGUID);
    st->SetDBATransactionID(FDBATransactionID);
    st->SetSchemaItem(GetSchemaByName(db->GetFieldSchema(), FDocSection).get());
    st->SetStatementKind(2);
    st->AddFilter("id", Int(ADocumentID), ftExactEqual, flAnd);
    st->Execute();
}

std::int64_t TDBDocAdmin::GetDocumentFileSize(std::int32_t ADocumentID) {
    TKRRecordSet rs(nullptr, Database());
    rs.SetSchemaName(FDocSection);
    rs.SetSelectAll(false);
    rs.GetSelectFields()->Add("flsize");
    rs.SetDBATransactionID(FDBATransactionID);
    AddFilter(rs.GetFilters(), "id", Int(ADocumentID));
    rs.Open();
    if (rs.GetRecordCount() == 0) return -1;
    const std::int64_t size = rs.ValueByName(0, "flsize").GetAsInteger();
    return size > 0 ? size : -1;
}

std::int64_t TDBDocAdmin::DeleteDocumentRowOf(std::int32_t ADocumentID,
                                              const std::string& ARemoteFile) {
    IDBInterface* db = Database();
    IPtr<IDBSQLStatement> st = db->CreateStatement(FPluginGUID);
    st->SetDBATransactionID(FDBATransactionID);
    st->SetSchemaItem(GetSchemaByName(db->GetFieldSchema(), FDocSection).get());
    st->SetStatementKind(2);
    st->AddFilter("id", Int(ADocumentID), ftExactEqual, flAnd);
    AddLoadedRemoteFilter(*st, ARemoteFile);
    st->Execute();
    return st->RowsAffected();
}

bool TDBDocAdmin::IsRemoteFileReferenced(const std::string& ARemoteFile) {
    for (const char* schema : {"docadmindocs", "docadmin_docarchive"}) {
        TKRRecordSet rs(nullptr, Database());
        rs.SetSchemaName(schema);
        rs.SetSelectAll(false);
        rs.GetSelectFields()->Add("id");
        rs.SetDBATransactionID(FDBATransactionID);
        AddFilter(rs.GetFilters(), "fllocname", TVariant(ARemoteFile), ftExactEqual);
        rs.Open();
        if (rs.GetRecordCount() > 0) return true;
    }
    return false;
}

bool TDBDocAdmin::UpdateDocumentWithID(TComponent* AOwner, std::int64_t ADocumentID,
                                       const std::string& ASourceFileName,
                                       TBaseDocFileLoader* ADocFileLoader, bool AddToArchive,
                                       bool AChangeFileName) {
    IDBInterface* db = Database();
    TKRRecordSet rs(nullptr, db);
    rs.SetSchemaName("docadmindocs");
    rs.SetSelectAll(true);
    rs.SetUpdateMode(umWriteBack);
    rs.SetDBATransactionID(FDBATransactionID);
    for (const char* field : {"dirid", "creaid", "lastchangedid"})
        rs.GetSelectFieldOptions(field).DisableLookupValueLoading = true;
    AddFilter(rs.GetFilters(), "id", Int(ADocumentID));
    rs.Open();
    if (rs.GetRecordCount() == 0) return false;

    const std::string loadedRemote = rs.ValueByName(0, "fllocname").GetAsString();
    const std::string docName = rs.ValueByName(0, "docname").GetAsString();
    const TFileVersion version =
        StrToFileVersion(rs.ValueByName(0, "flversion").GetAsString(), 4).Increment();
    const TDateTime date = GetFileDate(ASourceFileName);
    const std::int64_t size = std::max<std::int64_t>(0, GetFileSize(ASourceFileName));
    // The new content goes to a new remote name before any row is touched, with no transaction
    // open: a failed or killed upload leaves the row and its file as they were.
    const std::string remote = ADocFileLoader->UploadFile(ASourceFileName, std::string(), upmNew);

    // The row's change and the archive row in one transaction (the caller's, or one of its own),
    // the change only while the row still names the file that was read: of concurrent replaces
    // one wins, the others fail before they archive anything.
    const bool ownTx = FDBATransactionID == 0;
    const std::int64_t tx = ownTx ? db->BeginTransaction() : FDBATransactionID;
    try {
        IPtr<IDBSQLStatement> st = db->CreateStatement(FPluginGUID);
        st->SetDBATransactionID(tx);
        st->SetSchemaItem(GetSchemaByName(db->GetFieldSchema(), "docadmindocs").get());
        st->SetStatementKind(1);
        st->AddFilter("id", Int(ADocumentID), ftExactEqual, flAnd);
        AddLoadedRemoteFilter(*st, loadedRemote);
        st->AddField("flversion", TVariant(FileVersionToStr(version)));
        st->AddField("fldate", TVariant::FromDate(date));
        st->AddField("flsize", Int(size));
        st->AddField("fllocname", TVariant(remote));
        if (AChangeFileName) st->AddField("docname", TVariant(ExtractFileName(ASourceFileName)));
        st->Execute();
        if (st->RowsAffected() == 0)
            throw ChangedByOtherUser(ADocumentID, docName, "its content was not replaced.");
        // The archive copies the row as it was read, before this change.
        if (AddToArchive) ArchiveRecordSetRow(AOwner, &rs, 0, tx);
        if (ownTx) db->CommitTransaction(tx);
    } catch (...) {
        if (ownTx) RollbackQuietly(*db, tx);
        try {
            ADocFileLoader->RemoveFile(remote, docName);
        } catch (...) {  // left as a file that no row names
        }
        throw;
    }
    // Without an archived version the old file has no row any more; within a caller's
    // transaction it goes when that commits.
    if (!AddToArchive && !ownTx) {
        QueueFileRemoval(static_cast<std::int32_t>(ADocumentID), loadedRemote, docName);
    } else if (!AddToArchive) {
        try {
            if (!loadedRemote.empty() && !IsRemoteFileReferenced(loadedRemote))
                ADocFileLoader->RemoveFile(loadedRemote, docName);
        } catch (...) {  // the replace stands; the old file stays unreferenced
        }
    }
    return true;
}

}  // namespace docadmin
