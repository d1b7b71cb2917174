// TUniqueFolderCache: per plug-in, the rows of the record root folders ("<schema>#Records") that
// were found, so that finding the common parent of many record folders costs one query.
//
// A record's own folder (titled with the record's GUID) is never cached, only the record root
// folders above them. The cache is unbounded and is never invalidated: a cached folder whose row
// was deleted later still yields a directory with the old id.
//
// Thread safety: one cache is shared by every administrator of a repository, on any thread.
// FSync is held for the whole of CacheUniqueFolder and LoadUniqueFolder, including the creation of
// the child item. GetIsRecordRootFolder touches no state.
#pragma once

#include <cstdint>
#include <map>
#include <memory>
#include <string>

#include "_StorageItems.h"
#include "_Tools.h"

namespace docadmin {

// The cached row of one record root folder.
class TUniqueFolderCacheDirectoryData : public TObject {
  public:
    std::int64_t DBID() const { return FDBID; }
    void SetDBID(std::int64_t v) { FDBID = v; }
    const std::string& RecUID() const { return FRecUID; }
    void SetRecUID(std::string v) { FRecUID = std::move(v); }
    std::int64_t ACLGroupID() const { return FACLGroupID; }
    void SetACLGroupID(std::int64_t v) { FACLGroupID = v; }

  private:
    std::int64_t FDBID = 0;
    std::string FRecUID;
    std::int64_t FACLGroupID = 0;
};

// Folder title -> cached row; owns its values.
using TUniqueFolderCachePluginItem =
    std::map<std::string, std::unique_ptr<TUniqueFolderCacheDirectoryData>>;

class TUniqueFolderCache : public TObject {
  public:
    TUniqueFolderCache() = default;

    // Only record root folders are cached (the test of GetIsRecordRootFolder).
    bool GetIsCacheableUniqueFolder(const std::string& AUniqueFolderName) const {
        return GetIsRecordRootFolder(AUniqueFolderName);
    }
    // Stores the directory's row under its (inherited) plug-in and title; a later call for the
    // same folder replaces the values.
    void CacheUniqueFolder(TDocDirectory* AUniqueDirectory);
    // Adds a child to ADestDirectory made from the cached row and answers true; false and nothing
    // changed when the plug-in or the name has no entry. The child is chNone with an empty
    // loading state, so its content loads lazily.
    bool LoadUniqueFolder(const std::string& APluginUID, const std::string& AUniqueFolderName,
                          TDocDirectory* ADestDirectory);
    // True when "#Records" occurs in AName after at least one leading character (case-sensitive).
    static bool GetIsRecordRootFolder(const std::string& AName);

    // Number of plug-ins with entries, and of entries of one plug-in (0 when unknown).
    int PluginCount() const;
    int FolderCount(const std::string& APluginUID) const;

  private:
    mutable TCriticalSection FSync;
    // Plug-in GUID text exactly as given (case matters) -> its folders. Guarded by FSync.
    std::map<std::string, std::unique_ptr<TUniqueFolderCachePluginItem>> FItems;
};

}  // namespace docadmin
