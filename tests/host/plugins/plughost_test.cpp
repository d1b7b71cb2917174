#include <gtest/gtest.h>
#include <spdlog/sinks/ostream_sink.h>
#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <filesystem>
#include <fstream>
#include <future>
#include <sstream>
#include <thread>

#include "_HostLog.h"
#include "_THost.h"
#include "_TVTLFrameworkScriptGlobalFunctions.h"
#include "host/test_helpers.h"
#include "plughost_test_api.h"

using namespace docadmin;
using docadmin::test::TTempDir;
using namespace plughost_test;
namespace fs = std::filesystem;

namespace {

const std::string GuidA = "{A1A1A1A1-0000-4000-8000-00000000000A}";
const std::string GuidB = "{B2B2B2B2-0000-4000-8000-00000000000B}";

using TEvents = std::vector<std::string>;

// Events that start with APrefix, in order.
TEvents Only(const TEvents& AEvents, const std::string& APrefix) {
    TEvents r;
    std::copy_if(AEvents.begin(), AEvents.end(), std::back_inserter(r),
                 [&](const std::string& e) { return e.rfind(APrefix, 0) == 0; });
    return r;
}

class THostObject : public TInterfacedObject {};

class PluginHostTest : public ::testing::Test {
  protected:
    void SetUp() override {
        fs::create_directories(FDir / "plugins");
        TakeEvents();
        FSink = std::make_shared<spdlog::sinks::ostream_sink_mt>(FLog);
        HostLog()->sinks().push_back(FSink);
    }
    void TearDown() override {
        auto& sinks = HostLog()->sinks();
        sinks.erase(std::remove(sinks.begin(), sinks.end(), FSink), sinks.end());
    }

    // Puts a test plug-in of the build into this test's plug-in folder under AAs.
    std::string Link(const std::string& ATarget, std::string AAs = {}) {
        if (AAs.empty()) AAs = "lib" + ATarget + ".so";
        const fs::path p = FDir / "plugins" / AAs;
        fs::create_symlink(PLUGHOST_PLUGIN_DIR "/lib" + ATarget + ".so", p);
        return p.string();
    }
    std::unique_ptr<THost> MakeHost(const std::string& AHostKeys = {}) {
        const std::string text = "data_dir = \"" + (FDir / "data").string() +
                                 "\"\n[host]\nplugin_dir = \"" + (FDir / "plugins").string() +
                                 "\"\n" + AHostKeys;
        return std::make_unique<THost>(TDocAdminConfig::FromString(text, ""), rmTool, 1000);
    }

    TTempDir FTemp{"plughost"};
    const fs::path FDir = FTemp.Dir();
    std::ostringstream FLog;
    std::shared_ptr<spdlog::sinks::ostream_sink_mt> FSink;
};

}  // namespace

TEST_F(PluginHostTest, HooksRunInOrderAndJobsEndBeforeThePluginsGo) {
    Link("plugtest_b");
    Link("plugtest_a");
    auto host = MakeHost();
    host->LoadPlugins();
    EXPECT_EQ(TakeEvents(),
              (TEvents{"A.First.Create", "A.Ext.Create", "B.First.Create", "A.First.Init",
                       "A.Ext.Init", "B.First.Init", "A.First.AfterStartup", "A.Ext.AfterStartup",
                       "B.First.AfterStartup"}));
    // The plug-in's resource source and script global are there while it is loaded.
    IRessourceSourceList* sources = host->GetRessourceSources();
    ASSERT_EQ(sources->Count(), 1);
    EXPECT_EQ(host->RessourceSources().Identifier(0), "PlugTestA");
    TScriptGlobalVar global;
    EXPECT_TRUE(TVTLFrameworkScriptGlobalFunctions::FindGlobalScriptVar("PlugTestA", global));
    global = {};
    EXPECT_EQ(LiveObjects(), 1);

    host->UnloadPlugins();
    // The job runs the plug-in's code: it ends after BeforeUnInit and before any destruction.
    EXPECT_EQ(TakeEvents(),
              (TEvents{"A.First.BeforeUnInit", "A.Ext.BeforeUnInit", "B.First.BeforeUnInit",
                       "A.job.end", "A.job.freed", "B.First.BeforeDestruction", "B.First.Destroy",
                       "A.Ext.BeforeDestruction", "A.Ext.Destroy", "A.First.BeforeDestruction",
                       "A.First.Destroy"}));
    EXPECT_EQ(sources->Count(), 0);
    EXPECT_FALSE(TVTLFrameworkScriptGlobalFunctions::FindGlobalScriptVar("PlugTestA", global));
    EXPECT_EQ(LiveObjects(), 0);
    EXPECT_EQ(host->GetPluginLoader()->PluginCount(), 0);
    host->UnloadPlugins();  // a second time does nothing
    EXPECT_TRUE(TakeEvents().empty());
}

TEST_F(PluginHostTest, FailingPluginsAreReportedAndTheOthersStart) {
    Link("plugtest_a");
    Link("plugtest_a", "libplugtest_a2.so");
    Link("plugtest_b");
    Link("plugtest_bad");
    Link("plugtest_badctor");
    Link("plugtest_noinit");
    std::ofstream(FDir / "plugins" / "libtext.so") << "not a library\n";
    fs::create_symlink(FDir / "gone.so", FDir / "plugins" / "libdangling.so");
    fs::create_directories(FDir / "plugins" / "folder.so");
    fs::create_directories(FDir / "plugins" / "other.txt");

    auto host = MakeHost();
    host->LoadPlugins();
    const std::vector<TPluginInfo> list = host->Plugins().Plugins();
    const std::string dir = (FDir / "plugins").string() + "/";
    const struct {
        const char* File;
        const char* Name;
        const char* Error;  // "" for loaded
    } expected[] = {
        {"libdangling.so", "libdangling.so", "cannot be opened: "},
        {"libplugtest_a.so", "PlugTestA", ""},
        {"libplugtest_a2.so", "libplugtest_a2.so",
         "is loaded twice: plug-in {A1A1A1A1-0000-4000-8000-00000000000A} came from "},
        {"libplugtest_b.so", "libplugtest_b.so", ""},
        {"libplugtest_bad.so", "libplugtest_bad.so", "Init of TdmFailing failed: Init refused"},
        {"libplugtest_badctor.so", "libplugtest_badctor.so",
         "a data module could not be made: constructor refused"},
        {"libplugtest_noinit.so", "libplugtest_noinit.so",
         "has no entry point: it exports no InitProc"},
        {"libtext.so", "libtext.so", "cannot be opened: "},
    };
    ASSERT_EQ(list.size(), std::size(expected));
    const std::string log = FLog.str();
    for (std::size_t i = 0; i < list.size(); ++i) {
        SCOPED_TRACE(expected[i].File);
        EXPECT_EQ(list[i].Path, dir + expected[i].File);
        EXPECT_EQ(list[i].Name, expected[i].Name);
        EXPECT_EQ(list[i].Loaded, *expected[i].Error == 0);
        EXPECT_EQ(list[i].Error.rfind(expected[i].Error, 0), 0u) << list[i].Error;
        if (!list[i].Loaded) {
            EXPECT_NE(log.find("plug-in " + list[i].Name + " (" + list[i].Path +
                               ") not loaded: " + list[i].Error),
                      std::string::npos)
                << log;
        }
    }
    EXPECT_NE(list[0].Error.find("No such file"), std::string::npos) << list[0].Error;

    // Torn down in the usual order, BeforeUnInit only where Init returned; the others start.
    const TEvents events = TakeEvents();
    EXPECT_EQ(
        Only(events, "Bad."),
        (TEvents{"Bad.First.Create", "Bad.Failing.Create", "Bad.First.Init", "Bad.Failing.Init",
                 "Bad.First.BeforeUnInit", "Bad.Failing.BeforeDestruction", "Bad.Failing.Destroy",
                 "Bad.First.BeforeDestruction", "Bad.First.Destroy"}));
    EXPECT_EQ(Only(events, "BadCtor."),
              (TEvents{"BadCtor.First.Create", "BadCtor.Failing.Create", "BadCtor.Failing.Destroy",
                       "BadCtor.First.BeforeDestruction", "BadCtor.First.Destroy"}));
    EXPECT_EQ(Only(events, "B.").back(), "B.First.AfterStartup");
    EXPECT_EQ(Only(events, "A.").size(), 6u);  // one plug-in A, fully started

    IPluginLoader* loader = host->GetPluginLoader();
    ASSERT_EQ(loader->PluginCount(), 2);
    EXPECT_EQ(loader->PluginGUID(0), GuidA);
    EXPECT_EQ(loader->PluginGUID(1), GuidB);
    EXPECT_THROW(loader->PluginGUID(2), EListError);
    EXPECT_FALSE(loader->IsPluginLoaded("{C3C3C3C3-0000-4000-8000-00000000000C}"));

    const std::string listing = FormatPluginList(list);
    // Names are padded to one width.
    EXPECT_NE(
        listing.find(GuidA + "  PlugTestA               " + dir + "libplugtest_a.so  loaded\n"),
        std::string::npos)
        << listing;
    EXPECT_NE(listing.find(dir + "libplugtest_noinit.so  failed: has no entry point"),
              std::string::npos)
        << listing;
}

TEST_F(PluginHostTest, ExtFuncInterfaceExceptionsAndReferencesCrossTheBoundary) {
    Link("plugtest_a");
    Link("plugtest_b");
    auto host = MakeHost();
    host->LoadPlugins();
    IPluginLoader* loader = host->GetPluginLoader();

    // Plug-in GUIDs compare without case; B declares no external-function object.
    std::string lower = GuidA;
    std::transform(lower.begin(), lower.end(), lower.begin(), ::tolower);
    EXPECT_TRUE(loader->IsPluginLoaded(lower));
    void* p = reinterpret_cast<void*>(1);
    EXPECT_FALSE(loader->GetExtFuncInterface(GuidB, IPlugTestExt::IID, &p));
    EXPECT_EQ(p, nullptr);
    EXPECT_FALSE(loader->GetExtFuncInterface(GuidA, IMainInterface::IID, &p));
    EXPECT_FALSE(loader->GetExtFuncInterface("{00000000-0000-0000-0000-000000000000}",
                                             IPlugTestExt::IID, &p));
    ASSERT_TRUE(loader->GetExtFuncInterface(lower, IPlugTestExt::IID, &p));
    auto* ext = static_cast<IPlugTestExt*>(p);
    EXPECT_EQ(ext->Hello(), "hello from A");

    // The plug-in's exception arrives as its own type and as the host's base.
    EXPECT_EQ(test::MessageOf<EPlugTestFault>([&] { ext->Fail(); }), "fault in the plug-in");
    EXPECT_THROW(ext->Fail(), EDocAdminException);

    // A host object the plug-in keeps is released when the plug-in goes; an object the plug-in
    // made is released by the host before.
    IPtr<THostObject> mine(new THostObject);
    ext->Keep(mine.get());
    EXPECT_EQ(mine->RefCount(), 2);
    IPtr<IInterface> theirs = ext->MakeObject();
    EXPECT_EQ(LiveObjects(), 2);  // the resource source and this one
    theirs.reset();
    EXPECT_EQ(LiveObjects(), 1);

    // The destructor unloads what is still loaded.
    host.reset();
    EXPECT_EQ(mine->RefCount(), 1);
    EXPECT_EQ(LiveObjects(), 0);
    EXPECT_EQ(Only(TakeEvents(), "A.").back(), "A.First.Destroy");
}

TEST_F(PluginHostTest, LanguageConnectionKindAndPluginFolderComeFromTheConfiguration) {
    auto host =
        MakeHost("language = \"de\"\n[databases.main]\n[databases.off]\nconnection_kind = 1\n");
    EXPECT_EQ(host->LanguageIndex(), LanguageGerman);
    IVantrelDatabaseRepository* repo = host->GetDatabaseRepository();
    EXPECT_EQ(repo->ConnectionKind(repo->SelectedDatabaseIndex()), 0);
    EXPECT_EQ(repo->ConnectionKind(host->Config().IndexOfDatabase("off")), 1);
    EXPECT_EQ(repo->ConnectionKind(7), 0);
    EXPECT_EQ(host->Config().Databases()[1].Settings.count("connection_kind"), 0u);
    // An empty folder loads nothing and lists nothing.
    host->LoadPlugins();
    EXPECT_EQ(FormatPluginList(host->Plugins().Plugins()), "no plug-ins\n");
    EXPECT_THROW(host->LoadPlugins(), EAssertionFailed);

    const struct {
        const char* Text;
        int Language;
        const char* Error;
    } cases[] = {
        {"", LanguageEnglish, nullptr},
        {"[host]\nlanguage = \"en\"\n", LanguageEnglish, nullptr},
        {"[host]\nlanguage = \"fr\"\n", LanguageFrench, nullptr},
        {"[host]\nlanguage = \"it\"\n", LanguageItalian, nullptr},
        {"[host]\nlanguage = \"EN\"\n", 0,
         "host.language must be \"de\", \"en\", \"fr\" or \"it\""},
        {"[host]\nlanguage = 1\n", 0, "host.language must be a string"},
        {"[host]\nlangauge = \"de\"\n", 0, "unknown key host.langauge"},
        {"[host]\nplugin_dir = \"\"\n", 0, "host.plugin_dir must not be empty"},
        {"host = 1\n", 0, "host must be a table"},
        {"[databases.main]\nconnection_kind = -1\n", 0, "databases.main.connection_kind must be"},
        {"[databases.main]\nconnection_kind = \"1\"\n", 0, "connection_kind must be a number"},
        {"[databases.main]\nconnection_kind = 256\n", 0, "from 0 to 255"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.Text);
        try {
            const auto config = TDocAdminConfig::FromString(c.Text, "x.toml");
            EXPECT_EQ(c.Error, nullptr);
            EXPECT_EQ(config.LanguageIndex(), c.Language);
        } catch (const EConfigError& e) {
            ASSERT_NE(c.Error, nullptr) << e.Message();
            EXPECT_NE(e.Message().find(c.Error), std::string::npos) << e.Message();
        }
    }

    // The folder: relative to the file, else DOCADMIN_PLUGIN_DIR, else the build's.
    const std::string file = (FDir / "etc" / "docadmin.toml").string();
    EXPECT_EQ(TDocAdminConfig::FromString("[host]\nplugin_dir = \"../p\"\n", file).PluginDir(),
              (FDir / "p").string());
    setenv("DOCADMIN_PLUGIN_DIR", "/opt/x/plugins/", 1);
    EXPECT_EQ(TDocAdminConfig::FromString("", file).PluginDir(), "/opt/x/plugins");
    unsetenv("DOCADMIN_PLUGIN_DIR");
    EXPECT_EQ(fs::path(TDocAdminConfig::FromString("", file).PluginDir()).filename(), "plugins");
}

TEST(RessourceSourceListTest, HoldsOneReferencePerEntryUntilDeleted) {
    TRessourceSourceList list;
    IPtr<TSource> a(new TSource), b(new TSource), stranger(new TSource);
    list.Add("a", a.get());
    list.Add("b", b.get());
    list.Add("a again", a.get());
    EXPECT_EQ(list.Count(), 3);
    EXPECT_EQ(a->RefCount(), 3);
    EXPECT_EQ(list.IndexOf(b.get()), 1);
    EXPECT_EQ(list.IndexOf(a.get()), 0);  // the first entry
    EXPECT_EQ(list.IndexOf(stranger.get()), -1);
    EXPECT_EQ(list.Item(1), b.get());
    EXPECT_EQ(list.Identifier(2), "a again");

    list.Delete(0);
    EXPECT_EQ(a->RefCount(), 2);
    EXPECT_EQ(list.Identifier(0), "b");
    for (std::int32_t bad : {-1, 2})
        EXPECT_THROW(list.Delete(bad), EListError) << bad;
    EXPECT_THROW(list.Item(2), EListError);
    EXPECT_THROW(list.Add("none", nullptr), EArgumentException);

    list.Clear();
    EXPECT_EQ(list.Count(), 0);
    EXPECT_EQ(a->RefCount(), 1);
    EXPECT_EQ(b->RefCount(), 1);
}

TEST(ScriptGlobalsTest, AReplacedValueIsReleasedOutsideTheRegistryLock) {
    // A value whose end reads the registry, as an object going away may.
    struct TReader : TCounted {
        ~TReader() override {
            TScriptGlobalVar v;
            TVTLFrameworkScriptGlobalFunctions::FindGlobalScriptVar("reader", v);
        }
    };
    TVTLFrameworkScriptGlobalFunctions::RegisterGlobalScriptVar("reader", "T", new TReader);
    std::promise<void> replaced;
    std::future<void> done = replaced.get_future();
    std::thread([&replaced] {
        TVTLFrameworkScriptGlobalFunctions::RegisterGlobalScriptVar("Reader", "T", new TReader);
        replaced.set_value();
    }).detach();
    ASSERT_EQ(done.wait_for(std::chrono::seconds(10)), std::future_status::ready)
        << "the old value was released under the registry lock";
    EXPECT_EQ(LiveObjects(), 1);
    TVTLFrameworkScriptGlobalFunctions::RemoveGlobalScriptVar("READER");
    EXPECT_EQ(LiveObjects(), 0);
}
