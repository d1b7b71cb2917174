#include "_TRessourceSourceList.h"

#include <utility>

namespace docadmin {

const TRessourceSourceList::TEntry& TRessourceSourceList::At(std::int32_t AIndex) const {
    if (AIndex < 0 || static_cast<std::size_t>(AIndex) >= FEntries.size())
        throw EListError("resource source index " + std::to_string(AIndex) + " out of bounds");
    return FEntries[static_cast<std::size_t>(AIndex)];
}

void TRessourceSourceList::Add(const std::string& AIdentifier, IRessourceSource* ASource) {
    if (!ASource) throw EArgumentException("no resource source to add");
    std::lock_guard lock(FLock);
    FEntries.push_back({AIdentifier, IPtr<IRessourceSource>(ASource)});
}

std::int32_t TRessourceSourceList::IndexOf(IRessourceSource* ASource) {
    std::lock_guard lock(FLock);
    for (std::size_t i = 0; i < FEntries.size(); ++i)
        if (FEntries[i].Source.get() == ASource) return static_cast<std::int32_t>(i);
    return -1;
}

void TRessourceSourceList::Delete(std::int32_t AIndex) {
    IPtr<IRessourceSource> released;
    {
        std::lock_guard lock(FLock);
        At(AIndex);
        released = std::move(FEntries[static_cast<std::size_t>(AIndex)].Source);
        FEntries.erase(FEntries.begin() + AIndex);
    }
    // The reference goes outside the lock: the source's end may call back into the list.
}

std::int32_t TRessourceSourceList::Count() {
    std::lock_guard lock(FLock);
    return static_cast<std::int32_t>(FEntries.size());
}

IRessourceSource* TRessourceSourceList::Item(std::int32_t AIndex) {
    std::lock_guard lock(FLock);
    return At(AIndex).Source.get();
}

std::string TRessourceSourceList::Identifier(std::int32_t AIndex) {
    std::lock_guard lock(FLock);
    return At(AIndex).Identifier;
}

void TRessourceSourceList::Clear() {
    std::vector<TEntry> released;
    {
        std::lock_guard lock(FLock);
        released.swap(FEntries);
    }
}

void TRessourceSourceList::Abandon() {
    std::lock_guard lock(FLock);
    // One more reference each that nobody gives back: clearing then releases none to zero.
    for (TEntry& e : FEntries)
        e.Source->_AddRef();
    FEntries.clear();
}

}  // namespace docadmin
