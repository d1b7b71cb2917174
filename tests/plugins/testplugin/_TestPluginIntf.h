// The interface of the test plug-in: a second plug-in that works on documents only through the
// document module's IExtFuncPluginDocAdmin and IDirectoryRoot.
#pragma once

#include <string>

#include "_Interfaces.h"

namespace docadmin::test {

inline const std::string TestPluginGUID = "{6E0EE370-130F-4F5C-A09E-2AAD6AE38A2D}";

class IDocAdminTestClient : public IInterface {
  public:
    DOCADMIN_IID("{638B018F-5843-4586-A867-B92152838C76}");
    // Adds, lists, replaces and deletes a document in AFolder of APlugin's tree, each step through
    // a handle of its own, and keeps a directory beyond its handle. AWorkDir takes local files.
    // Answers one line per step with what it saw; a failure ends the list with "failed: ...".
    virtual std::string Do_RoundTrip(const std::string& APlugin, const std::string& AFolder,
                                     const std::string& AWorkDir) = 0;
};

}  // namespace docadmin::test
