#include "_TVTLCustomRestService.h"

#include <cstdlib>

#include "_THTTPServer.h"
#include "_Tools.h"

namespace docadmin {

namespace {
thread_local TRestRequestContext* GContext = nullptr;
}

TRestRequestContext* CurrentRestRequestContext() {
    return GContext;
}

TRestRequestContextScope::TRestRequestContextScope(TRestRequestContext* AContext)
    : FPrevious(GContext) {
    GContext = AContext;
}

TRestRequestContextScope::~TRestRequestContextScope() {
    GContext = FPrevious;
}

// ---- TServiceDataSettings

void TServiceDataSettings::Add(TItem AItem) {
    std::lock_guard lock(FLock);
    FItems.push_back(std::move(AItem));
}

void TServiceDataSettings::Clear() {
    std::lock_guard lock(FLock);
    FItems.clear();
}

bool TServiceDataSettings::Find(int ASettingType, const std::string& AName,
                                TConnectorSessionTypes ASessionTypes, TItem& AItem) const {
    std::lock_guard lock(FLock);
    const std::string name = LowerCase(AName);
    for (const auto& i : FItems)
        if (i.SettingType == ASettingType && LowerCase(i.Name) == name &&
            (i.SessionTypes & ASessionTypes) != 0) {
            AItem = i;
            return true;
        }
    return false;
}

// ---- TVTLCustomRestService

ISession* TVTLCustomRestService::CurrentSession() {
    return GContext ? GContext->Session : nullptr;
}

void TVTLCustomRestService::CheckCurrentSession() {
    if (!CurrentSession()) throw EVTLRestServiceError(401, "No valid session");
}

TConnectorSessionTypes TVTLCustomRestService::CurrentSessionTypes() {
    ISession* s = CurrentSession();
    return s ? static_cast<TConnectorSessionTypes>(1u << s->GetSessionType()) : 0;
}

IMainInterface* TVTLCustomRestService::MainInterface() {
    return GContext ? GContext->MainInterface : nullptr;
}

std::unique_ptr<TJsonObject> TVTLCustomRestService::CreateResultJson() {
    return std::make_unique<TJsonObject>(TJsonObject::object());
}

void TVTLCustomRestService::AddExceptionToJsonResult(const std::exception& AException,
                                                     TJsonObject& AResult) {
    int status = 500;
    std::string cls = "Exception";
    if (auto* e = dynamic_cast<const EVTLRestServiceError*>(&AException)) {
        status = e->Status();
        cls = "EVTLRestServiceError";
    } else if (dynamic_cast<const EKRUserMessageException*>(&AException)) {
        cls = "EKRUserMessageException";
    }
    AResult["error"] = {{"status", status}, {"class", cls}, {"message", AException.what()}};
}

void TVTLCustomRestService::AddRecordInfoToJsonResult(const std::string& ARemoteUID,
                                                      const std::string& AServerUID,
                                                      std::int64_t ADBID, TJsonObject& AResult) {
    auto& list = AResult["record_info"];
    if (!list.is_array()) list = TJsonObject::array();
    list.push_back({{"remote_uid", ARemoteUID}, {"server_uid", AServerUID}, {"dbid", ADBID}});
}

void TVTLCustomRestService::CheckAndSimulateMethodeError() {
    if (!GContext || !GContext->Settings) return;
    int status = GContext->Settings->SimulateErrorStatus;
    if (status == 0 && GContext->Settings->AllowSimulateErrorHeader && GContext->Request) {
        const std::string h = GContext->Request->Header("X-Simulate-Error");
        std::int64_t v = 0;
        if (!h.empty() && TryStrToInt64(h, v) && v >= 400 && v <= 599) status = static_cast<int>(v);
    }
    if (status != 0) throw EVTLRestServiceError(status, "Simulated method error");
}

TVariant TVTLCustomRestService::GetOptionsParamValue(const TJsonObject* AOptions,
                                                     const std::string& AName) {
    if (!AOptions || !AOptions->is_object()) return TVariant();
    auto it = AOptions->find(AName);
    if (it == AOptions->end()) return TVariant();
    const auto& v = *it;
    if (v.is_string()) return TVariant(v.get<std::string>());
    if (v.is_boolean()) return TVariant(v.get<bool>());
    if (v.is_number_integer()) return TVariant(static_cast<long long>(v.get<std::int64_t>()));
    if (v.is_number()) return TVariant(v.get<double>());
    if (v.is_null()) return TVariant();
    return TVariant(v.dump());
}

bool TVTLCustomRestService::ReturnCompactJson() {
    return !GContext || !GContext->Settings || GContext->Settings->CompactJson;
}

TServiceDataSettings& TVTLCustomRestService::ServiceDataSettings() {
    static TServiceDataSettings settings;
    return settings;
}

TRecordFlagTypes TVTLCustomRestService::DefaultRecordFlagTypes() {
    return GContext && GContext->Settings ? GContext->Settings->DefaultRecordFlagTypes : 0;
}

TRecordFlagsPlugin* TVTLCustomRestService::GetRecordFlagsPlugin() {
    return GContext ? GContext->RecordFlags : nullptr;
}

std::string TVTLCustomRestService::ToJSON(const TJsonObject& AJson, bool ACompact) {
    return AJson.dump(ACompact ? -1 : 2, ' ', false, TJsonObject::error_handler_t::replace);
}

}  // namespace docadmin
