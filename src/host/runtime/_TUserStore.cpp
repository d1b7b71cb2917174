#include "_TUserStore.h"

#include "_TClientSQL.h"
#include "_TKRRecordSet.h"

namespace docadmin {

TUserStore::TUserStore(IDBInterface* ADatabase, int AIterations)
    : FDatabase(ADatabase), FIterations(AIterations) {}

std::vector<TUserInfo> TUserStore::ReadUsers(const std::string& AField, const TVariant& AValue) {
    TKRRecordSet rs(nullptr, FDatabase);
    rs.SetSchemaName("users");
    for (const char* f : {"username", "fullname", "passwordhash", "isreadonly", "isadmin",
                          "disabled", "defaultaclgroup"})
        rs.GetSelectFields()->Add(f);
    rs.GetSelectFieldOptions("defaultaclgroup").DisableLookupValueLoading = true;
    if (!AField.empty()) rs.GetFilters()->AddFilter(AField, AValue);
    rs.GetOrderFields()->SetOrder("username");
    rs.Open();
    std::vector<TUserInfo> out;
    for (int i = 0; i < rs.GetRecordCount(); ++i) {
        TUserInfo u;
        u.ID = rs.GetDBIDByRecNo(i);
        u.UserName = rs.ValueByName(i, "username").GetAsString();
        u.FullName = rs.ValueByName(i, "fullname").GetAsString();
        u.HasPassword = !rs.ValueByName(i, "passwordhash").GetAsString().empty();
        u.ReadOnly = rs.ValueByName(i, "isreadonly").GetAsInteger() != 0;
        u.Admin = rs.ValueByName(i, "isadmin").GetAsInteger() != 0;
        u.Disabled = rs.ValueByName(i, "disabled").GetAsInteger() != 0;
        u.DefaultACLGroup = rs.ValueByName(i, "defaultaclgroup").GetRealValue();
        out.push_back(std::move(u));
    }
    return out;
}

std::int64_t TUserStore::AddUser(const TUserInfo& AUser, const std::string& APassword) {
    if (AUser.UserName.empty()) throw EUserStoreError("A user needs a name");
    if (FindUser(AUser.UserName)) throw EUserStoreError("User " + AUser.UserName + " exists");
    if (AUser.DefaultACLGroup != 0 && !GetACLGroup(AUser.DefaultACLGroup))
        throw EUserStoreError("ACL group " + std::to_string(AUser.DefaultACLGroup) +
                              " does not exist");
    TClientSQL ins(nullptr, FDatabase);
    ins.SetStatementKind(skInsert);
    ins.SetSchemaName("users");
    auto* f = ins.GetFields();
    f->AddField("username", AUser.UserName);
    f->AddField("fullname", AUser.FullName);
    f->AddField("passwordhash",
                APassword.empty() ? std::string() : HashPassword(APassword, FIterations));
    f->AddField("isreadonly", AUser.ReadOnly);
    f->AddField("isadmin", AUser.Admin);
    f->AddField("disabled", AUser.Disabled);
    f->AddField("defaultaclgroup", static_cast<long long>(AUser.DefaultACLGroup));
    std::int64_t id = 0;
    ins.ExecuteSQL(id);
    return id;
}

std::optional<TUserInfo> TUserStore::FindUser(const std::string& AUserName) {
    auto users = ReadUsers("username", AUserName);
    if (users.empty()) return std::nullopt;
    return users.front();
}

std::optional<TUserInfo> TUserStore::GetUser(std::int64_t AUserID) {
    auto users = ReadUsers("id", static_cast<long long>(AUserID));
    if (users.empty()) return std::nullopt;
    return users.front();
}

std::vector<TUserInfo> TUserStore::ListUsers() {
    return ReadUsers("", TVariant());
}

void TUserStore::UpdateUser(const std::string& AUserName, const std::string& AField,
                            TVariant AValue) {
    const auto u = FindUser(AUserName);
    if (!u) throw EUserStoreError("User " + AUserName + " does not exist");
    TClientSQL upd(nullptr, FDatabase);
    upd.SetStatementKind(skUpdate);
    upd.SetSchemaName("users");
    upd.GetFields()->AddField(AField, std::move(AValue));
    upd.GetFilters()->AddFilter("id", static_cast<long long>(u->ID));
    upd.ExecuteSQL();
}

void TUserStore::SetPassword(const std::string& AUserName, const std::string& APassword) {
    UpdateUser(AUserName, "passwordhash",
               APassword.empty() ? std::string() : HashPassword(APassword, FIterations));
}

void TUserStore::SetReadOnly(const std::string& AUserName, bool AReadOnly) {
    UpdateUser(AUserName, "isreadonly", AReadOnly);
}

void TUserStore::SetDefaultACLGroup(const std::string& AUserName, std::int64_t AGroupID) {
    if (AGroupID != 0 && !GetACLGroup(AGroupID))
        throw EUserStoreError("ACL group " + std::to_string(AGroupID) + " does not exist");
    UpdateUser(AUserName, "defaultaclgroup", static_cast<long long>(AGroupID));
}

std::int64_t TUserStore::Login(const std::string& AUserName, const std::string& APassword) {
    TKRRecordSet rs(nullptr, FDatabase);
    rs.SetSchemaName("users");
    rs.GetSelectFields()->Add("passwordhash");
    rs.GetSelectFields()->Add("disabled");
    rs.GetFilters()->AddFilter("username", AUserName);
    rs.Open();
    std::string stored;
    bool usable = false;
    std::int64_t id = 0;
    if (rs.GetRecordCount() == 1) {
        stored = rs.ValueByName(0, "passwordhash").GetAsString();
        usable = !stored.empty() && rs.ValueByName(0, "disabled").GetAsInteger() == 0;
        id = rs.GetDBIDByRecNo(0);
    }
    if (!usable) {
        // A hash of the same cost for unknown users, so that the answer's time tells nothing.
        std::call_once(FDummyOnce, [this] { FDummyHash = HashPassword("", FIterations); });
        (void)VerifyPassword(APassword, FDummyHash);
        return 0;
    }
    return VerifyPassword(APassword, stored) ? id : 0;
}

std::int64_t TUserStore::AddACLGroup(const std::string& AName, const std::string& ADescription) {
    if (AName.empty()) throw EUserStoreError("An ACL group needs a name");
    if (FindACLGroup(AName)) throw EUserStoreError("ACL group " + AName + " exists");
    TClientSQL ins(nullptr, FDatabase);
    ins.SetStatementKind(skInsert);
    ins.SetSchemaName("aclgroups");
    ins.GetFields()->AddField("name", AName);
    ins.GetFields()->AddField("description", ADescription);
    std::int64_t id = 0;
    ins.ExecuteSQL(id);
    return id;
}

namespace {

std::vector<TACLGroupInfo> ReadGroups(IDBInterface* ADatabase, const std::string& AField,
                                      const TVariant& AValue) {
    TKRRecordSet rs(nullptr, ADatabase);
    rs.SetSchemaName("aclgroups");
    rs.GetSelectFields()->Add("name");
    rs.GetSelectFields()->Add("description");
    if (!AField.empty()) rs.GetFilters()->AddFilter(AField, AValue);
    rs.GetOrderFields()->SetOrder("name");
    rs.Open();
    std::vector<TACLGroupInfo> out;
    for (int i = 0; i < rs.GetRecordCount(); ++i)
        out.push_back({rs.GetDBIDByRecNo(i), rs.ValueByName(i, "name").GetAsString(),
                       rs.ValueByName(i, "description").GetAsString()});
    return out;
}

}  // namespace

std::optional<TACLGroupInfo> TUserStore::FindACLGroup(const std::string& AName) {
    auto g = ReadGroups(FDatabase, "name", AName);
    if (g.empty()) return std::nullopt;
    return g.front();
}

std::optional<TACLGroupInfo> TUserStore::GetACLGroup(std::int64_t AGroupID) {
    auto g = ReadGroups(FDatabase, "id", static_cast<long long>(AGroupID));
    if (g.empty()) return std::nullopt;
    return g.front();
}

std::vector<TACLGroupInfo> TUserStore::ListACLGroups() {
    return ReadGroups(FDatabase, "", TVariant());
}

namespace {

// The row of a user's mode in a group: its id (0 for none) and mode.
std::int64_t FindModeRow(IDBInterface* ADatabase, std::int64_t AUserID, std::int64_t AGroupID,
                         std::int32_t* AMode) {
    TKRRecordSet rs(nullptr, ADatabase);
    rs.SetSchemaName("useraclmodes");
    rs.GetSelectFields()->Add("accessmode");
    rs.GetFilters()->AddFilter("userid", static_cast<long long>(AUserID));
    rs.GetFilters()
        ->AddFilter("aclgroupid", static_cast<long long>(AGroupID))
        ->SetFilterLink(flAnd);
    rs.Open();
    if (rs.GetRecordCount() == 0) return 0;
    if (AMode) *AMode = static_cast<std::int32_t>(rs.ValueByName(0, "accessmode").GetAsInteger());
    return rs.GetDBIDByRecNo(0);
}

}  // namespace

void TUserStore::SetUserACLMode(std::int64_t AUserID, std::int64_t AGroupID, TUserACLMode AMode) {
    if (!GetUser(AUserID))
        throw EUserStoreError("User " + std::to_string(AUserID) + " does not exist");
    if (!GetACLGroup(AGroupID))
        throw EUserStoreError("ACL group " + std::to_string(AGroupID) + " does not exist");
    TClientSQL sql(nullptr, FDatabase);
    sql.SetSchemaName("useraclmodes");
    sql.GetFields()->AddField("accessmode", static_cast<int>(AMode));
    if (const std::int64_t id = FindModeRow(FDatabase, AUserID, AGroupID, nullptr)) {
        sql.SetStatementKind(skUpdate);
        sql.GetFilters()->AddFilter("id", static_cast<long long>(id));
        sql.ExecuteSQL();
        return;
    }
    sql.SetStatementKind(skInsert);
    sql.GetFields()->AddField("userid", static_cast<long long>(AUserID));
    sql.GetFields()->AddField("aclgroupid", static_cast<long long>(AGroupID));
    std::int64_t newID = 0;
    sql.ExecuteSQL(newID);
}

void TUserStore::RemoveUserACLMode(std::int64_t AUserID, std::int64_t AGroupID) {
    const std::int64_t id = FindModeRow(FDatabase, AUserID, AGroupID, nullptr);
    if (id == 0) return;
    TClientSQL del(nullptr, FDatabase);
    del.SetStatementKind(skDelete);
    del.SetSchemaName("useraclmodes");
    del.GetFilters()->AddFilter("id", static_cast<long long>(id));
    del.ExecuteSQL();
}

std::optional<TUserACLMode> TUserStore::GetUserACLMode(std::int64_t AUserID,
                                                       std::int64_t AGroupID) {
    std::int32_t mode = 0;
    if (FindModeRow(FDatabase, AUserID, AGroupID, &mode) == 0) return std::nullopt;
    return static_cast<TUserACLMode>(mode);
}

}  // namespace docadmin
