#include "_TCustomRessourceContainer.h"

#include <algorithm>

#include "_SysUtils.h"

namespace docadmin {

// ---- TCustomRessource

TCustomRessource::TCustomRessource(TCustomRessourceContainer* AContainer)
    : FContainer(AContainer) {}

TCustomRessource::~TCustomRessource() {
    if (IPtr<IRessourceActionCallBack> cb = std::move(FNonBlockingActionCallBack)) {
        // A guard reference, so that a callback that adds and releases one frees nothing twice.
        ++FRefCount;
        cb->Do_RessourceDestroying(static_cast<IRessource*>(this));
        --FRefCount;
    }
}

HRESULT TCustomRessource::QueryInterface(const TGUID& iid, void** obj) {
    if (iid == IRessource::IID) {
        *obj = static_cast<IRessource*>(this);
    } else if (iid == IOBJAccess::IID) {
        *obj = static_cast<IOBJAccess*>(this);
    } else if (iid == IInterface::IID) {
        *obj = static_cast<IRessource*>(this);
    } else {
        *obj = nullptr;
        return E_NOINTERFACE;
    }
    _AddRef();
    return S_OK;
}

std::intptr_t TCustomRessource::Get_Icon(std::int32_t& ASourceDPI) {
    ASourceDPI = 0;
    return GetIconHandle(ASourceDPI);
}

std::intptr_t TCustomRessource::GetIconHandle(std::int32_t& /*ASourceDPI*/) {
    return 0;
}

bool TCustomRessource::Do_ExecuteAction(TRessourceAction AAction, const std::string& AFileName,
                                        const std::string& ACaption, bool AReadOnly,
                                        bool ALoadNonBlocking, IRessourceActionCallBack* ACallBack,
                                        IVTLEventPool* ARessourceChangeEvent,
                                        TRessourceArchiveMode AArchiveMode) {
    if (!FContainer) return false;
    // The container may drop this resource during the action (a delete): keep it alive.
    IPtr<TCustomRessource> self(this);
    return FContainer->Do_ExecuteAction(AAction, this, AFileName, ACaption, AReadOnly,
                                        ALoadNonBlocking, ACallBack, ARessourceChangeEvent,
                                        AArchiveMode);
}

IPtr<IRessourceContainer> TCustomRessource::Get_Container() {
    return FContainer ? IPtr<IRessourceContainer>(static_cast<IRessourceContainerEx*>(FContainer))
                      : nullptr;
}

void TCustomRessource::Do_CancelAction(bool ACancel) {
    if (ACancel) FNonBlockingActionCallBack.reset();
}

// ---- TCustomRessourceContainer

TCustomRessourceContainer::TCustomRessourceContainer(IMainInterface* AMainInterface,
                                                     std::string AResIdentifier,
                                                     std::int64_t AResID, TKRRecordSet* ARecordSet)
    : FMainInterface(AMainInterface),
      FResIdentifier(std::move(AResIdentifier)),
      FResID(AResID),
      FRecordSet(ARecordSet) {}

TCustomRessourceContainer::~TCustomRessourceContainer() {
    for (const IPtr<TCustomRessource>& r : FItems)
        r->DetachFromContainer();
}

HRESULT TCustomRessourceContainer::QueryInterface(const TGUID& iid, void** obj) {
    if (iid == IRessourceContainer::IID || iid == IRessourceContainerEx::IID ||
        iid == IInterface::IID) {
        *obj = static_cast<IRessourceContainerEx*>(this);
    } else if (iid == IOBJAccess::IID) {
        *obj = static_cast<IOBJAccess*>(this);
    } else {
        *obj = nullptr;
        return E_NOINTERFACE;
    }
    _AddRef();
    return S_OK;
}

std::int32_t TCustomRessourceContainer::_Release() {
    const std::int32_t r = --FRefCount;
    if (r != 0) return r;
    // Notifiers get a live container: a reference of its own while they are told.
    FRefCount = 1;
    for (const IPtr<IRessourceContainerNotify>& n : Notifiers())
        n->Do_ContainerNotify(rcnDestroying, this);
    FRefCount = 0;
    delete this;
    return 0;
}

void TCustomRessourceContainer::Load() {
    if (FLoaded) return;
    FLoaded = true;
    LoadRessources();
}

void TCustomRessourceContainer::LoadRessources() {
    ClearRessources();
}

TCustomRessource* TCustomRessourceContainer::CreateRessource() {
    return new TCustomRessource(this);
}

void TCustomRessourceContainer::BeginUpdate() {
    ++FUpdateCount;
}

void TCustomRessourceContainer::EndUpdate() {
    Assert(FUpdateCount > 0, "TCustomRessourceContainer.EndUpdate without BeginUpdate");
    if (--FUpdateCount > 0 || !FChangedPending) return;
    SendChanged();
}

void TCustomRessourceContainer::Changed() {
    FChangedPending = true;
    if (FUpdateCount == 0) SendChanged();
}

void TCustomRessourceContainer::SendChanged() {
    FChangedPending = false;
    for (const IPtr<IRessourceContainerNotify>& n : Notifiers()) {
        n->Do_ContainerNotify(rcnChanged, this);
        n->Do_ChildsChanged(this, nullptr);
    }
}

TCustomRessource* TCustomRessourceContainer::AddRessource() {
    IPtr<TCustomRessource> r(CreateRessource());
    FItems.push_back(r);
    Changed();
    return r.get();
}

void TCustomRessourceContainer::DeleteRessource(TCustomRessource* ARessource) {
    const auto it = std::find(FItems.begin(), FItems.end(), IPtr<TCustomRessource>(ARessource));
    if (it == FItems.end()) return;
    IPtr<TCustomRessource> held = *it;  // lives until the notifiers are told
    FItems.erase(it);
    held->DetachFromContainer();
    for (const IPtr<IRessourceContainerNotify>& n : Notifiers())
        n->Do_RessourceRemoved(held.get());
    Changed();
}

void TCustomRessourceContainer::ClearRessources() {
    if (FItems.empty()) return;
    std::vector<IPtr<TCustomRessource>> items;
    items.swap(FItems);
    for (const IPtr<TCustomRessource>& r : items)
        r->DetachFromContainer();
    Changed();
}

TCustomRessource* TCustomRessourceContainer::Items(std::int32_t AIndex) const {
    if (AIndex < 0 || AIndex >= Count())
        throw EListError("resource index " + std::to_string(AIndex) + " out of bounds");
    return FItems[static_cast<std::size_t>(AIndex)].get();
}

TCustomRessource* TCustomRessourceContainer::FindRessource(IRessource* ARessource) const {
    IPtr<IOBJAccess> access;
    if (!ARessource || !Supports(ARessource, access)) return nullptr;
    auto* r = dynamic_cast<TCustomRessource*>(access->GetObject());
    return r && r->Container() == this ? r : nullptr;
}

std::int32_t TCustomRessourceContainer::Get_Count() {
    Load();
    return Count();
}

IPtr<IRessource> TCustomRessourceContainer::Get_Item(std::int32_t AIndex) {
    Load();
    return IPtr<IRessource>(static_cast<IRessource*>(Items(AIndex)));
}

void TCustomRessourceContainer::Do_Reload(bool ALoad) {
    BeginUpdate();
    TFinally end{[this] { EndUpdate(); }};
    FLoaded = false;
    ClearRessources();
    Changed();
    if (ALoad) Load();
}

void TCustomRessourceContainer::Do_RegisterNotifier(IRessourceContainerNotify* ANotifier) {
    if (!ANotifier) return;
    if (std::find(FNotifiers.begin(), FNotifiers.end(),
                  IPtr<IRessourceContainerNotify>(ANotifier)) == FNotifiers.end())
        FNotifiers.emplace_back(ANotifier);
}

void TCustomRessourceContainer::Do_UnregisterNotifier(IRessourceContainerNotify* ANotifier) {
    const auto it =
        std::find(FNotifiers.begin(), FNotifiers.end(), IPtr<IRessourceContainerNotify>(ANotifier));
    if (it != FNotifiers.end()) FNotifiers.erase(it);
}

bool TCustomRessourceContainer::Do_ExecuteAction(TRessourceAction AAction, IRessource* ARessource,
                                                 const std::string& AFileName,
                                                 const std::string& ACaption, bool AReadOnly,
                                                 bool ALoadNonBlocking,
                                                 IRessourceActionCallBack* ACallBack,
                                                 IVTLEventPool* ARessourceChangeEvent,
                                                 TRessourceArchiveMode AArchiveMode) {
    TCustomRessource* r = nullptr;
    if (ARessource && !(r = FindRessource(ARessource))) return false;
    // The container stays alive while it acts, even if its holder lets go meanwhile.
    IPtr<IRessourceContainerEx> self(this);
    IPtr<TCustomRessource> held(r);
    return ExecuteAction(AAction, r, AFileName, ACaption, AReadOnly, ALoadNonBlocking, ACallBack,
                         ARessourceChangeEvent, AArchiveMode);
}

bool TCustomRessourceContainer::ExecuteAction(TRessourceAction, TCustomRessource*,
                                              const std::string&, const std::string&, bool, bool,
                                              IRessourceActionCallBack*, IVTLEventPool*,
                                              TRessourceArchiveMode) {
    return false;
}

TRessourceActions TCustomRessourceContainer::Get_SupportedActions(IRessource* ARessource) {
    return ARessource ? ARessource->Get_SupportedActions() : GetContainerSupportedActions();
}

std::int32_t TCustomRessourceContainer::Get_RessourceFlags(IRessource* ARessource) {
    return ARessource ? ARessource->Get_RessourceFlags() : 0;
}

bool TCustomRessourceContainer::Get_ACLWriteable(IRessource* ARessource) {
    return ARessource ? ARessource->Get_ACLWriteable() : true;
}

IPtr<IRessource> TCustomRessourceContainer::Do_CreateRelFolderStruct(IRessource* ARessource,
                                                                     const std::string& APath) {
    return ARessource ? ARessource->Do_CreateFolderStruct(APath) : nullptr;
}

bool TCustomRessourceContainer::Do_InvalidateChilds(bool /*AAllowBackground*/) {
    Do_Reload(true);
    return FLoaded;
}

}  // namespace docadmin
