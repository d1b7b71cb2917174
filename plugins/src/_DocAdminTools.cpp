#include "_DocAdminTools.h"

#include "_DBBackend.h"
#include "_TDBDocAdmin.h"
#include "_TDocAdminObject.h"
#include "_TDocFileLoaderLocFile.h"
#include "_TKRRecordSet.h"
#include "_dmDocAdminRepository.h"

namespace docadmin {

namespace {

TDBDocAdmin& AdminOf(IDirectoryRoot* ARoot) {
    IPtr<IOBJAccess> access;
    auto* handle =
        Supports(ARoot, access) ? dynamic_cast<TDocAdminObject*>(access->GetObject()) : nullptr;
    auto* admin = handle ? dynamic_cast<TDBDocAdmin*>(handle->DocAdmin()) : nullptr;
    if (!admin) throw EDocAdminException("The tree given is no document tree of this module");
    return *admin;
}

void BeginTransaction(TDBDocAdmin& AAdmin) {
    if (AAdmin.DBATransactionID() != 0)
        throw EDocAdminException("A transaction is already open on this document tree");
    AAdmin.SetDBATransactionID(AAdmin.Database()->BeginTransaction());
}

void CommitTransaction(TDBDocAdmin& AAdmin) {
    const std::int64_t id = AAdmin.DBATransactionID();
    if (id == 0) throw EDocAdminException("No transaction is open on this document tree");
    AAdmin.SetDBATransactionID(0);
    AAdmin.Database()->CommitTransaction(id);
    // Rows first, files after: what the committed rows no longer name goes now.
    AAdmin.RemovePendingFiles();
}

void RollbackTransaction(TDBDocAdmin& AAdmin) {
    const std::int64_t id = AAdmin.DBATransactionID();
    if (id == 0) return;
    AAdmin.SetDBATransactionID(0);
    // The rows that named these files stay as they were.
    AAdmin.DiscardPendingFileRemovals();
    AAdmin.Database()->RollbackTransaction(id);
}

TDocAdminVersion VersionRow(TKRRecordSet& ARows, int ARow, bool AArchived) {
    TDocAdminVersion v;
    if (AArchived) v.ArchiveID = ARows.GetDBIDByRecNo(ARow);
    v.DocName = ARows.ValueByName(ARow, "docname").GetAsString();
    v.Version = ARows.ValueByName(ARow, "flversion").GetAsString();
    v.Size = ARows.ValueByName(ARow, "flsize").GetAsInteger();
    v.Date = ARows.ValueByName(ARow, "fldate").GetAsFloat();
    v.RemoteFileName = ARows.ValueByName(ARow, "fllocname").GetAsString();
    if (AArchived) {
        v.StoredDate = ARows.ValueByName(ARow, "origcreadate").GetAsFloat();
        v.StoredBy = ARows.ValueByName(ARow, "origcreaid").GetAsInteger();
        v.ArchivedDate = ARows.ValueByName(ARow, "creadate").GetAsFloat();
    }
    return v;
}

}  // namespace

TDocAdminTreeAddress TDocAdminTools::Do_SetupTree(IDirectoryRoot* ARoot, bool AReadOnly,
                                                  const std::string& AWhere) {
    TDBDocAdmin& admin = AdminOf(ARoot);
    admin.SetAutoSave(false);
    admin.SetReadOnly(AReadOnly);
    if (!AWhere.empty()) admin.ApplyParams(AWhere);
    return {admin.Plugin(), admin.RootDirectoryPath()};
}

void TDocAdminTools::Do_CheckFolderPath(const std::string& APath) {
    TBaseDocAdmin::ParseFolderPath(APath);
}

void TDocAdminTools::Do_SetEvents(IDirectoryRoot* ARoot, const TDocAdminToolEvents& AEvents) {
    TDBDocAdmin& admin = AdminOf(ARoot);
    admin.OnDownloadDocumentDone = nullptr;
    if (AEvents.OnDocumentDownloaded)
        admin.OnDownloadDocumentDone = [done = AEvents.OnDocumentDownloaded](TObject*) { done(); };
    admin.OnChangeDocumentState = nullptr;
    if (AEvents.OnDocumentStored)
        admin.OnChangeDocumentState = [stored = AEvents.OnDocumentStored](
                                          TObject*, TDocument* ADocument, TChangeState APrev) {
            // An added document whose row is written is marked unchanged.
            if (APrev == chAdded && ADocument->ChangeState() == chNone) stored();
        };
    admin.OnImportSkipped = nullptr;
    if (AEvents.OnImportSkipped)
        admin.OnImportSkipped = [skipped = AEvents.OnImportSkipped](
                                    TObject*, const std::string& APath,
                                    const std::string& AReason) { skipped(APath, AReason); };
}

void TDocAdminTools::Do_BeginTransaction(IDirectoryRoot* ARoot) {
    BeginTransaction(AdminOf(ARoot));
}

void TDocAdminTools::Do_CommitTransaction(IDirectoryRoot* ARoot) {
    CommitTransaction(AdminOf(ARoot));
}

void TDocAdminTools::Do_RollbackTransaction(IDirectoryRoot* ARoot) {
    RollbackTransaction(AdminOf(ARoot));
}

bool TDocAdminTools::Get_InTransaction(IDirectoryRoot* ARoot) {
    return AdminOf(ARoot).DBATransactionID() != 0;
}

void TDocAdminTools::Do_ResolveRootForWriting(IDirectoryRoot* ARoot) {
    // An arbitrary key of the module's own: the advisory lock of folder creation.
    constexpr long long kRootLockKey = 0x446F63526F6F7473;  // "DocRoots"
    TDBDocAdmin& admin = AdminOf(ARoot);
    // SQLite's transactions take the write lock at their start; PostgreSQL's need the advisory
    // lock, or two processes could each make the same missing folder.
    BeginTransaction(admin);
    try {
        IDBInterface* db = admin.Database();
        if (db->GetBackendKind() == TDBBackendKind::bkPostgreSQL)
            db->AcquireConnection(admin.DBATransactionID())
                ->ExecDirect("SELECT pg_advisory_xact_lock(" + std::to_string(kRootLockKey) + ")");
        admin.Directories()->ChildDirectoryCount();
        CommitTransaction(admin);
    } catch (...) {
        RollbackTransaction(admin);
        throw;
    }
}

bool TDocAdminTools::Do_LoadWholeTree(IDirectoryRoot* ARoot, bool AMissingIsEmpty) {
    TDBDocAdmin& admin = AdminOf(ARoot);
    try {
        std::vector<TDocDirectory*> level{admin.Directories()};
        level.front()->ChildDirectoryCount();  // resolves the root first
        while (!level.empty()) {
            admin.LoadFilesForDirectory(level);
            std::vector<TDocDirectory*> next;
            for (TDocDirectory* dir : level) {
                const std::int32_t n = dir->ChildDirectoryCount();
                for (std::int32_t i = 0; i < n; ++i)
                    next.push_back(dir->GetChildDirectorys(i));
            }
            level = std::move(next);
        }
        return true;
    } catch (const EDocAdminFolderNotFound&) {
        if (!AMissingIsEmpty) throw;
        return false;
    }
}

std::string TDocAdminTools::Get_RemoteFileName(IDocument* ADocument) {
    TDocument* doc = IntfToDocumentSafe(ADocument);
    if (!doc) throw EDocAdminException("The document given is no document of a document tree");
    return doc->RemoteFileName();
}

void TDocAdminTools::Do_SetImportOptions(IDirectoryRoot* ARoot, bool AFollowLinks,
                                         std::size_t ABatchSize) {
    TDBDocAdmin& admin = AdminOf(ARoot);
    admin.SetImportFollowLinks(AFollowLinks);
    // The local store flushes the files of a batch in one go before its commit instead of one
    // by one.
    auto* local = dynamic_cast<TDocFileLoaderLocFile*>(admin.DocFileLoader());
    if (local) local->SetDeferFlush(ABatchSize > 0);
    if (ABatchSize == 0) {
        admin.SetSaveBatching(0, nullptr, nullptr, nullptr);
        return;
    }
    TDBDocAdmin* a = &admin;
    admin.SetSaveBatching(
        ABatchSize,
        [a, local] {
            if (local) local->FlushUploads();  // durable before any row names them
            BeginTransaction(*a);
        },
        [a] { CommitTransaction(*a); }, [a] { RollbackTransaction(*a); });
}

std::size_t TDocAdminTools::Get_CommittedDocuments(IDirectoryRoot* ARoot) {
    return AdminOf(ARoot).CommittedDocuments();
}

TDocAdminVersions TDocAdminTools::Get_DocumentVersions(std::int64_t ADocumentID) {
    IDBInterface* db = TdmDocAdminRepository::Instance()->GetDBInterface();
    TKRRecordSet current(nullptr, db);
    current.SetSchemaName("docadmindocs");
    current.SetOptions({rsoUserRowRights});
    for (const char* f : {"docname", "flversion", "flsize", "fldate", "fllocname"})
        current.GetSelectFields()->Add(f);
    current.GetFilters()->AddFilter("id", TVariant(static_cast<long long>(ADocumentID)));
    current.Open();
    if (current.GetRecordCount() == 0)
        throw EDocAdminFileNotFoundInRepository("File with ID '" + std::to_string(ADocumentID) +
                                                "' not found in repository!");

    TKRRecordSet archive(nullptr, db);
    archive.SetSchemaName("docadmin_docarchive");
    for (const char* f : {"docname", "flversion", "flsize", "fldate", "fllocname", "origcreadate",
                          "origcreaid", "creadate"})
        archive.GetSelectFields()->Add(f);
    archive.GetSelectFieldOptions("origcreaid").DisableLookupValueLoading = true;
    archive.GetFilters()->AddFilter("docadmindocid", TVariant(static_cast<long long>(ADocumentID)));
    archive.GetOrderFields()->SetOrder("id");
    archive.Open();

    TDocAdminVersions result;
    result.Current = VersionRow(current, 0, false);
    for (int r = 0; r < archive.GetRecordCount(); ++r)
        result.Archived.push_back(VersionRow(archive, r, true));
    return result;
}

std::vector<std::string> TDocAdminTools::Do_DeleteDeadLinkPluginDocuments(
    bool AProcessExistingPluginsOnly) {
    std::vector<std::string> removed;
    TdmDocAdminRepository::Instance()->DeleteDeadLinkPluginDocuments(AProcessExistingPluginsOnly,
                                                                     &removed);
    return removed;
}

}  // namespace docadmin
