#include "_TUniqueFolderCache.h"

#include <mutex>

namespace docadmin {

bool TUniqueFolderCache::GetIsRecordRootFolder(const std::string& AName) {
    const std::string::size_type pos = AName.find("#Records");
    if (pos == std::string::npos) return false;
    if (pos >= 1) return true;
    // The marker at the very start doesn't count, but a later occurrence does.
    return AName.find("#Records", 1) != std::string::npos;
}

void TUniqueFolderCache::CacheUniqueFolder(TDocDirectory* AUniqueDirectory) {
    std::lock_guard lock(FSync);
    std::unique_ptr<TUniqueFolderCachePluginItem>& item = FItems[AUniqueDirectory->Plugin()];
    if (!item) item = std::make_unique<TUniqueFolderCachePluginItem>();
    std::unique_ptr<TUniqueFolderCacheDirectoryData>& data = (*item)[AUniqueDirectory->Titel()];
    if (!data) data = std::make_unique<TUniqueFolderCacheDirectoryData>();
    data->SetDBID(AUniqueDirectory->DirID());
    data->SetRecUID(AUniqueDirectory->GlobalRecUID());
    data->SetACLGroupID(AUniqueDirectory->ACLGroupID());
}

bool TUniqueFolderCache::LoadUniqueFolder(const std::string& APluginUID,
                                          const std::string& AUniqueFolderName,
                                          TDocDirectory* ADestDirectory) {
    std::lock_guard lock(FSync);
    auto item = FItems.find(APluginUID);
    if (item == FItems.end()) return false;
    auto data = item->second->find(AUniqueFolderName);
    if (data == item->second->end()) return false;
    TDocDirectory* child = ADestDirectory->AddChildDirectory();
    child->SetDirID(data->second->DBID());
    child->SetTitel(AUniqueFolderName);
    child->SetPlugin(APluginUID);
    child->SetACLGroupID(data->second->ACLGroupID());
    child->SetGlobalRecUID(data->second->RecUID());
    // The setters above mark the item changed; it is as stored.
    child->SetChangeState(chNone);
    return true;
}

int TUniqueFolderCache::PluginCount() const {
    std::lock_guard lock(FSync);
    return static_cast<int>(FItems.size());
}

int TUniqueFolderCache::FolderCount(const std::string& APluginUID) const {
    std::lock_guard lock(FSync);
    auto item = FItems.find(APluginUID);
    return item == FItems.end() ? 0 : static_cast<int>(item->second->size());
}

}  // namespace docadmin
