// TVTLCustomRestService: the base of the REST service objects, and the request context that the
// server sets on the thread that runs a request.
//
// The server makes a service object per request and calls it on a worker thread with the
// request's context in place (TRestRequestContextScope): the session, the main interface, the
// request and the server's settings. The class operations read that context, so they answer for
// the request of the calling thread. JSON is nlohmann's ordered_json: keys keep their order,
// integers are 64-bit, date-times travel as ISO 8601 text.
//
// Error form written by AddExceptionToJsonResult:
//     {"error": {"status": 404, "class": "EVTLRestServiceError", "message": "..."}}
// AddRecordInfoToJsonResult appends {"remote_uid", "server_uid", "dbid"} to the array
// "record_info".
#pragma once

#include <nlohmann/json.hpp>

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "_DBVariant.h"
#include "_PluginIntf.h"
#include "_RecordFlagsIntf.h"
#include "_TRestSession.h"

namespace docadmin {

using TJsonObject = nlohmann::ordered_json;

struct THTTPRequest;

// Settings of the REST services that the server hands to each request.
struct TRestServiceSettings {
    // ToJSON without indentation.
    bool CompactJson = true;
    // Every service method fails with this status (0: off), for client tests.
    int SimulateErrorStatus = 0;
    // Whether the request header "X-Simulate-Error: <status>" arms the same failure.
    bool AllowSimulateErrorHeader = false;
    // The fallback record flag types when no service data setting matches.
    TRecordFlagTypes DefaultRecordFlagTypes = 0;
    // The most rows one record list answers; a larger limit gets 400, a list without a limit
    // answers this many.
    std::int64_t MaxRecordPageSize = 1000;
};

struct TRestRequestContext {
    ISession* Session = nullptr;  // null for a request without a session
    IMainInterface* MainInterface = nullptr;
    const THTTPRequest* Request = nullptr;
    const TRestServiceSettings* Settings = nullptr;
    TRecordFlagsPlugin* RecordFlags = nullptr;
};

// The context of the calling thread, or nullptr outside a request.
TRestRequestContext* CurrentRestRequestContext();

class TRestRequestContextScope {
  public:
    explicit TRestRequestContextScope(TRestRequestContext* AContext);
    ~TRestRequestContextScope();
    TRestRequestContextScope(const TRestRequestContextScope&) = delete;
    TRestRequestContextScope& operator=(const TRestRequestContextScope&) = delete;

  private:
    TRestRequestContext* FPrevious;
};

// Which record flag types a service uses for a table, by setting type, table and session kinds.
class TServiceDataSettings {
  public:
    struct TItem {
        int SettingType = 0;  // 0 a table of the service, 1 a detail of the record service
        std::string Name;     // SQL table name or detail name (case-insensitive)
        TConnectorSessionTypes SessionTypes = AllConnectorSessionTypes;
        TRecordFlagTypes RecordFlagTypes = 0;
    };
    void Add(TItem AItem);
    void Clear();
    // The first item of that type and name whose session kinds meet ASessionTypes.
    bool Find(int ASettingType, const std::string& AName, TConnectorSessionTypes ASessionTypes,
              TItem& AItem) const;

  private:
    mutable std::mutex FLock;
    std::vector<TItem> FItems;  // guarded by FLock
};

class TVTLCustomRestService : public TObject {
  public:
    TVTLCustomRestService() = default;
    ~TVTLCustomRestService() override = default;

    // The session of the request, or null.
    static ISession* CurrentSession();
    // Raises EVTLRestServiceError 401 unless the request has a valid session.
    static void CheckCurrentSession();
    // The kind of the current session as a set; empty without a session.
    static TConnectorSessionTypes CurrentSessionTypes();
    static IMainInterface* MainInterface();

    static std::unique_ptr<TJsonObject> CreateResultJson();
    // Writes the exception in the error form; an EVTLRestServiceError brings its status, any
    // other exception counts as 500.
    static void AddExceptionToJsonResult(const std::exception& AException, TJsonObject& AResult);
    static void AddRecordInfoToJsonResult(const std::string& ARemoteUID,
                                          const std::string& AServerUID, std::int64_t ADBID,
                                          TJsonObject& AResult);
    // Raises the simulated failure when a setting or the request arms it; otherwise nothing.
    static void CheckAndSimulateMethodeError();
    // The option's value; null when there are no options or the name is missing. Objects and
    // arrays come as their JSON text.
    static TVariant GetOptionsParamValue(const TJsonObject* AOptions, const std::string& AName);
    static bool ReturnCompactJson();
    // The process-wide service data settings.
    static TServiceDataSettings& ServiceDataSettings();
    static TRecordFlagTypes DefaultRecordFlagTypes();
    // The record flags component of the host, or null when the server has none.
    static TRecordFlagsPlugin* GetRecordFlagsPlugin();

    // The session kinds the service accepts; each service overrides it.
    virtual TConnectorSessionTypes GetValidConnectorSessionTypes() const {
        return AllConnectorSessionTypes;
    }

    // Text of a result for a response body (indented unless compact).
    static std::string ToJSON(const TJsonObject& AJson, bool ACompact);
};

}  // namespace docadmin
