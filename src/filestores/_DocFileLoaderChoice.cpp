#include "_DocFileLoaderChoice.h"

#include "_TDocFileLoaderLocFile.h"

namespace docadmin {

namespace {

constexpr std::uint8_t RunModeServer = 3;

std::string SelectedRepType(IMainInterface* AMainInterface) {
    IVantrelDatabaseRepository* repo = AMainInterface->GetDatabaseRepository();
    if (repo == nullptr) return {};
    return repo->ReadDatabaseSetting(repo->SelectedDatabaseIndex(), "DocumentsRepType");
}

[[noreturn]] void NotBuiltIn(const std::string& AKind) {
    throw Exception("The store kind \"" + AKind + "\" is not available in this program");
}

}  // namespace

TBaseDocFileLoaderClass GetDocFileLoaderClass(IMainInterface* AMainInterface,
                                              bool AOfflineContainer) {
    Assert(AMainInterface != nullptr, "GetDocFileLoaderClass: no main interface");
    const bool server = AMainInterface->RunMode() == RunModeServer;
    if (!server && AOfflineContainer) return &CreateDocFileLoader<TDocFileLoaderLocFile>;
    const std::string kind = SelectedRepType(AMainInterface);
    if (kind == "azureblobstorage" || kind == "awssimplestorage") NotBuiltIn(kind);
    if (server) return &CreateDocFileLoader<TDocFileLoaderLocServer>;
    return &CreateDocFileLoader<TDocFileLoaderLocFile>;
}

std::unique_ptr<TBaseDocFileLoader> CreateConfiguredDocFileLoader(IMainInterface* AMainInterface,
                                                                  bool AOfflineContainer) {
    std::unique_ptr<TBaseDocFileLoader> store(
        GetDocFileLoaderClass(AMainInterface, AOfflineContainer)(nullptr));
    store->SetMainInterface(AMainInterface);
    store->LoadSettings(AOfflineContainer);
    return store;
}

}  // namespace docadmin
