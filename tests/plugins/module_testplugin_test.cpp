// A second plug-in, loaded from its own library, works on documents through the module's
// interfaces only.
#include <dlfcn.h>

#include "_TestPluginIntf.h"
#include "plugin_fixtures.h"

using namespace docadmin;
using namespace docadmin::test;

namespace {

// The test plug-in loaded as the host loads a plug-in: dlopen, InitProc, data modules, Init.
class TLoadedTestPlugin {
  public:
    explicit TLoadedTestPlugin(IMainInterface* AMain) {
        FHandle = dlopen(DOCADMIN_TESTPLUGIN_PATH, RTLD_NOW | RTLD_LOCAL);
        if (!FHandle) throw Exception(std::string("dlopen: ") + dlerror());
        auto init = reinterpret_cast<TPluginInitProc>(dlsym(FHandle, "InitProc"));
        if (!init) throw Exception("the test plug-in exports no InitProc");
        TClientPluginBase* plugin = nullptr;
        init(&plugin);
        FPlugin.reset(plugin);
        FPlugin->SetMainInterface(AMain);
        FPlugin->CreateDataModules();
        for (TPluginBaseDataModule* m : FPlugin->DataModules())
            m->Init();
    }
    ~TLoadedTestPlugin() {
        FPlugin.reset();  // its code lives in the library
        dlclose(FHandle);
    }
    TClientPluginBase* Plugin() const { return FPlugin.get(); }

  private:
    void* FHandle = nullptr;
    std::unique_ptr<TClientPluginBase> FPlugin;
};

class TestPlugin : public ModuleHostTest {};

TEST_P(TestPlugin, AddsListsReplacesDeletesAndHoldsADirectoryBeyondItsHandle) {
    MODULE_START_OR_SKIP();
    TLoadedTestPlugin other(FHost.get());
    FHost->Loader.Plugins = {FModule->Plugin(), other.Plugin()};
    FHost->Loader.Loaded = {DocAdminPluginGUID, TestPluginGUID};
    void* p = nullptr;
    ASSERT_TRUE(FHost->Loader.GetExtFuncInterface(TestPluginGUID, IDocAdminTestClient::IID, &p));
    IPtr<IDocAdminTestClient> client =
        IPtr<IDocAdminTestClient>::Adopt(static_cast<IDocAdminTestClient*>(p));
    fs::create_directories(FDir / "work");

    EXPECT_EQ(client->Do_RoundTrip(TestPluginGUID, "\"Shared\",\"Reports\"",
                                   (FDir / "work").string()),
              "added a.txt\n"
              "listed a.txt\n"
              "replaced beta version 1.0.0.1\n"
              "deleted, 0 left\n"
              "held kept detached\n");
    EXPECT_EQ(RowCount("docadmindocs"), 0);
    EXPECT_EQ(RowCount("docadmin_docarchive"), 1);
    EXPECT_EQ(RowCount("docadmindir", "title", TVariant("kept")), 1);
    client.reset();
    FHost->Loader.Plugins.clear();
}

DB_INSTANTIATE(TestPlugin);

}  // namespace
