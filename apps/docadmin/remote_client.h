// TRemoteClient: a client of a running docadmin server over its REST API (libcurl).
//
// It logs in with a user name and password (POST /login) and then calls, with the session's
// bearer token, the documents service (POST /services/IDocumentStore/<Method>) and the record
// service (PUT /records/<schema>/<record UID>). A session that the server has ended (idle
// timeout, restart) is opened again once with the same credentials, and the call repeated.
//
// Failures raise ERemoteError with the HTTP status (0 for a transport failure) and the server's
// message. A service method answers HTTP 200 with "MethodResult" false and the error in
// "ResultInfo"; that is raised as the status the error carries.
//
// Download pages through a document in chunks. Every chunk request states its position, so a
// chunk that fails (transport, 5xx, a garbled answer) is asked for again from the last good
// position, after a pause that doubles each time, up to Retries times in a row. A converted
// download starts again from position 0 instead: the server converts anew when its copy has
// ended, and the new copy need not be byte for byte the old one.
//
// One object serves one thread.
#pragma once

#include <chrono>
#include <cstdint>
#include <functional>
#include <future>
#include <memory>
#include <string>

#include <nlohmann/json.hpp>

#include "_SysUtils.h"

namespace docadmin::app {

using TJson = nlohmann::ordered_json;

class ERemoteError : public Exception {
  public:
    ERemoteError(int AStatus, std::string AMessage)
        : Exception(std::move(AMessage)), FStatus(AStatus) {}
    // The HTTP status, or 0 when no answer came.
    int Status() const { return FStatus; }
    // Worth asking again: no answer, a garbled one, a timeout, a busy or failing server.
    bool Transient() const {
        return FStatus == 0 || FStatus == 408 || FStatus == 429 || FStatus >= 500;
    }

  private:
    int FStatus;
};

struct TRemoteClientOptions {
    std::chrono::milliseconds ConnectTimeout{10000};
    // A transfer slower than one byte a second for this long is given up.
    std::chrono::seconds StallTimeout{120};
    // Attempts after a failed chunk, in a row, before the download gives up.
    int Retries = 5;
    // The first pause before an attempt again; doubled each time, at most RetryDelayMax.
    std::chrono::milliseconds RetryDelay{250};
    std::chrono::milliseconds RetryDelayMax{4000};
    // Accept a server certificate that doesn't verify (https only).
    bool Insecure = false;
};

// Where a download goes. Write appends the next chunk's bytes; Restart drops all written so far.
class TDownloadSink {
  public:
    virtual ~TDownloadSink() = default;
    virtual void Write(const std::string& ABytes) = 0;
    virtual void Restart() = 0;
};

struct TDownloadRequest {
    // The record route (ServerDBID >= 0) or, with DocumentUID, the route by UID.
    std::string StorageUID;
    std::string SchemaName;
    std::string RecordUID;
    std::int64_t ServerDBID = -1;
    std::string DocumentUID;
    std::string Format;  // conversion target, e.g. ".pdf"; empty for none
    std::int64_t ChunkSize = 4 << 20;
    // The size the listing gave (-1 unknown); a download that ends elsewhere fails.
    std::int64_t ExpectedSize = -1;
};

struct TDownloadResult {
    std::string Name;  // the document's name as the server gave it (converted: new extension)
    std::int64_t Bytes = 0;
    bool Converted = false;
    int Retries = 0;  // chunks asked for again
    std::chrono::steady_clock::duration FirstChunk{};
    std::chrono::steady_clock::duration Duration{};  // first request to last byte written
};

// Progress of a download: bytes so far and the expected total (-1 unknown).
using TDownloadProgress = std::function<void(std::int64_t ADone, std::int64_t ATotal)>;

class TRemoteClient {
  public:
    // ABaseURL: "http://host:port" (a trailing slash is fine).
    explicit TRemoteClient(std::string ABaseURL, TRemoteClientOptions AOptions = {});
    ~TRemoteClient();
    TRemoteClient(const TRemoteClient&) = delete;
    TRemoteClient& operator=(const TRemoteClient&) = delete;

    // Opens a session; a wrong name or password raises ERemoteError 401.
    void Login(const std::string& AUser, const std::string& APassword);
    // Ends the session; failures are ignored.
    void Logout();

    // A documents service method: its ResultInfo when MethodResult is true.
    TJson CallDocumentStore(const std::string& AMethod, const TJson& AParams);
    // The record's tree as QueryRecordResourceList gives it.
    TJson ListRecordDocuments(const std::string& AStorageUID, const std::string& ASchemaName,
                              const std::string& ARecordUID);
    // Sends documents with the record (PUT with "record_documents"."insert"); the answer holds
    // "record_info". A server without the record documents detail raises ERemoteError 501.
    TJson InsertRecordDocuments(const std::string& ASchemaName, const std::string& ARecordUID,
                                const TJson& AInsert);
    TDownloadResult Download(const TDownloadRequest& ARequest, TDownloadSink& ASink,
                             const TDownloadProgress& AProgress = {});

    const TRemoteClientOptions& Options() const { return FOptions; }

  private:
    struct TAnswer {
        long Status = 0;
        std::string Body;
    };
    // One request; raises ERemoteError 0 when no answer came.
    // With ABuffer the answer's body reuses that string's memory. AAhead sends on the second
    // connection, which asks for the next chunk while the last one is being written.
    TAnswer Send(const std::string& AMethod, const std::string& APath, const std::string& ABody,
                 std::string* ABuffer = nullptr, bool AAhead = false);
    // Send in the session; an ended session is opened again once. Raises for any status >= 400.
    TAnswer SendInSession(const std::string& AMethod, const std::string& APath,
                          const std::string& ABody, std::string* ABuffer = nullptr);
    // One chunk: the decoded bytes into ABytes and the answer's fields (without "content").
    void FetchChunk(const TDownloadRequest& ARequest, std::int64_t APosition, TJson& AInfo,
                    std::string& ABytes);
    // The same request on the second connection, answered on a thread of its own.
    std::future<TAnswer> FetchAhead(const TDownloadRequest& ARequest, std::int64_t APosition);
    // A chunk request's body; AMethod gets the method's name.
    static std::string ChunkRequest(const TDownloadRequest& ARequest, std::int64_t APosition,
                                    std::string& AMethod);
    // Checks a chunk's answer and decodes it; raises ERemoteError as FetchChunk does.
    static void ReadChunkAnswer(const TDownloadRequest& ARequest, std::int64_t APosition,
                                TAnswer& AAnswer, TJson& AInfo, std::string& ABytes);

    struct TImpl;
    std::unique_ptr<TImpl> FImpl;
    std::string FBaseURL;
    TRemoteClientOptions FOptions;
    std::string FUser;
    std::string FPassword;
    std::string FToken;
    std::string FChunkBody;  // the last chunk's answer, kept for its memory
    std::string FAheadBody;  // the same for the chunks asked for ahead
};

// The "message" of the server's error form in a body, or the body itself (shortened).
std::string ServerErrorMessage(const std::string& ABody);

// Splits a service answer into ResultInfo without its "content" and the content's bytes, decoded
// into ABytes. The content string is decoded where it stands in the text and cut out before
// parsing, so a chunk of megabytes is not run through the JSON parser. Raises ERemoteError 0 for
// a body that isn't the expected form or damaged Base64; ABody loses the content text.
TJson SplitChunkAnswer(std::string& ABody, std::string& ABytes);

}  // namespace docadmin::app
