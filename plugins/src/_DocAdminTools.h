// TDocAdminTools: the module's IDocAdminTools (see _DocAdminToolsIntf.h), a part of the main
// data module: QueryInterface goes to the owner, and references don't count, as the module's
// objects live as long as the module.
//
// It works on the handles that the repository makes (TDocAdminObject), on the repository's store
// and database, and keeps no state of its own.
#pragma once

#include "_DocAdminToolsIntf.h"

namespace docadmin {

class TDocAdminTools : public IDocAdminTools {
  public:
    // AOwner answers QueryInterface for this part.
    explicit TDocAdminTools(IInterface& AOwner) : FOwner(AOwner) {}

    HRESULT QueryInterface(const TGUID& iid, void** obj) override {
        return FOwner.QueryInterface(iid, obj);
    }
    std::int32_t _AddRef() override { return -1; }
    std::int32_t _Release() override { return -1; }

    TDocAdminTreeAddress Do_SetupTree(IDirectoryRoot* ARoot, bool AReadOnly,
                                      const std::string& AWhere) override;
    void Do_CheckFolderPath(const std::string& APath) override;
    void Do_SetEvents(IDirectoryRoot* ARoot, const TDocAdminToolEvents& AEvents) override;
    void Do_BeginTransaction(IDirectoryRoot* ARoot) override;
    void Do_CommitTransaction(IDirectoryRoot* ARoot) override;
    void Do_RollbackTransaction(IDirectoryRoot* ARoot) override;
    bool Get_InTransaction(IDirectoryRoot* ARoot) override;
    void Do_ResolveRootForWriting(IDirectoryRoot* ARoot) override;
    bool Do_LoadWholeTree(IDirectoryRoot* ARoot, bool AMissingIsEmpty) override;
    std::string Get_RemoteFileName(IDocument* ADocument) override;
    void Do_SetImportOptions(IDirectoryRoot* ARoot, bool AFollowLinks,
                             std::size_t ABatchSize) override;
    std::size_t Get_CommittedDocuments(IDirectoryRoot* ARoot) override;
    TDocAdminVersions Get_DocumentVersions(std::int64_t ADocumentID) override;
    std::vector<std::string> Do_DeleteDeadLinkPluginDocuments(
        bool AProcessExistingPluginsOnly) override;

  private:
    IInterface& FOwner;
};

}  // namespace docadmin
