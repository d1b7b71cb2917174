// A second plug-in, loaded from its own library by the host's loader beside the module, works on
// documents through the module's interfaces only.
#include "_TestPluginIntf.h"
#include "plugin_fixtures.h"

using namespace docadmin;
using namespace docadmin::test;

namespace {

class TestPlugin : public ModuleHostTest {};

TEST_P(TestPlugin, AddsListsReplacesDeletesAndHoldsADirectoryBeyondItsHandle) {
    // Both plug-ins from one folder, loaded by the host as in a server.
    const fs::path plugins = FDir / "plugins";
    fs::create_directories(plugins);
    fs::create_symlink(DOCADMIN_MODULE_PATH, plugins / "libdocadmin.so");
    fs::create_symlink(DOCADMIN_TESTPLUGIN_PATH, plugins / "libdocadmin_testplugin.so");
    FExtraConfig = "[host]\nplugin_dir = \"" + plugins.string() + "\"\n";
    MODULE_START_OR_SKIP(rmServer, false);
    FHost->UseLoaderStub = false;
    FHost->LoadPlugins();
    for (const TPluginInfo& info : FHost->Plugins().Plugins())
        EXPECT_TRUE(info.Loaded) << info.Path << ": " << info.Error;
    void* p = nullptr;
    ASSERT_TRUE(FHost->GetPluginLoader()->GetExtFuncInterface(TestPluginGUID,
                                                              IDocAdminTestClient::IID, &p));
    IPtr<IDocAdminTestClient> client =
        IPtr<IDocAdminTestClient>::Adopt(static_cast<IDocAdminTestClient*>(p));
    fs::create_directories(FDir / "work");

    EXPECT_EQ(
        client->Do_RoundTrip(TestPluginGUID, "\"Shared\",\"Reports\"", (FDir / "work").string()),
        "added a.txt\n"
        "listed a.txt\n"
        "replaced beta, new version\n"
        "deleted, 0 left\n"
        "held kept detached\n");
    EXPECT_EQ(RowCount("docadmindocs"), 0);
    EXPECT_EQ(RowCount("docadmin_docarchive"), 1);
    EXPECT_EQ(RowCount("docadmindir", "title", TVariant("kept")), 1);
    client.reset();
    FHost->UnloadPlugins();
}

DB_INSTANTIATE(TestPlugin);

}  // namespace
