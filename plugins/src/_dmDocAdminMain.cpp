#include "_dmDocAdminMain.h"

#include <algorithm>
#include <atomic>

#include "_DocAdminStoreUpdate.h"
#include "_DocFileLoaderChoice.h"
#include "_TClientSQL.h"
#include "_TLocalSettingsStorage.h"
#include "_TVTLFrameworkScriptGlobalFunctions.h"
#include "_VTLDocumentsRestService.h"
#include "_dmDocAdminMainForms.h"
#include "_dmDocAdminRepository.h"

namespace docadmin {

namespace {

std::atomic<TdmDocAdminMain*> GMain{nullptr};

// German, English; French and Italian have no texts of their own.
struct TModuleText {
    const std::string& Key;
    const char* German;
    const char* English;
};
const TModuleText ModuleTexts[] = {
    {IDS_ModuleTitle, "Dokumente", "Documents"},
    {IDS_AccessTo, "Zugriff auf %s", "Access to %s"},
    {IDS_ExtDesc, "Dokumente für den aktuellen Datensatz.", "Documents for the current record."},
    {IDS_ExtTitle, "Dokumente Datensatz", "Documents record"},
    {IDS_VwPlgF, "Zugriff auf Plugindokumente", "Access to Plugindocuments"},
    {IDS_ExtTitleSchema, "Dokumente ganze Tabelle", "Documents entire table"},
    {IDS_ExtDescSchema, "Dokumente für diese Tabelle.", "Documents for this table."},
    {IDS_Files, "Dateien der Dokumentenverwaltung", "Files in Document Management"},
    {IDS_RESCONTCAP, "Abgelegte Dokumente", "Stored Documents"},
    {IDS_LINKEDCONT, "Verknüpfte Dokumente", "Linked Documents"},
    {IDS_DOCUPDAG, "Dokument", "Document"},
    {IDS_DOCUPDCAP, "Dokument archiviert", "Document archived"},
    {IDS_DOCUPDMSG, "Neue Version des Dokuments %s wurde archiviert.",
     "New version of the document %s has been archived."},
};

// Local settings of the document icons, written with their defaults when empty.
const std::pair<const char*, const char*> IconSettings[] = {
    {"IconPath", ".\\custom\\plugin\\images"},
    {"IconExt", ".docimg"},
};

}  // namespace

TdmDocAdminMain::TdmDocAdminMain(TClientPluginBase* AOwner) : TPluginBaseDataModule(AOwner) {
    GMain = this;
    SetSelfIsExtFunc(true);
    CreateComponents();
    if (IMainInterface* mi = GetMainInterface())
        if (IRessourceSourceList* sources = mi->GetRessourceSources())
            sources->Add(DocAdminPluginGUID, RessourceSource());
    if (Plugin()) Plugin()->SetShortName(DocAdminShortName);
    if (TdmDocAdminRepository* repo = TdmDocAdminRepository::Instance())
        repo->SetDocAdminInt(static_cast<IExtFuncPluginDocAdmin*>(this));
    TVTLFrameworkScriptGlobalFunctions::RegisterGlobalScriptVar(
        DocAdminScriptGlobal, "DIExtFuncPluginDocAdmin",
        static_cast<IExtFuncPluginDocAdmin*>(this));
    LoadIconSettings();
}

TdmDocAdminMain::~TdmDocAdminMain() {
    TVTLFrameworkScriptGlobalFunctions::RemoveGlobalScriptVar(DocAdminScriptGlobal);
    if (TdmDocAdminRepository* repo = TdmDocAdminRepository::Instance())
        if (repo->DocAdminInt() == static_cast<IExtFuncPluginDocAdmin*>(this))
            repo->SetDocAdminInt(nullptr);
    FRessourceSourceNotifyList.clear();
    TdmDocAdminMain* self = this;
    GMain.compare_exchange_strong(self, nullptr);
}

TdmDocAdminMain* TdmDocAdminMain::Instance() {
    return GMain.load();
}

void TdmDocAdminMain::CreateComponents() {
    FsiLang = new TVTLLang(this);
    FsiLang->SetLanguages({"German", "English", "French", "Italian"});
    for (const TModuleText& t : ModuleTexts)
        FsiLang->SetTexts(t.Key, {t.German, t.English});

    FKRSQLDeleteNotifyListener = new TKRSQLDeleteNotifyListener(this);
    FKRSQLDeleteNotifyListener->OnExecute = [this](TObject* Sender, IKRSQLDeleteNotify* AEvent) {
        KRSQLDeleteNotifyListenerExecute(Sender, AEvent);
    };

    // A document's rights follow its directory, a link's rights follow its document.
    FKRACLDataTableController = new TKRACLDataTableController(this);
    FKRACLDataTableController->AddTable("docadmindir", TACLTableType::atDefault, "",
                                        "Ordner Dokumentenverwaltung");
    FKRACLDataTableController->AddTable("docadmindocs", TACLTableType::atDefault, "dirid",
                                        "Dateien Dokumentenverwaltung");
    FKRACLDataTableController->AddTable("docadminressources", TACLTableType::atFields, "documentid",
                                        "Dokument-Ressourcen");

    FKRFilterHandlerClient = new TKRFilterHandlerClient(this);
    TKRFilterHandler search;
    search.Identifier = DocAdminFilterIdentifier;
    search.Caption = "Suche in abgelegten Dokumenten";
    search.SupportsSchema = [](const std::string&) { return true; };
    FKRFilterHandlerClient->AddHandler(std::move(search));

    FVTLBIAPIClient = new TVTLBIAPIClient(this);
    FVTLBIAPIClient->AddItem("Documents Services", DocumentsServicesIdentifier, "services");
    FVTLBIAPIClient->OnGetAPIService = [](TVTLBIAPIClient*, const TVTLBIAPIItem& AItem,
                                          TRestServiceClass& AClass, TInterfaceTypeList& AIntfs) {
        GetDocumentsAPIService(AItem, AClass, AIntfs);
    };
    SetDocumentsServiceRepository(&ModuleDocumentsServiceRepository());
}

void TdmDocAdminMain::LoadIconSettings() {
    ISettingsStorage* local = GetSaveSettings();
    if (!local) return;
    // Writing a text needs the host's local store; reading works on any settings store.
    auto* writable = dynamic_cast<TLocalSettingsStorage*>(local);
    for (const auto& [key, fallback] : IconSettings)
        if (local->ReadString(DocAdminShortName, key, "").empty() && writable)
            writable->WriteString(DocAdminShortName, key, fallback);
}

void TdmDocAdminMain::Init() {
    TPluginBaseDataModule::Init();
    ICustomApp* app = GetCustomApp();
    if (!app || !app->IsServer()) return;
    DoDocAdminStoreMigrations(GetMainInterface());
}

void TdmDocAdminMain::BeforeDestruction() {
    TPluginBaseDataModule::BeforeDestruction();
    // From here on the documents service answers that it is shutting down.
    SetDocumentsServiceRepository(nullptr);
    // A copy: a notifier may remove itself while it is told.
    const std::vector<IPtr<IRessourceSourceNotify>> notifiers = FRessourceSourceNotifyList;
    for (const IPtr<IRessourceSourceNotify>& n : notifiers)
        n->Do_SourceNotify(RessourceSource(), 0);
    if (IMainInterface* mi = GetMainInterface())
        if (IRessourceSourceList* sources = mi->GetRessourceSources()) {
            const std::int32_t i = sources->IndexOf(RessourceSource());
            if (i >= 0) sources->Delete(i);
        }
}

std::string TdmDocAdminMain::Text(const std::string& AKey) const {
    IMainInterface* mi = GetMainInterface();
    return FsiLang->GetText(AKey, mi ? mi->LanguageIndex() : 0);
}

std::string TdmDocAdminMain::GetTranslatedText(const std::string& AText) {
    return Text(AText);
}

HRESULT TdmDocAdminMain::QueryInterface(const TGUID& iid, void** obj) {
    if (iid == IInterface::IID || iid == IExtFuncPlugin::IID || iid == IExtFuncPluginMenu::IID ||
        iid == IExtFuncPluginUniversal::IID || iid == IExtFuncPluginDocAdmin::IID) {
        *obj = static_cast<IExtFuncPluginDocAdmin*>(this);
        return S_OK;
    }
    if (iid == IRessourceSource::IID) {
        *obj = RessourceSource();
        return S_OK;
    }
    *obj = nullptr;
    return E_NOINTERFACE;
}

// ---- IExtFuncPlugin

void TdmDocAdminMain::CheckExtFuncIndex(std::int32_t AIndex) const {
    if (AIndex != 0 && AIndex != 1)
        throw EAssertionFailed("DocAdmin: no extension function with index " +
                               std::to_string(AIndex));
}

std::string TdmDocAdminMain::Get_ExtFuncTitle(std::int32_t AIndex) {
    CheckExtFuncIndex(AIndex);
    return Text(AIndex == 0 ? IDS_ExtTitle : IDS_ExtTitleSchema);
}

std::string TdmDocAdminMain::Get_ExtFuncDescription(std::int32_t AIndex) {
    CheckExtFuncIndex(AIndex);
    return Text(AIndex == 0 ? IDS_ExtDesc : IDS_ExtDescSchema);
}

std::int32_t TdmDocAdminMain::Get_ExtFuncImageIndex(std::int32_t /*AIndex*/) {
    return DocAdminGlobalMenuIconIndex;
}

void TdmDocAdminMain::Do_ExecuteRecordFunc(std::int32_t AIndex, const std::string& APlugin,
                                           const std::string& ASchema, std::int64_t ARecordID) {
    if (AIndex != 0)
        throw EAssertionFailed("DocAdmin: the record function has index 0, not " +
                               std::to_string(AIndex));
    if (APlugin.empty()) return;
    const std::string table = GetSQLTableNameFromSchemaName(GetDBFieldSchema(), ASchema);
    const std::string uid = GetDBInterface()->GetRecordUIDByDBID(table, ARecordID);
    Do_Show(APlugin, "\"" + table + "#Records\",\"" + uid + "\"", false);
}

void TdmDocAdminMain::Do_ExecuteTableFunc(std::int32_t AIndex, const std::string& APlugin,
                                          const std::string& ASchema) {
    if (AIndex != 1)
        throw EAssertionFailed("DocAdmin: the table function has index 1, not " +
                               std::to_string(AIndex));
    if (APlugin.empty()) return;
    const std::string table = GetSQLTableNameFromSchemaName(GetDBFieldSchema(), ASchema);
    Do_Show(APlugin, "\"" + table + "#Main\"", false);
}

bool TdmDocAdminMain::Get_ExtFuncValid(std::int32_t AContext, std::int32_t AIndex) {
    return (AContext == 1 && AIndex == 0) || (AContext == 2 && AIndex == 1);
}

std::int32_t TdmDocAdminMain::Do_Reserved() {
    throw EAssertionFailed("DocAdmin: the reserved extension slot is not to be called");
}

// ---- IExtFuncPluginDocAdmin

IPtr<IDirectoryRoot> TdmDocAdminMain::Get_DirectoryRoot(const std::string& Plugin,
                                                        const std::string& BaseDirectory,
                                                        bool ALoad, std::int64_t ADBATransactionID,
                                                        bool AIsNewUniqueFolder) {
    return TdmDocAdminRepository::Instance()->GetDocAdminObject(
        Plugin, BaseDirectory, ALoad, "", -1, ADBATransactionID, 0, true, AIsNewUniqueFolder);
}

void TdmDocAdminMain::Do_AddDocument(const std::string& Plugin, const std::string& BaseDirectory,
                                     const std::string& AFileName, const std::string& LocalFileName,
                                     bool Show) {
    TdmDocAdminMainForms::Instance()->Do_AddDocument(Plugin, BaseDirectory, AFileName,
                                                     LocalFileName, Show);
}

bool TdmDocAdminMain::Do_AddRessourceLink(const std::string& AResIdentifier, std::int64_t AResID,
                                          std::int64_t ADocumentID) {
    TClientSQL insert(TdmDocAdminRepository::Instance());
    insert.SetStatementKind(skInsert);
    insert.SetSchemaName("docadminressources");
    insert.GetFields()->AddField("documentid", TVariant(static_cast<long long>(ADocumentID)));
    insert.GetFields()->AddField("resident", TVariant(AResIdentifier));
    insert.GetFields()->AddField("resid", TVariant(static_cast<long long>(AResID)));
    insert.ExecuteSQL();
    return true;
}

bool TdmDocAdminMain::Get_IsRemoteServerStore() {
    bool offline = false;
    return !IsLocalFileStoreClass(
        TdmDocAdminRepository::Instance()->GetDocFileLoaderClass(offline));
}

void TdmDocAdminMain::Do_DeleteDeadLinkPluginDocuments() {
    TdmDocAdminRepository::Instance()->DeleteDeadLinkPluginDocuments(true);
}

// ---- IRessourceSource

std::int32_t TdmDocAdminMain::Get_ContainerInfo(std::int32_t /*AIndex*/,
                                                IPtr<IInterface>& AContainer) {
    AContainer.reset();
    return 0;
}

std::string TdmDocAdminMain::Get_Caption() {
    return Text(IDS_RESCONTCAP);
}

IPtr<IRessourceContainer> TdmDocAdminMain::GetRessourceContainer(
    const std::string& /*AResIdentifier*/, std::int64_t /*AResID*/) {
    return nullptr;
}

void TdmDocAdminMain::Do_AddNotifier(IRessourceSourceNotify* ANotifier) {
    FRessourceSourceNotifyList.emplace_back(ANotifier);
}

void TdmDocAdminMain::Do_RemoveNotifier(IRessourceSourceNotify* ANotifier) {
    const auto it = std::find(FRessourceSourceNotifyList.begin(), FRessourceSourceNotifyList.end(),
                              IPtr<IRessourceSourceNotify>(ANotifier));
    if (it != FRessourceSourceNotifyList.end()) FRessourceSourceNotifyList.erase(it);
}

// ---- Delete notification

void TdmDocAdminMain::KRSQLDeleteNotifyListenerExecute(TObject* /*Sender*/,
                                                       IKRSQLDeleteNotify* AEvent) {
    if (!AEvent->IsTable("docadmindocs")) return;
    if (AEvent->CanDeclareDependents())
        AEvent->AddDependentRows("docadminressources", "documentid");
    else
        AEvent->NoDependentsDeclared();
}

}  // namespace docadmin
