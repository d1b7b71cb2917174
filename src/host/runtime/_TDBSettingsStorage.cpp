#include "_TDBSettingsStorage.h"

#include <utility>

#include "_TClientSQL.h"
#include "_TKRRecordSet.h"

namespace docadmin {

namespace {

std::function<std::int64_t()> RequireUser(std::function<std::int64_t()> AUserID) {
    Assert(static_cast<bool>(AUserID), "User settings need a user");
    return AUserID;
}

}  // namespace

TDBSettingsStorage::TDBSettingsStorage(IDBInterface* ADatabase, std::string ASchemaName,
                                       std::function<std::int64_t()> AUserID)
    : FDatabase(ADatabase), FSchemaName(std::move(ASchemaName)), FUserID(std::move(AUserID)) {}

std::int64_t TDBSettingsStorage::FindRow(const std::string& ASection, const std::string& AKey,
                                         std::int64_t AUserID, std::string* AValue) {
    TKRRecordSet rs(nullptr, FDatabase);
    rs.SetSchemaName(FSchemaName);
    rs.GetSelectFields()->Add("value");
    rs.GetFilters()->AddFilter("section", ASection);
    rs.GetFilters()->AddFilter("ident", AKey)->SetFilterLink(flAnd);
    if (FUserID) {
        rs.GetFilters()->AddFilter("userid", static_cast<long long>(AUserID))->SetFilterLink(flAnd);
        rs.GetSelectFieldOptions("userid").DisableLookupValueLoading = true;
    }
    rs.Open();
    if (rs.GetRecordCount() == 0) return 0;
    if (AValue) *AValue = rs.ValueByName(0, "value").GetAsString();
    return rs.GetDBIDByRecNo(0);
}

std::optional<std::string> TDBSettingsStorage::Read(const std::string& ASection,
                                                    const std::string& AKey) {
    std::string value;
    if (FindRow(ASection, AKey, FUserID ? FUserID() : 0, &value) == 0) return std::nullopt;
    return value;
}

std::int64_t TDBSettingsStorage::ReadInt64(const std::string& ASection, const std::string& AKey) {
    const auto v = Read(ASection, AKey);
    std::int64_t n = 0;
    if (!v || !TryStrToInt64(*v, n)) return 0;
    return n;
}

bool TDBSettingsStorage::ReadBool(const std::string& ASection, const std::string& AKey,
                                  bool ADefault) {
    const auto v = Read(ASection, AKey);
    if (!v) return ADefault;
    return StrToBoolDef(*v, ADefault);
}

std::string TDBSettingsStorage::ReadString(const std::string& ASection, const std::string& AKey,
                                           const std::string& ADefault) {
    return Read(ASection, AKey).value_or(ADefault);
}

void TDBSettingsStorage::WriteString(const std::string& ASection, const std::string& AKey,
                                     const std::string& AValue) {
    std::lock_guard lock(FWriteLock);
    const std::int64_t user = FUserID ? FUserID() : 0;
    auto update = [&](std::int64_t id) {
        TClientSQL upd(nullptr, FDatabase);
        upd.SetStatementKind(skUpdate);
        upd.SetSchemaName(FSchemaName);
        upd.GetFields()->AddField("value", AValue);
        upd.GetFilters()->AddFilter("id", static_cast<long long>(id));
        upd.ExecuteSQL();
    };
    if (const std::int64_t id = FindRow(ASection, AKey, user, nullptr)) {
        update(id);
        return;
    }
    TClientSQL ins(nullptr, FDatabase);
    ins.SetStatementKind(skInsert);
    ins.SetSchemaName(FSchemaName);
    if (FUserID) ins.GetFields()->AddField("userid", static_cast<long long>(user));
    ins.GetFields()->AddField("section", ASection);
    ins.GetFields()->AddField("ident", AKey);
    ins.GetFields()->AddField("value", AValue);
    try {
        std::int64_t newID = 0;
        ins.ExecuteSQL(newID);
    } catch (const EDBSQLError&) {
        // Another process inserted the key in the meantime (unique index): update its row.
        const std::int64_t id = FindRow(ASection, AKey, user, nullptr);
        if (id == 0) throw;
        update(id);
    }
}

void TDBSettingsStorage::WriteInt64(const std::string& ASection, const std::string& AKey,
                                    std::int64_t AValue) {
    WriteString(ASection, AKey, std::to_string(AValue));
}

void TDBSettingsStorage::WriteBool(const std::string& ASection, const std::string& AKey,
                                   bool AValue) {
    WriteString(ASection, AKey, AValue ? "true" : "false");
}

void TDBSettingsStorage::DeleteKey(const std::string& ASection, const std::string& AKey) {
    std::lock_guard lock(FWriteLock);
    const std::int64_t id = FindRow(ASection, AKey, FUserID ? FUserID() : 0, nullptr);
    if (id == 0) return;
    TClientSQL del(nullptr, FDatabase);
    del.SetStatementKind(skDelete);
    del.SetSchemaName(FSchemaName);
    del.GetFilters()->AddFilter("id", static_cast<long long>(id));
    del.ExecuteSQL();
}

TGlobalSettingsStorage::TGlobalSettingsStorage(IDBInterface* ADatabase)
    : TDBSettingsStorage(ADatabase, "globalsettings", nullptr) {}

TUserSettingsStorage::TUserSettingsStorage(IDBInterface* ADatabase,
                                           std::function<std::int64_t()> AUserID)
    : TDBSettingsStorage(ADatabase, "usersettings", RequireUser(std::move(AUserID))) {}

}  // namespace docadmin
