#include "_TDBUserAccess.h"

namespace docadmin {

TDBUserAccess::TDBUserAccess(IDBInterface* ADatabase, std::int64_t AUserID,
                             std::chrono::milliseconds ACacheTime)
    : FStore(ADatabase), FUserID(AUserID), FCacheTime(ACacheTime) {}

void TDBUserAccess::Refresh() {
    const auto now = std::chrono::steady_clock::now();
    if (FValid && now - FReadAt < FCacheTime) return;
    const auto u = FStore.GetUser(FUserID);
    FExists = u.has_value();
    FUser = u.value_or(TUserInfo{});
    FModes.clear();
    FReadAt = now;
    FValid = true;
}

void TDBUserAccess::Invalidate() {
    std::lock_guard lock(FLock);
    FValid = false;
}

bool TDBUserAccess::IsReadOnly() {
    std::lock_guard lock(FLock);
    Refresh();
    return !FExists || FUser.ReadOnly || FUser.Disabled;
}

std::int32_t TDBUserAccess::GetGroupAccessMode(std::int64_t AGroupID) {
    std::lock_guard lock(FLock);
    Refresh();
    if (!FExists || FUser.Disabled) return uamDenied;
    if (FUser.Admin || AGroupID == 0) return uamFull;
    if (const auto it = FModes.find(AGroupID); it != FModes.end()) return it->second;
    const auto mode = FStore.GetUserACLMode(FUserID, AGroupID);
    const std::int32_t m = mode ? static_cast<std::int32_t>(*mode) : uamDenied;
    FModes[AGroupID] = m;
    return m;
}

TKRACLDataTableController* TDBUserAccess::GetACLTableController(const std::string& ATableName) {
    return TKRACLDataTableController::FindController(ATableName);
}

std::int32_t TDBUserAccess::GetDefaultACLGroup() {
    std::lock_guard lock(FLock);
    Refresh();
    return static_cast<std::int32_t>(FUser.DefaultACLGroup);
}

}  // namespace docadmin
