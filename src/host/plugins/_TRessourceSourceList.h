// The host's list of resource sources: plug-ins add their IRessourceSource at start and delete
// it at their end; the resource framework reads it.
//
// The list holds one reference to each source until it is deleted or the list goes. Safe from
// any thread: one lock guards the entries. Item answers the source without a new reference; it
// stays valid while the source is in the list.
#pragma once

#include <cstdint>
#include <mutex>
#include <string>
#include <vector>

#include "_PluginIntf.h"
#include "_RessourceIntf.h"

namespace docadmin {

class TRessourceSourceList : public IRessourceSourceList {
  public:
    TRessourceSourceList() = default;
    TRessourceSourceList(const TRessourceSourceList&) = delete;
    TRessourceSourceList& operator=(const TRessourceSourceList&) = delete;

    // Appends the source; a null source is refused with EArgumentException.
    void Add(const std::string& AIdentifier, IRessourceSource* ASource) override;
    std::int32_t IndexOf(IRessourceSource* ASource) override;
    // Raises EListError for an index out of bounds.
    void Delete(std::int32_t AIndex) override;
    std::int32_t Count() override;
    IRessourceSource* Item(std::int32_t AIndex) override;
    // The identifier the source was added with; raises EListError out of bounds.
    std::string Identifier(std::int32_t AIndex) override;
    // Releases every source.
    void Clear();
    // Empties the list without releasing the sources: for sources whose code may be gone.
    void Abandon();

  private:
    struct TEntry {
        std::string Identifier;
        IPtr<IRessourceSource> Source;
    };
    const TEntry& At(std::int32_t AIndex) const;  // FLock held

    mutable std::mutex FLock;
    std::vector<TEntry> FEntries;  // guarded by FLock
};

}  // namespace docadmin
