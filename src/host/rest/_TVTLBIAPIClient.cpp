#include "_TVTLBIAPIClient.h"

#include "_BufferPool.h"
#include "_JsonText.h"
#include "_Tools.h"

#include <algorithm>
#include <mutex>

namespace docadmin {

// ---- TAPICallArgs

namespace {
const std::string kEmpty;
}

const TAPICallArgs::TValue* TAPICallArgs::Get(const std::string& AName) const {
    auto it = FValues.find(AName);
    return it == FValues.end() ? nullptr : &it->second;
}

const std::string& TAPICallArgs::Str(const std::string& AName) const {
    const TValue* v = Get(AName);
    return v && std::holds_alternative<std::string>(*v) ? std::get<std::string>(*v) : kEmpty;
}

std::int64_t TAPICallArgs::Int(const std::string& AName) const {
    const TValue* v = Get(AName);
    return v && std::holds_alternative<std::int64_t>(*v) ? std::get<std::int64_t>(*v) : 0;
}

bool TAPICallArgs::Bool(const std::string& AName) const {
    const TValue* v = Get(AName);
    return v && std::holds_alternative<bool>(*v) && std::get<bool>(*v);
}

std::string& TAPICallArgs::OutStr(const std::string& AName) {
    auto& v = FValues[AName];
    if (!std::holds_alternative<std::string>(v)) v = std::string();
    return std::get<std::string>(v);
}

std::int64_t& TAPICallArgs::OutInt(const std::string& AName) {
    auto& v = FValues[AName];
    if (!std::holds_alternative<std::int64_t>(v)) v = std::int64_t{0};
    return std::get<std::int64_t>(v);
}

bool& TAPICallArgs::OutBool(const std::string& AName) {
    auto& v = FValues[AName];
    if (!std::holds_alternative<bool>(v)) v = false;
    return std::get<bool>(v);
}

const TAPIMethod* TAPIInterfaceType::FindMethod(const std::string& AName) const {
    for (const auto& m : Methods)
        if (m.Name == AName) return &m;
    return nullptr;
}

// ---- Registry

namespace {
std::mutex& RegistryLock() {
    static std::mutex m;
    return m;
}
std::vector<TVTLBIAPIClient*>& Registry() {
    static std::vector<TVTLBIAPIClient*> r;
    return r;
}
}  // namespace

TVTLBIAPIClient::TVTLBIAPIClient(TComponent* AOwner) : TComponent(AOwner) {
    std::lock_guard lock(RegistryLock());
    Registry().push_back(this);
}

TVTLBIAPIClient::~TVTLBIAPIClient() {
    std::lock_guard lock(RegistryLock());
    auto& r = Registry();
    r.erase(std::remove(r.begin(), r.end(), this), r.end());
}

TVTLBIAPIItem& TVTLBIAPIClient::AddItem(const std::string& ACaption, const std::string& AIdentifier,
                                        const std::string& AAPIRoot) {
    FItems.push_back({ACaption, AIdentifier, AAPIRoot, static_cast<int>(FItems.size())});
    return FItems.back();
}

std::vector<TVTLBIAPIClient*> TVTLBIAPIClient::RegisteredClients() {
    std::lock_guard lock(RegistryLock());
    return Registry();
}

std::map<std::string, TPublishedAPIMethod> CollectPublishedAPIMethods() {
    std::map<std::string, TPublishedAPIMethod> result;
    for (TVTLBIAPIClient* client : TVTLBIAPIClient::RegisteredClients()) {
        if (!client->OnGetAPIService) continue;
        for (const auto& item : client->Items()) {
            TRestServiceClass cls;
            TInterfaceTypeList intfs;
            client->OnGetAPIService(client, item, cls, intfs);
            if (!cls) continue;
            for (const TAPIInterfaceType* intf : intfs)
                for (const auto& m : intf->Methods)
                    result["/" + item.APIRoot + "/" + intf->Name + "/" + m.Name] = {item, intf, &m,
                                                                                    cls};
        }
    }
    return result;
}

// ---- Calls

namespace {

// Skips a JSON string starting at the quote at APos; answers the position after it.
std::size_t SkipString(const std::string& s, std::size_t pos) {
    for (++pos; pos < s.size(); ++pos) {
        if (s[pos] == '\\') {
            ++pos;
        } else if (s[pos] == '"') {
            return pos + 1;
        }
    }
    return pos;
}

std::size_t SkipSpace(const std::string& s, std::size_t pos) {
    while (pos < s.size() && (s[pos] == ' ' || s[pos] == '\t' || s[pos] == '\n' || s[pos] == '\r'))
        ++pos;
    return pos;
}

// Skips one JSON value (already known to be valid) starting at APos.
std::size_t SkipValue(const std::string& s, std::size_t pos) {
    if (s[pos] == '"') return SkipString(s, pos);
    if (s[pos] == '{' || s[pos] == '[') {
        int depth = 0;
        while (pos < s.size()) {
            const char c = s[pos];
            if (c == '"') {
                pos = SkipString(s, pos);
                continue;
            }
            if (c == '{' || c == '[') ++depth;
            if (c == '}' || c == ']') {
                if (--depth == 0) return pos + 1;
            }
            ++pos;
        }
        return pos;
    }
    while (pos < s.size() && s[pos] != ',' && s[pos] != '}' && s[pos] != ']' && s[pos] != ' ' &&
           s[pos] != '\t' && s[pos] != '\n' && s[pos] != '\r')
        ++pos;
    return pos;
}

}  // namespace

std::vector<std::pair<std::string, std::string>> SplitJsonObjectMembers(const std::string& AText) {
    if (!IsValidJsonText(AText))
        throw EVTLRestServiceError(400, "The request body is not valid JSON");
    std::size_t pos = SkipSpace(AText, 0);
    if (pos >= AText.size() || AText[pos] != '{')
        throw EVTLRestServiceError(400, "The request body must be a JSON object");
    std::vector<std::pair<std::string, std::string>> members;
    pos = SkipSpace(AText, pos + 1);
    while (pos < AText.size() && AText[pos] != '}') {
        const std::size_t keyEnd = SkipString(AText, pos);
        std::string key = TJsonObject::parse(AText.substr(pos, keyEnd - pos)).get<std::string>();
        pos = SkipSpace(AText, keyEnd);
        pos = SkipSpace(AText, pos + 1);  // the colon
        const std::size_t valueEnd = SkipValue(AText, pos);
        members.emplace_back(std::move(key), AText.substr(pos, valueEnd - pos));
        pos = SkipSpace(AText, valueEnd);
        if (pos < AText.size() && AText[pos] == ',') pos = SkipSpace(AText, pos + 1);
    }
    return members;
}

std::string InvokePublishedAPIMethod(const TPublishedAPIMethod& AMethod, const std::string& ABody,
                                     TVTLCustomRestService& AService) {
    const auto members = SplitJsonObjectMembers(
        ABody.find_first_not_of(" \t\r\n") == std::string::npos ? "{}" : ABody);
    TAPICallArgs args;
    for (const TAPIParam& p : AMethod.Method->Params) {
        if (p.Out) continue;
        auto it = std::find_if(members.begin(), members.end(),
                               [&](const auto& m) { return m.first == p.Name; });
        switch (p.Kind) {
            case TAPIParamKind::pkRawJSON:
                args.Set(p.Name, it == members.end() ? std::string() : it->second);
                continue;
            case TAPIParamKind::pkString:
                args.Set(p.Name, std::string());
                break;
            case TAPIParamKind::pkInt64:
                args.Set(p.Name, std::int64_t{0});
                break;
            case TAPIParamKind::pkBoolean:
                args.Set(p.Name, false);
                break;
        }
        if (it == members.end()) continue;
        const TJsonObject v = TJsonObject::parse(it->second);
        if (v.is_null()) continue;
        const bool ok = (p.Kind == TAPIParamKind::pkString && v.is_string()) ||
                        (p.Kind == TAPIParamKind::pkInt64 && v.is_number_integer()) ||
                        (p.Kind == TAPIParamKind::pkBoolean && v.is_boolean());
        if (!ok) throw EVTLRestServiceError(400, "Parameter \"" + p.Name + "\" has a wrong type");
        if (p.Kind == TAPIParamKind::pkString) args.Set(p.Name, v.get<std::string>());
        if (p.Kind == TAPIParamKind::pkInt64) args.Set(p.Name, v.get<std::int64_t>());
        if (p.Kind == TAPIParamKind::pkBoolean) args.Set(p.Name, v.get<bool>());
    }
    // RawJSON answers (document chunks of megabytes) are written into pooled memory.
    for (const TAPIParam& p : AMethod.Method->Params)
        if (p.Out && p.Kind == TAPIParamKind::pkRawJSON) args.Set(p.Name, TakeLargeBuffer());
    AMethod.Method->Invoke(AService, args);

    // The answer is written by hand so that RawJSON texts go out exactly as the service made them.
    // Its size is known before the first byte, so the text is copied once.
    std::size_t size = 2;
    for (const TAPIParam& p : AMethod.Method->Params)
        if (p.Out)
            size += p.Name.size() + 8 +
                    (p.Kind == TAPIParamKind::pkRawJSON || p.Kind == TAPIParamKind::pkString
                         ? args.Str(p.Name).size() + 2
                         : 24);
    std::string out = TakeLargeBuffer(size);
    out += '{';
    for (const TAPIParam& p : AMethod.Method->Params) {
        if (!p.Out) continue;
        if (out.size() > 1) out += ',';
        out += TJsonObject(p.Name).dump();
        out += ':';
        switch (p.Kind) {
            case TAPIParamKind::pkString:
                out += TJsonObject(args.Str(p.Name)).dump();
                break;
            case TAPIParamKind::pkInt64:
                out += std::to_string(args.Int(p.Name));
                break;
            case TAPIParamKind::pkBoolean:
                out += args.Bool(p.Name) ? "true" : "false";
                break;
            case TAPIParamKind::pkRawJSON: {
                std::string& raw = args.OutRaw(p.Name);
                if (raw.empty()) {
                    out += "null";
                } else if (IsValidJsonText(raw)) {
                    out += raw;
                } else {
                    throw EVTLRestServiceError(
                        500, "The service answered invalid JSON in \"" + p.Name + "\"");
                }
                GiveLargeBuffer(std::move(raw));
                break;
            }
        }
    }
    out += '}';
    return out;
}

}  // namespace docadmin
