#include "_dmDocAdminMainForms.h"

#include <atomic>
#include <exception>

#include "_HostLog.h"
#include "_TBaseDocAdmin.h"
#include "_dmDocAdminRepository.h"

namespace docadmin {

namespace {
std::atomic<TdmDocAdminMainForms*> GMainForms{nullptr};
}  // namespace

TdmDocAdminMainForms::TdmDocAdminMainForms(TClientPluginBase* AOwner)
    : TPluginBaseDataModule(AOwner) {
    GMainForms = this;
}

TdmDocAdminMainForms::~TdmDocAdminMainForms() {
    TdmDocAdminMainForms* self = this;
    GMainForms.compare_exchange_strong(self, nullptr);
}

TdmDocAdminMainForms* TdmDocAdminMainForms::Instance() {
    return GMainForms.load();
}

void TdmDocAdminMainForms::Do_AddDocument(const std::string& Plugin,
                                          const std::string& BaseDirectory,
                                          const std::string& AFileName,
                                          const std::string& LocalFileName, bool /*Show*/) {
    try {
        std::unique_ptr<TBaseDocAdmin> admin =
            TdmDocAdminRepository::Instance()->CreateDocAdmin(Plugin, BaseDirectory, false, {});
        TDocDirectory* dir = admin->Directories()->GetChildDirByTitle(BaseDirectory, nullptr);
        if (!dir) dir = admin->CreateFolderStruct(nullptr, BaseDirectory);
        admin->SaveDoc(nullptr, chAdded, LocalFileName, dir, AFileName, 0);
        admin->SaveChanges();
    } catch (const std::exception& e) {
        HostLog()->error("DocAdmin: adding the document {} failed: {}", AFileName, e.what());
    } catch (...) {
        HostLog()->error("DocAdmin: adding the document {} failed", AFileName);
    }
}

}  // namespace docadmin
