#include "_DocAdminRessources.h"

#include <cmath>
#include <filesystem>
#include <limits>
#include <set>

#include "_Dialogs.h"
#include "_TClientSQL.h"
#include "_TDocAdminObject.h"
#include "_TKRRecordSet.h"
#include "_dmDocAdminMain.h"
#include "_dmDocAdminRepository.h"

namespace docadmin {

namespace fs = std::filesystem;

namespace {

const std::string AddressScheme = "doc://";
constexpr std::size_t PluginGUIDLength = 38;
constexpr int StoredNameLimit = 0x104;

TdmDocAdminRepository& Repository() {
    TdmDocAdminRepository* repo = TdmDocAdminRepository::Instance();
    if (!repo) throw EDocAdminException("The document module is not running");
    return *repo;
}

TVariant Int(std::int64_t AValue) {
    return TVariant(static_cast<long long>(AValue));
}

// A document id as the administrator takes it.
std::int32_t DocID32(std::int64_t AID) {
    if (AID <= 0 || AID > std::numeric_limits<std::int32_t>::max())
        throw EDocAdminFileNotFoundInRepository("File with ID '" + std::to_string(AID) +
                                                "' not found in repository!");
    return static_cast<std::int32_t>(AID);
}

std::int64_t IntOr(TFieldDataAccess AValue, std::int64_t ADefault) {
    return AValue.IsNull() ? ADefault : AValue.GetAsInteger();
}

// The current user may see the document, and with AWrite also change it: not a read-only user,
// and in every ACL group along its folder chain a mode that allows writing.
void CheckDocumentAccess(std::int64_t ADocumentID, bool AWrite) {
    TdmDocAdminRepository& repo = Repository();
    IDBInterface* db = repo.GetDBInterface();
    TKRRecordSet doc(nullptr, db);
    doc.SetSchemaName("docadmindocs");
    doc.SetOptions({rsoUserRowRights});
    doc.GetSelectFields()->Add("docname");
    doc.GetSelectFields()->Add("dirid");
    doc.GetSelectFieldOptions("dirid").DisableLookupValueLoading = true;
    AddFilter(doc.GetFilters(), "id", Int(ADocumentID));
    doc.Open();
    if (doc.GetRecordCount() == 0)
        throw EDocAdminFileNotFoundInRepository("File with ID '" + std::to_string(ADocumentID) +
                                                "' not found in repository!");
    IUserAccess* access = AWrite ? repo.GetUserAccess() : nullptr;
    if (!access) return;
    const std::string name = doc.ValueByName(0, "docname").GetAsString();
    auto refuse = [&] { throw EDocAdminNoWriteAccessError("No write access to '" + name + "'!"); };
    if (access->IsReadOnly()) refuse();
    std::set<std::int64_t> seen;  // a damaged chain that loops ends here
    for (std::int64_t dir = IntOr(doc.ValueByName(0, "dirid"), 0);
         dir > 0 && seen.insert(dir).second;) {
        TKRRecordSet d(nullptr, db);
        d.SetSchemaName("docadmindir");
        for (const char* field : {"parentdirid", "globalaclgrp"}) {
            d.GetSelectFields()->Add(field);
            d.GetSelectFieldOptions(field).DisableLookupValueLoading = true;
        }
        AddFilter(d.GetFilters(), "id", Int(dir));
        d.Open();
        if (d.GetRecordCount() == 0) break;
        const std::int64_t group = IntOr(d.ValueByName(0, "globalaclgrp"), 0);
        if (group > 0) {
            const std::int32_t mode = access->GetGroupAccessMode(group);
            if (mode != 0 && mode != 2) refuse();
        }
        dir = IntOr(d.ValueByName(0, "parentdirid"), 0);
    }
}

// Deletes a temporary file, or leaves it to the module's end when it can't be deleted now.
void RemoveTempFile(const std::string& AFile) {
    std::error_code ec;
    fs::remove(AFile, ec);
    if (fs::exists(AFile, ec)) Repository().AddTempFileToDelete(AFile);
}

// Fetches into a fresh temporary file named after AName. AFetch downloads into the file and
// answers the extension of the stored name, which the file then gets. On failure the file goes.
template <class F>
std::string FetchToTemp(const std::string& AName, F AFetch) {
    std::string name = ConvertToFileName(AName, false, StoredNameLimit);
    if (name.empty()) name = GetTempFileName();
    const std::string tmp = GetNewTempFileName(GetTempPath(), name, true);
    try {
        const std::string ext = AFetch(tmp);
        if (ExtractFileExt(tmp) == ext) return tmp;
        const std::string dest =
            GetNewTempFileName(GetTempPath(), ExtractFileName(ChangeFileExt(tmp, ext)), false);
        fs::rename(tmp, dest);
        return dest;
    } catch (...) {
        RemoveTempFile(tmp);
        throw;
    }
}

// Shows a fetched file as the viewer or, with AEditor, the editor. A file still open stays until
// the module's end; an editor that ran to its end and changed the file's date has the file
// stored (AStoreChange). This build has no user interface, so nobody opens a file that no
// handler took: it is deleted.
void PresentFile(const std::string& AFile, bool AEditor,
                 const std::function<void(const std::string&)>& AStoreChange) {
    TdmDocAdminRepository& repo = Repository();
    const TDateTime before = GetFileDate(AFile);
    const TKRFileHandlerShowResult shown =
        AEditor ? repo.KRFileHandlerClient()->ShowFile(AFile, false, true)
                : repo.CheckAndExecuteInternalFile(AFile, false);
    if (shown == fsrHandledOpen) {
        repo.AddTempFileToDelete(AFile);
        return;
    }
    TFinally gone{[&AFile] { RemoveTempFile(AFile); }};
    constexpr double OneMillisecond = 1.0 / 86400000.0;
    if (AEditor && shown == fsrHandled && std::fabs(GetFileDate(AFile) - before) >= OneMillisecond)
        AStoreChange(AFile);
}

}  // namespace

// ---- Address

bool ParseDocAdminAddress(const std::string& AIdentifier, TDocAdminAddress& AAddress) {
    if (AIdentifier.size() <= 5 || AIdentifier.compare(0, AddressScheme.size(), AddressScheme) != 0)
        return false;
    TDocAdminAddress a;
    std::size_t pos = AddressScheme.size();
    if (pos < AIdentifier.size() && AIdentifier[pos] == '@') {
        a.Plugin = AIdentifier.substr(pos + 1, PluginGUIDLength);
        pos = std::min(AIdentifier.size(), pos + 1 + PluginGUIDLength + 1);
    }
    const std::size_t question = AIdentifier.find('?', pos);
    if (question == std::string::npos) {
        a.BaseDirectory = AIdentifier.substr(pos);
    } else {
        a.BaseDirectory = AIdentifier.substr(pos, question - pos);
        a.Params = AIdentifier.substr(question + 1);
    }
    AAddress = std::move(a);
    return true;
}

// ---- TDocAdminFileRessource

TDocAdminFileRessource::TDocAdminFileRessource(TCustomRessourceContainer* AContainer)
    : TCustomRessource(AContainer) {
    FSupportedActions = 7;
    FRessourceFlags = 10;
}

HRESULT TDocAdminFileRessource::QueryInterface(const TGUID& iid, void** obj) {
    if (iid == IDocAdminDownloderCallBack::IID) {
        *obj = static_cast<IDocAdminDownloderCallBack*>(this);
        _AddRef();
        return S_OK;
    }
    return TCustomRessource::QueryInterface(iid, obj);
}

void TDocAdminFileRessource::DownloadDone(const std::string& DestFileName) {
    if (IPtr<IRessourceActionCallBack> cb = FNonBlockingActionCallBack)
        cb->Do_ActionDone(static_cast<IRessource*>(this), raSaveCopy, DestFileName);
}

void TDocAdminFileRessource::DownloadFailed(const std::string& DestFileName,
                                            const std::string& ErrorMessage) {
    if (IPtr<IRessourceActionCallBack> cb = FNonBlockingActionCallBack)
        cb->Do_ActionFailed(static_cast<IRessource*>(this), raSaveCopy, DestFileName, ErrorMessage);
}

std::intptr_t TDocAdminFileRessource::GetIconHandle(std::int32_t& /*ASourceDPI*/) {
    TdmDocAdminRepository* repo = TdmDocAdminRepository::Instance();
    if (!repo) return 0;
    return repo->GetImageIndexForFile(FExtension.empty() ? FCaption : FExtension);
}

// ---- TDocAdminRessourceContainer

TDocAdminRessourceContainer::TDocAdminRessourceContainer(IMainInterface* AMainInterface,
                                                         const std::string& AResIdentifier,
                                                         std::int64_t AResID,
                                                         TKRRecordSet* ARecordSet)
    : TCustomRessourceContainer(AMainInterface, AResIdentifier, AResID, ARecordSet) {}

TDocAdminRessourceContainer::~TDocAdminRessourceContainer() {
    if (OnDestroy) OnDestroy(this);
}

HRESULT TDocAdminRessourceContainer::QueryInterface(const TGUID& iid, void** obj) {
    if (iid == IDocAdminRessourceContainer::IID) {
        *obj = static_cast<IDocAdminRessourceContainer*>(this);
        _AddRef();
        return S_OK;
    }
    return TCustomRessourceContainer::QueryInterface(iid, obj);
}

std::string TDocAdminRessourceContainer::GetCaption() {
    return Repository().GetTranslatedText(IDS_LINKEDCONT);
}

void TDocAdminRessourceContainer::LoadRessources() {
    TCustomRessourceContainer::LoadRessources();
    BeginUpdate();
    TFinally end{[this] { EndUpdate(); }};
    if (Get_ResID() <= 0) return;
    TKRRecordSet rs(nullptr, Repository().GetDBInterface());
    rs.SetSchemaName("docadminressources");
    // A link follows its document's rights: links to documents the user can't see are left out.
    rs.SetOptions({rsoUserRowRights});
    AddFilter(rs.GetFilters(), "resident", TVariant(Get_ResIdentifier()));
    AddFilter(rs.GetFilters(), "resid", Int(Get_ResID()));
    for (const char* field :
         {"docadmindocs.docname", "docadmindocs.fllocname", "docadmindocs.id", "docadmindocs.dirid",
          "docadmindocs.fldate", "docadmindocs.flsize", "docadmindocs.doctags"})
        rs.GetSelectFields()->Add(field);
    rs.Open();
    for (int i = 0; i < rs.GetRecordCount(); ++i) {
        auto* r = static_cast<TDocAdminFileRessource*>(AddRessource());
        const std::string name = rs.ValueByName(i, "docadmindocs.docname").GetAsString();
        const std::string ext = ExtractFileExt(name);
        r->SetDBID(rs.GetDBIDByRecNo(i));
        r->SetCaption(name.substr(0, name.size() - ext.size()));
        r->SetExtension(ext);
        r->SetRemoteFileName(rs.ValueByName(i, "docadmindocs.fllocname").GetAsString());
        r->SetDocumentID(IntOr(rs.ValueByName(i, "docadmindocs.id"), 0));
        r->SetDirectoryID(IntOr(rs.ValueByName(i, "docadmindocs.dirid"), 0));
        r->SetDate(rs.ValueByName(i, "docadmindocs.fldate").GetAsFloat());
        r->SetSize(IntOr(rs.ValueByName(i, "docadmindocs.flsize"), 0));
        const auto tags =
            static_cast<TDocAdminDocTags>(IntOr(rs.ValueByName(i, "docadmindocs.doctags"), 0));
        r->SetDocAdminDocTags(tags);
        r->SetSupportedActions(tags & dtReadOnly ? 11u : 527u);
    }
}

bool TDocAdminRessourceContainer::AddLink(std::int64_t ADocumentID, const std::string& AName) {
    CheckDocumentAccess(ADocumentID, false);
    if (IUserAccess* access = Repository().GetUserAccess(); access && access->IsReadOnly())
        throw EDocAdminNoWriteAccessError("No write access to '" + AName + "'!");
    // The row first: a listed link always has its row.
    TClientSQL insert(&Repository());
    insert.SetStatementKind(skInsert);
    insert.SetSchemaName("docadminressources");
    insert.GetFields()->AddField("documentid", Int(ADocumentID));
    insert.GetFields()->AddField("resident", TVariant(Get_ResIdentifier()));
    insert.GetFields()->AddField("resid", Int(Get_ResID()));
    std::int64_t key = 0;
    insert.ExecuteSQL(key);
    if (!IsLoaded()) return true;
    BeginUpdate();
    TFinally end{[this] { EndUpdate(); }};
    auto* r = static_cast<TDocAdminFileRessource*>(AddRessource());
    const std::string ext = ExtractFileExt(AName);
    r->SetCaption(AName.substr(0, AName.size() - ext.size()));
    r->SetExtension(ext);
    r->SetDocumentID(ADocumentID);
    r->SetDate(Now());
    r->SetDocAdminDocTags(0);
    r->SetSupportedActions(527);
    r->SetDBID(key);
    return true;
}

void TDocAdminRessourceContainer::RefreshFileInfo(TDocAdminFileRessource& R) {
    TKRRecordSet rs(nullptr, Repository().GetDBInterface());
    rs.SetSchemaName("docadmindocs");
    for (const char* field : {"fllocname", "fldate", "flsize"})
        rs.GetSelectFields()->Add(field);
    AddFilter(rs.GetFilters(), "id", Int(R.DocumentID()));
    rs.Open();
    if (rs.GetRecordCount() == 0) return;
    R.SetRemoteFileName(rs.ValueByName(0, "fllocname").GetAsString());
    R.SetDate(rs.ValueByName(0, "fldate").GetAsFloat());
    R.SetSize(IntOr(rs.ValueByName(0, "flsize"), 0));
}

void TDocAdminRessourceContainer::SaveCopy(TDocAdminFileRessource& R, const std::string& AFileName,
                                           bool ALoadNonBlocking,
                                           IRessourceActionCallBack* ACallBack) {
    if (ALoadNonBlocking && ACallBack) R.SetNonBlockingActionCallBack(ACallBack);
    try {
        CheckDocumentAccess(R.DocumentID(), false);
        if (!R.RemoteFileName().empty()) {
            if (ALoadNonBlocking)
                FDocAdmin->DocFileLoader()->DownloadFileNonBlocked(
                    R.RemoteFileName(), AFileName, static_cast<IDocAdminDownloderCallBack*>(&R));
            else
                FDocAdmin->DownloadRemoteFile(R.RemoteFileName(), AFileName, R.Get_Date());
            return;
        }
        std::string stored;
        FDocAdmin->DownloadFile(DocID32(R.DocumentID()), AFileName, stored);
        if (ALoadNonBlocking && R.NonBlockingActionCallBack())
            R.NonBlockingActionCallBack()->Do_ActionDone(static_cast<IRessource*>(&R), raSaveCopy,
                                                         AFileName);
    } catch (const std::exception& e) {
        IPtr<IRessourceActionCallBack> cb(R.NonBlockingActionCallBack());
        if (!ALoadNonBlocking || !cb) throw;
        cb->Do_ActionFailed(static_cast<IRessource*>(&R), raSaveCopy, AFileName, e.what());
    }
}

bool TDocAdminRessourceContainer::ExecuteAction(
    TRessourceAction AAction, TCustomRessource* ARessource, const std::string& AFileName,
    const std::string& /*ACaption*/, bool /*AReadOnly*/, bool ALoadNonBlocking,
    IRessourceActionCallBack* ACallBack, IVTLEventPool* /*ARessourceChangeEvent*/,
    TRessourceArchiveMode AArchiveMode) {
    auto* r = dynamic_cast<TDocAdminFileRessource*>(ARessource);
    if (!r) return false;
    if (!FDocAdmin) FDocAdmin = Repository().CreateDocAdmin({}, {}, false, {});
    switch (AAction) {
        case raView:
        case raEditMonitored: {
            CheckDocumentAccess(r->DocumentID(), false);
            const std::string file = FetchToTemp(r->FileName(), [&](const std::string& ATemp) {
                if (!r->RemoteFileName().empty()) {
                    FDocAdmin->DownloadRemoteFile(r->RemoteFileName(), ATemp, r->Get_Date());
                    return ExtractFileExt(ConvertToFileName(r->FileName(), false, StoredNameLimit));
                }
                std::string stored;
                FDocAdmin->DownloadFile(DocID32(r->DocumentID()), ATemp, stored);
                return ExtractFileExt(stored);
            });
            PresentFile(file, AAction == raEditMonitored, [&](const std::string& AChanged) {
                CheckDocumentAccess(r->DocumentID(), true);
                FDocAdmin->ReplaceFile(r->DocumentID(), AChanged, false, ramDefault);
                RefreshFileInfo(*r);
            });
            return true;
        }
        case raSaveCopy:
            if (r->RemoteFileName().empty() && r->DocumentID() <= 0) return false;
            SaveCopy(*r, AFileName, ALoadNonBlocking, ACallBack);
            return true;
        case raReplace:
            CheckDocumentAccess(r->DocumentID(), true);
            FDocAdmin->ReplaceFile(r->DocumentID(), AFileName, false, AArchiveMode);
            // Later actions must fetch the new file, not the one the list was loaded with.
            RefreshFileInfo(*r);
            return true;
        case raDelete:
            CheckDocumentAccess(r->DocumentID(), true);
            // The document goes, and with its row every link to it.
            FDocAdmin->DeleteDocument(DocID32(r->DocumentID()));
            DeleteRessource(r);
            return true;
        default:
            return true;
    }
}

// ---- Action handlers of a doc:// tree

void ExecuteTreeDocumentAction(TBaseDocAdmin& ADocAdmin, TDocument* ADocument,
                               TRessourceAction AAction, const std::string& AFileName,
                               bool ALoadNonBlocking, IRessourceActionCallBack* ACallBack,
                               IVTLEventPool* ARessourceChangeEvent,
                               TRessourceArchiveMode AArchiveMode) {
    if (!ADocument) return;
    switch (AAction) {
        case raView:
        case raEditMonitored: {
            const std::string file = FetchToTemp(ADocument->DocName(), [&](const std::string& T) {
                ADocAdmin.DownloadFile(ADocument, T, false, nullptr);
                return ExtractFileExt(ADocument->DocName());
            });
            PresentFile(file, AAction == raEditMonitored, [&](const std::string& AChanged) {
                ADocAdmin.ReplaceFile(ADocument, AChanged, false, AArchiveMode);
                if (ARessourceChangeEvent) ARessourceChangeEvent->Do_FireEvent(ADocument->DocID());
            });
            break;
        }
        case raSaveCopy:
            ADocAdmin.DownloadFile(ADocument, AFileName, ALoadNonBlocking, ACallBack);
            break;
        case raReplace:
            ADocAdmin.ReplaceFile(ADocument, AFileName, false, AArchiveMode);
            break;
        case raDelete:
            ADocAdmin.DeleteDocument(ADocument);
            break;
        default:
            break;
    }
}

void ExecuteTreeDirectoryAction(TBaseDocAdmin& ADocAdmin, TDocDirectory* ADirectory,
                                TRessourceAction AAction, const std::string& AFileName,
                                const std::string& ACaption) {
    // Adding needs write access to the directory that receives: for none the tree's root, read
    // first so that its folder is found (or made) and its rights are known.
    auto checkTarget = [&] {
        if (!ADirectory) ADocAdmin.Directories()->ChildDirectoryCount();
        ADocAdmin.CheckStoragItemACLWriteable(ADirectory ? ADirectory : ADocAdmin.Directories());
    };
    switch (AAction) {
        case raDelete:
            if (ADirectory) ADocAdmin.DeleteDirectory(ADirectory);
            break;
        case raAddDirectory:
            checkTarget();
            ADocAdmin.AddDirectory(ADirectory, AFileName);
            break;
        case raImportDirectory:
            checkTarget();
            ADocAdmin.ImportDirectory(AFileName, ADirectory);
            break;
        case raAddDocument:
            checkTarget();
            ADocAdmin.SaveDoc(nullptr, chAdded, AFileName, ADirectory, ACaption, 0);
            break;
        default:
            break;
    }
}

// ---- TDocAdminRessourceProvider

TDocAdminRessourceProvider::~TDocAdminRessourceProvider() {
    for (const TEntry& e : FLoadedRessourceContainers)
        e.Detach();
}

void TDocAdminRessourceProvider::Remove(IRessourceContainer* AContainer) {
    std::erase_if(FLoadedRessourceContainers,
                  [AContainer](const TEntry& e) { return e.Container == AContainer; });
}

IPtr<IRessourceContainer> TDocAdminRessourceProvider::GetRessourceContainer(
    const std::string& AResIdentifier, std::int64_t AResID) {
    // The list has no lock: only the main thread uses it.
    const bool mainThread = IsMainThread();
    if (mainThread)
        for (const TEntry& e : FLoadedRessourceContainers)
            if (e.Container->Get_ResIdentifier() == AResIdentifier &&
                e.Container->Get_ResID() == AResID)
                return IPtr<IRessourceContainer>(e.Container);

    TdmDocAdminRepository& repo = Repository();
    IPtr<IRessourceContainer> result;
    std::function<void()> detach;
    TDocAdminAddress address;
    if (ParseDocAdminAddress(AResIdentifier, address)) {
        std::unique_ptr<TBaseDocAdmin> admin =
            repo.CreateDocAdmin(address.Plugin, address.BaseDirectory, false, address.Params);
        auto* handle =
            new TDocAdminObject(admin.release(), false, AResIdentifier, AResID, false, false);
        result = IPtr<IRessourceContainer>(static_cast<IRessourceContainer*>(handle));
        TBaseDocAdmin* tree = handle->DocAdmin();
        handle->SetOnGetDocumentIconHandle(
            [](TObject*, TDocument* ADocument, std::intptr_t& AIcon, std::int32_t&) {
                if (TdmDocAdminRepository* r = TdmDocAdminRepository::Instance())
                    AIcon = r->GetImageIndexForFile(ADocument->DocName());
            });
        handle->SetOnGetDirectoryIconHandle(
            [](TObject*, TDocDirectory*, std::intptr_t& AIcon, std::int32_t&) {
                if (TdmDocAdminRepository* r = TdmDocAdminRepository::Instance())
                    AIcon = r->GetImageIndexForFile("@directory@");
            });
        handle->SetOnExecuteDocumentAction(
            [tree](TObject*, TDocument* ADocument, TRessourceAction AAction,
                   const std::string& AFileName, const std::string&, bool, bool ALoadNonBlocking,
                   IRessourceActionCallBack* ACallBack, IVTLEventPool* AEvent,
                   TRessourceArchiveMode AArchiveMode) {
                ExecuteTreeDocumentAction(*tree, ADocument, AAction, AFileName, ALoadNonBlocking,
                                          ACallBack, AEvent, AArchiveMode);
            });
        handle->SetOnExecuteDirectoryAction(
            [tree](TObject*, TDocDirectory* ADirectory, TRessourceAction AAction,
                   const std::string& AFileName, const std::string& ACaption, bool, bool,
                   IRessourceActionCallBack*) {
                ExecuteTreeDirectoryAction(*tree, ADirectory, AAction, AFileName, ACaption);
            });
        if (mainThread) {
            IRessourceContainer* key = result.get();
            handle->OnDestroy = [this, key](TObject*) { Remove(key); };
            detach = [handle] { handle->OnDestroy = nullptr; };
        }
    } else {
        auto* container = new TDocAdminRessourceContainer(repo.GetMainInterface(), AResIdentifier,
                                                          AResID, nullptr);
        result = IPtr<IRessourceContainer>(static_cast<IRessourceContainerEx*>(container));
        container->SetDocAdminInt(repo.DocAdminInt());
        if (mainThread) {
            IRessourceContainer* key = result.get();
            container->OnDestroy = [this, key](TObject*) { Remove(key); };
            detach = [container] { container->OnDestroy = nullptr; };
        }
    }
    if (mainThread) FLoadedRessourceContainers.push_back({result.get(), std::move(detach)});
    return result;
}

}  // namespace docadmin
