#include "_DocFileLoaderChoice.h"

#include "_TDocFileLoaderLocFile.h"

namespace docadmin {

namespace {

constexpr std::uint8_t RunModeServer = 3;
constexpr int ConnectionKindOffline = 1;

// A store kind that this program doesn't hold: constructs, and raises on every operation.
class TDocFileLoaderUnavailable : public TBaseDocFileLoader {
  public:
    TDocFileLoaderUnavailable(TComponent* AOwner, const char* AKind)
        : TBaseDocFileLoader(AOwner), FKind(AKind) {}

    void LoadSettings(bool /*Offline*/) override { NotAvailable(); }
    std::string UploadFile(const std::string&, const std::string&, TUploadMode) override {
        NotAvailable();
    }
    void DownloadFile(const std::string&, const std::string&) override { NotAvailable(); }
    void RemoveFile(const std::string&, const std::string&) override { NotAvailable(); }

  private:
    [[noreturn]] void NotAvailable() const {
        throw EDocAdminException(std::string("The store kind \"") + FKind +
                                 "\" is not available in this program");
    }
    const char* FKind;
};

TBaseDocFileLoader* CreateAzureBlobStorage(TComponent* AOwner) {
    return new TDocFileLoaderUnavailable(AOwner, "azureblobstorage");
}
TBaseDocFileLoader* CreateAWSBlobStorage(TComponent* AOwner) {
    return new TDocFileLoaderUnavailable(AOwner, "awssimplestorage");
}
TBaseDocFileLoader* CreateServerCommandStore(TComponent* AOwner) {
    return new TDocFileLoaderUnavailable(AOwner, "remote");
}

}  // namespace

TBaseDocFileLoaderClass GetDocFileLoaderClass(IMainInterface* AMainInterface,
                                              bool& AOfflineContainer) {
    Assert(AMainInterface != nullptr, "GetDocFileLoaderClass: no main interface");
    IVantrelDatabaseRepository* repo = AMainInterface->GetDatabaseRepository();
    const int selected = repo ? repo->SelectedDatabaseIndex() : -1;
    const std::string kind = repo ? repo->ReadDatabaseSetting(selected, "DocumentsRepType") : "";
    auto cloudStore = [&]() -> TBaseDocFileLoaderClass {
        if (kind == "azureblobstorage") return &CreateAzureBlobStorage;
        if (kind == "awssimplestorage") return &CreateAWSBlobStorage;
        return nullptr;
    };

    if (AMainInterface->RunMode() == RunModeServer) {
        if (TBaseDocFileLoaderClass c = cloudStore()) return c;
        return &CreateDocFileLoader<TDocFileLoaderLocServer>;
    }
    if (!AOfflineContainer && repo && repo->ConnectionKind(selected) == ConnectionKindOffline)
        AOfflineContainer = true;
    if (AOfflineContainer) return &CreateDocFileLoader<TDocFileLoaderLocFile>;
    if (kind == "remote") {
        IServerConnection* connection = AMainInterface->GetServerConnection();
        if (connection && connection->Connected()) return &CreateServerCommandStore;
    }
    if (TBaseDocFileLoaderClass c = cloudStore()) return c;
    return &CreateDocFileLoader<TDocFileLoaderLocFile>;
}

bool IsLocalFileStoreClass(TBaseDocFileLoaderClass AClass) {
    // A class reference here is a factory; an instance answers what the class derives from.
    // Constructing a store touches nothing outside the object.
    std::unique_ptr<TBaseDocFileLoader> probe(AClass(nullptr));
    return dynamic_cast<TDocFileLoaderLocFile*>(probe.get()) != nullptr;
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
