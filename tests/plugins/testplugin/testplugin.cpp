// The test plug-in: reaches the document module through the host's plug-in loader only.
#include <filesystem>
#include <fstream>
#include <iterator>
#include <sstream>

#include "_DocAdminIntf.h"
#include "_PluginBase.h"
#include "_TestPluginIntf.h"

namespace docadmin::test {

namespace {

std::string ReadAll(const std::string& AFile) {
    std::ifstream in(AFile, std::ios::binary);
    return {std::istreambuf_iterator<char>(in), {}};
}

std::string WriteFile(const std::string& ADir, const std::string& AName,
                      const std::string& AText) {
    const std::string path = ADir + "/" + AName;
    std::ofstream(path, std::ios::binary) << AText;
    return path;
}

class TdmTestClient : public TPluginBaseDataModule, public IDocAdminTestClient {
  public:
    explicit TdmTestClient(TClientPluginBase* AOwner) : TPluginBaseDataModule(AOwner) {
        SetSelfIsExtFunc(true);
    }

    HRESULT QueryInterface(const TGUID& iid, void** obj) override {
        *obj = iid == IDocAdminTestClient::IID || iid == IInterface::IID
                   ? static_cast<IDocAdminTestClient*>(this)
                   : nullptr;
        return *obj ? S_OK : E_NOINTERFACE;
    }
    std::int32_t _AddRef() override { return -1; }
    std::int32_t _Release() override { return -1; }

    std::string Do_RoundTrip(const std::string& APlugin, const std::string& AFolder,
                             const std::string& AWorkDir) override {
        std::ostringstream out;
        try {
            IPtr<IExtFuncPluginDocAdmin> docs = DocAdmin();
            auto root = [&] { return docs->Get_DirectoryRoot(APlugin, AFolder, true, 0, false); };
            {
                IPtr<IDirectoryRoot> r = root();
                IPtr<IDocument> d = r->Do_SaveDocument(nullptr, "a.txt",
                                                       WriteFile(AWorkDir, "a.txt", "alpha"), 0);
                r->Do_SaveChanges();
                out << "added " << d->Get_DocName() << "\n";
            }
            {
                IPtr<IDirectoryRoot> r = root();
                IPtr<IDirectory> dir = r->Get_RootDir();
                out << "listed";
                for (std::int32_t i = 0; i < dir->Get_DocumentCount(); ++i)
                    out << " " << dir->Get_Document(i)->Get_DocName();
                out << "\n";
                IPtr<IDocument> d = dir->Get_Document(0);
                r->Do_ReplaceFile(d.get(), WriteFile(AWorkDir, "b.txt", "beta"), ramArchive);
                r->Do_SaveChanges();
            }
            {
                IPtr<IDirectoryRoot> r = root();
                IPtr<IDocument> d = r->Get_RootDir()->Get_Document(0);
                const std::string back = AWorkDir + "/back.txt";
                r->Do_DownloadFile(d.get(), back);
                out << "replaced " << ReadAll(back) << " version " << d->Get_Version() << "\n";
                r->Do_DeleteDocument(d.get());
                r->Do_SaveChanges();
            }
            IPtr<IDirectory> kept;
            {
                IPtr<IDirectoryRoot> r = root();
                out << "deleted, " << r->Get_RootDir()->Get_DocumentCount() << " left\n";
                kept = r->Do_AddDirectory(nullptr, "kept");
                r->Do_SaveChanges();
            }
            out << "held " << kept->Get_Title() << (kept->Get_ParentDir() ? " attached" : " detached")
                << "\n";
        } catch (const std::exception& e) {
            out << "failed: " << e.what() << "\n";
        }
        return out.str();
    }

  private:
    IPtr<IExtFuncPluginDocAdmin> DocAdmin() {
        IPluginLoader* loader = GetPluginLoader();
        void* p = nullptr;
        if (!loader ||
            !loader->GetExtFuncInterface(DocAdminPluginGUID, IExtFuncPluginDocAdmin::IID, &p))
            throw Exception("the document module is not loaded");
        return IPtr<IExtFuncPluginDocAdmin>::Adopt(static_cast<IExtFuncPluginDocAdmin*>(p));
    }
};

TClassList& Classes() {
    static TClassList list = [] {
        TClassList l;
        RegisterPluginDataModule(
            [](TClientPluginBase* AOwner) -> TPluginBaseDataModule* {
                return new TdmTestClient(AOwner);
            },
            l);
        return l;
    }();
    return list;
}

}  // namespace

}  // namespace docadmin::test

extern "C" __attribute__((visibility("default"))) void InitProc(
    docadmin::TClientPluginBase** APlugin) {
    *APlugin = new docadmin::TClientPluginBase(docadmin::test::TestPluginGUID, 0,
                                               &docadmin::test::Classes(), true);
}
