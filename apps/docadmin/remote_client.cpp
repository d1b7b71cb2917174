#include "remote_client.h"

#include <curl/curl.h>

#include <algorithm>
#include <array>
#include <cctype>
#include <cstring>
#include <future>
#include <mutex>
#include <string_view>
#include <thread>

#include "_Tools.h"

namespace docadmin::app {

namespace {

constexpr const char* kDocumentStorePath = "/services/IDocumentStore/";

void GlobalCurlInit() {
    static std::once_flag once;
    std::call_once(once, [] { curl_global_init(CURL_GLOBAL_DEFAULT); });
}

std::size_t AppendBody(char* AData, std::size_t ASize, std::size_t ACount, void* AUser) {
    static_cast<std::string*>(AUser)->append(AData, ASize * ACount);
    return ASize * ACount;
}

// Room for the whole body once its length is known, so that a chunk of megabytes is not copied
// over and over while it grows.
std::size_t ReserveBody(char* AData, std::size_t ASize, std::size_t ACount, void* AUser) {
    const std::string_view line(AData, ASize * ACount);
    constexpr std::string_view key = "content-length:";
    if (line.size() > key.size() &&
        std::equal(key.begin(), key.end(), line.begin(), [](char a, char b) {
            return a == std::tolower(static_cast<unsigned char>(b));
        })) {
        std::int64_t n = 0;
        std::string digits(line.substr(key.size()));
        while (!digits.empty() && std::isspace(static_cast<unsigned char>(digits.back())))
            digits.pop_back();
        while (!digits.empty() && std::isspace(static_cast<unsigned char>(digits.front())))
            digits.erase(0, 1);
        if (TryStrToInt64(digits, n) && n > 0 && n < (std::int64_t{1} << 31))
            static_cast<std::string*>(AUser)->reserve(static_cast<std::size_t>(n));
    }
    return ASize * ACount;
}

std::size_t SkipSpace(const std::string& s, std::size_t pos) {
    while (pos < s.size() && (s[pos] == ' ' || s[pos] == '\t' || s[pos] == '\n' || s[pos] == '\r'))
        ++pos;
    return pos;
}

}  // namespace

std::string ServerErrorMessage(const std::string& ABody) {
    try {
        const TJson j = TJson::parse(ABody);
        const TJson* e = nullptr;
        if (j.contains("error")) e = &j["error"];
        if (!e && j.contains("ResultInfo") && j["ResultInfo"].is_object() &&
            j["ResultInfo"].contains("error"))
            e = &j["ResultInfo"]["error"];
        if (e && e->is_object() && e->contains("message") && (*e)["message"].is_string())
            return (*e)["message"].get<std::string>();
    } catch (const std::exception&) {
    }
    return ABody.size() > 200 ? ABody.substr(0, 200) + "..." : ABody;
}

TJson SplitChunkAnswer(std::string& ABody, std::string& ABytes) {
    ABytes.clear();
    // Cut the content string out; Base64 holds no quote or backslash, so its end is the next
    // quote. The parse below confirms that the cut was at ResultInfo's "content".
    bool cut = false;
    const std::size_t info = ABody.find("\"ResultInfo\"");
    std::size_t key = info == std::string::npos ? info : ABody.find("\"content\"", info);
    auto decode = [&](const char* AText, std::size_t ALength) {
        try {
            Base64DecodeStrict(AText, ALength, ABytes);
        } catch (const EConvertError& e) {
            throw ERemoteError(0, std::string("The chunk's content is damaged: ") + e.what());
        }
    };
    if (key != std::string::npos) {
        std::size_t p = SkipSpace(ABody, key + 9);
        if (p < ABody.size() && ABody[p] == ':') {
            p = SkipSpace(ABody, p + 1);
            if (p < ABody.size() && ABody[p] == '"') {
                const std::size_t end = ABody.find('"', p + 1);
                if (end != std::string::npos &&
                    std::memchr(ABody.data() + p + 1, '\\', end - p - 1) == nullptr) {
                    decode(ABody.data() + p + 1, end - p - 1);
                    ABody.erase(p + 1, end - p - 1);
                    cut = true;
                }
            }
        }
    }
    TJson j;
    try {
        j = TJson::parse(ABody);
    } catch (const std::exception&) {
        throw ERemoteError(0, "The server's answer is not valid JSON");
    }
    if (!j.is_object() || !j.contains("MethodResult") || !j["MethodResult"].is_boolean() ||
        !j.contains("ResultInfo") || !j["ResultInfo"].is_object())
        throw ERemoteError(0, "The server's answer is not a service answer");
    TJson& r = j["ResultInfo"];
    if (r.contains("content")) {
        if (!r["content"].is_string()) throw ERemoteError(0, "The chunk's content is no text");
        const std::string& text = r["content"].get_ref<const std::string&>();
        if (!cut || !text.empty()) decode(text.data(), text.size());  // the cut missed
        r.erase("content");
    } else if (cut) {
        throw ERemoteError(0, "The server's answer is not a chunk");
    }
    return j;
}

struct TRemoteClient::TImpl {
    CURL* Curl = nullptr;
    CURL* Ahead = nullptr;  // the request for the next chunk, on a thread of its own
    ~TImpl() {
        if (Curl) curl_easy_cleanup(Curl);
        if (Ahead) curl_easy_cleanup(Ahead);
    }
};

TRemoteClient::TRemoteClient(std::string ABaseURL, TRemoteClientOptions AOptions)
    : FImpl(std::make_unique<TImpl>()), FBaseURL(std::move(ABaseURL)), FOptions(AOptions) {
    while (!FBaseURL.empty() && FBaseURL.back() == '/')
        FBaseURL.pop_back();
    if (FBaseURL.rfind("http://", 0) != 0 && FBaseURL.rfind("https://", 0) != 0)
        throw ERemoteError(0, "The server URL must start with http:// or https://");
    GlobalCurlInit();
    FImpl->Curl = curl_easy_init();
    FImpl->Ahead = curl_easy_init();
    if (!FImpl->Curl || !FImpl->Ahead) throw ERemoteError(0, "libcurl could not be set up");
}

TRemoteClient::~TRemoteClient() = default;

TRemoteClient::TAnswer TRemoteClient::Send(const std::string& AMethod, const std::string& APath,
                                           const std::string& ABody, std::string* ABuffer,
                                           bool AAhead) {
    CURL* c = AAhead ? FImpl->Ahead : FImpl->Curl;
    curl_easy_reset(c);
    TAnswer a;
    if (ABuffer) {
        a.Body = std::move(*ABuffer);
        a.Body.clear();
    }
    const std::string url = FBaseURL + APath;
    curl_easy_setopt(c, CURLOPT_URL, url.c_str());
    curl_easy_setopt(c, CURLOPT_CUSTOMREQUEST, AMethod.c_str());
    curl_easy_setopt(c, CURLOPT_POSTFIELDS, ABody.data());
    curl_easy_setopt(c, CURLOPT_POSTFIELDSIZE_LARGE, static_cast<curl_off_t>(ABody.size()));
    curl_easy_setopt(c, CURLOPT_WRITEFUNCTION, AppendBody);
    curl_easy_setopt(c, CURLOPT_WRITEDATA, &a.Body);
    curl_easy_setopt(c, CURLOPT_HEADERFUNCTION, ReserveBody);
    curl_easy_setopt(c, CURLOPT_HEADERDATA, &a.Body);
    curl_easy_setopt(c, CURLOPT_NOSIGNAL, 1L);
    curl_easy_setopt(c, CURLOPT_BUFFERSIZE, 256L * 1024);  // fewer, larger pieces of big chunks
    curl_easy_setopt(c, CURLOPT_CONNECTTIMEOUT_MS,
                     static_cast<long>(FOptions.ConnectTimeout.count()));
    curl_easy_setopt(c, CURLOPT_LOW_SPEED_LIMIT, 1L);
    curl_easy_setopt(c, CURLOPT_LOW_SPEED_TIME, static_cast<long>(FOptions.StallTimeout.count()));
    curl_easy_setopt(c, CURLOPT_PROTOCOLS_STR, "http,https");
    if (FOptions.Insecure) {
        curl_easy_setopt(c, CURLOPT_SSL_VERIFYPEER, 0L);
        curl_easy_setopt(c, CURLOPT_SSL_VERIFYHOST, 0L);
    }
    curl_slist* headers = curl_slist_append(nullptr, "Content-Type: application/json");
    headers = curl_slist_append(headers, "Expect:");  // no 100-continue round for large bodies
    if (!FToken.empty())
        headers = curl_slist_append(headers, ("Authorization: Bearer " + FToken).c_str());
    curl_easy_setopt(c, CURLOPT_HTTPHEADER, headers);
    const CURLcode rc = curl_easy_perform(c);
    curl_slist_free_all(headers);
    if (rc != CURLE_OK)
        throw ERemoteError(
            0, std::string("No answer from ") + FBaseURL + ": " + curl_easy_strerror(rc));
    curl_easy_getinfo(c, CURLINFO_RESPONSE_CODE, &a.Status);
    return a;
}

void TRemoteClient::Login(const std::string& AUser, const std::string& APassword) {
    FToken.clear();
    const TJson body = {{"user", AUser}, {"password", APassword}, {"session_type", 1}};
    const TAnswer a = Send("POST", "/login", body.dump());
    if (a.Status == 401) throw ERemoteError(401, "Wrong user name or password");
    if (a.Status != 200)
        throw ERemoteError(
            static_cast<int>(a.Status),
            "Login refused (" + std::to_string(a.Status) + "): " + ServerErrorMessage(a.Body));
    try {
        FToken = TJson::parse(a.Body).at("session").get<std::string>();
    } catch (const std::exception&) {
        throw ERemoteError(0, "The server's login answer holds no session");
    }
    FUser = AUser;
    FPassword = APassword;
}

void TRemoteClient::Logout() {
    if (FToken.empty()) return;
    try {
        Send("POST", "/logout", "");
    } catch (const std::exception&) {
    }
    FToken.clear();
}

TRemoteClient::TAnswer TRemoteClient::SendInSession(const std::string& AMethod,
                                                    const std::string& APath,
                                                    const std::string& ABody,
                                                    std::string* ABuffer) {
    TAnswer a = Send(AMethod, APath, ABody, ABuffer);
    if (a.Status == 401 && !FUser.empty()) {
        // The session ended on the server; a new one with the same credentials.
        try {
            Login(FUser, FPassword);
        } catch (const ERemoteError& e) {
            throw ERemoteError(
                401, "The session expired, and a new login failed: " + std::string(e.what()));
        }
        a = Send(AMethod, APath, ABody, &a.Body);
        if (a.Status == 401)
            throw ERemoteError(401, "The session expired: " + ServerErrorMessage(a.Body));
    }
    if (a.Status >= 400)
        throw ERemoteError(
            static_cast<int>(a.Status),
            "The server answered " + std::to_string(a.Status) + ": " + ServerErrorMessage(a.Body));
    return a;
}

namespace {

// The ResultInfo of a service answer, or its error raised.
TJson ServiceResult(TJson AAnswer) {
    TJson& info = AAnswer["ResultInfo"];
    if (AAnswer.value("MethodResult", false)) return std::move(info);
    int status = 500;
    std::string message = "The service failed without a message";
    if (info.is_object() && info.contains("error") && info["error"].is_object()) {
        const TJson& e = info["error"];
        if (e.contains("status") && e["status"].is_number_integer())
            status = e["status"].get<int>();
        if (e.contains("message") && e["message"].is_string())
            message = e["message"].get<std::string>();
    }
    throw ERemoteError(status, message + " (" + std::to_string(status) + ")");
}

}  // namespace

TJson TRemoteClient::CallDocumentStore(const std::string& AMethod, const TJson& AParams) {
    TAnswer a;
    try {
        a = SendInSession("POST", kDocumentStorePath + AMethod, AParams.dump());
    } catch (const ERemoteError& e) {
        // The server's answer to a route it doesn't have.
        if (e.Status() == 404)
            throw ERemoteError(
                404, "The server publishes no documents service (" + std::string(e.what()) + ")");
        throw;
    }
    TJson j;
    try {
        j = TJson::parse(a.Body);
    } catch (const std::exception&) {
        throw ERemoteError(0, "The server's answer is not valid JSON");
    }
    if (!j.is_object() || !j.contains("MethodResult"))
        throw ERemoteError(0, "The server's answer is not a service answer");
    return ServiceResult(std::move(j));
}

TJson TRemoteClient::ListRecordDocuments(const std::string& AStorageUID,
                                         const std::string& ASchemaName,
                                         const std::string& ARecordUID) {
    return CallDocumentStore(
        "QueryRecordResourceList",
        {{"StorageUID", AStorageUID}, {"SchemaName", ASchemaName}, {"RecordUID", ARecordUID}});
}

TJson TRemoteClient::InsertRecordDocuments(const std::string& ASchemaName,
                                           const std::string& ARecordUID, const TJson& AInsert) {
    const TJson body = {{"record_documents", {{"insert", AInsert}}}};
    TAnswer a;
    try {
        a = SendInSession("PUT", "/records/" + ASchemaName + "/" + ARecordUID, body.dump());
    } catch (const ERemoteError& e) {
        // The record service names a field it doesn't know; here that is the missing detail.
        if (e.Status() == 400 &&
            std::string(e.what()).find("\"record_documents\"") != std::string::npos)
            throw ERemoteError(501,
                               "The server takes no documents with records (its record "
                               "service has no \"record_documents\" detail)");
        throw;
    }
    try {
        return TJson::parse(a.Body);
    } catch (const std::exception&) {
        throw ERemoteError(0, "The server's answer is not valid JSON");
    }
}

std::string TRemoteClient::ChunkRequest(const TDownloadRequest& ARequest, std::int64_t APosition,
                                        std::string& AMethod) {
    TJson params;
    if (!ARequest.DocumentUID.empty()) {
        AMethod = "DownloadDocument";
        params["DocumentUID"] = ARequest.DocumentUID;
    } else {
        AMethod = "DownloadRecordDocument";
        params["StorageUID"] = ARequest.StorageUID;
        params["SchemaName"] = ARequest.SchemaName;
        params["RecordUID"] = ARequest.RecordUID;
        params["ServerDBID"] = ARequest.ServerDBID;
    }
    params["Chunk"] = {{"position", APosition}, {"size", ARequest.ChunkSize}};
    if (!ARequest.Format.empty()) {
        AMethod += "Ex";
        params["Options"] = {{"format", ARequest.Format}};
    }
    return params.dump();
}

void TRemoteClient::FetchChunk(const TDownloadRequest& ARequest, std::int64_t APosition,
                               TJson& AInfo, std::string& ABytes) {
    std::string method;
    const std::string body = ChunkRequest(ARequest, APosition, method);
    // The answer's text and the decoded bytes keep their buffers from chunk to chunk.
    TAnswer a = SendInSession("POST", kDocumentStorePath + method, body, &FChunkBody);
    TFinally keep{[&] { FChunkBody = std::move(a.Body); }};
    ReadChunkAnswer(ARequest, APosition, a, AInfo, ABytes);
}

std::future<TRemoteClient::TAnswer> TRemoteClient::FetchAhead(const TDownloadRequest& ARequest,
                                                              std::int64_t APosition) {
    std::string method;
    std::string body = ChunkRequest(ARequest, APosition, method);
    return std::async(std::launch::async,
                      [this, path = kDocumentStorePath + method, body = std::move(body)] {
                          return Send("POST", path, body, &FAheadBody, true);
                      });
}

void TRemoteClient::ReadChunkAnswer(const TDownloadRequest& ARequest, std::int64_t APosition,
                                    TAnswer& AAnswer, TJson& AInfo, std::string& ABytes) {
    if (AAnswer.Status >= 400)
        throw ERemoteError(static_cast<int>(AAnswer.Status),
                           "The server answered " + std::to_string(AAnswer.Status) + ": " +
                               ServerErrorMessage(AAnswer.Body));
    AInfo = ServiceResult(SplitChunkAnswer(AAnswer.Body, ABytes));
    // The server reports the position before its read; another one means it read elsewhere.
    const TJson chunk = AInfo.value("chunk", TJson::object());
    if (!chunk.contains("position") || !chunk["position"].is_number_integer() ||
        chunk["position"].get<std::int64_t>() != APosition)
        throw ERemoteError(0, "The server read the chunk from another position");
    if (static_cast<std::int64_t>(ABytes.size()) > ARequest.ChunkSize)
        throw ERemoteError(0, "The server sent more than the chunk size");
}

TDownloadResult TRemoteClient::Download(const TDownloadRequest& ARequest, TDownloadSink& ASink,
                                        const TDownloadProgress& AProgress) {
    if (ARequest.ChunkSize < 1) throw ERemoteError(0, "The chunk size must be at least 1");
    TDownloadResult result;
    // A converted document has another size than the listed one.
    const std::int64_t expected = ARequest.Format.empty() ? ARequest.ExpectedSize : -1;
    const auto start = std::chrono::steady_clock::now();
    std::int64_t position = 0;
    // Failures since the download last got further than ever before: a converted download that
    // starts again from 0 doesn't earn fresh attempts by repeating chunks it had already.
    int failures = 0;
    std::int64_t furthest = 0;
    std::string bytes;
    // While a chunk is decoded and written, the next one is already asked for: the server works on
    // it meanwhile (a session's requests run one after the other, so the two never mix). Only a
    // chunk that the listed size says exists is asked for ahead; a request past the end would make
    // the server fetch the document from its store again.
    std::future<TAnswer> ahead;
    std::int64_t aheadPosition = -1;
    TFinally settle{[&] {
        if (ahead.valid()) ahead.wait();
    }};
    for (;;) {
        TJson info;
        try {
            bool done = false;
            if (ahead.valid()) {
                TAnswer a = ahead.get();
                TFinally keep{[&] { FAheadBody = std::move(a.Body); }};
                // A session that ended meanwhile, or any other failure, goes the usual way below.
                if (aheadPosition == position && a.Status != 0 && a.Status != 401) {
                    ReadChunkAnswer(ARequest, position, a, info, bytes);
                    done = true;
                }
            }
            if (!done) FetchChunk(ARequest, position, info, bytes);
            const std::int64_t next = position + static_cast<std::int64_t>(bytes.size());
            if (expected >= 0 && static_cast<std::int64_t>(bytes.size()) == ARequest.ChunkSize &&
                next < expected) {
                aheadPosition = next;
                ahead = FetchAhead(ARequest, next);
            }
        } catch (const ERemoteError& e) {
            if (!e.Transient() || failures >= FOptions.Retries) {
                if (failures > 0)
                    throw ERemoteError(e.Status(), std::string(e.what()) + " (after " +
                                                       std::to_string(failures) + " retries)");
                throw;
            }
            const auto delay = std::min<std::chrono::milliseconds>(
                FOptions.RetryDelay * (1LL << std::min(failures, 20)), FOptions.RetryDelayMax);
            ++failures;
            ++result.Retries;
            std::this_thread::sleep_for(delay);
            if (!ARequest.Format.empty() && position > 0) {
                position = 0;
                ASink.Restart();
            }
            continue;
        }
        if (position + static_cast<std::int64_t>(bytes.size()) > furthest) {
            failures = 0;
            furthest = position + static_cast<std::int64_t>(bytes.size());
        }
        // Not worth a retry: the document changed since it was listed.
        if (expected >= 0 && position + static_cast<std::int64_t>(bytes.size()) > expected)
            throw Exception("The document is larger than listed (" + std::to_string(expected) +
                            " bytes); it may have changed on the server");
        if (position == 0) {
            result.FirstChunk = std::chrono::steady_clock::now() - start;
            result.Name = info.value("name", "");
            result.Converted = info.value("converted", false);
        }
        ASink.Write(bytes);
        position += static_cast<std::int64_t>(bytes.size());
        if (AProgress) AProgress(position, expected);
        // The end: fewer bytes than asked for, or the listed size reached (a file of whole
        // chunks then needs no empty last call, which would fetch it from the store again).
        if (static_cast<std::int64_t>(bytes.size()) < ARequest.ChunkSize || position == expected)
            break;
    }
    if (expected >= 0 && position != expected)
        throw Exception("The download ended after " + std::to_string(position) +
                        " bytes; the document has " + std::to_string(expected));
    result.Bytes = position;
    result.Duration = std::chrono::steady_clock::now() - start;
    return result;
}

}  // namespace docadmin::app
