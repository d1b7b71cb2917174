#include "_dmDocAdminRepository.h"

#include <atomic>
#include <filesystem>

#include "_DocAdminStorageUIDs.h"
#include "_DocFileLoaderChoice.h"
#include "_TDBDocAdmin.h"
#include "_TDBRecordFlagsPlugin.h"
#include "_TDocAdminObject.h"
#include "_TKRRecordSet.h"
#include "_dmDocAdminMain.h"

namespace docadmin {

namespace {

std::atomic<TdmDocAdminRepository*> GRepository{nullptr};

const std::string RecordsMarker = "#Records";

// The table name of a path whose first folder is "<table>#Records": the text between the double
// quote before the marker and the marker. Empty when the marker doesn't follow at least one
// character.
std::string TableNameOfRecordsPath(const std::string& ABaseDirectory) {
    const std::size_t marker = ABaseDirectory.find(RecordsMarker + "\"");
    if (marker == std::string::npos || marker == 0) return {};
    const std::size_t quote = ABaseDirectory.rfind('"', marker - 1);
    const std::size_t start = quote == std::string::npos ? 0 : quote + 1;
    return ABaseDirectory.substr(start, marker - start);
}

}  // namespace

TdmDocAdminRepository::TdmDocAdminRepository(TClientPluginBase* AOwner)
    : TPluginBaseDataModule(AOwner), FUniqueFolderCache(std::make_unique<TUniqueFolderCache>()) {
    GRepository = this;
    FKRFileHandlerClient = new TKRFileHandlerClient(this);
    if (IDBInterface* db = GetDBInterface())
        FRecordFlagsPlugin = std::make_unique<TDBRecordFlagsPlugin>(db);
}

TdmDocAdminRepository::~TdmDocAdminRepository() {
    TdmDocAdminRepository* self = this;
    GRepository.compare_exchange_strong(self, nullptr);
}

TdmDocAdminRepository* TdmDocAdminRepository::Instance() {
    return GRepository.load();
}

TBaseDocFileLoaderClass TdmDocAdminRepository::GetDocFileLoaderClass(bool& AOfflineContainer) {
    return docadmin::GetDocFileLoaderClass(GetMainInterface(), AOfflineContainer);
}

std::unique_ptr<TBaseDocFileLoader> TdmDocAdminRepository::CreateDocFileLoader(
    bool& AOfflineContainer) {
    std::unique_ptr<TBaseDocFileLoader> store(GetDocFileLoaderClass(AOfflineContainer)(nullptr));
    store->SetMainInterface(GetMainInterface());
    return store;
}

std::unique_ptr<TBaseDocAdmin> TdmDocAdminRepository::CreateDocAdmin(
    std::string Plugin, const std::string& BaseDirectory, bool AOfflineContainer,
    const std::string& AParams) {
    if (Plugin == EmptyUID) {
        // Callers that know a record's table but not its plug-in pass the empty GUID.
        const std::string table = TableNameOfRecordsPath(BaseDirectory);
        if (!table.empty()) Plugin = GuessStorageUIDBySQLTableName(table);
    }

    auto admin = std::make_unique<TDBDocAdmin>(nullptr);
    admin->SetDocFileLoader(CreateDocFileLoader(AOfflineContainer).release());
    if (Plugin.empty()) {
        admin->SetRootDirectoryPath(BaseDirectory);
        admin->SetPlugin(GlobalPluginGUID);
    } else if (Plugin == AllPluginsGUID || Plugin == GlobalPluginGUID) {
        admin->SetPlugin(Plugin);
        admin->SetRootDirectoryPath(BaseDirectory);
    } else {
        admin->SetPlugin(Plugin);
        std::string path = "\"" + Plugin + "\"";
        if (!BaseDirectory.empty()) path += "," + BaseDirectory;
        admin->SetRootDirectoryPath(path);
    }
    admin->SetAllwaysLoadGlobal(false);
    admin->DocFileLoader()->LoadSettings(AOfflineContainer);
    admin->SetMainInterface(GetMainInterface());
    admin->SetUserAccess(GetUserAccess());
    admin->SetPluginGUID(GetPluginGuid());
    admin->SetRecordFlagsPlugin(RecordFlagsPlugin());
    if (!AParams.empty()) admin->ApplyParams(AParams);
    return admin;
}

IPtr<IDirectoryRoot> TdmDocAdminRepository::GetDocAdminObject(
    const std::string& Plugin, const std::string& BaseDirectory, bool ALoad,
    const std::string& AResIdentifier, std::int64_t AResID, std::int64_t ADBATransactionID,
    TRecordFlagTypes ARecordFlagTypes, bool AAutoSave, bool AIsNewUniqueFolder) {
    std::unique_ptr<TBaseDocAdmin> admin = CreateDocAdmin(Plugin, BaseDirectory, false, {});
    admin->SetDBATransactionID(ADBATransactionID);
    admin->SetAutoSave(AAutoSave);
    admin->SetActiveRecordFlagTypes(ARecordFlagTypes);
    admin->SetUniqueFolderCache(FUniqueFolderCache.get());
    // The handle owns the administrator from here on, also when its constructor raises.
    auto* handle = new TDocAdminObject(admin.release(), ALoad, AResIdentifier, AResID, false,
                                       AIsNewUniqueFolder);
    return IPtr<IDirectoryRoot>(static_cast<IDirectoryRoot*>(handle));
}

bool TdmDocAdminRepository::DownloadDocumentWithUID(const std::string& ADocumentUID,
                                                    const std::string& ADestFileName,
                                                    std::string& ADocName, TDateTime& ACreateDate,
                                                    TDateTime& ALastModifiedDate,
                                                    bool AOfflineContainer) {
    ADocName.clear();
    std::unique_ptr<TBaseDocFileLoader> store = CreateDocFileLoader(AOfflineContainer);
    store->LoadSettings(AOfflineContainer);

    TKRRecordSet rs(nullptr, GetDBInterface());
    rs.SetSchemaName("docadmindocs");
    // A document found by its UID is delivered to whoever asks: the current user's row rights
    // decide whether it is found at all.
    rs.SetOptions({rsoUserRowRights});
    for (const char* field : {"docname", "fllocname", "creadate", "fldate"})
        rs.GetSelectFields()->Add(field);
    AddFilter(rs.GetFilters(), "globalrecuid", TVariant(ADocumentUID));
    rs.Open();
    if (rs.GetRecordCount() == 0) return false;

    const std::string docName = rs.ValueByName(0, "docname").GetAsString();
    const TDateTime created = rs.ValueByName(0, "creadate").GetAsFloat();
    const TDateTime modified = rs.ValueByName(0, "fldate").GetAsFloat();
    const std::string remote = rs.ValueByName(0, "fllocname").GetAsString();
    ADocName = docName;
    store->DownloadFile(remote, ADestFileName);
    ACreateDate = created;
    ALastModifiedDate = modified;
    return true;
}

void TdmDocAdminRepository::DownloadRemoteDocument(const std::string& ADocumentRemoteUID,
                                                   const std::string& ADestFileName,
                                                   bool AOfflineContainer) {
    std::unique_ptr<TBaseDocFileLoader> store = CreateDocFileLoader(AOfflineContainer);
    store->LoadSettings(AOfflineContainer);
    store->DownloadFile(ADocumentRemoteUID, ADestFileName);
}

bool TdmDocAdminRepository::UpdateDocumentWithID(std::int64_t ADocumentID,
                                                 const std::string& ASourceFileName,
                                                 bool AOfflineContainer, bool AddToArchive) {
    std::unique_ptr<TBaseDocFileLoader> store = CreateDocFileLoader(AOfflineContainer);
    store->LoadSettings(AOfflineContainer);
    // The operation needs nothing of an administrator but the host; this one only carries it.
    TDBDocAdmin carrier(nullptr);
    carrier.SetMainInterface(GetMainInterface());
    return carrier.UpdateDocumentWithID(this, ADocumentID, ASourceFileName, store.get(),
                                        AddToArchive, false);
}

void TdmDocAdminRepository::DeleteDeadLinkPluginDocuments(bool AProcessExistingPluginsOnly,
                                                          std::vector<std::string>* ARemoved) {
    std::unique_ptr<TBaseDocAdmin> admin = CreateDocAdmin(AllPluginsGUID, {}, false, {});
    const auto remove = [&](TDocDirectory* ADir) {
        if (ARemoved) ARemoved->push_back(ADir->Path());
        admin->DeleteDirectory(ADir);
    };
    IDBFieldSchema* catalogue = GetDBFieldSchema();
    TDocDirectoryRoot* root = admin->Directories();
    for (std::int32_t p = 0; p < root->ChildDirectoryCount(); ++p) {
        TDocDirectory* pluginDir = root->GetChildDirectorys(p);
        if (!IsGuid(pluginDir->Titel())) continue;
        if (AProcessExistingPluginsOnly) {
            IPluginLoader* loader = GetPluginLoader();
            if (!loader || !loader->IsPluginLoaded(pluginDir->Titel())) continue;
        }
        for (std::int32_t r = 0; r < pluginDir->ChildDirectoryCount(); ++r) {
            TDocDirectory* recordsDir = pluginDir->GetChildDirectorys(r);
            const std::string& title = recordsDir->Titel();
            if (!TUniqueFolderCache::GetIsRecordRootFolder(title)) continue;
            const std::string table = title.substr(0, title.find(RecordsMarker));

            // All UIDs of the table, read once when the first record folder needs them.
            std::unique_ptr<TKRRecordSet> records;
            bool tableKnown = true;
            for (std::int32_t i = recordsDir->ChildDirectoryCount() - 1; i >= 0; --i) {
                TDocDirectory* recordDir = recordsDir->GetChildDirectorys(i);
                if (!IsGuid(recordDir->Titel())) {
                    remove(recordDir);
                    continue;
                }
                if (!records && tableKnown) {
                    // The folder names the SQL table; older trees may name the schema.
                    const TDBTableDef* def =
                        catalogue ? catalogue->FindTableBySQLName(table) : nullptr;
                    if (!def && catalogue) def = catalogue->FindTable(table);
                    // Without a table to ask, no record can be shown gone: keep the folders.
                    tableKnown = def != nullptr;
                    if (!tableKnown) continue;
                    records = std::make_unique<TKRRecordSet>(nullptr, GetDBInterface());
                    records->SetSchemaName(def->SchemaName);
                    records->GetSelectFields()->Add("globalrecuid");
                    records->Open();
                }
                if (!tableKnown) continue;
                const int column = records->GetFieldIndex("globalrecuid");
                // Record UIDs are GUID texts; their case carries no meaning.
                if (records->FindLocalRecord(column, TVariant(recordDir->Titel()), true) < 0)
                    remove(recordDir);
            }
        }
    }
    admin->SaveChanges();
}

TKRFileHandlerShowResult TdmDocAdminRepository::CheckAndExecuteInternalFile(
    const std::string& AFileName, bool ShowEditor) {
    return FKRFileHandlerClient->ShowFile(AFileName, false, ShowEditor);
}

std::int32_t TdmDocAdminRepository::GetImageIndexForFile(const std::string& /*FileName*/) const {
    return 0;
}

std::string TdmDocAdminRepository::GetTranslatedText(const std::string& AText) {
    if (TdmDocAdminMain* main = TdmDocAdminMain::Instance()) return main->GetTranslatedText(AText);
    return TPluginBaseDataModule::GetTranslatedText(AText);
}

TRecordFlagsPlugin* TdmDocAdminRepository::RecordFlagsPlugin() const {
    return FRecordFlagsPlugin && FRecordFlagsPlugin->Available() ? FRecordFlagsPlugin.get()
                                                                 : nullptr;
}

void TdmDocAdminRepository::AddTempFileToDelete(const std::string& AFileName) {
    std::lock_guard lock(FTempFilesLock);
    FTempFilesToDelete.push_back(AFileName);
}

std::vector<std::string> TdmDocAdminRepository::TempFilesToDelete() const {
    std::lock_guard lock(FTempFilesLock);
    return FTempFilesToDelete;
}

void TdmDocAdminRepository::BeforeUnInit() {
    TPluginBaseDataModule::BeforeUnInit();
    std::lock_guard lock(FTempFilesLock);
    for (std::size_t i = FTempFilesToDelete.size(); i-- > 0;) {
        std::error_code ec;
        std::filesystem::remove(FTempFilesToDelete[i], ec);
        // A file that is gone (now or before) leaves the list; one still there is given up.
        if (!std::filesystem::exists(FTempFilesToDelete[i], ec) && !ec)
            FTempFilesToDelete.erase(FTempFilesToDelete.begin() + static_cast<std::ptrdiff_t>(i));
    }
}

}  // namespace docadmin
