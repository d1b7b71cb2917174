// TdmDocAdminMainForms: the form side of the document module. A server build holds no form; what
// remains is adding a single document to a folder.
#pragma once

#include <string>

#include "_PluginBase.h"

namespace docadmin {

class TdmDocAdminMainForms : public TPluginBaseDataModule {
  public:
    explicit TdmDocAdminMainForms(TClientPluginBase* AOwner);
    ~TdmDocAdminMainForms() override;

    // The module's forms data module, or nullptr outside its lifetime.
    static TdmDocAdminMainForms* Instance();

    // Stores a local file as AFileName in the folder BaseDirectory of a plug-in's tree (made when
    // missing) with an administrator of its own, and saves. Never fails: a failure goes to the
    // host's log. Show isn't read.
    void Do_AddDocument(const std::string& Plugin, const std::string& BaseDirectory,
                        const std::string& AFileName, const std::string& LocalFileName, bool Show);
};

}  // namespace docadmin
