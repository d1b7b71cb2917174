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
    SaveDirectoryTree(*statement, dirItem.get(), docItem.get(), FDirectories, true, saved);
    SaveDirectoryTree(*statement, dirItem.get(), docItem.get(), FDirectories, false, saved);
    RemoveDeletedDirectories(FDirectories);
    return saved;
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

bool TDBDocAdmin::SaveDocumentFile(TDocument* ADocument) {
    for (;;) {
        try {
            switch (ADocument->ChangeState()) {
                case chAdded:
                    ADocument->SetRemoteFileName(
                        FDocFileLoader->UploadFile(ADocument->LocalFile(), std::string(), upmNew));
                    break;
                case chChanged:
                    if (!ADocument->FileHasChanged()) break;
                    if (ADocument->ArchiveMode() == ramNoArchive) {
                        ADocument->SetRemoteFileName(FDocFileLoader->UploadFile(
                            ADocument->LocalFile(), ADocument->RemoteFileName(), upmChange));
                    } else {
                        // The version is secured before the store is touched; the old remote
                        // file stays and the archive row names it.
                        ArchiveDocumentVersion(this, ADocument);
                        ADocument->SetRemoteFileName(FDocFileLoader->UploadFile(
                            ADocument->LocalFile(), ADocument->RemoteFileName(), upmNew));
                    }
                    break;
                case chDeleted:
                    try {
                        FDocFileLoader->RemoveFile(ADocument->RemoteFileName(),
                                                   ADocument->DocName());
                    } catch (const std::exception& e) {
                        // A store names the file when it is already gone: no failure of a delete.
                        if (std::string(e.what()).find(ADocument->RemoteFileName()) ==
                            std::string::npos)
                            throw;
                    }
                    break;
                default:
                    break;
            }
            return true;
        } catch (const EIdConnClosedGracefully&) {
            return true;
        } catch (const EAbort&) {
            throw;
        } catch (const std::exception& e) {
            switch (MessageDlg(e.what(), mtError, MsgDlgButtons({mbAbort, mbRetry, mbIgnore}))) {
                case mrRetry:
                    continue;
                case mrIgnore:
                    return false;
                default:
                    throw EAbort("Operation aborted");
            }
        }
    }
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
            if (!SaveDocumentFile(doc)) continue;  // ignored: no row, state kept
            AStatement.SetStatementKind(StatementKind(state));
            AStatement.AddFilter("id", Int(doc->DocID()), ftExactEqual, flAnd);
            AStatement.AddField("dirid", Int(RowDirID(doc->Directory())));
            AStatement.AddField("docname", TVariant(ExtractFileName(ConvertToFileName(
                                               ExtractFileName(doc->DocName()), false, 250))));
            AStatement.AddField("flsize", Int(doc->Size()));
            AStatement.AddField("flversion", TVariant(FileVersionToStr(doc->Version())));
            AStatement.AddField("fllocname", TVariant(doc->RemoteFileName()));
            AStatement.AddField("fldate", TVariant::FromDate(doc->Date()));
            AStatement.AddField("creadate", TVariant::FromDate(doc->CreaDate()));
            AStatement.AddField("creaid", Int(doc->CreaID()));
            AStatement.AddField("lastchangedtsp", TVariant::FromDate(doc->ChangeDate()));
            AStatement.AddField("lastchangedid", Int(doc->ChangeID()));
            AStatement.AddField("globalaclgrp", Int(GetStoragItemACLGroup(doc)));
            AStatement.AddField("doctags", TVariant(static_cast<int>(doc->DocumentTags())));
            if (state == chAdded) {
                std::int64_t id = 0;
                AStatement.ExecuteInsert(id);
                doc->SetDocID(Low32(id));
            } else {
                AStatement.Execute();
            }
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

bool TDBDocAdmin::UpdateDocumentWithID(TComponent* AOwner, std::int64_t ADocumentID,
                                       const std::string& ASourceFileName,
                                       TBaseDocFileLoader* ADocFileLoader, bool AddToArchive,
                                       bool AChangeFileName) {
    TKRRecordSet rs(nullptr, Database());
    rs.SetSchemaName("docadmindocs");
    rs.SetSelectAll(true);
    rs.SetUpdateMode(umWriteBack);
    for (const char* field : {"dirid", "creaid", "lastchangedid"})
        rs.GetSelectFieldOptions(field).DisableLookupValueLoading = true;
    AddFilter(rs.GetFilters(), "id", Int(ADocumentID));
    rs.Open();
    if (rs.GetRecordCount() == 0) return false;
    if (AddToArchive) ArchiveRecordSetRow(AOwner, &rs, 0);

    const TFileVersion version =
        StrToFileVersion(rs.ValueByName(0, "flversion").GetAsString(), 4).Increment();
    const TDateTime date = GetFileDate(ASourceFileName);
    const std::int64_t size = std::max<std::int64_t>(0, GetFileSize(ASourceFileName));
    // The upload comes before any cell is written: a failed one leaves the row as it was.
    const std::string remote =
        ADocFileLoader->UploadFile(ASourceFileName, rs.ValueByName(0, "fllocname").GetAsString(),
                                   AddToArchive ? upmNew : upmChange);
    rs.ValueByName(0, "flversion", true).SetAsString(FileVersionToStr(version));
    rs.ValueByName(0, "fldate", true).SetAsFloat(date);
    rs.ValueByName(0, "flsize", true).SetAsInteger(size);
    if (AddToArchive) rs.ValueByName(0, "fllocname", true).SetAsString(remote);
    if (AChangeFileName)
        rs.ValueByName(0, "docname", true).SetAsString(ExtractFileName(ASourceFileName));
    rs.SaveRecordNumber(0);
    return true;
}

}  // namespace docadmin
