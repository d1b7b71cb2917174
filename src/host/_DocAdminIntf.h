// The document module's external-function interface: what other plug-ins and scripts call to reach
// the documents. The module answers it (and its three ancestors) from one object; the host's
// plug-in registry gives it by the module's plug-in GUID.
//
//     IPtr<IExtFuncPluginDocAdmin> docs;
//     void* p = nullptr;
//     if (loader->GetExtFuncInterface(DocAdminPluginGUID, IExtFuncPluginDocAdmin::IID, &p))
//         docs = IPtr<IExtFuncPluginDocAdmin>::Adopt(static_cast<IExtFuncPluginDocAdmin*>(p));
//     IPtr<IDirectoryRoot> root = docs->Get_DirectoryRoot(plugin, "", true, 0, false);
#pragma once

#include <cstdint>
#include <string>

#include "_RessourceIntf.h"

namespace docadmin {

// The document module's plug-in GUID.
inline const std::string DocAdminPluginGUID = "{DBAE1129-670F-45DA-8489-6D64A3429BBF}";
// Plug-in texts with a fixed meaning where a tree is asked for: every plug-in's tree, and the
// global tree only.
inline const std::string AllPluginsGUID = "{3A3351B6-2371-42D8-AFDD-725670C9F106}";
inline const std::string GlobalPluginGUID = "{7C539819-F913-47CF-8114-BAC3472A78D4}";

// Extension functions: numbered functions a plug-in offers on records (context 1) and on whole
// tables (context 2).
class IExtFuncPlugin : public IInterface {
  public:
    DOCADMIN_IID("{7E9FBF14-049A-4EBB-9A79-09E8BC49A0F0}");
    virtual std::int32_t Get_ExtFuncVersion() = 0;
    virtual std::int32_t Get_ExtFuncCount() = 0;
    virtual std::string Get_ExtFuncTitle(std::int32_t AIndex) = 0;
    virtual std::string Get_ExtFuncDescription(std::int32_t AIndex) = 0;
    virtual std::int32_t Get_ExtFuncImageIndex(std::int32_t AIndex) = 0;
    // Runs function AIndex on one record of ASchema.
    virtual void Do_ExecuteRecordFunc(std::int32_t AIndex, const std::string& APlugin,
                                      const std::string& ASchema, std::int64_t ARecordID) = 0;
    // Runs function AIndex on the whole table of ASchema.
    virtual void Do_ExecuteTableFunc(std::int32_t AIndex, const std::string& APlugin,
                                     const std::string& ASchema) = 0;
    virtual bool Get_ExtFuncValid(std::int32_t AContext, std::int32_t AIndex) = 0;
};

// Menu entries of a plug-in.
class IExtFuncPluginMenu : public IExtFuncPlugin {
  public:
    DOCADMIN_IID("{784FBC09-28A3-457E-B1E3-7A8EA4A79C22}");
    virtual std::int32_t Get_MenuCount() = 0;
    virtual bool Get_MenuEnabled(std::int32_t AIndex) = 0;
    virtual bool Do_MenuExecute(std::int32_t AIndex) = 0;
    // Reserved; nobody is to call it.
    virtual std::int32_t Do_Reserved() = 0;
};

// The base that scripts see of every plug-in's interface.
class IExtFuncPluginUniversal : public IExtFuncPluginMenu {
  public:
    DOCADMIN_IID("{34D0C7D7-17E3-4509-B72B-ED3579676D18}");
    virtual bool Get_HasConfiguration() = 0;
};

class IExtFuncPluginDocAdmin : public IExtFuncPluginUniversal {
  public:
    DOCADMIN_IID("{71F33A15-9323-4D11-91E0-B0EBC3BCDA8A}");
    virtual IPtr<IDirectoryRoot> Get_DirectoryRoot(const std::string& Plugin,
                                                   const std::string& BaseDirectory, bool ALoad,
                                                   std::int64_t ADBATransactionID,
                                                   bool AIsNewUniqueFolder) = 0;
    virtual void Do_Show(const std::string& Plugin, const std::string& BaseDirectory,
                         bool ShowModal) = 0;
    virtual void Do_AddDocument(const std::string& Plugin, const std::string& BaseDirectory,
                                const std::string& AFileName, const std::string& LocalFileName,
                                bool Show) = 0;
    virtual bool Do_SaveDialog(const std::string& Plugin, const std::string& BaseDirectory,
                               std::string& AFileName, std::int32_t& ADirectoryID) = 0;
    virtual bool Do_SaveDialogEx1(const std::string& Plugin, const std::string& BaseDirectory,
                                  const std::string& AFileName, const std::string& LocalFileName,
                                  std::int32_t& DocumentID) = 0;
    virtual bool Do_OpenDialog(const std::string& Plugin, const std::string& BaseDirectory,
                               std::int32_t& ADocumentID) = 0;
    virtual bool Do_OpenDialogEx1(const std::string& Plugin, const std::string& BaseDirectory,
                                  const std::string& LocalFileName, std::string& FileName) = 0;
    virtual bool Do_AddRessourceLink(const std::string& AResIdentifier, std::int64_t AResID,
                                     std::int64_t ADocumentID) = 0;
    virtual bool Get_IsRemoteServerStore() = 0;
    virtual void Do_DeleteDeadLinkPluginDocuments() = 0;
};

// What the document module's container of a record's linked documents adds to the common
// container operations; reached by QueryInterface on such a container.
class IDocAdminRessourceContainer : public IInterface {
  public:
    DOCADMIN_IID("{D3F85493-0389-4490-B4D3-2690BC684A3C}");
    // Links the stored document ADocumentID to the container's record under the display name
    // AName (caption and extension); answers true.
    virtual bool AddLink(std::int64_t ADocumentID, const std::string& AName) = 0;
};

}  // namespace docadmin
