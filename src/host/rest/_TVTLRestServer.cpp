#include "_TVTLRestServer.h"

#include "_BufferPool.h"

#include <openssl/rand.h>

#include <algorithm>
#include <vector>

#include "_DBInterface.h"
#include "_TDBRecordFlagsPlugin.h"
#include "_TRecordDocumentActions.h"
#include "_TVTLRessourcesRestService.h"
#include "_TVTLRestAPICustomKRRecordSetServiceImpl.h"
#include "_TVTLSQLParser.h"
#include "_Tools.h"

namespace docadmin {

namespace {

constexpr const char* kCookie = "docadmin_session";

THTTPResponse JsonResponse(int AStatus, const TJsonObject& ABody) {
    THTTPResponse r;
    r.Status = AStatus;
    r.Body = ABody.dump(-1, ' ', false, TJsonObject::error_handler_t::replace);
    return r;
}

THTTPResponse ErrorResponse(const std::exception& AException) {
    TJsonObject body = TJsonObject::object();
    int status = 500;
    if (auto* e = dynamic_cast<const EVTLRestServiceError*>(&AException)) {
        status = e->Status();
    } else if (dynamic_cast<const EConvertError*>(&AException) ||
               dynamic_cast<const EDBUnknownField*>(&AException) ||
               dynamic_cast<const ESQLParserError*>(&AException) ||
               dynamic_cast<const ESessionCacheDuplicate*>(&AException)) {
        status = 400;
    }
    if (status == 500 || dynamic_cast<const EVTLRestServiceError*>(&AException)) {
        TVTLCustomRestService::AddExceptionToJsonResult(AException, body);
    } else {
        TVTLCustomRestService::AddExceptionToJsonResult(
            EVTLRestServiceError(status, AException.what()), body);
    }
    return JsonResponse(status, body);
}

THTTPResponse ErrorResponse(int AStatus, const std::string& AMessage) {
    return ErrorResponse(EVTLRestServiceError(AStatus, AMessage));
}

std::string NewToken() {
    unsigned char bytes[32];
    if (RAND_bytes(bytes, sizeof bytes) != 1) throw Exception("No random bytes for a session");
    static const char* const kAlphabet =
        "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789-_";
    std::string t;
    // 32 bytes as 43 base64url digits (6 bits each, the last carries 4).
    unsigned acc = 0;
    int bits = 0;
    for (unsigned char b : bytes) {
        acc = (acc << 8) | b;
        bits += 8;
        while (bits >= 6) {
            t += kAlphabet[(acc >> (bits - 6)) & 63];
            bits -= 6;
        }
    }
    if (bits > 0) t += kAlphabet[(acc << (6 - bits)) & 63];
    return t;
}

// Splits "/a/b/c" into its segments.
std::vector<std::string> Segments(const std::string& APath) {
    std::vector<std::string> r;
    std::size_t pos = 1;
    while (pos <= APath.size()) {
        std::size_t end = APath.find('/', pos);
        if (end == std::string::npos) end = APath.size();
        r.push_back(APath.substr(pos, end - pos));
        pos = end + 1;
    }
    return r;
}

std::int64_t IntSetting(const std::map<std::string, TLocalSettingValue>& s, const char* key,
                        std::int64_t def) {
    auto it = s.find(key);
    if (it == s.end()) return def;
    std::int64_t v = 0;
    if (it->second.Kind != TLocalSettingValue::TKind::Integer || !TryStrToInt64(it->second.Text, v))
        throw EConfigError(std::string("server.") + key + " must be an integer");
    return v;
}

}  // namespace

TRestServerOptions RestServerOptionsFromConfig(const TDocAdminConfig& AConfig) {
    static const char* const kKeys[] = {"listen",
                                        "io_threads",
                                        "worker_threads",
                                        "max_header_bytes",
                                        "max_body_bytes",
                                        "read_timeout_ms",
                                        "idle_timeout_ms",
                                        "max_connections",
                                        "shutdown_deadline_ms",
                                        "session_idle_minutes",
                                        "tls_cert",
                                        "tls_key",
                                        "access_log",
                                        "compact_json",
                                        "max_page_size",
                                        "simulate_error_status",
                                        "allow_simulate_error_header",
                                        "login_throttle_after",
                                        "login_throttle_delay_ms",
                                        "web_root"};
    const auto& s = AConfig.ServerSettings();
    for (const auto& [k, v] : s)
        if (std::find_if(std::begin(kKeys), std::end(kKeys),
                         [&](const char* x) { return k == x; }) == std::end(kKeys))
            throw EConfigError("unknown key server." + k);
    auto str = [&](const char* key, const std::string& def) {
        auto it = s.find(key);
        return it == s.end() ? def : it->second.Text;
    };
    auto flag = [&](const char* key, bool def) {
        auto it = s.find(key);
        if (it == s.end()) return def;
        if (it->second.Kind != TLocalSettingValue::TKind::Boolean)
            throw EConfigError(std::string("server.") + key + " must be true or false");
        return it->second.Text == "true";
    };
    TRestServerOptions o;
    auto& h = o.HTTP;
    const std::string listen = str("listen", "127.0.0.1:8080");
    const std::size_t colon = listen.rfind(':');
    std::int64_t port = 0;
    if (colon == std::string::npos || !TryStrToInt64(listen.substr(colon + 1), port) || port < 0 ||
        port > 65535)
        throw EConfigError("server.listen must read ADDRESS:PORT");
    h.Address = listen.substr(0, colon);
    h.Port = static_cast<std::uint16_t>(port);
    const auto cores = static_cast<std::int64_t>(std::max(1u, std::thread::hardware_concurrency()));
    h.IOThreads = static_cast<int>(IntSetting(s, "io_threads", std::min<std::int64_t>(cores, 4)));
    h.WorkerThreads = static_cast<int>(IntSetting(s, "worker_threads", cores * 4));
    h.MaxHeaderBytes = static_cast<std::size_t>(IntSetting(s, "max_header_bytes", 16 * 1024));
    h.MaxBodyBytes = static_cast<std::uint64_t>(IntSetting(s, "max_body_bytes", 64 << 20));
    h.ReadTimeout = std::chrono::milliseconds(IntSetting(s, "read_timeout_ms", 10000));
    h.IdleTimeout = std::chrono::milliseconds(IntSetting(s, "idle_timeout_ms", 75000));
    h.MaxConnections = static_cast<int>(IntSetting(s, "max_connections", 10000));
    h.ShutdownDeadline = std::chrono::milliseconds(IntSetting(s, "shutdown_deadline_ms", 10000));
    h.TLSCertFile = str("tls_cert", "");
    h.TLSKeyFile = str("tls_key", "");
    h.AccessLog = str("access_log", "-");
    o.SessionIdleTimeout = std::chrono::minutes(IntSetting(s, "session_idle_minutes", 30));
    o.Service.CompactJson = flag("compact_json", true);
    o.Service.MaxRecordPageSize = IntSetting(s, "max_page_size", 1000);
    if (o.Service.MaxRecordPageSize < 1)
        throw EConfigError("server.max_page_size must be at least 1");
    o.Service.SimulateErrorStatus = static_cast<int>(IntSetting(s, "simulate_error_status", 0));
    o.Service.AllowSimulateErrorHeader = flag("allow_simulate_error_header", false);
    o.LoginThrottleAfter = static_cast<int>(IntSetting(s, "login_throttle_after", 5));
    o.LoginThrottleDelay = std::chrono::milliseconds(IntSetting(s, "login_throttle_delay_ms", 500));
    o.WebRoot = str("web_root", "");
    if (h.IOThreads < 1 || h.WorkerThreads < 1 || h.MaxConnections < 1)
        throw EConfigError("server thread and connection counts must be at least 1");
    return o;
}

TVTLRestServer::TVTLRestServer(THost& AHost, TRestServerOptions AOptions)
    : FHost(AHost),
      FOptions(std::move(AOptions)),
      FRecordFlags(std::make_unique<TDBRecordFlagsPlugin>(AHost.GetDBInterface())) {
    FHTTP = std::make_unique<THTTPServer>(
        FOptions.HTTP, [this](THTTPRequest&& r, THTTPResponder d) { Handle(std::move(r), d); });
}

TVTLRestServer::~TVTLRestServer() {
    Shutdown();
}

void TVTLRestServer::Start() {
    FAPI = CollectPublishedAPIMethods();
    FOpenAPI = BuildOpenAPI();
    FStatic = std::make_unique<TStaticFileRoute>(FOptions.WebRoot);
    FStopping = false;
    FHTTP->Start();
    SweepSessions();
    TidyHeaps();
}

void TVTLRestServer::Shutdown() {
    FStopping = true;
    FHTTP->Shutdown();
    std::map<std::string, IPtr<TRestSession>> sessions;
    {
        std::lock_guard lock(FSessionLock);
        sessions.swap(FSessions);
    }
    for (auto& [token, s] : sessions)
        s->EndSession();
}

int TVTLRestServer::SessionCount() {
    std::lock_guard lock(FSessionLock);
    return static_cast<int>(FSessions.size());
}

void TVTLRestServer::Submit(std::function<void()> ATask) {
    if (FHTTP->Workers().Post(ATask)) return;
    // A full queue: try again shortly without holding a thread.
    FHTTP->RunAfter(std::chrono::milliseconds(5), [this, t = std::move(ATask)] { Submit(t); });
}

void TVTLRestServer::SweepSessions() {
    if (FStopping) return;
    const auto now = std::chrono::steady_clock::now();
    std::vector<IPtr<TRestSession>> expired;
    {
        std::lock_guard lock(FSessionLock);
        for (auto it = FSessions.begin(); it != FSessions.end();) {
            if (!it->second->Busy() && now - it->second->LastUse() > FOptions.SessionIdleTimeout) {
                expired.push_back(it->second);
                it = FSessions.erase(it);
            } else {
                ++it;
            }
        }
    }
    for (auto& s : expired)
        EndSession(s);
    const auto every = std::clamp(FOptions.SessionIdleTimeout / 4, std::chrono::milliseconds(50),
                                  std::chrono::milliseconds(5000));
    FHTTP->RunAfter(every, [this] { SweepSessions(); });
}

void TVTLRestServer::TidyHeaps() {
    if (FStopping) return;
    ReleaseFreeHeapMemory();
    FHTTP->RunAfter(std::chrono::seconds(10), [this] { TidyHeaps(); });
}

void TVTLRestServer::EndSession(const IPtr<TRestSession>& ASession) {
    // After any request of the session still queued, on a worker.
    ASession->Enqueue([s = ASession] { s->EndSession(); },
                      [this](std::function<void()> t) { Submit(std::move(t)); });
}

IPtr<TRestSession> TVTLRestServer::FindSession(const THTTPRequest& ARequest) {
    std::string token;
    const std::string auth = ARequest.Header("Authorization");
    if (auth.size() > 7 && LowerCase(auth.substr(0, 7)) == "bearer ")
        token = auth.substr(7);
    else
        token = ARequest.Cookie(kCookie);
    if (token.empty()) return nullptr;
    std::lock_guard lock(FSessionLock);
    auto it = FSessions.find(token);
    if (it == FSessions.end()) return nullptr;
    if (!it->second->Busy() &&
        std::chrono::steady_clock::now() - it->second->LastUse() > FOptions.SessionIdleTimeout)
        return nullptr;  // expired; the sweep ends it
    return it->second;
}

bool TVTLRestServer::IsKnownRoute(const std::string& APath) const {
    if (FAPI.count(APath) || APath == RessourcesRoutePath) return true;
    const auto seg = Segments(APath);
    return (seg.size() == 2 || seg.size() == 3) && seg[0] == "records"
               ? true
               : seg.size() == 2 && (seg[0] == "filters" || seg[0] == "record-documents");
}

void TVTLRestServer::Handle(THTTPRequest&& ARequest, THTTPResponder ARespond) {
    const std::string path = ARequest.Path;
    if (path == "/health") {
        if (ARequest.Method != "GET") return ARespond(ErrorResponse(405, "Method not allowed"));
        return ARespond(JsonResponse(200, {{"status", "ok"}}));
    }
    if (path == "/openapi.json") {
        THTTPResponse r;
        r.Body = FOpenAPI;
        return ARespond(std::move(r));
    }
    auto req = std::make_shared<THTTPRequest>(std::move(ARequest));
    if (path == "/login") {
        if (req->Method != "POST") return ARespond(ErrorResponse(405, "Method not allowed"));
        if (auto why = FCsrf.Refusal(*req, ""); !why.empty())
            return ARespond(ErrorResponse(403, why));
        std::string user;
        try {
            const TJsonObject body = TJsonObject::parse(req->Body);
            if (body.is_object() && body.contains("user") && body["user"].is_string())
                user = body["user"].get<std::string>();
        } catch (const std::exception&) {
        }
        const auto delay = ThrottleDelay(user, req->RemoteAddress);
        auto run = [this, req, ARespond] {
            Submit([this, req, ARespond] { HandleLogin(*req, ARespond); });
        };
        if (delay.count() > 0) return FHTTP->RunAfter(delay, run);
        return run();
    }
    if (path != "/logout" && path != "/session" && !IsKnownRoute(path)) {
        if (auto file = FStatic ? FStatic->Serve(*req) : std::nullopt) return ARespond(*file);
        return ARespond(ErrorResponse(404, "Not found"));
    }
    IPtr<TRestSession> session = FindSession(*req);
    if (!session) return ARespond(ErrorResponse(401, "No valid session"));
    if (auto why = FCsrf.Refusal(*req, session->Token()); !why.empty())
        return ARespond(ErrorResponse(403, why));
    if (path == "/session") {
        if (req->Method != "GET") return ARespond(ErrorResponse(405, "Method not allowed"));
        session->Touch();
        return ARespond(JsonResponse(200, SessionJson(*session)));
    }
    if (path == "/logout") {
        if (req->Method != "POST") return ARespond(ErrorResponse(405, "Method not allowed"));
        {
            std::lock_guard lock(FSessionLock);
            FSessions.erase(session->Token());
        }
        session->Enqueue(
            [session, ARespond] {
                session->EndSession();
                THTTPResponse r = JsonResponse(200, {{"logged_out", true}});
                r.Headers.push_back({"Set-Cookie", std::string(kCookie) +
                                                       "=; Path=/; Max-Age=0; HttpOnly; "
                                                       "SameSite=Strict"});
                ARespond(std::move(r));
            },
            [this](std::function<void()> t) { Submit(std::move(t)); });
        return;
    }
    session->Enqueue([this, session, req, ARespond] { HandleInSession(*session, *req, ARespond); },
                     [this](std::function<void()> t) { Submit(std::move(t)); });
}

std::chrono::milliseconds TVTLRestServer::ThrottleDelay(const std::string& AUser,
                                                        const std::string& AAddress) {
    std::lock_guard lock(FThrottleLock);
    const auto now = std::chrono::steady_clock::now();
    int worst = 0;
    for (const std::string& key : {"u:" + LowerCase(AUser), "a:" + AAddress}) {
        auto it = FFailures.find(key);
        if (it == FFailures.end()) continue;
        if (now - it->second.Last > std::chrono::minutes(15)) {
            FFailures.erase(it);
            continue;
        }
        worst = std::max(worst, it->second.Count);
    }
    if (worst < FOptions.LoginThrottleAfter) return std::chrono::milliseconds(0);
    const int doublings = std::min(worst - FOptions.LoginThrottleAfter, 16);
    return std::min<std::chrono::milliseconds>(FOptions.LoginThrottleDelay * (1LL << doublings),
                                               FOptions.LoginThrottleMaxDelay);
}

void TVTLRestServer::NoteLoginResult(const std::string& AUser, const std::string& AAddress,
                                     bool ASuccess) {
    std::lock_guard lock(FThrottleLock);
    const std::string userKey = "u:" + LowerCase(AUser);
    if (ASuccess) {
        FFailures.erase(userKey);
        return;
    }
    if (FFailures.size() > 100000) FFailures.clear();  // bounded under a flood of names
    for (const std::string& key : {userKey, "a:" + AAddress}) {
        auto& f = FFailures[key];
        ++f.Count;
        f.Last = std::chrono::steady_clock::now();
    }
}

void TVTLRestServer::HandleLogin(const THTTPRequest& ARequest, const THTTPResponder& ARespond) {
    try {
        TJsonObject body;
        try {
            body = TJsonObject::parse(ARequest.Body);
        } catch (const std::exception&) {
            throw EVTLRestServiceError(400, "The request body is not valid JSON");
        }
        if (!body.is_object() || !body.contains("user") || !body["user"].is_string() ||
            !body.contains("password") || !body["password"].is_string())
            throw EVTLRestServiceError(400, "user and password are required");
        std::int64_t type = cstBrowser;
        if (body.contains("session_type")) {
            if (!body["session_type"].is_number_integer() ||
                (type = body["session_type"].get<std::int64_t>()) < 0 || type > 3)
                throw EVTLRestServiceError(400, "session_type must be 0, 1, 2 or 3");
        }
        const std::string user = body["user"].get<std::string>();
        const std::int64_t id = FHost.Users().Login(user, body["password"].get<std::string>());
        NoteLoginResult(user, ARequest.RemoteAddress, id != 0);
        if (id == 0) throw EVTLRestServiceError(401, "Invalid user name or password");
        const auto info = FHost.Users().GetUser(id);
        const std::string token = NewToken();
        IPtr<TRestSession> session(new TRestSession(token, id, info ? info->UserName : user,
                                                    static_cast<TConnectorSessionType>(type)));
        {
            std::lock_guard lock(FSessionLock);
            FSessions[token] = session;
        }
        TJsonObject answer = {{"session", token}};
        answer.update(SessionJson(*session));
        THTTPResponse r = JsonResponse(200, answer);
        r.Headers.push_back({"Set-Cookie", std::string(kCookie) + "=" + token +
                                               "; Path=/; HttpOnly; SameSite=Strict" +
                                               (ARequest.Secure ? "; Secure" : "")});
        ARespond(std::move(r));
    } catch (const std::exception& e) {
        ARespond(ErrorResponse(e));
    }
}

TJsonObject TVTLRestServer::SessionJson(TRestSession& ASession) const {
    const auto type = ASession.GetSessionType();
    return {{"user", ASession.GetUserName()},
            {"session_type", static_cast<int>(type)},
            {"session_type_name", ConnectorSessionTypeName(type)},
            {"idle_timeout_seconds",
             std::chrono::duration_cast<std::chrono::seconds>(FOptions.SessionIdleTimeout).count()},
            {"csrf_token", FCsrf.TokenFor(ASession.Token())}};
}

void TVTLRestServer::HandleInSession(TRestSession& ASession, const THTTPRequest& ARequest,
                                     const THTTPResponder& ARespond) {
    TRestRequestContext ctx;
    ctx.Session = &ASession;
    ctx.MainInterface = &FHost;
    ctx.Request = &ARequest;
    ctx.Settings = &FOptions.Service;
    ctx.RecordFlags = FRecordFlags.get();
    TRestRequestContextScope scope(&ctx);
    TDBUserScope user(ASession.GetUserID());
    THTTPResponse r;
    try {
        r = Route(ARequest);
    } catch (const std::exception& e) {
        r = ErrorResponse(e);
    }
    ASession.Touch();
    ARespond(std::move(r));
}

THTTPResponse TVTLRestServer::Route(const THTTPRequest& ARequest) {
    auto api = FAPI.find(ARequest.Path);
    if (api != FAPI.end()) {
        if (ARequest.Method != "POST") return ErrorResponse(405, "Method not allowed");
        std::unique_ptr<TVTLCustomRestService> service = api->second.ServiceClass();
        if ((service->GetValidConnectorSessionTypes() &
             TVTLCustomRestService::CurrentSessionTypes()) == 0)
            return ErrorResponse(403, "The service doesn't serve this kind of session");
        THTTPResponse r;
        r.Body = InvokePublishedAPIMethod(api->second, ARequest.Body, *service);
        return r;
    }
    if (ARequest.Path == RessourcesRoutePath) return HandleRessourcesRequest(ARequest, &FHost);
    const auto seg = Segments(ARequest.Path);
    TVTLRestAPICustomKRRecordSetServiceImpl records;
    if (seg[0] == "filters") {
        if (ARequest.Method != "GET") return ErrorResponse(405, "Method not allowed");
        return JsonResponse(200, records.ListFilters(seg[1]));
    }
    auto param = [&](const char* name) {
        std::string v;
        ARequest.QueryParam(name, v);
        return v;
    };
    auto number = [&](const char* name, std::int64_t def) {
        std::string v;
        if (!ARequest.QueryParam(name, v)) return def;
        std::int64_t n = 0;
        if (!TryStrToInt64(v, n))
            throw EVTLRestServiceError(400, std::string(name) + " must be a number");
        return n;
    };
    auto body = [&]() {
        try {
            return TJsonObject::parse(ARequest.Body);
        } catch (const std::exception&) {
            throw EVTLRestServiceError(400, "The request body is not valid JSON");
        }
    };
    if (seg[0] == "record-documents") {
        if (ARequest.Method != "POST") return ErrorResponse(405, "Method not allowed");
        return JsonResponse(200, TRecordDocumentActions(&FHost).Run(seg[1], body()));
    }
    if (seg.size() == 2) {
        if (ARequest.Method == "GET") {
            TRecordListQuery q;
            q.Fields = param("fields");
            q.Where = param("where");
            q.Order = param("order");
            q.Limit = number("limit", -1);
            q.Offset = number("offset", 0);
            q.Filter = param("filter");
            q.FilterValue = param("filter_value");
            return JsonResponse(200, records.ListRecords(seg[1], q));
        }
        if (ARequest.Method == "POST")
            return JsonResponse(201, records.InsertRecord(seg[1], body()));
        return ErrorResponse(405, "Method not allowed");
    }
    if (ARequest.Method == "GET")
        return JsonResponse(200, records.ReadRecord(seg[1], seg[2], param("fields")));
    if (ARequest.Method == "PUT")
        return JsonResponse(200, records.UpdateRecord(seg[1], seg[2], body()));
    return ErrorResponse(405, "Method not allowed");
}

std::string TVTLRestServer::BuildOpenAPI() const {
    auto kindSchema = [](TAPIParamKind k) -> TJsonObject {
        switch (k) {
            case TAPIParamKind::pkString:
                return {{"type", "string"}};
            case TAPIParamKind::pkInt64:
                return {{"type", "integer"}, {"format", "int64"}};
            case TAPIParamKind::pkBoolean:
                return {{"type", "boolean"}};
            case TAPIParamKind::pkRawJSON:
                return {{"description", "any JSON value"}};
        }
        return TJsonObject::object();
    };
    auto errorRef = TJsonObject{{"$ref", "#/components/responses/Error"}};
    TJsonObject paths = TJsonObject::object();
    paths["/health"]["get"] = {{"summary", "Liveness"},
                               {"security", TJsonObject::array()},
                               {"responses", {{"200", {{"description", "alive"}}}}}};
    paths["/login"]["post"] = {
        {"summary", "Opens a session"},
        {"security", TJsonObject::array()},
        {"requestBody",
         {{"required", true},
          {"content",
           {{"application/json",
             {{"schema",
               {{"type", "object"},
                {"required", {"user", "password"}},
                {"properties",
                 {{"user", {{"type", "string"}}},
                  {"password", {{"type", "string"}}},
                  {"session_type",
                   {{"type", "integer"},
                    {"enum", {0, 1, 2, 3}},
                    {"description", "0 browser, 1 API client, 2 device, 3 service"}}}}}}}}}}}}},
        {"responses", {{"200", {{"description", "the session token"}}}, {"401", errorRef}}}};
    paths["/logout"]["post"] = {{"summary", "Ends the session"},
                                {"responses", {{"200", {{"description", "ended"}}}}}};
    for (const auto& [path, m] : FAPI) {
        TJsonObject in = {{"type", "object"}, {"properties", TJsonObject::object()}};
        TJsonObject out = {{"type", "object"}, {"properties", TJsonObject::object()}};
        for (const auto& p : m.Method->Params)
            (p.Out ? out : in)["properties"][p.Name] = kindSchema(p.Kind);
        paths[path]["post"] = {
            {"summary", m.Item.Caption + ": " + m.Interface->Name + "." + m.Method->Name},
            {"tags", {m.Item.Caption}},
            {"requestBody", {{"content", {{"application/json", {{"schema", in}}}}}}},
            {"responses",
             {{"200",
               {{"description", "out-parameters"},
                {"content", {{"application/json", {{"schema", out}}}}}}},
              {"400", errorRef},
              {"401", errorRef},
              {"403", errorRef}}}};
    }
    TJsonObject schemaParam = {
        {"name", "schema"}, {"in", "path"}, {"required", true}, {"schema", {{"type", "string"}}}};
    TJsonObject uidParam = {
        {"name", "uid"}, {"in", "path"}, {"required", true}, {"schema", {{"type", "string"}}}};
    auto query = [](const char* name, const char* type) {
        return TJsonObject{{"name", name}, {"in", "query"}, {"schema", {{"type", type}}}};
    };
    TJsonObject limitParam = query("limit", "integer");
    limitParam["schema"]["minimum"] = 0;
    limitParam["schema"]["maximum"] = FOptions.Service.MaxRecordPageSize;
    limitParam["schema"]["default"] = FOptions.Service.MaxRecordPageSize;
    const TJsonObject rows = {{"description", "rows"}};
    const TJsonObject values = {
        {"content", {{"application/json", {{"schema", {{"type", "object"}}}}}}}};
    paths["/records/{schema}"]["get"] = {
        {"summary", "Lists rows"},
        {"parameters",
         {schemaParam, query("fields", "string"), query("where", "string"),
          query("order", "string"), limitParam, query("offset", "integer"),
          query("filter", "string"), query("filter_value", "string")}},
        {"responses", {{"200", rows}, {"400", errorRef}, {"404", errorRef}}}};
    paths["/records/{schema}"]["post"] = {
        {"summary", "Inserts a row"},
        {"parameters", {schemaParam}},
        {"requestBody", values},
        {"responses", {{"201", rows}, {"400", errorRef}, {"403", errorRef}}}};
    paths["/records/{schema}/{uid}"]["get"] = {
        {"summary", "Reads a row by record UID"},
        {"parameters", {schemaParam, uidParam, query("fields", "string")}},
        {"responses", {{"200", rows}, {"404", errorRef}}}};
    paths["/records/{schema}/{uid}"]["put"] = {
        {"summary", "Updates a row by record UID"},
        {"parameters", {schemaParam, uidParam}},
        {"requestBody", values},
        {"responses", {{"200", rows}, {"400", errorRef}, {"403", errorRef}, {"404", errorRef}}}};
    paths["/filters/{schema}"]["get"] = {{"summary", "Lists the filters of a schema"},
                                         {"parameters", {schemaParam}},
                                         {"responses", {{"200", rows}, {"404", errorRef}}}};
    TJsonObject doc = {
        {"openapi", "3.0.3"},
        {"info", {{"title", "DocAdmin host"}, {"version", "1"}}},
        {"paths", paths},
        {"components",
         {{"securitySchemes",
           {{"bearer", {{"type", "http"}, {"scheme", "bearer"}}},
            {"cookie", {{"type", "apiKey"}, {"in", "cookie"}, {"name", kCookie}}}}},
          {"responses",
           {{"Error",
             {{"description", "failure"},
              {"content",
               {{"application/json",
                 {{"schema",
                   {{"type", "object"},
                    {"properties",
                     {{"error",
                       {{"type", "object"},
                        {"properties",
                         {{"status", {{"type", "integer"}}},
                          {"class", {{"type", "string"}}},
                          {"message", {{"type", "string"}}}}}}}}}}}}}}}}}}}}},
        {"security", {{{"bearer", TJsonObject::array()}}, {{"cookie", TJsonObject::array()}}}}};
    return doc.dump();
}

}  // namespace docadmin
