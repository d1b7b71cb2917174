// Users, ACL groups and the modes of users in groups, kept in the tables users, aclgroups and
// useraclmodes.
//
// A user has a unique name, a password stored as a salted slow hash (see _TPasswordHash.h), a
// read-only flag, an administrator flag, a disabled flag and a default ACL group (0 for none).
// A user's mode in a group is one of TUserACLMode; a user without a row for a group is denied in
// it.
//
// User names are compared without the white space around them and without regard to the case
// of the letters A-Z ("Alice " is "alice"); other letters compare exactly. A new or renamed user
// is stored under the trimmed name, which must be valid UTF-8 of at most 100 characters without
// control characters. A database written before these rules may hold several names that now
// compare equal: a lookup then takes the one spelled exactly as asked for and otherwise fails
// with EUserStoreError naming them; DuplicateUserNames lists them so they can be renamed.
// Lookups read the names of all users (the table is small) and compare them here, so that both
// databases compare alike.
//
// A password must have at least the configured number of characters and must not be blank. A
// hash older or weaker than the store's iteration count is made again at the next successful
// login.
//
// The store holds no state of its own beyond the database and may be used from any thread.
#pragma once

#include <cstdint>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "_DBInterface.h"
#include "_TDocAdminConfig.h"
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
    // AIterations: the PBKDF2 count of new hashes (tests pass a small one). AMinPasswordLength:
    // the fewest characters a password may have (at least 1).
    explicit TUserStore(IDBInterface* ADatabase, int AIterations = DefaultPasswordIterations,
                        int AMinPasswordLength = DefaultMinPasswordLength);

    // Adds a user; without a password (std::nullopt) the user cannot log in. Raises
    // EUserStoreError when the name is invalid or taken, the password is refused by
    // CheckPassword, or the default group doesn't exist.
    std::int64_t AddUser(const TUserInfo& AUser, const std::optional<std::string>& APassword);
    // The user of that name (see above for how names compare).
    std::optional<TUserInfo> FindUser(const std::string& AUserName);
    std::optional<TUserInfo> GetUser(std::int64_t AUserID);
    // All users, ordered by name.
    std::vector<TUserInfo> ListUsers();
    // Groups of two or more users whose names compare equal, each ordered by id.
    std::vector<std::vector<TUserInfo>> DuplicateUserNames();
    // Raise EUserStoreError for an unknown user, and SetPassword for a refused password.
    void SetPassword(const std::string& AUserName, const std::string& APassword);
    void SetReadOnly(const std::string& AUserName, bool AReadOnly);
    void SetDefaultACLGroup(const std::string& AUserName, std::int64_t AGroupID);
    // Gives the user a new name under the rules of AddUser; another spelling of the user's own
    // name (case, spaces) is allowed.
    void RenameUser(const std::string& AUserName, const std::string& ANewName);

    // Raises EUserStoreError when the password is too short or blank.
    void CheckPassword(const std::string& APassword) const;
    // The name as it is stored: trimmed. Raises EUserStoreError when it is empty, too long, not
    // UTF-8 or holds control characters.
    static std::string CheckUserName(const std::string& AUserName);

    // The user's id when the name and password match an enabled user with a password; 0
    // otherwise. Takes the time of one hash whether the user exists or not. A stored hash
    // weaker than a new one is replaced by a new hash of the password; when that write fails the
    // login still succeeds and the next one tries again.
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
    struct TUserRow : TUserInfo {
        std::string PasswordHash;
    };
    std::vector<TUserRow> ReadUsers(const std::string& AField, const TVariant& AValue,
                                    std::int64_t ATransaction = 0);
    // The one row that AUserName names, if any; raises EUserStoreError when several match and
    // none is spelled exactly so.
    std::optional<TUserRow> MatchUser(const std::string& AUserName, std::int64_t ATransaction = 0);
    void UpdateUser(const std::string& AUserName, const std::string& AField, TVariant AValue);
    // Runs AWork in a transaction that keeps other writers of the users table out until it ends,
    // so that a name checked as free stays free until it is written.
    template <class F>
    void InUsersTransaction(F&& AWork);

    IDBInterface* const FDatabase;
    const int FIterations;
    const int FMinPasswordLength;
    std::once_flag FDummyOnce;
    std::string FDummyHash;  // set once under FDummyOnce
};

}  // namespace docadmin
