// IVantrelDatabaseRepository over the configuration: the selected and offline databases, their
// settings, and the host's folders.
//
// Path macros: "$UserDocuments$" is the per-user documents folder <data folder>/userdocs/ and
// "$DataDir$" the data folder, both with a trailing separator so that a name may follow
// directly ("$UserDocuments$offlinedocroot"). Macro names are matched without regard to case.
//
// Immutable after construction; safe to call from any thread.
#pragma once

#include <string>

#include "_PluginIntf.h"
#include "_TDocAdminConfig.h"

namespace docadmin {

class TVantrelDatabaseRepository : public TObject, public IVantrelDatabaseRepository {
  public:
    explicit TVantrelDatabaseRepository(TDocAdminConfig AConfig);

    const TDocAdminConfig& Config() const { return FConfig; }
    // <data folder>/userdocs, without a trailing separator.
    std::string UserDocumentsFolder() const;

    int SelectedDatabaseIndex() override;
    int OfflineDatabaseIndex() override;
    // Empty for an unknown index or key.
    std::string ReadDatabaseSetting(int AIndex, const std::string& AKey) override;
    std::string ExpandPathMacros(const std::string& APath) override;
    // <data folder>/docroot
    std::string DefaultDocRootFolder() override;
    std::string SeedDocRootFolder() override;
    // The database's connection_kind; 0 for an unknown index.
    int ConnectionKind(int AIndex) override;

  private:
    const TDocAdminConfig FConfig;
};

}  // namespace docadmin
