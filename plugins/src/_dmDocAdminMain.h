// TdmDocAdminMain: what the document module declares to the host, and its external interfaces.
//
// Components: the module's texts (siLang, German and English, the host's language index
// choosing), the ACL registration of the three document tables, the filter handler for document
// searches, the API item under which the documents service is published, and the listener that
// takes a document's resource links with it when its row is deleted.
//
// Interfaces: IExtFuncPluginDocAdmin (with its three ancestors) and IRessourceSource, answered by
// one QueryInterface. IRessourceSource is implemented by a part object that forwards to this one,
// so that the data module has a single IInterface base (the host finds external interfaces through
// it); QueryInterface on either answers both. The object lives as long as the module; references
// to it don't count.
//
// The administrator's tools (IDocAdminTools) are a part object of the same kind.
//
// The module is a server build without forms: the dialog operations answer false and leave their
// outputs alone, and showing a folder does nothing.
//
// Threads: construction, Init and destruction run on the host's start-up thread; the interface
// operations may come from any thread. The notifier list is meant to change at start and end only
// and takes no lock.
#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "_DocAdminIntf.h"
#include "_DocAdminTools.h"
#include "_PluginBase.h"
#include "_TKRACLDataTableController.h"
#include "_TKRSQLDeleteNotifyListener.h"
#include "_TVTLBIAPIClient.h"
#include "_TVTLLang.h"
#include "_TVTLRestAPICustomKRRecordSetServiceImpl.h"

namespace docadmin {

class TDocAdminRessourceProvider;

// Keys of the module's texts.
inline const std::string IDS_ModuleTitle = "IDS_ModuleTitle";
inline const std::string IDS_AccessTo = "IDS_AccessTo";
inline const std::string IDS_ExtDesc = "IDS_ExtDesc";
inline const std::string IDS_ExtTitle = "IDS_ExtTitle";
inline const std::string IDS_VwPlgF = "IDS_VwPlgF";
inline const std::string IDS_ExtTitleSchema = "IDS_ExtTitleSchema";
inline const std::string IDS_ExtDescSchema = "IDS_ExtDescSchema";
inline const std::string IDS_Files = "IDS_Files";
inline const std::string IDS_RESCONTCAP = "IDS_RESCONTCAP";
inline const std::string IDS_LINKEDCONT = "IDS_LINKEDCONT";
inline const std::string IDS_DOCUPDAG = "IDS_DOCUPDAG";
inline const std::string IDS_DOCUPDCAP = "IDS_DOCUPDCAP";
inline const std::string IDS_DOCUPDMSG = "IDS_DOCUPDMSG";

// The module's short name, which is also its settings section.
inline const std::string DocAdminShortName = "DocAdmin";
// The icon index of the module's menu entries and filter handler.
inline constexpr std::int32_t DocAdminGlobalMenuIconIndex = 212;
inline const std::string DocAdminFilterIdentifier = "{5FF8DCE5-1C50-42AF-BFB0-EE551AA541D0}";
inline const std::string DocumentsServicesIdentifier = "{7291FAEA-36AF-4E36-92A0-BFE1C4368A73}";
// The script global through which scripts reach this module.
inline const std::string DocAdminScriptGlobal = "DocAdminModule";

class TdmDocAdminMain : public TPluginBaseDataModule, public IExtFuncPluginDocAdmin {
  public:
    explicit TdmDocAdminMain(TClientPluginBase* AOwner);
    ~TdmDocAdminMain() override;

    // The module's main data module, or nullptr outside its lifetime.
    static TdmDocAdminMain* Instance();

    // Runs the store migrations once, in the server process only.
    void Init() override;
    // Tells the notifiers that this source goes, then leaves the host's list of sources.
    void BeforeDestruction() override;
    // The text of a key in the host's language.
    std::string GetTranslatedText(const std::string& AText) override;

    // IInterface: one table for all interfaces; references don't count.
    HRESULT QueryInterface(const TGUID& iid, void** obj) override;
    std::int32_t _AddRef() override { return -1; }
    std::int32_t _Release() override { return -1; }

    // IExtFuncPlugin: function 0 works on a record (context 1), function 1 on a table (context
    // 2). A wrong index is the caller's fault and raises EAssertionFailed.
    std::int32_t Get_ExtFuncVersion() override { return 1; }
    std::int32_t Get_ExtFuncCount() override { return 2; }
    std::string Get_ExtFuncTitle(std::int32_t AIndex) override;
    std::string Get_ExtFuncDescription(std::int32_t AIndex) override;
    std::int32_t Get_ExtFuncImageIndex(std::int32_t AIndex) override;
    // With a plug-in text, shows the record's folder (nothing here in a server build).
    void Do_ExecuteRecordFunc(std::int32_t AIndex, const std::string& APlugin,
                              const std::string& ASchema, std::int64_t ARecordID) override;
    // With a plug-in text, shows the table's main folder (nothing here in a server build).
    void Do_ExecuteTableFunc(std::int32_t AIndex, const std::string& APlugin,
                             const std::string& ASchema) override;
    bool Get_ExtFuncValid(std::int32_t AContext, std::int32_t AIndex) override;
    // IExtFuncPluginMenu
    std::int32_t Get_MenuCount() override { return 0; }
    bool Get_MenuEnabled(std::int32_t /*AIndex*/) override { return false; }
    bool Do_MenuExecute(std::int32_t /*AIndex*/) override { return false; }
    // Nobody is to call it: raises EAssertionFailed.
    std::int32_t Do_Reserved() override;
    // IExtFuncPluginUniversal
    bool Get_HasConfiguration() override { return false; }
    // IExtFuncPluginDocAdmin
    IPtr<IDirectoryRoot> Get_DirectoryRoot(const std::string& Plugin,
                                           const std::string& BaseDirectory, bool ALoad,
                                           std::int64_t ADBATransactionID,
                                           bool AIsNewUniqueFolder) override;
    void Do_Show(const std::string& /*Plugin*/, const std::string& /*BaseDirectory*/,
                 bool /*ShowModal*/) override {}
    // Never fails; a failure goes to the host's log.
    void Do_AddDocument(const std::string& Plugin, const std::string& BaseDirectory,
                        const std::string& AFileName, const std::string& LocalFileName,
                        bool Show) override;
    bool Do_SaveDialog(const std::string&, const std::string&, std::string&,
                       std::int32_t&) override {
        return false;
    }
    bool Do_SaveDialogEx1(const std::string&, const std::string&, const std::string&,
                          const std::string&, std::int32_t&) override {
        return false;
    }
    bool Do_OpenDialog(const std::string&, const std::string&, std::int32_t&) override {
        return false;
    }
    bool Do_OpenDialogEx1(const std::string&, const std::string&, const std::string&,
                          std::string&) override {
        return false;
    }
    // Inserts a link row; no check that the document exists.
    bool Do_AddRessourceLink(const std::string& AResIdentifier, std::int64_t AResID,
                             std::int64_t ADocumentID) override;
    // False for the local stores, true for every other kind.
    bool Get_IsRemoteServerStore() override;
    void Do_DeleteDeadLinkPluginDocuments() override;

    // IRessourceSource, in slot order
    IRessourceSource* RessourceSource() { return &FRessourceSource; }
    std::int32_t Get_ContainerCount() { return 1; }
    std::int32_t Get_ContainerInfo(std::int32_t AIndex, IPtr<IInterface>& AContainer);
    std::string Get_Caption();
    bool Get_Enabled() { return true; }
    // A doc:// tree or the record's linked documents (see _DocAdminRessources.h).
    IPtr<IRessourceContainer> GetRessourceContainer(const std::string& AResIdentifier,
                                                    std::int64_t AResID);
    void Do_AddNotifier(IRessourceSourceNotify* ANotifier);
    // Removes one registration of the notifier, if there is one.
    void Do_RemoveNotifier(IRessourceSourceNotify* ANotifier);

    // The delete listener's handler: link rows go with their document.
    void KRSQLDeleteNotifyListenerExecute(TObject* Sender, IKRSQLDeleteNotify* AEvent);

    // Components, in form order.
    TVTLLang* siLang() const { return FsiLang; }
    TKRSQLDeleteNotifyListener* KRSQLDeleteNotifyListener() const {
        return FKRSQLDeleteNotifyListener;
    }
    TKRACLDataTableController* KRACLDataTableController() const {
        return FKRACLDataTableController;
    }
    TKRFilterHandlerClient* KRFilterHandlerClient() const { return FKRFilterHandlerClient; }
    TVTLBIAPIClient* VTLBIAPIClient() const { return FVTLBIAPIClient; }

    std::size_t NotifierCount() const { return FRessourceSourceNotifyList.size(); }
    TDocAdminRessourceProvider& Ressources() { return *FRessources; }

  private:
    class TRessourceSourcePart : public IRessourceSource {
      public:
        explicit TRessourceSourcePart(TdmDocAdminMain& AOwner) : FOwner(AOwner) {}
        HRESULT QueryInterface(const TGUID& iid, void** obj) override {
            return FOwner.QueryInterface(iid, obj);
        }
        std::int32_t _AddRef() override { return -1; }
        std::int32_t _Release() override { return -1; }
        std::int32_t Get_ContainerCount() override { return FOwner.Get_ContainerCount(); }
        std::int32_t Get_ContainerInfo(std::int32_t AIndex, IPtr<IInterface>& AContainer) override {
            return FOwner.Get_ContainerInfo(AIndex, AContainer);
        }
        std::string Get_Caption() override { return FOwner.Get_Caption(); }
        bool Get_Enabled() override { return FOwner.Get_Enabled(); }
        IPtr<IRessourceContainer> GetRessourceContainer(const std::string& AResIdentifier,
                                                        std::int64_t AResID) override {
            return FOwner.GetRessourceContainer(AResIdentifier, AResID);
        }
        void Do_AddNotifier(IRessourceSourceNotify* ANotifier) override {
            FOwner.Do_AddNotifier(ANotifier);
        }
        void Do_RemoveNotifier(IRessourceSourceNotify* ANotifier) override {
            FOwner.Do_RemoveNotifier(ANotifier);
        }

      private:
        TdmDocAdminMain& FOwner;
    };

    void CreateComponents();
    void LoadIconSettings();
    void CheckExtFuncIndex(std::int32_t AIndex) const;
    std::string Text(const std::string& AKey) const;

    TVTLLang* FsiLang = nullptr;
    TKRSQLDeleteNotifyListener* FKRSQLDeleteNotifyListener = nullptr;
    TKRACLDataTableController* FKRACLDataTableController = nullptr;
    TKRFilterHandlerClient* FKRFilterHandlerClient = nullptr;
    TVTLBIAPIClient* FVTLBIAPIClient = nullptr;
    std::vector<IPtr<IRessourceSourceNotify>> FRessourceSourceNotifyList;
    TRessourceSourcePart FRessourceSource{*this};
    TDocAdminTools FTools{static_cast<IExtFuncPluginDocAdmin&>(*this)};
    std::unique_ptr<TDocAdminRessourceProvider> FRessources;
};

}  // namespace docadmin
