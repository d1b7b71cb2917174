// The rights of one user as the database holds them: IUserAccess for the document layer and
// ICurrentUser for the user's default ACL group.
//
// The user's flags and modes are read from the database and kept for a short while (ACacheTime)
// before they are read again, so that a tree walk that asks for every item costs one query per
// group while a change made elsewhere still arrives within seconds.
//
// Modes: an administrator has mode uamFull in every group; group 0 (no group) is uamFull for
// everybody; a group without a row for the user is uamDenied. A user that has vanished from the
// table is read-only and denied everywhere.
//
// Safe to call from any thread.
#pragma once

#include <chrono>
#include <cstdint>
#include <map>
#include <mutex>

#include "_PluginIntf.h"
#include "_TUserStore.h"

namespace docadmin {

class TDBUserAccess : public TInterfacedImpl<IUserAccess>, public ICurrentUser {
  public:
    TDBUserAccess(IDBInterface* ADatabase, std::int64_t AUserID,
                  std::chrono::milliseconds ACacheTime = std::chrono::seconds(5));

    std::int32_t GetUserID() override { return static_cast<std::int32_t>(FUserID); }
    bool IsReadOnly() override;
    std::int32_t GetGroupAccessMode(std::int64_t AGroupID) override;
    TKRACLDataTableController* GetACLTableController(const std::string& ATableName) override;
    std::int32_t GetDefaultACLGroup() override;

    // Forgets what was read, so that the next question reads the database again.
    void Invalidate();

  private:
    // Reads the user's row again when the cache is older than FCacheTime; FLock held.
    void Refresh();

    TUserStore FStore;
    const std::int64_t FUserID;
    const std::chrono::milliseconds FCacheTime;

    std::mutex FLock;
    std::chrono::steady_clock::time_point FReadAt;  // guarded by FLock
    bool FValid = false;                            // guarded by FLock
    TUserInfo FUser;                                // guarded by FLock
    bool FExists = false;                           // guarded by FLock
    std::map<std::int64_t, std::int32_t> FModes;    // guarded by FLock
};

}  // namespace docadmin
