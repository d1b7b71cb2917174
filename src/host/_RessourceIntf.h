// The host's resource framework as far as the document tree meets it: resources (entries of a
// container), containers and their notifiers, action callbacks, and the document interfaces that
// other plug-ins use to work on directories and documents.
//
// Every interface is reference counted. Operations that answer an interface answer a holder that
// owns one reference. Strings are UTF-8.
#pragma once

#include <cstdint>
#include <string>

#include "_Interfaces.h"
#include "_Tools.h"

namespace docadmin {

// Positions of the actions a resource offers; supported actions are bit masks on them.
enum TRessourceAction : std::uint8_t {
    raView = 0,
    raSaveCopy = 1,
    raReplace = 2,
    raDelete = 3,
    raAddDirectory = 4,
    raImportDirectory = 5,
    raAddDocument = 6,
    raAction7 = 7,  // offered only; no handler in the document module
    raAction8 = 8,  // offered only; no handler in the document module
    raEditMonitored = 9,
};
// A set of TRessourceAction: bit (1 << position).
using TRessourceActions = std::uint32_t;
constexpr TRessourceActions RessourceActionBit(TRessourceAction a) {
    return 1u << a;
}

// How a save treats the previous file of a replaced document: ramNoArchive keeps no archive
// copy, every other value archives the previous version.
enum TRessourceArchiveMode : std::uint8_t { ramDefault = 0, ramNoArchive = 1, ramArchive = 2 };

// Notices of a container to its notifiers: 0 content changed, 1 container going away,
// 2 content loaded. TRessourceContainerNotifyTypes is a bit set over them.
enum TRessourceContainerNotifyType : std::uint8_t {
    rcnChanged = 0,
    rcnDestroying = 1,
    rcnLoaded = 2,
};
using TRessourceContainerNotifyTypes = std::uint8_t;

class IRessource;
class IRessourceContainer;

// Gives the object behind an interface; the way back from an interface to an item.
class IOBJAccess : public IInterface {
  public:
    DOCADMIN_IID("{220AAFA6-DD86-4FD4-A9FE-3C9A779A554B}");
    virtual TObject* GetObject() = 0;
};

// How a long (non-blocking) action reports back to its caller.
class IRessourceActionCallBack : public IInterface {
  public:
    DOCADMIN_IID("{8E0B7B52-3F6A-4C1D-9A57-1D4E2C6B9F03}");
    virtual void Do_ActionDone(IRessource* ARessource, TRessourceAction AAction,
                               const std::string& AFileName) = 0;
    virtual void Do_ActionFailed(IRessource* ARessource, TRessourceAction AAction,
                                 const std::string& AFileName, const std::string& AMessage) = 0;
    // The resource is about to go away; the caller must not wait for it any longer.
    virtual void Do_RessourceDestroying(IRessource* ARessource) = 0;
};

// The pool through which changes of a resource are announced to listeners.
class IVTLEventPool : public IInterface {
  public:
    DOCADMIN_IID("{B7C4E1A2-6D35-4F8E-8A19-5C2D7E3F4B61}");
    virtual void Do_FireEvent(std::int64_t AID) = 0;
};

// One entry of a container: a directory or a document.
class IRessource : public IInterface {
  public:
    DOCADMIN_IID("{2E3CA8AA-51AD-4169-9801-FE08CC739545}");
    virtual std::string Get_Caption() = 0;
    // An icon handle (0 for none) and the DPI it was drawn for.
    virtual std::intptr_t Get_Icon(std::int32_t& ASourceDPI) = 0;
    virtual TRessourceActions Get_SupportedActions() = 0;
    virtual std::int32_t Get_ChildCount() = 0;
    virtual IPtr<IRessource> Get_Child(std::int32_t AIndex) = 0;
    virtual bool Get_HasChildren() = 0;
    virtual bool Do_ExecuteAction(TRessourceAction AAction, const std::string& AFileName,
                                  const std::string& ACaption, bool AReadOnly,
                                  bool ALoadNonBlocking, IRessourceActionCallBack* ACallBack,
                                  IVTLEventPool* ARessourceChangeEvent,
                                  TRessourceArchiveMode AArchiveMode) = 0;
    virtual std::string Get_Extension() = 0;
    virtual IPtr<IRessourceContainer> Get_Container() = 0;
    virtual TDateTime Get_Date() = 0;
    virtual std::int64_t Get_Size() = 0;
    virtual std::int32_t Get_RessourceFlags() = 0;
    virtual bool Get_ACLWriteable() = 0;
    virtual bool Do_Move(IRessource* ADest) = 0;
    virtual IPtr<IRessource> Do_CreateFolderStruct(const std::string& APath) = 0;
    virtual std::int64_t Get_ID() = 0;
    virtual void Do_CancelAction(bool ACancel) = 0;
    virtual std::int64_t Get_RecordFlagsMetaID() = 0;
    virtual std::uint8_t Get_Tags() = 0;
    virtual TRessourceAction Get_DefaultAction() = 0;
};

// Listener of a container.
class IRessourceContainerNotify : public IInterface {
  public:
    DOCADMIN_IID("{4A9D2F6B-1C7E-4B3A-8E5D-9F0A6C2B7D14}");
    virtual void Do_ContainerNotify(TRessourceContainerNotifyType AType,
                                    IRessourceContainer* AContainer) = 0;
    virtual void Do_RessourceRemoved(IRessource* ARessource) = 0;
    // The children of ARessource changed; nullptr means the container's top level.
    virtual void Do_ChildsChanged(IRessourceContainer* AContainer, IRessource* ARessource) = 0;
};

// A container of resources with notifiers; a nil resource in its operations means the top.
class IRessourceContainer : public IInterface {
  public:
    DOCADMIN_IID("{872FEF8F-1F47-427D-A41E-4617D15AF5F3}");
    virtual std::int32_t Get_Count() = 0;
    virtual IPtr<IRessource> Get_Item(std::int32_t AIndex) = 0;
    virtual void Do_Reload(bool ALoad) = 0;
    virtual void Do_RegisterNotifier(IRessourceContainerNotify* ANotifier) = 0;
    virtual void Do_UnregisterNotifier(IRessourceContainerNotify* ANotifier) = 0;
    virtual std::string Get_ResIdentifier() = 0;
    virtual std::int64_t Get_ResID() = 0;
    virtual bool Do_ExecuteAction(TRessourceAction AAction, IRessource* ARessource,
                                  const std::string& AFileName, const std::string& ACaption,
                                  bool AReadOnly, bool ALoadNonBlocking,
                                  IRessourceActionCallBack* ACallBack,
                                  IVTLEventPool* ARessourceChangeEvent,
                                  TRessourceArchiveMode AArchiveMode) = 0;
    virtual TRessourceActions Get_SupportedActions(IRessource* ARessource) = 0;
    virtual std::int32_t Get_RessourceFlags(IRessource* ARessource) = 0;
    virtual bool Get_ACLWriteable(IRessource* ARessource) = 0;
    virtual IPtr<IRessource> Do_CreateRelFolderStruct(IRessource* ARessource,
                                                      const std::string& APath) = 0;
    virtual void Do_BeginUpdate() = 0;
    virtual void Do_EndUpdate() = 0;
    virtual void Do_FillContentRecordFlagsMetaIDs(IIntegerListData* AList) = 0;
    virtual void Do_FillContentRecordDBIDByMetaID(std::int64_t AMetaID, IIntegerListData* AList,
                                                  bool AAll) = 0;
    virtual bool Do_InvalidateChilds(bool AAllowBackground) = 0;
};

// A container that also names itself: its caption for a screen's list of containers.
class IRessourceContainerEx : public IRessourceContainer {
  public:
    DOCADMIN_IID("{38D4798F-B82E-4334-85C3-ADB9637A0928}");
    virtual std::string Get_Caption() = 0;
};

class IDocument;

// A directory of a document tree.
class IDirectory : public IInterface {
  public:
    DOCADMIN_IID("{3184603B-FE65-48C9-9031-686B2C3850DA}");
    virtual std::int64_t Get_DirID() = 0;
    virtual std::string Get_Title() = 0;
    virtual void Set_Title(const std::string& ATitle) = 0;
    virtual TDateTime Get_CreaDate() = 0;
    virtual std::int32_t Get_CreaID() = 0;
    virtual IPtr<IDirectory> Get_ParentDir() = 0;
    virtual void Set_ParentDir(IDirectory* AParent) = 0;
    virtual std::int32_t Get_ChildDirectoryCount() = 0;
    virtual IPtr<IDirectory> Get_ChildDirectory(std::int32_t AIndex) = 0;
    virtual std::int32_t Get_DocumentCount() = 0;
    virtual IPtr<IDocument> Get_Document(std::int32_t AIndex) = 0;
    // Takes a local folder with all below it into this directory.
    virtual bool Do_Import(const std::string& APath) = 0;
    virtual void Do_MoveContentTo(IDirectory* ADest) = 0;
    virtual std::string Get_GlobalRecUID() = 0;
};

// A document of a document tree.
class IDocument : public IInterface {
  public:
    DOCADMIN_IID("{0289DBDB-1436-4BD1-9979-1CCA81EA34FB}");
    virtual std::int32_t Get_DocID() = 0;
    virtual std::string Get_DocName() = 0;
    virtual IPtr<IDirectory> Get_Directory() = 0;
    virtual void Set_Directory(IDirectory* ADirectory) = 0;
    virtual std::int64_t Get_Size() = 0;
    virtual TDateTime Get_Date() = 0;
    virtual std::string Get_Version() = 0;
    virtual void Set_Version(const std::string& AVersion) = 0;
    virtual TDateTime Get_CreaDate() = 0;
    virtual std::int32_t Get_CreaID() = 0;
    // Blocking download to a local file.
    virtual bool Do_Download(const std::string& ADestFile) = 0;
    // A new local file for the document; with AChangeFileName its name becomes the path given.
    virtual void Do_Replace(const std::string& AFileName, bool AChangeFileName) = 0;
    virtual std::string Get_GlobalRecUID() = 0;
};

// The document view of a tree handle: what other plug-ins call to work on a tree. Operations
// with a Boolean result answer true; failures raise the document layer's exceptions. A nil
// directory means the tree's root.
class IDirectoryRoot : public IInterface {
  public:
    DOCADMIN_IID("{E968F426-8689-4CFE-9CC1-BA870F77B6F5}");
    virtual std::int32_t Get_RootDirectoryCount() = 0;
    virtual IPtr<IDirectory> Get_RootDirectory(std::int32_t AIndex) = 0;
    virtual IPtr<IDirectory> Do_GetDirectoryByTitle(IDirectory* ADir, const std::string& APath) = 0;
    virtual bool Get_IsInTree(IDirectory* ADir, IDirectory* ABase) = 0;
    virtual IPtr<IDirectory> Do_CreateFolderStruct(IDirectory* ABaseDir,
                                                   const std::string& APath) = 0;
    virtual IPtr<IDirectory> Do_AddDirectory(IDirectory* AParent, const std::string& AName) = 0;
    virtual bool Do_DeleteDirectory(IDirectory* ADir) = 0;
    virtual bool Do_DeleteDocument(IDocument* ADoc) = 0;
    virtual bool Do_DeleteDocumentByID(std::int64_t AID) = 0;
    virtual bool Do_DownloadFile(IDocument* ADoc, const std::string& AFile) = 0;
    // Fills AName with the document's name.
    virtual bool Do_DownloadFileByID(std::int64_t AID, const std::string& AFile,
                                     std::string& AName) = 0;
    virtual bool Do_ReplaceFile(IDocument* ADoc, const std::string& AFile,
                                TRessourceArchiveMode AArchiveMode) = 0;
    virtual bool Do_ReplaceFileByID(std::int64_t AID, const std::string& AFile,
                                    TRessourceArchiveMode AArchiveMode) = 0;
    virtual IPtr<IDocument> Do_SaveDocument(IDirectory* ADir, const std::string& AName,
                                            const std::string& AFile, std::uint8_t ATags) = 0;
    virtual bool Do_ImportDirectory(IDirectory* ADir, const std::string& APath) = 0;
    virtual bool Do_SaveChanges() = 0;
    virtual bool Get_HasChanges() = 0;
    virtual bool Do_ExportDirectory(IDirectory* ADir, const std::string& APath,
                                    bool AContinueOnMissingFiles, const std::string& AFilePattern,
                                    const std::string& ADirPattern) = 0;
    virtual IPtr<IDirectory> Get_RootDir() = 0;
};

class IRessourceSource;

// Listener of a resource source; told (with the value 0) when the source goes away.
class IRessourceSourceNotify : public IInterface {
  public:
    DOCADMIN_IID("{6A0C2F4E-8B13-4D7A-9E55-3C1B7D2A9F80}");
    virtual void Do_SourceNotify(IRessourceSource* ASource, std::int32_t AValue) = 0;
};

// How a plug-in offers resource containers for records.
class IRessourceSource : public IInterface {
  public:
    DOCADMIN_IID("{FDA1A186-D882-48DF-91F1-9F9362884B71}");
    virtual std::int32_t Get_ContainerCount() = 0;
    // A second lookup by index; the document module clears AContainer and answers 0.
    virtual std::int32_t Get_ContainerInfo(std::int32_t AIndex, IPtr<IInterface>& AContainer) = 0;
    virtual std::string Get_Caption() = 0;
    virtual bool Get_Enabled() = 0;
    virtual IPtr<IRessourceContainer> GetRessourceContainer(const std::string& AResIdentifier,
                                                            std::int64_t AResID) = 0;
    virtual void Do_AddNotifier(IRessourceSourceNotify* ANotifier) = 0;
    virtual void Do_RemoveNotifier(IRessourceSourceNotify* ANotifier) = 0;
};

}  // namespace docadmin
