// Users, ACL groups and the modes of users in groups, kept in the tables users, aclgroups and
// useraclmodes.
//
// A user has a unique name, a password stored as a salted slow hash (see _TPasswordHash.h), a
// read-only flag, an administrator flag, a disabled flag and a default ACL group (0 for none).
// A user's mode in a group is one of TUserACLMode; a user without a row for a group is denied in
// it.
//
// The store holds no state of its own beyond the database and may be used from any thread.
#pragma once

#include <cstdint>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "_DBInterface.h"
#include "_TKRACLDataTableController.h"
#include "_TPasswordHash.h"

namespace docadmin {

// A user or group that doesn't exist, or a name that is taken or empty.
DOCADMIN_DECLARE_EXCEPTION(EUserStoreError, Exception);

struct TUserInfo {
    std::int64_t ID = 0;
    std::string UserName;
    std::string FullName;
    bool ReadOnly = false;
    bool Admin = false;
    bool Disabled = false;
    std::int64_t DefaultACLGroup = 0;
    bool HasPassword = false;
};

struct TACLGroupInfo {
    std::int64_t ID = 0;
    std::string Name;
    std::string Description;
};

class TUserStore {
  public:
    // AIterations: the PBKDF2 count of new hashes (tests pass a small one).
    explicit TUserStore(IDBInterface* ADatabase, int AIterations = DefaultPasswordIterations);

    // Adds a user; an empty password leaves the user without one (no login possible). Raises
    // EUserStoreError when the name is empty or taken, or the default group doesn't exist.
    std::int64_t AddUser(const TUserInfo& AUser, const std::string& APassword);
    std::optional<TUserInfo> FindUser(const std::string& AUserName);
    std::optional<TUserInfo> GetUser(std::int64_t AUserID);
    // All users, ordered by name.
    std::vector<TUserInfo> ListUsers();
    // Raise EUserStoreError for an unknown user.
    void SetPassword(const std::string& AUserName, const std::string& APassword);
    void SetReadOnly(const std::string& AUserName, bool AReadOnly);
    void SetDefaultACLGroup(const std::string& AUserName, std::int64_t AGroupID);

    // The user's id when the name and password match an enabled user with a password; 0
    // otherwise. Takes the time of one hash whether the user exists or not.
    std::int64_t Login(const std::string& AUserName, const std::string& APassword);

    std::int64_t AddACLGroup(const std::string& AName, const std::string& ADescription);
    std::optional<TACLGroupInfo> FindACLGroup(const std::string& AName);
    std::optional<TACLGroupInfo> GetACLGroup(std::int64_t AGroupID);
    std::vector<TACLGroupInfo> ListACLGroups();

    // Sets or replaces the user's mode in the group.
    void SetUserACLMode(std::int64_t AUserID, std::int64_t AGroupID, TUserACLMode AMode);
    void RemoveUserACLMode(std::int64_t AUserID, std::int64_t AGroupID);
    // The user's mode in the group; empty when the user has no row for it.
    std::optional<TUserACLMode> GetUserACLMode(std::int64_t AUserID, std::int64_t AGroupID);

  private:
    std::vector<TUserInfo> ReadUsers(const std::string& AField, const TVariant& AValue);
    void UpdateUser(const std::string& AUserName, const std::string& AField, TVariant AValue);

    IDBInterface* const FDatabase;
    const int FIterations;
    std::once_flag FDummyOnce;
    std::string FDummyHash;  // set once under FDummyOnce
};

}  // namespace docadmin
