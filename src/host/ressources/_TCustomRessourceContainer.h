// The resource framework's bases: TCustomRessourceContainer, a flat list of resources that a
// plug-in fills for one record and screen, and TCustomRessource, one entry of it.
//
// A container is made with the main interface, the resource identifier, the record id and an
// optional record set (not owned). It loads on first use (Get_Count, Get_Item) through the
// virtual LoadRessources, and makes its entries through the virtual CreateRessource, so that a
// descendant decides both what is listed and of which class. Actions go to the virtual
// ExecuteAction; the base carries none out.
//
// Notices. Changes of the list (a resource added or deleted, a reload) are collected while an
// update runs. BeginUpdate/EndUpdate nest; at the last EndUpdate a changed list sends, to every
// notifier in the order of registration, Do_ContainerNotify(rcnChanged) and then
// Do_ChildsChanged(container, nullptr). Outside an update a change is sent at once. A deleted
// resource is announced with Do_RessourceRemoved when it leaves the list. The last release sends
// rcnDestroying before the container goes.
//
// Lifetime. The container holds one reference to each resource; a resource knows its container
// without counting it, and forgets it when the container goes, after which its actions answer
// false. A resource's non-blocking callback is told Do_RessourceDestroying when the resource goes.
//
// Threads: a container and its resources belong to one thread at a time; the reference counts are
// atomic.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "_PluginIntf.h"
#include "_RessourceIntf.h"

namespace docadmin {

class TCustomRessourceContainer;
class TKRRecordSet;

class TCustomRessource : public TInterfacedObject, public IRessource, public IOBJAccess {
  public:
    explicit TCustomRessource(TCustomRessourceContainer* AContainer);
    ~TCustomRessource() override;

    HRESULT QueryInterface(const TGUID& iid, void** obj) override;
    std::int32_t _AddRef() override { return TInterfacedObject::_AddRef(); }
    std::int32_t _Release() override { return TInterfacedObject::_Release(); }
    TObject* GetObject() override { return this; }

    // The container, or nullptr once it has gone.
    TCustomRessourceContainer* Container() const { return FContainer; }
    void DetachFromContainer() { FContainer = nullptr; }

    void SetCaption(std::string v) { FCaption = std::move(v); }
    // The extension with its dot.
    void SetExtension(std::string v) { FExtension = std::move(v); }
    void SetDate(TDateTime v) { FDate = v; }
    void SetSize(std::int64_t v) { FSize = v; }
    void SetSupportedActions(TRessourceActions v) { FSupportedActions = v; }
    void SetRessourceFlags(std::int32_t v) { FRessourceFlags = v; }
    void SetID(std::int64_t v) { FID = v; }
    void SetTags(std::uint8_t v) { FTags = v; }
    // The caller of a running non-blocking action, told when it ends.
    IRessourceActionCallBack* NonBlockingActionCallBack() const {
        return FNonBlockingActionCallBack.get();
    }
    void SetNonBlockingActionCallBack(IRessourceActionCallBack* v) {
        FNonBlockingActionCallBack = v;
    }

    // IRessource
    std::string Get_Caption() override { return FCaption; }
    // The handle of GetIconHandle; this build draws no icons.
    std::intptr_t Get_Icon(std::int32_t& ASourceDPI) override;
    TRessourceActions Get_SupportedActions() override { return FSupportedActions; }
    std::int32_t Get_ChildCount() override { return 0; }
    IPtr<IRessource> Get_Child(std::int32_t /*AIndex*/) override { return nullptr; }
    bool Get_HasChildren() override { return false; }
    // The container's action on this resource; false once the container has gone.
    bool Do_ExecuteAction(TRessourceAction AAction, const std::string& AFileName,
                          const std::string& ACaption, bool AReadOnly, bool ALoadNonBlocking,
                          IRessourceActionCallBack* ACallBack, IVTLEventPool* ARessourceChangeEvent,
                          TRessourceArchiveMode AArchiveMode) override;
    std::string Get_Extension() override { return FExtension; }
    IPtr<IRessourceContainer> Get_Container() override;
    TDateTime Get_Date() override { return FDate; }
    std::int64_t Get_Size() override { return FSize; }
    std::int32_t Get_RessourceFlags() override { return FRessourceFlags; }
    bool Get_ACLWriteable() override { return true; }
    bool Do_Move(IRessource* /*ADest*/) override { return false; }
    IPtr<IRessource> Do_CreateFolderStruct(const std::string& /*APath*/) override {
        return nullptr;
    }
    std::int64_t Get_ID() override { return FID; }
    // With ACancel the caller no longer waits: the callback is dropped.
    void Do_CancelAction(bool ACancel) override;
    std::int64_t Get_RecordFlagsMetaID() override { return -1; }
    std::uint8_t Get_Tags() override { return FTags; }
    TRessourceAction Get_DefaultAction() override { return raView; }

  protected:
    virtual std::intptr_t GetIconHandle(std::int32_t& ASourceDPI);

    TCustomRessourceContainer* FContainer;  // not counted: the container owns this resource
    std::string FCaption;
    std::string FExtension;
    TDateTime FDate = 0;
    std::int64_t FSize = 0;
    TRessourceActions FSupportedActions = 0;
    std::int32_t FRessourceFlags = 0;
    std::int64_t FID = 0;
    std::uint8_t FTags = 0;
    IPtr<IRessourceActionCallBack> FNonBlockingActionCallBack;
};

class TCustomRessourceContainer : public TInterfacedObject,
                                  public IRessourceContainerEx,
                                  public IOBJAccess {
  public:
    TCustomRessourceContainer(IMainInterface* AMainInterface, std::string AResIdentifier,
                              std::int64_t AResID, TKRRecordSet* ARecordSet);
    // Detaches the resources that others still hold.
    ~TCustomRessourceContainer() override;

    HRESULT QueryInterface(const TGUID& iid, void** obj) override;
    std::int32_t _AddRef() override { return TInterfacedObject::_AddRef(); }
    // The last release sends rcnDestroying, then frees the container.
    std::int32_t _Release() override;
    TObject* GetObject() override { return this; }

    // Loads unless loaded: marks the container loaded, then runs LoadRessources.
    void Load();
    bool IsLoaded() const { return FLoaded; }
    void BeginUpdate();
    // The last end sends what changed meanwhile.
    void EndUpdate();
    std::int32_t UpdateCount() const { return FUpdateCount; }

    // A new resource of the container's class at the end of the list.
    TCustomRessource* AddRessource();
    // Takes the resource out of the list (a resource of another container is ignored).
    void DeleteRessource(TCustomRessource* ARessource);
    std::int32_t Count() const { return static_cast<std::int32_t>(FItems.size()); }
    TCustomRessource* Items(std::int32_t AIndex) const;
    // The resource behind an interface when it is one of this container's; else nullptr.
    TCustomRessource* FindRessource(IRessource* ARessource) const;

    IMainInterface* MainInterface() const { return FMainInterface.get(); }
    TKRRecordSet* RecordSet() const { return FRecordSet; }
    std::size_t NotifierCount() const { return FNotifiers.size(); }

    // IRessourceContainer, in slot order; a nil resource means the container itself.
    std::int32_t Get_Count() override;
    // Raises EListError for an index out of bounds.
    IPtr<IRessource> Get_Item(std::int32_t AIndex) override;
    // Empties the list and forgets the load; with ALoad loads again at once.
    void Do_Reload(bool ALoad) override;
    // A notifier registered twice is called once.
    void Do_RegisterNotifier(IRessourceContainerNotify* ANotifier) override;
    void Do_UnregisterNotifier(IRessourceContainerNotify* ANotifier) override;
    std::string Get_ResIdentifier() override { return FResIdentifier; }
    std::int64_t Get_ResID() override { return FResID; }
    // ExecuteAction on the resource (nullptr for the container); false for a resource of
    // another container.
    bool Do_ExecuteAction(TRessourceAction AAction, IRessource* ARessource,
                          const std::string& AFileName, const std::string& ACaption, bool AReadOnly,
                          bool ALoadNonBlocking, IRessourceActionCallBack* ACallBack,
                          IVTLEventPool* ARessourceChangeEvent,
                          TRessourceArchiveMode AArchiveMode) override;
    TRessourceActions Get_SupportedActions(IRessource* ARessource) override;
    std::int32_t Get_RessourceFlags(IRessource* ARessource) override;
    bool Get_ACLWriteable(IRessource* ARessource) override;
    IPtr<IRessource> Do_CreateRelFolderStruct(IRessource* ARessource,
                                              const std::string& APath) override;
    void Do_BeginUpdate() override { BeginUpdate(); }
    void Do_EndUpdate() override { EndUpdate(); }
    void Do_FillContentRecordFlagsMetaIDs(IIntegerListData* /*AList*/) override {}
    void Do_FillContentRecordDBIDByMetaID(std::int64_t /*AMetaID*/, IIntegerListData* /*AList*/,
                                          bool /*AAll*/) override {}
    // Reloads; answers whether the container is loaded afterwards.
    bool Do_InvalidateChilds(bool AAllowBackground) override;
    // IRessourceContainerEx
    std::string Get_Caption() override { return GetCaption(); }

  protected:
    // The load: the base empties the list. Runs inside Load, once per load.
    virtual void LoadRessources();
    // A new, unlisted resource of the container's class.
    virtual TCustomRessource* CreateRessource();
    // The action on a resource of this container (nullptr: the container); the base does
    // nothing and answers false.
    virtual bool ExecuteAction(TRessourceAction AAction, TCustomRessource* ARessource,
                               const std::string& AFileName, const std::string& ACaption,
                               bool AReadOnly, bool ALoadNonBlocking,
                               IRessourceActionCallBack* ACallBack,
                               IVTLEventPool* ARessourceChangeEvent,
                               TRessourceArchiveMode AArchiveMode);
    // Actions on the container itself (a nil resource); none in the base.
    virtual TRessourceActions GetContainerSupportedActions() { return 0; }
    virtual std::string GetCaption() { return {}; }
    // Notes a change of the list: sent at the last EndUpdate, or at once outside an update.
    void Changed();

  private:
    void ClearRessources();
    void SendChanged();
    std::vector<IPtr<IRessourceContainerNotify>> Notifiers() const { return FNotifiers; }

    IPtr<IMainInterface> FMainInterface;
    std::string FResIdentifier;
    std::int64_t FResID;
    TKRRecordSet* FRecordSet;  // not owned
    std::vector<IPtr<TCustomRessource>> FItems;
    std::vector<IPtr<IRessourceContainerNotify>> FNotifiers;
    bool FLoaded = false;
    std::int32_t FUpdateCount = 0;
    bool FChangedPending = false;
};

}  // namespace docadmin
