#include "_DocAdminStoreUpdate.h"

#include <limits>

#include "_DBInterface.h"
#include "_PluginIntf.h"
#include "_SysUtils.h"
#include "_TClientSQL.h"
#include "_TKRRecordSet.h"

namespace docadmin {

namespace {

constexpr const char* kSection = "DocAdmin";
constexpr const char* kStoreUpdateKey = "STOREUPD";
constexpr std::int64_t kStoreUpdateDone = 2;
constexpr const char* kArchiveFlagUpdateKey = "ARCHIVEFLAGUPD";
constexpr std::int64_t kArchiveFlagUpdateDone = 1;

constexpr const char* kDirSection = "docadmindir";
constexpr const char* kDocSection = "docadmindocs";

// A title that isn't a 32-bit number reads as this.
constexpr std::int64_t kNoNumber = std::numeric_limits<std::int32_t>::min();

const TDocStorePluginSchema* FindPluginSchema(const std::string& APlugin) {
    const std::string plugin = UpperCase(APlugin);
    for (const TDocStorePluginSchema& entry : DocStorePluginSchemas)
        if (plugin == entry.PluginGUID) return &entry;
    return nullptr;
}

// One level of the host's progress display, ended when the scope ends. A host without a
// progress object just runs the work.
class TProgressBlock {
  public:
    TProgressBlock(IMainInterface* AMainInterface, const std::string& ATitle)
        : FProgress(AMainInterface->GetProgress()) {
        if (FProgress) FProgress->Begin(ATitle, true);
    }
    ~TProgressBlock() {
        if (!FProgress) return;
        // Also ends the display when the work failed; a failure of the display itself must not
        // replace the routine's outcome.
        try {
            FProgress->End();
        } catch (...) {
        }
    }
    TProgressBlock(const TProgressBlock&) = delete;
    TProgressBlock& operator=(const TProgressBlock&) = delete;

    // The routines can't be cancelled: the cancel answer is not looked at.
    void Step(std::int64_t APosition, std::int64_t ACount, const std::string& AText) {
        if (!FProgress) return;
        bool cancel = false;
        FProgress->Step(APosition, ACount, AText, cancel);
    }

  private:
    IProgress* FProgress;
};

// A record set on the directory table for writing back by key, as the tree's loaders open it.
void PrepareDirSet(TKRRecordSet& ASet, IMainInterface* AMainInterface) {
    ASet.SetMainInterface(AMainInterface);
    ASet.SetSchemaName(kDirSection);
    ASet.SetUpdateMode(umWriteBack);
    ASet.SetOptions({rsoUserRowRights});
    for (const char* field : {"title", "pluginguid", "parentdirid"})
        ASet.GetSelectFields()->Add(field);
    ASet.GetSelectFieldOptions("parentdirid").DisableLookupValueLoading = true;
}

std::int64_t TitleNumber(const std::string& ATitle) {
    std::int64_t n = 0;
    if (!TryStrToInt64(ATitle, n) || n < std::numeric_limits<std::int32_t>::min() ||
        n > std::numeric_limits<std::int32_t>::max())
        return kNoNumber;
    return n;
}

// One-statement update of AField := ANewValue on the rows of ASchema whose AField equals AOld.
void MoveReferences(IMainInterface* AMainInterface, const char* ASchema, const char* AField,
                    std::int64_t AOld, std::int64_t ANewValue) {
    TClientSQL sql(nullptr);
    sql.SetMainInterface(AMainInterface);
    sql.SetStatementKind(skUpdate);
    sql.SetSchemaName(ASchema);
    sql.GetFields()->AddField(AField, TVariant(static_cast<long long>(ANewValue)));
    sql.GetFilters()->AddFilter(AField, TVariant(static_cast<long long>(AOld)));
    sql.ExecuteSQL();
}

}  // namespace

std::string PluginSchemaName(const std::string& APlugin) {
    const TDocStorePluginSchema* entry = FindPluginSchema(APlugin);
    return entry ? entry->SchemaName : "";
}

std::string PluginDetailSchemaName(const std::string& APlugin) {
    const TDocStorePluginSchema* entry = FindPluginSchema(APlugin);
    return entry ? entry->DetailSchemaName : "";
}

void DoDocAdminStoreMigrations(IMainInterface* AMainInterface) {
    ISettingsStorage* settings = AMainInterface->GetGlobalSettings();
    if (!settings) return;
    if (settings->ReadInt64(kSection, kStoreUpdateKey) != kStoreUpdateDone) {
        DoStoreUpdate(AMainInterface);
        settings->WriteInt64(kSection, kStoreUpdateKey, kStoreUpdateDone);
    }
    if (settings->ReadInt64(kSection, kArchiveFlagUpdateKey) != kArchiveFlagUpdateDone) {
        DoArchiveFlagUpdate(AMainInterface);
        settings->WriteInt64(kSection, kArchiveFlagUpdateKey, kArchiveFlagUpdateDone);
    }
}

void DoStoreUpdate(IMainInterface* AMainInterface) {
    TProgressBlock progress(AMainInterface, "Document Administration Database-Update");
    TKRRecordSet rs(nullptr);
    PrepareDirSet(rs, AMainInterface);
    // Every folder of the old titles, whatever its plug-in and place.
    rs.GetFilters()->AddFilter("title", TVariant("Records"));
    rs.GetFilters()->AddFilter("title", TVariant("Main"))->SetFilterLink(flOr);
    rs.Open();
    const int count = rs.GetRecordCount();
    // Last to first, so that deleting a row leaves the numbers of those still to come.
    for (int i = count - 1; i >= 0; --i) {
        progress.Step(count - 1 - i, count, "Updating Document-Stores");
        const std::string title = rs.ValueByName(i, "title").GetAsString();
        const std::string plugin = rs.ValueByName(i, "pluginguid").GetAsString();
        if (title == "Main") {
            rs.ValueByName(i, "title", true).SetAsString(PluginSchemaName(plugin) + "#Main");
            rs.SaveRecordNumber(i);
        } else if (title == "Records") {
            const std::string newTitle = PluginSchemaName(plugin) + "#Records";
            const std::int64_t existing = FindStoreFolder(AMainInterface, newTitle, plugin);
            const std::int64_t id = rs.GetDBIDByRecNo(i);
            UpdateRecordFolders(AMainInterface, plugin, id, existing);
            if (existing == -1) {
                // Written at once, so that a second "Records" folder of the same plug-in finds
                // this one and merges into it instead of taking the same title.
                rs.ValueByName(i, "title", true).SetAsString(newTitle);
                rs.SaveRecordNumber(i);
            } else {
                // Nothing may keep pointing at the row that goes: its documents join the
                // existing folder, its remaining children stand at the top level.
                MoveReferences(AMainInterface, kDocSection, "dirid", id, existing);
                MoveReferences(AMainInterface, kDirSection, "parentdirid", id, 0);
                rs.DeleteRecord(i);
            }
        }
    }
    rs.Close();
}

std::int64_t FindStoreFolder(IMainInterface* AMainInterface, const std::string& ATitle,
                             const std::string& APlugin) {
    TKRRecordSet rs(nullptr);
    rs.SetMainInterface(AMainInterface);
    rs.SetSchemaName(kDirSection);
    rs.GetFilters()->AddFilter("title", TVariant(ATitle));
    rs.GetFilters()->AddFilter("pluginguid", TVariant(APlugin));
    rs.Open();
    return rs.GetRecordCount() > 0 ? rs.GetDBIDByRecNo(0) : -1;
}

void UpdateRecordFolders(IMainInterface* AMainInterface, const std::string& APlugin,
                         std::int64_t AFolderID, std::int64_t AExistingFolderID) {
    const std::string detailSchema = PluginDetailSchemaName(APlugin);
    if (detailSchema.empty()) return;
    IPtr<IDBFieldSchemaItem> schema =
        GetSchemaByName(AMainInterface->GetDBFieldSchema(), detailSchema, true);
    if (!schema) return;
    const std::string sqlTable = schema->GetSQLTableName();
    const std::string caption = schema->GetTableDef().Caption;
    IDBInterface* db = AMainInterface->GetDBInterface();

    TProgressBlock progress(AMainInterface, "Updating folders for " + APlugin);
    TKRRecordSet rs(nullptr);
    PrepareDirSet(rs, AMainInterface);
    rs.GetFilters()->AddFilter("parentdirid", TVariant(static_cast<long long>(AFolderID)));
    rs.Open();
    const int count = rs.GetRecordCount();
    for (int i = 0; i < count; ++i) {
        const std::string title = rs.ValueByName(i, "title").GetAsString();
        progress.Step(i, count, "Updating FolderID-" + title);
        const std::int64_t number = TitleNumber(title);
        if (number == kNoNumber) continue;
        const std::string uid = db->GetRecordUIDByDBID(sqlTable, number);
        if (!uid.empty()) {
            rs.ValueByName(i, "title", true).SetAsString(uid);
            if (AExistingFolderID > -1)
                rs.ValueByName(i, "parentdirid", true).SetAsInteger(AExistingFolderID);
        } else {
            // The record is gone: keep the folder and its documents where a user can find them.
            rs.ValueByName(i, "pluginguid", true).SetAsString("");
            rs.ValueByName(i, "parentdirid", true).SetAsInteger(0);
            rs.ValueByName(i, "title", true)
                .SetAsString("Lost&Found " + title + " (" + caption + ")");
        }
        rs.SaveRecordNumber(i);
    }
    rs.Close();
}

void DoArchiveFlagUpdate(IMainInterface* AMainInterface) {
    TClientSQL sql(nullptr);
    sql.SetMainInterface(AMainInterface);
    sql.SetStatementKind(skUpdate);
    sql.SetSchemaName(kDocSection);
    sql.GetFields()->AddField("doctags", TVariant(2));
    TClientSQLFilters* filters = sql.GetFilters();
    filters->AddFilter("doctags", TVariant(0));
    filters->Add()->SetParenthesis(pOpen);
    for (const char* pattern : {"%.fp3", "%.krmsg", "%.msg", "%.eml", "%.dmfd", "%.rtf"}) {
        TClientSQLFilter* f = filters->AddFilter("docname", TVariant(pattern));
        f->SetFilterType(ftLike);
        f->SetFilterLink(flOr);
    }
    filters->Add()->SetParenthesis(pClose);
    sql.ExecuteSQL();
    // Tag 1 is a state of its own and is kept beside the read-only tag.
    filters->GetItems(0)->SetAsInteger(1);
    sql.GetFields()->GetItems(0)->SetAsInteger(3);
    sql.ExecuteSQL();
}

}  // namespace docadmin
