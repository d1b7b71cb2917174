#include "_TPluginLoader.h"

#include <cxxabi.h>
#include <dlfcn.h>

#include <algorithm>
#include <cstdlib>
#include <exception>
#include <filesystem>
#include <sstream>
#include <typeinfo>

#include "_HostLog.h"
#include "_PluginBase.h"
#include "_Tools.h"

namespace docadmin {

namespace fs = std::filesystem;

struct TPluginLoader::TEntry {
    TPluginInfo Info;
    void* Handle = nullptr;
    TClientPluginBase* Plugin = nullptr;  // owned; deleted before Handle is closed
    std::size_t InitDone = 0;             // data modules whose Init returned
};

namespace {

// The text of the exception being handled; only inside a catch block.
std::string CurrentExceptionText() {
    try {
        throw;
    } catch (const std::exception& e) {
        return e.what();
    } catch (...) {
        return "an exception of unknown type";
    }
}

std::string DemangledName(const std::type_info& AType) {
    int status = 0;
    char* name = abi::__cxa_demangle(AType.name(), nullptr, nullptr, &status);
    std::string s = status == 0 && name ? name : AType.name();
    std::free(name);
    const std::size_t colon = s.rfind("::");
    return colon == std::string::npos ? s : s.substr(colon + 2);
}

// Plug-in GUIDs as text compare without regard to case.
bool SameGUIDText(const std::string& A, const std::string& B) {
    return UpperCase(A) == UpperCase(B);
}

std::string DlError() {
    const char* e = dlerror();
    return e ? e : "unknown dynamic loader error";
}

}  // namespace

TPluginLoader::TPluginLoader(IMainInterface* AMainInterface) : FMainInterface(AMainInterface) {}

TPluginLoader::~TPluginLoader() {
    Unload();
}

bool TPluginLoader::Active() const {
    std::lock_guard lock(FLock);
    return FActive;
}

void TPluginLoader::Load(const std::string& AFolder) {
    std::vector<std::string> files;
    std::error_code ec;
    if (!fs::is_directory(AFolder, ec)) {
        HostLog()->info("plug-in folder {} not found; no plug-ins loaded", AFolder);
    } else {
        for (const fs::directory_entry& e : fs::directory_iterator(AFolder, ec))
            if (e.path().extension() == ".so" && !e.is_directory(ec))
                files.push_back(e.path().string());
        if (ec) HostLog()->error("plug-in folder {} cannot be read: {}", AFolder, ec.message());
        std::sort(files.begin(), files.end());
    }
    LoadFiles(files);
}

void TPluginLoader::LoadFiles(const std::vector<std::string>& AFiles) {
    {
        std::lock_guard lock(FLock);
        if (FActive) throw EAssertionFailed("plug-ins are loaded already");
        FActive = true;
        FUnInitDone = false;
    }

    // The libraries, the plug-in objects and their data modules.
    for (const std::string& file : AFiles) {
        auto owned = std::make_unique<TEntry>();
        TEntry& e = *owned;
        e.Info.Path = file;
        e.Info.Name = fs::path(file).filename().string();
        {
            std::lock_guard lock(FLock);
            FEntries.push_back(std::move(owned));
        }
        std::string step = "cannot be opened";
        std::string error;
        try {
            dlerror();
            e.Handle = dlopen(file.c_str(), RTLD_NOW | RTLD_LOCAL);
            if (!e.Handle) throw Exception(DlError());
            step = "has no entry point";
            auto init = reinterpret_cast<TPluginInitProc>(dlsym(e.Handle, "InitProc"));
            if (!init) throw Exception("it exports no InitProc");
            step = "InitProc failed";
            TClientPluginBase* plugin = nullptr;
            init(&plugin);
            if (!plugin) throw Exception("it made no plug-in object");
            e.Plugin = plugin;
            e.Info.GUID = plugin->PluginGUID();
            step = "is loaded twice";
            for (TEntry* other : LoadedEntries())
                if (SameGUIDText(other->Info.GUID, e.Info.GUID))
                    throw Exception("plug-in " + e.Info.GUID + " came from " + other->Info.Path +
                                    " already");
            step = "a data module could not be made";
            plugin->SetMainInterface(FMainInterface);
            plugin->CreateDataModules();
            std::lock_guard lock(FLock);
            if (!plugin->ShortName().empty()) e.Info.Name = plugin->ShortName();
            e.Info.Loaded = true;
        } catch (...) {
            error = step + ": " + CurrentExceptionText();
        }
        // Outside the handler: the exception object may be the plug-in's, and must be gone
        // before its library is closed.
        if (!error.empty()) Fail(e, error);
    }

    // Init on every data module of every plug-in.
    for (TEntry* e : LoadedEntries()) {
        std::string module, error;
        try {
            for (TPluginBaseDataModule* m : e->Plugin->DataModules()) {
                module = DemangledName(typeid(*m));
                m->Init();
                ++e->InitDone;
            }
            std::lock_guard lock(FLock);
            if (!e->Plugin->ShortName().empty()) e->Info.Name = e->Plugin->ShortName();
        } catch (...) {
            error = "Init of " + module + " failed: " + CurrentExceptionText();
        }
        if (!error.empty()) Fail(*e, error);
    }

    // AfterStartup once all are up.
    for (TEntry* e : LoadedEntries()) {
        for (TPluginBaseDataModule* m : e->Plugin->DataModules()) {
            try {
                m->AfterStartup();
            } catch (...) {
                const std::string what = "AfterStartup of " + DemangledName(typeid(*m)) +
                                         " failed: " + CurrentExceptionText();
                HostLog()->error("plug-in {} ({}): {}", e->Info.Name, e->Info.Path, what);
                std::lock_guard lock(FLock);
                e->Info.Warning = what;
            }
        }
    }

    for (const TPluginInfo& p : Plugins())
        if (p.Loaded) HostLog()->info("plug-in {} {} loaded from {}", p.Name, p.GUID, p.Path);
}

void TPluginLoader::Fail(TEntry& AEntry, const std::string& AWhat) {
    HostLog()->error("plug-in {} ({}) not loaded: {}", AEntry.Info.Name, AEntry.Info.Path, AWhat);
    {
        // From here on nobody reaches the plug-in through this loader.
        std::lock_guard lock(FLock);
        AEntry.Info.Loaded = false;
        AEntry.Info.Error = AWhat;
    }
    TearDown(AEntry, false);
}

void TPluginLoader::TearDown(TEntry& AEntry, bool ACallBeforeUnInit) {
    if (AEntry.Plugin) {
        // After a failed Init only the data modules whose Init returned are told.
        const auto& modules = AEntry.Plugin->DataModules();
        const std::size_t n = ACallBeforeUnInit ? modules.size() : AEntry.InitDone;
        for (std::size_t i = 0; i < n && i < modules.size(); ++i) {
            try {
                modules[i]->BeforeUnInit();
            } catch (...) {
                HostLog()->error("plug-in {} ({}): BeforeUnInit of {} failed: {}", AEntry.Info.Name,
                                 AEntry.Info.Path, DemangledName(typeid(*modules[i])),
                                 CurrentExceptionText());
            }
        }
        // The plug-in's code must still be mapped while its objects go.
        AEntry.Plugin->DestroyDataModules();
        delete AEntry.Plugin;
        AEntry.Plugin = nullptr;
        AEntry.InitDone = 0;
    }
    if (AEntry.Handle) {
        if (dlclose(AEntry.Handle) != 0)
            HostLog()->warn("plug-in {} ({}) could not be closed: {}", AEntry.Info.Name,
                            AEntry.Info.Path, DlError());
        AEntry.Handle = nullptr;
    }
}

void TPluginLoader::BeforeUnInit() {
    {
        std::lock_guard lock(FLock);
        if (!FActive || FUnInitDone) return;
        FUnInitDone = true;
    }
    for (TEntry* e : LoadedEntries()) {
        for (TPluginBaseDataModule* m : e->Plugin->DataModules()) {
            try {
                m->BeforeUnInit();
            } catch (...) {
                HostLog()->error("plug-in {} ({}): BeforeUnInit of {} failed: {}", e->Info.Name,
                                 e->Info.Path, DemangledName(typeid(*m)), CurrentExceptionText());
            }
        }
    }
}

void TPluginLoader::Unload() {
    BeforeUnInit();
    std::vector<TEntry*> loaded = LoadedEntries();
    {
        std::lock_guard lock(FLock);
        for (TEntry* e : loaded)
            e->Info.Loaded = false;
    }
    // The newest plug-in goes first: it may lean on the ones loaded before it.
    for (auto it = loaded.rbegin(); it != loaded.rend(); ++it) {
        (*it)->InitDone = 0;  // BeforeUnInit ran above
        TearDown(**it, false);
    }
    std::lock_guard lock(FLock);
    FEntries.clear();
    FActive = false;
}

std::vector<TPluginLoader::TEntry*> TPluginLoader::LoadedEntries() const {
    std::lock_guard lock(FLock);
    std::vector<TEntry*> r;
    for (const auto& e : FEntries)
        if (e->Info.Loaded) r.push_back(e.get());
    return r;
}

std::vector<TPluginInfo> TPluginLoader::Plugins() const {
    std::lock_guard lock(FLock);
    std::vector<TPluginInfo> r;
    r.reserve(FEntries.size());
    for (const auto& e : FEntries)
        r.push_back(e->Info);
    return r;
}

std::vector<TClientPluginBase*> TPluginLoader::PluginObjects() const {
    std::vector<TClientPluginBase*> r;
    for (TEntry* e : LoadedEntries())
        r.push_back(e->Plugin);
    return r;
}

std::int32_t TPluginLoader::PluginCount() {
    return static_cast<std::int32_t>(LoadedEntries().size());
}

std::string TPluginLoader::PluginGUID(std::int32_t AIndex) {
    const std::vector<TEntry*> loaded = LoadedEntries();
    if (AIndex < 0 || static_cast<std::size_t>(AIndex) >= loaded.size())
        throw EListError("plug-in index " + std::to_string(AIndex) + " out of bounds");
    std::lock_guard lock(FLock);
    return loaded[static_cast<std::size_t>(AIndex)]->Info.GUID;
}

bool TPluginLoader::IsPluginLoaded(const std::string& APluginGUID) {
    for (TEntry* e : LoadedEntries())
        if (SameGUIDText(e->Info.GUID, APluginGUID)) return true;
    return false;
}

bool TPluginLoader::GetExtFuncInterface(const std::string& APluginGUID, const TGUID& AIID,
                                        void** AObj) {
    *AObj = nullptr;
    // Held while asking, so that a plug-in that fails at start isn't torn down meanwhile.
    std::lock_guard lock(FLock);
    for (const auto& e : FEntries)
        if (e->Info.Loaded && SameGUIDText(e->Info.GUID, APluginGUID))
            return e->Plugin->GetExtFuncInterface(AIID, AObj);
    return false;
}

std::string FormatPluginList(const std::vector<TPluginInfo>& APlugins) {
    if (APlugins.empty()) return "no plug-ins\n";
    struct TRow {
        std::string GUID, Name, Path, State;
    };
    std::vector<TRow> rows;
    std::size_t nameWidth = 0;
    for (const TPluginInfo& p : APlugins) {
        std::string state = p.Loaded ? "loaded" : "failed: " + p.Error;
        if (p.Loaded && !p.Warning.empty()) state += " (" + p.Warning + ")";
        rows.push_back({p.GUID.empty() ? std::string(38, '-') : PrintableText(p.GUID),
                        PrintableText(p.Name), PrintableText(p.Path), PrintableText(state)});
        nameWidth = std::max(nameWidth, rows.back().Name.size());
    }
    std::ostringstream os;
    for (const TRow& r : rows)
        os << r.GUID << "  " << r.Name << std::string(nameWidth - r.Name.size() + 2, ' ') << r.Path
           << "  " << r.State << "\n";
    return os.str();
}

}  // namespace docadmin
