// The test plug-ins, one source built several times. PLUGTEST_NAME names the plug-in in the
// events it records, PLUGTEST_GUID is its GUID, and PLUGTEST_KIND says what it holds:
//   1  two data modules; the second is the external-function object (IPlugTestExt), adds a
//      resource source and a script global, and runs a background job until shutdown
//   2  one data module
//   3  a data module, then one whose Init raises
//   4  no InitProc
//   5  a data module, then one whose constructor raises
#include <chrono>
#include <thread>

#include "_KRBackgroundJobs.h"
#include "_PluginBase.h"
#include "_RessourceIntf.h"
#include "_TVTLFrameworkScriptGlobalFunctions.h"
#include "plughost_test_api.h"

using namespace docadmin;
using namespace plughost_test;

namespace {

const std::string PluginName = PLUGTEST_NAME;

class TdmRecorded : public TPluginBaseDataModule {
  public:
    TdmRecorded(TClientPluginBase* AOwner, const std::string& AName)
        : TPluginBaseDataModule(AOwner), FName(PluginName + "." + AName) {
        Record(FName + ".Create");
    }
    ~TdmRecorded() override { Record(FName + ".Destroy"); }
    void Init() override { Record(FName + ".Init"); }
    void AfterStartup() override { Record(FName + ".AfterStartup"); }
    void BeforeUnInit() override { Record(FName + ".BeforeUnInit"); }
    void BeforeDestruction() override { Record(FName + ".BeforeDestruction"); }

  protected:
    const std::string FName;
};

class TdmFirst : public TdmRecorded {
  public:
    explicit TdmFirst(TClientPluginBase* AOwner) : TdmRecorded(AOwner, "First") {}
};

// Runs until the scheduler asks it to stop; its code lives in this library.
class TLoopJob : public TKRCustomBackgroundJob {
  public:
    TLoopJob() : TKRCustomBackgroundJob({}, {}, false) {}
    ~TLoopJob() override { Record(PluginName + ".job.freed"); }
    void Execute() override {
        Started = true;
        while (!Terminated())
            std::this_thread::sleep_for(std::chrono::milliseconds(2));
        Record(PluginName + ".job.end");
    }
    std::atomic<bool> Started{false};
};

class TdmExt : public TdmRecorded, public IPlugTestExt {
  public:
    explicit TdmExt(TClientPluginBase* AOwner) : TdmRecorded(AOwner, "Ext") {
        SetSelfIsExtFunc(true);
        AOwner->SetShortName("PlugTest" + PluginName);
        FSource = IPtr<TSource>(new TSource);
        GetMainInterface()->GetRessourceSources()->Add("PlugTest" + PluginName, FSource.get());
        TVTLFrameworkScriptGlobalFunctions::RegisterGlobalScriptVar("PlugTest" + PluginName,
                                                                    "IPlugTestExt", this);
    }
    ~TdmExt() override {
        TVTLFrameworkScriptGlobalFunctions::RemoveGlobalScriptVar("PlugTest" + PluginName);
    }

    void AfterStartup() override {
        TdmRecorded::AfterStartup();
        void* p = nullptr;
        if (GetMainInterface()->QueryInterface(IKRBackgroundJobScheduler::IID, &p) != S_OK) return;
        auto* job = new TLoopJob;
        static_cast<IKRBackgroundJobScheduler*>(p)->ScheduleJob(job, 0, false);
        while (!job->Started)
            std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    void BeforeDestruction() override {
        TdmRecorded::BeforeDestruction();
        IRessourceSourceList* list = GetMainInterface()->GetRessourceSources();
        const std::int32_t i = list->IndexOf(FSource.get());
        if (i >= 0) list->Delete(i);
    }

    // Lives as long as the plug-in: references don't count.
    HRESULT QueryInterface(const TGUID& iid, void** obj) override {
        if (iid == IPlugTestExt::IID || iid == IInterface::IID) {
            *obj = static_cast<IPlugTestExt*>(this);
            return S_OK;
        }
        *obj = nullptr;
        return E_NOINTERFACE;
    }
    std::int32_t _AddRef() override { return -1; }
    std::int32_t _Release() override { return -1; }

    std::string Hello() override { return "hello from " + PluginName; }
    void Fail() override { throw EPlugTestFault("fault in the plug-in"); }
    void Keep(IInterface* AObject) override { FKept = AObject; }
    IPtr<IInterface> MakeObject() override { return IPtr<IInterface>(new TCounted); }

  private:
    IPtr<TSource> FSource;
    IPtr<IInterface> FKept;
};

class TdmFailing : public TdmRecorded {
  public:
    explicit TdmFailing(TClientPluginBase* AOwner) : TdmRecorded(AOwner, "Failing") {
        if (PLUGTEST_KIND == 5) throw EPlugTestFault("constructor refused");
    }
    void Init() override {
        TdmRecorded::Init();
        throw EPlugTestFault("Init refused");
    }
};

template <class T>
TPluginBaseDataModule* Make(TClientPluginBase* AOwner) {
    return new T(AOwner);
}

TClassList& ModuleClasses() {
    static TClassList list;
    return list;
}

[[maybe_unused]] const bool registered = [] {
    RegisterPluginDataModule(&Make<TdmFirst>, ModuleClasses());
    if (PLUGTEST_KIND == 1) RegisterPluginDataModule(&Make<TdmExt>, ModuleClasses());
    if (PLUGTEST_KIND == 3 || PLUGTEST_KIND == 5)
        RegisterPluginDataModule(&Make<TdmFailing>, ModuleClasses());
    return true;
}();

}  // namespace

#if PLUGTEST_KIND != 4
extern "C" __attribute__((visibility("default"))) void InitProc(TClientPluginBase** APlugin) {
    *APlugin = new TClientPluginBase(PLUGTEST_GUID, 0, &ModuleClasses(), true);
}
#endif
