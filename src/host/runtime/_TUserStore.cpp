#include "_TUserStore.h"

#include <algorithm>
#include <map>

#include "_TClientSQL.h"
#include "_TKRRecordSet.h"
#include "_Tools.h"

namespace docadmin {

namespace {

constexpr size_t kMaxUserNameChars = 100;  // the size of the username column

bool IsBlank(char c) {
    return c == ' ' || c == '\t' || c == '\n' || c == '\r' || c == '\v' || c == '\f';
}

std::string TrimBlanks(const std::string& s) {
    size_t b = 0, e = s.size();
    while (b < e && IsBlank(s[b]))
        ++b;
    while (e > b && IsBlank(s[e - 1]))
        --e;
    return s.substr(b, e - b);
}

// What two names that compare equal have in common.
std::string NameKey(const std::string& AUserName) {
    return LowerCase(TrimBlanks(AUserName));
}

// The code point of the UTF-8 sequence at s[i] and its length; false for a byte that doesn't
// start a well-formed sequence (overlong forms and surrogates included).
bool DecodeUTF8(const std::string& s, size_t i, std::uint32_t& cp, size_t& len) {
    const auto c = static_cast<unsigned char>(s[i]);
    if (c < 0x80) {
        cp = c, len = 1;
    } else if ((c & 0xE0) == 0xC0) {
        cp = c & 0x1F, len = 2;
    } else if ((c & 0xF0) == 0xE0) {
        cp = c & 0x0F, len = 3;
    } else if ((c & 0xF8) == 0xF0) {
        cp = c & 0x07, len = 4;
    } else {
        return false;
    }
    if (i + len > s.size()) return false;
    for (size_t k = 1; k < len; ++k) {
        const auto cc = static_cast<unsigned char>(s[i + k]);
        if ((cc & 0xC0) != 0x80) return false;
        cp = (cp << 6) | (cc & 0x3F);
    }
    static constexpr std::uint32_t kMinOfLength[] = {0, 0, 0x80, 0x800, 0x10000};
    return cp >= kMinOfLength[len] && cp <= 0x10FFFF && (cp < 0xD800 || cp > 0xDFFF);
}

bool IsControl(std::uint32_t cp) {
    return cp < 0x20 || (cp >= 0x7F && cp < 0xA0);
}

// The number of characters of a UTF-8 text without control characters; -1 when the text is not
// UTF-8 or holds one.
long CountPrintableUTF8(const std::string& s) {
    long chars = 0;
    for (size_t i = 0, len = 0; i < s.size(); i += len, ++chars) {
        std::uint32_t cp = 0;
        if (!DecodeUTF8(s, i, cp, len) || IsControl(cp)) return -1;
    }
    return chars;
}

std::string DescribeUsers(const std::vector<TUserInfo>& AUsers) {
    std::string s;
    for (const TUserInfo& u : AUsers)
        s += (s.empty() ? "\"" : ", \"") + PrintableText(u.UserName) + "\" (id " +
             std::to_string(u.ID) + ")";
    return s;
}

}  // namespace

TUserStore::TUserStore(IDBInterface* ADatabase, int AIterations, int AMinPasswordLength)
    : FDatabase(ADatabase),
      FIterations(AIterations),
      FMinPasswordLength(std::max(1, AMinPasswordLength)) {}

std::vector<TUserStore::TUserRow> TUserStore::ReadUsers(const std::string& AField,
                                                        const TVariant& AValue,
                                                        std::int64_t ATransaction) {
    TKRRecordSet rs(nullptr, FDatabase);
    rs.SetDBATransactionID(ATransaction);
    rs.SetSchemaName("users");
    for (const char* f : {"username", "fullname", "passwordhash", "isreadonly", "isadmin",
                          "disabled", "defaultaclgroup"})
        rs.GetSelectFields()->Add(f);
    rs.GetSelectFieldOptions("defaultaclgroup").DisableLookupValueLoading = true;
    if (!AField.empty()) rs.GetFilters()->AddFilter(AField, AValue);
    rs.GetOrderFields()->SetOrder("username");
    rs.Open();
    std::vector<TUserRow> out;
    for (int i = 0; i < rs.GetRecordCount(); ++i) {
        TUserRow u;
        u.ID = rs.GetDBIDByRecNo(i);
        u.UserName = rs.ValueByName(i, "username").GetAsString();
        u.FullName = rs.ValueByName(i, "fullname").GetAsString();
        u.PasswordHash = rs.ValueByName(i, "passwordhash").GetAsString();
        u.HasPassword = !u.PasswordHash.empty();
        u.ReadOnly = rs.ValueByName(i, "isreadonly").GetAsInteger() != 0;
        u.Admin = rs.ValueByName(i, "isadmin").GetAsInteger() != 0;
        u.Disabled = rs.ValueByName(i, "disabled").GetAsInteger() != 0;
        u.DefaultACLGroup = rs.ValueByName(i, "defaultaclgroup").GetRealValue();
        out.push_back(std::move(u));
    }
    return out;
}

std::optional<TUserStore::TUserRow> TUserStore::MatchUser(const std::string& AUserName,
                                                          std::int64_t ATransaction) {
    const std::string key = NameKey(AUserName);
    std::vector<TUserRow> matches;
    for (TUserRow& u : ReadUsers("", TVariant(), ATransaction))
        if (NameKey(u.UserName) == key) matches.push_back(std::move(u));
    if (matches.size() <= 1) {
        if (matches.empty()) return std::nullopt;
        return std::move(matches.front());
    }
    for (TUserRow& u : matches)
        if (u.UserName == AUserName) return std::move(u);
    throw EUserStoreError("The user name \"" + PrintableText(AUserName) + "\" is ambiguous: " +
                          DescribeUsers(std::vector<TUserInfo>(matches.begin(), matches.end())) +
                          " differ only in case or spaces; rename all but one");
}

template <class F>
void TUserStore::InUsersTransaction(F&& AWork) {
    const std::int64_t tid = FDatabase->BeginTransaction();
    try {
        // SQLite's write transactions exclude each other already; PostgreSQL needs the lock.
        if (FDatabase->GetBackendKind() == TDBBackendKind::bkPostgreSQL)
            FDatabase->AcquireConnection(tid)->ExecDirect(
                "LOCK TABLE users IN SHARE ROW EXCLUSIVE MODE");
        AWork(tid);
        FDatabase->CommitTransaction(tid);
    } catch (...) {
        try {
            FDatabase->RollbackTransaction(tid);
        } catch (const std::exception&) {
            // The first failure is the one to report.
        }
        throw;
    }
}

std::string TUserStore::CheckUserName(const std::string& AUserName) {
    std::string name = TrimBlanks(AUserName);
    if (name.empty()) throw EUserStoreError("A user needs a name");
    const long chars = CountPrintableUTF8(name);
    if (chars < 0)
        throw EUserStoreError(
            "A user name must be UTF-8 text without control characters (tabs and line breaks "
            "included)");
    if (static_cast<size_t>(chars) > kMaxUserNameChars)
        throw EUserStoreError("A user name may have at most " + std::to_string(kMaxUserNameChars) +
                              " characters");
    return name;
}

void TUserStore::CheckPassword(const std::string& APassword) const {
    long chars = 0;
    for (unsigned char c : APassword)
        chars += (c & 0xC0) != 0x80;  // count UTF-8 lead bytes, not continuation bytes
    if (chars < FMinPasswordLength)
        throw EUserStoreError("A password must have at least " +
                              std::to_string(FMinPasswordLength) + " characters");
    if (TrimBlanks(APassword).empty())
        throw EUserStoreError("A password must not consist of spaces only");
}

std::int64_t TUserStore::AddUser(const TUserInfo& AUser,
                                 const std::optional<std::string>& APassword) {
    const std::string name = CheckUserName(AUser.UserName);
    if (APassword) CheckPassword(*APassword);
    if (AUser.DefaultACLGroup != 0 && !GetACLGroup(AUser.DefaultACLGroup))
        throw EUserStoreError("ACL group " + std::to_string(AUser.DefaultACLGroup) +
                              " does not exist");
    // Hashed before the transaction, which should hold the lock only briefly.
    const std::string hash = APassword ? HashPassword(*APassword, FIterations) : std::string();
    std::int64_t id = 0;
    InUsersTransaction([&](std::int64_t tid) {
        const std::string key = NameKey(name);
        for (const TUserRow& u : ReadUsers("", TVariant(), tid))
            if (NameKey(u.UserName) == key)
                throw EUserStoreError(
                    "User " + PrintableText(name) + " exists" +
                    (u.UserName == name ? "" : " as " + PrintableText(u.UserName)));
        TClientSQL ins(nullptr, FDatabase);
        ins.SetDBATransactionID(tid);
        ins.SetStatementKind(skInsert);
        ins.SetSchemaName("users");
        auto* f = ins.GetFields();
        f->AddField("username", name);
        f->AddField("fullname", AUser.FullName);
        f->AddField("passwordhash", hash);
        f->AddField("isreadonly", AUser.ReadOnly);
        f->AddField("isadmin", AUser.Admin);
        f->AddField("disabled", AUser.Disabled);
        f->AddField("defaultaclgroup", static_cast<long long>(AUser.DefaultACLGroup));
        ins.ExecuteSQL(id);
    });
    return id;
}

std::optional<TUserInfo> TUserStore::FindUser(const std::string& AUserName) {
    auto u = MatchUser(AUserName);
    if (!u) return std::nullopt;
    return static_cast<TUserInfo&&>(std::move(*u));
}

std::optional<TUserInfo> TUserStore::GetUser(std::int64_t AUserID) {
    auto users = ReadUsers("id", static_cast<long long>(AUserID));
    if (users.empty()) return std::nullopt;
    return static_cast<TUserInfo&&>(std::move(users.front()));
}

std::vector<TUserInfo> TUserStore::ListUsers() {
    auto rows = ReadUsers("", TVariant());
    return std::vector<TUserInfo>(rows.begin(), rows.end());
}

std::vector<std::vector<TUserInfo>> TUserStore::DuplicateUserNames() {
    std::map<std::string, std::vector<TUserInfo>> byKey;
    for (const TUserRow& u : ReadUsers("", TVariant()))
        byKey[NameKey(u.UserName)].push_back(u);
    std::vector<std::vector<TUserInfo>> out;
    for (auto& [key, users] : byKey) {
        if (users.size() < 2) continue;
        std::sort(users.begin(), users.end(),
                  [](const TUserInfo& a, const TUserInfo& b) { return a.ID < b.ID; });
        out.push_back(std::move(users));
    }
    return out;
}

void TUserStore::UpdateUser(const std::string& AUserName, const std::string& AField,
                            TVariant AValue) {
    const auto u = MatchUser(AUserName);
    if (!u) throw EUserStoreError("User " + PrintableText(AUserName) + " does not exist");
    TClientSQL upd(nullptr, FDatabase);
    upd.SetStatementKind(skUpdate);
    upd.SetSchemaName("users");
    upd.GetFields()->AddField(AField, std::move(AValue));
    upd.GetFilters()->AddFilter("id", static_cast<long long>(u->ID));
    upd.ExecuteSQL();
}

void TUserStore::SetPassword(const std::string& AUserName, const std::string& APassword) {
    CheckPassword(APassword);
    UpdateUser(AUserName, "passwordhash", HashPassword(APassword, FIterations));
}

void TUserStore::SetReadOnly(const std::string& AUserName, bool AReadOnly) {
    UpdateUser(AUserName, "isreadonly", AReadOnly);
}

void TUserStore::SetDefaultACLGroup(const std::string& AUserName, std::int64_t AGroupID) {
    if (AGroupID != 0 && !GetACLGroup(AGroupID))
        throw EUserStoreError("ACL group " + std::to_string(AGroupID) + " does not exist");
    UpdateUser(AUserName, "defaultaclgroup", static_cast<long long>(AGroupID));
}

void TUserStore::RenameUser(const std::string& AUserName, const std::string& ANewName) {
    const std::string name = CheckUserName(ANewName);
    InUsersTransaction([&](std::int64_t tid) {
        const auto u = MatchUser(AUserName, tid);
        if (!u) throw EUserStoreError("User " + PrintableText(AUserName) + " does not exist");
        const std::string key = NameKey(name);
        for (const TUserRow& other : ReadUsers("", TVariant(), tid))
            if (other.ID != u->ID && NameKey(other.UserName) == key)
                throw EUserStoreError(
                    "User " + PrintableText(name) + " exists" +
                    (other.UserName == name ? "" : " as " + PrintableText(other.UserName)));
        TClientSQL upd(nullptr, FDatabase);
        upd.SetDBATransactionID(tid);
        upd.SetStatementKind(skUpdate);
        upd.SetSchemaName("users");
        upd.GetFields()->AddField("username", name);
        upd.GetFilters()->AddFilter("id", static_cast<long long>(u->ID));
        upd.ExecuteSQL();
    });
}

std::int64_t TUserStore::Login(const std::string& AUserName, const std::string& APassword) {
    std::optional<TUserRow> u;
    try {
        u = MatchUser(AUserName);
    } catch (const EUserStoreError&) {
        // An ambiguous name logs nobody in; the time is spent below as for an unknown name.
    }
    if (!u || u->PasswordHash.empty() || u->Disabled) {
        // A hash of the same cost for unknown users, so that the answer's time tells nothing.
        std::call_once(FDummyOnce, [this] { FDummyHash = HashPassword("", FIterations); });
        (void)VerifyPassword(APassword, FDummyHash);
        return 0;
    }
    if (!VerifyPassword(APassword, u->PasswordHash)) return 0;
    if (PasswordHashNeedsUpgrade(u->PasswordHash, FIterations)) {
        try {
            // Only over the hash that was checked: a password changed meanwhile stays.
            TClientSQL upd(nullptr, FDatabase);
            upd.SetStatementKind(skUpdate);
            upd.SetSchemaName("users");
            upd.GetFields()->AddField("passwordhash", HashPassword(APassword, FIterations));
            upd.GetFilters()->AddFilter("id", static_cast<long long>(u->ID));
            upd.GetFilters()->AddFilter("passwordhash", u->PasswordHash)->SetFilterLink(flAnd);
            upd.ExecuteSQL();
        } catch (const std::exception&) {
            // The login stands; the old hash still verifies and is upgraded next time.
        }
    }
    return u->ID;
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
