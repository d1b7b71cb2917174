// TdmDocAdminMainForms: the form side of the document module. A server build holds no form; what
// remains is adding a single document to a folder.
#pragma once

#include <functional>
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
    // missing) with an administrator of its own, and saves. Never fails: a failure goes to
    // OnShowException. Show isn't read.
    void Do_AddDocument(const std::string& Plugin, const std::string& BaseDirectory,
                        const std::string& AFileName, const std::string& LocalFileName, bool Show);

    // Where failures of the operations above go; by default a line on the standard error, the
    // host's log.
    std::function<void(const std::string& AMessage)> OnShowException;

  private:
    void ShowException(const std::string& AMessage);
};

}  // namespace docadmin
