// The documents service over real HTTP, on SQLite and PostgreSQL: listing, chunked download on
// both routes, the session's cached root, conversion and the user's rights.
#include <gtest/gtest.h>

#include <atomic>
#include <filesystem>
#include <set>

#include "_DocFileLoaderChoice.h"
#include "_TDBDocAdmin.h"
#include "_TDBRecordFlagsPlugin.h"
#include "_TDocAdminObject.h"
#include "_TKRACLDataTableController.h"
#include "_TKRRecordSet.h"
#include "_TUniqueFolderCache.h"
#include "_TVTLRestAPICustomKRRecordSetServiceImpl.h"
#include "_Tools.h"
#include "_VTLDocumentsRestService.h"
#include "plugin_fixtures.h"

namespace docadmin::test {
namespace {

using json = nlohmann::ordered_json;

const std::string kStorage = "{A48847CA-33D3-4EB0-A586-E316EA2E5322}";
const std::string kRecord = "{0D0C5E41-0000-4000-8000-000000000001}";
const std::string kOtherRecord = "{0D0C5E41-0000-4000-8000-000000000002}";
const std::string kModuleGUID = "{DBAE1129-670F-45DA-8489-6D64A3429BBF}";
const std::string kDigits = "0123456789";

// The module's repository as the service meets it, counting tree loads.
class TCountingRepository : public IDocumentsServiceRepository {
  public:
    IPtr<IDirectoryRoot> GetDocAdminObject(const std::string& Plugin,
                                           const std::string& BaseDirectory, bool ALoad,
                                           const std::string& AResIdentifier, std::int64_t AResID,
                                           std::int64_t ADBATransactionID,
                                           TRecordFlagTypes ARecordFlagTypes, bool AAutoSave,
                                           bool AIsNewUniqueFolder) override {
        ++Loads;
        return FInner.GetDocAdminObject(Plugin, BaseDirectory, ALoad, AResIdentifier, AResID,
                                        ADBATransactionID, ARecordFlagTypes, AAutoSave,
                                        AIsNewUniqueFolder);
    }
    bool DownloadDocumentWithUID(const std::string& ADocumentUID, const std::string& ADest,
                                 std::string& ADocName, TDateTime& ACreateDate,
                                 TDateTime& ALastModifiedDate, bool AOffline) override {
        return FInner.DownloadDocumentWithUID(ADocumentUID, ADest, ADocName, ACreateDate,
                                              ALastModifiedDate, AOffline);
    }
    TKRFileHandlerClient* KRFileHandlerClient() override { return FInner.KRFileHandlerClient(); }

    std::atomic<int> Loads{0};

  private:
    IDocumentsServiceRepository& FInner = ModuleDocumentsServiceRepository();
};

struct TDoc {
    std::int64_t ID = 0;
    std::string UID, Name, Bytes, Remote;
};

struct TAnswer {
    bool Result = false;
    json Info;
    int Status() const { return Info.contains("error") ? Info["error"].value("status", 0) : 0; }
    std::string Content() const { return MIMEDecodeRawByteStr(Info.value("content", "")); }
};

class DocService : public ModuleRestTest {
  protected:
    void SetUp() override {
        // Temporary files (downloads, imports) go to a folder of the test's own, so that what
        // is left behind can be seen. Set before any thread of the host starts.
        FTemp = std::filesystem::temp_directory_path() /
                ("docsvc_tmp_" + std::to_string(::getpid()) + "_" +
                 std::to_string(reinterpret_cast<std::uintptr_t>(this)));
        std::filesystem::create_directories(FTemp);
        if (const char* t = std::getenv("TMPDIR")) FOldTemp = t;
        ::setenv("TMPDIR", FTemp.c_str(), 1);
        TRestServerFixture::SetUp();
        if (IsSkipped()) return;
        FSales = FHost->Users().AddACLGroup("sales", "");
        FHR = FHost->Users().AddACLGroup("hr", "");
        TUserInfo u;
        u.UserName = "dave";
        FDave = FHost->Users().AddUser(u, "password-1");
        u.UserName = "carol";
        u.ReadOnly = true;
        FCarol = FHost->Users().AddUser(u, "password-1");
        FHost->Users().SetUserACLMode(FAlice, FSales, uamFull);
        FHost->Users().SetUserACLMode(FCarol, FSales, uamReadOnly);
        FHost->Users().SetUserACLMode(FDave, FSales, uamReadOnly);
        FHost->Users().SetUserACLMode(FBob, FHR, uamFull);
        FModule = std::make_unique<TModuleRun>(FHost.get());
        BuildTree();
        SetDocumentsServiceRepository(&FRepository);
        TVTLCustomRestService::ServiceDataSettings().Clear();
        StartServer();
        FToken = Login("alice");
    }
    void TearDown() override {
        SetDocumentsServiceRepository(nullptr);
        TVTLCustomRestService::ServiceDataSettings().Clear();
        ModuleRestTest::TearDown();
        FOldTemp.empty() ? ::unsetenv("TMPDIR") : ::setenv("TMPDIR", FOldTemp.c_str(), 1);
        std::filesystem::remove_all(FTemp);
    }
    // The files in the temporary folder, beside the test's data folder (which is there too).
    std::vector<std::string> TempFiles() const {
        std::vector<std::string> r;
        for (const auto& f : std::filesystem::directory_iterator(FTemp))
            if (f.path() != FDir) r.push_back(f.path().filename().string());
        return r;
    }

    // The record's tree, written as alice (so that folders get her default group, none):
    //   root.txt, note.txt, gone.txt (its stored file removed), Letters/{a.txt, Old/old.txt},
    //   Sales (group sales)/s.txt, HR (group hr)/{h.txt, Sub (no group)/deep.txt}
    void BuildTree() {
        FHost->SetCurrentUser(FAlice);
        TFinally nobody{[this] { FHost->SetCurrentUser(0); }};
        TdmDocAdminRepository& repo = *TdmDocAdminRepository::Instance();
        auto admin = repo.CreateDocAdmin(kStorage, RecordBase(kRecord), false, "");
        admin->SetUniqueFolderCache(&repo.UniqueFolderCache());
        admin->SetUserAccess(nullptr);
        TDocDirectory* root = admin->Directories();
        ASSERT_EQ(root->ChildDirectoryCount(), 0);  // finds or makes the record's folder
        auto dir = [&](TDocDirectory* AParent, const std::string& AName, std::int64_t AGroup) {
            TDocDirectory* d = admin->AddDirectory(AParent, AName);
            d->SetACLGroupID(AGroup);
            return d;
        };
        TDocDirectory* letters = dir(root, "Letters", 0);
        TDocDirectory* sales = dir(root, "Sales", FSales);
        TDocDirectory* hr = dir(root, "HR", FHR);
        const std::vector<std::tuple<TDocDirectory*, std::string, std::string>> files = {
            {root, "root.txt", kDigits},
            {root, "note.txt", "A note to convert."},
            {root, "gone.txt", "lost"},
            {letters, "a.txt", "Dear Sir"},
            {dir(letters, "Old", 0), "old.txt", "old"},
            {sales, "s.txt", "sales figures"},
            {hr, "h.txt", "salaries"},
            {dir(hr, "Sub", 0), "deep.txt", "appraisals"}};
        for (const auto& [d, name, bytes] : files) {
            const std::string local = (FDir / name).string();
            SaveStrToFile(local, bytes, false);
            admin->SaveDoc(nullptr, chAdded, local, d, name, 0);
            FDocs[name] = {0, "", name, bytes, ""};
        }
        admin->SaveChanges();
        TKRRecordSet rs(nullptr, FHost->GetDBInterface());
        rs.SetSchemaName("docadmindocs");
        for (const char* f : {"docname", "globalrecuid", "fllocname"})
            rs.GetSelectFields()->Add(f);
        rs.Open();
        ASSERT_EQ(rs.GetRecordCount(), static_cast<int>(files.size()));
        for (int i = 0; i < rs.GetRecordCount(); ++i) {
            TDoc& doc = FDocs.at(rs.ValueByName(i, "docname").GetAsString());
            doc.ID = rs.GetDBIDByRecNo(i);
            doc.UID = rs.ValueByName(i, "globalrecuid").GetAsString();
            doc.Remote = rs.ValueByName(i, "fllocname").GetAsString();
        }
    }

    TAnswer Invoke(const std::string& AMethod, const json& ABody, const std::string& AToken = "") {
        // A conversion may take longer than the client's read timeout: keep waiting a while.
        TTestClient c(FServer->Port());
        auto a = c.Call("POST", "/services/IDocumentStore/" + AMethod, ABody.dump(),
                        AToken.empty() ? FToken : AToken);
        for (int i = 0; i < 12 && a.Status == 0; ++i)
            a = c.Read();
        EXPECT_EQ(a.Status, 200) << a.Body;
        const json j = json::parse(a.Body);
        return {j.value("MethodResult", false), j["ResultInfo"]};
    }
    json Record(const std::string& ARecord = kRecord, const std::string& ASchema = "contacts") {
        return {{"StorageUID", kStorage}, {"SchemaName", ASchema}, {"RecordUID", ARecord}};
    }
    // A download by UID or by the record and ID; with options the method's Ex form.
    TAnswer Download(bool AByUID, const std::string& ADoc, const std::string& AChunk = "",
                     const std::string& AToken = "", const std::string& AOptions = "") {
        json b = AByUID ? json{{"DocumentUID", FDocs.at(ADoc).UID}} : Record();
        if (!AByUID) b["ServerDBID"] = FDocs.at(ADoc).ID;
        if (!AChunk.empty()) b["Chunk"] = json::parse(AChunk);
        if (!AOptions.empty()) b["Options"] = json::parse(AOptions);
        return Invoke(std::string(AByUID ? "DownloadDocument" : "DownloadRecordDocument") +
                          (AOptions.empty() ? "" : "Ex"),
                      b, AToken);
    }
    template <class... A>
    TAnswer ByID(const A&... AArgs) {
        return Download(false, AArgs...);
    }
    template <class... A>
    TAnswer ByUID(const A&... AArgs) {
        return Download(true, AArgs...);
    }
    std::map<std::string, std::string> Tokens() {
        return {{"alice", FToken},
                {"bob", Login("bob")},
                {"carol", Login("carol")},
                {"dave", Login("dave")}};
    }
    static std::vector<std::string> Keys(const json& AObject) {
        std::vector<std::string> r;
        for (const auto& [k, v] : AObject.items())
            r.push_back(k);
        return r;
    }
    TAnswer List(const std::string& ARecord = kRecord, const std::string& AToken = "",
                 const std::string& ASchema = "contacts") {
        return Invoke("QueryRecordResourceList", Record(ARecord, ASchema), AToken);
    }
    // The names of every document of a listing.
    static std::set<std::string> Names(const json& AListing) {
        std::set<std::string> r;
        for (const auto& [uid, doc] : Places(AListing))
            r.insert(doc.second);
        return r;
    }

    // A record service call as a user (alice by default); the answer's body parsed.
    std::pair<int, json> Records(const std::string& AMethod, const std::string& ATarget,
                                 const json& ABody = nullptr, const std::string& AToken = "") {
        const THTTPAnswer a = Call(AMethod, ATarget, ABody.is_null() ? "" : ABody.dump(),
                                   AToken.empty() ? FToken : AToken);
        return {a.Status, a.Body.empty() ? json() : json::parse(a.Body)};
    }
    void AddContact(const std::string& ARecord) {
        EXPECT_EQ(Records("POST", "/records/contacts", {{"globalrecuid", ARecord}, {"name", "Doe"}})
                      .first,
                  201);
    }
    // Sends documents with an update of the record's row.
    std::pair<int, json> PutDocuments(const json& ASection, const std::string& AToken = "",
                                      const std::string& ARecord = kRecord) {
        return Records("PUT", "/records/contacts/" + ARecord,
                       {{"name", "Doe"}, {"record_documents", ASection}}, AToken);
    }
    // Every document of a listing by server_uid: its folder's name ("" for the root) and name.
    static std::map<std::string, std::pair<std::string, std::string>> Places(
        const json& ALevel, const std::string& AFolder = "") {
        std::map<std::string, std::pair<std::string, std::string>> r;
        for (const auto& d : ALevel.value("directories", json::array()))
            r.merge(Places(d, d["name"]));
        for (const auto& d : ALevel.value("documents", json::array()))
            r[d["server_uid"]] = {AFolder, d["name"]};
        return r;
    }
    std::string FetchByUID(const std::string& AUID) {
        const TAnswer a = Invoke("DownloadDocument", {{"DocumentUID", AUID}});
        EXPECT_TRUE(a.Result) << a.Info;
        return a.Content();
    }

    static std::string RecordBase(const std::string& ARecord) {
        return "\"contacts#Records\",\"" + ARecord + "\"";
    }

    std::filesystem::path FTemp;
    std::string FOldTemp;
    std::int64_t FSales = 0, FHR = 0, FCarol = 0, FDave = 0;
    std::map<std::string, TDoc> FDocs;
    TCountingRepository FRepository;
    std::string FToken;
};

TEST_P(DocService, ListingNestsDirectoriesBeforeDocumentsWithKeysInOrder) {
    const TAnswer a = List();
    ASSERT_TRUE(a.Result) << a.Info;
    EXPECT_EQ(Keys(a.Info), (std::vector<std::string>{"directories", "documents"}));
    const json& letters = a.Info["directories"][0];
    EXPECT_EQ(Keys(letters), (std::vector<std::string>{"server_dbid", "server_uid", "name",
                                                       "createdate", "directories", "documents"}));
    EXPECT_EQ(letters["name"], "Letters");
    EXPECT_EQ(letters["directories"][0]["name"], "Old");
    EXPECT_FALSE(letters["directories"][0].contains("directories"));  // only documents there

    // Documents in tree order; root.txt is one of them.
    json doc;
    for (const auto& d : a.Info["documents"])
        if (d["name"] == "root.txt") doc = d;
    EXPECT_EQ(Keys(doc), (std::vector<std::string>{"server_dbid", "server_uid", "name", "size",
                                                   "lastmodified", "createdate", "version"}));
    EXPECT_EQ(doc["server_dbid"], FDocs["root.txt"].ID);
    EXPECT_EQ(doc["server_uid"], FDocs["root.txt"].UID);
    EXPECT_EQ(doc["size"], 10);
    EXPECT_TRUE(doc["lastmodified"].is_string());
    EXPECT_EQ(doc["lastmodified"].get<std::string>().substr(4, 1), "-");
    EXPECT_EQ(doc["createdate"].get<std::string>().substr(10, 1), "T");

    // Filter and Pagination of any content, also malformed, change nothing.
    json b = Record();
    b["Filter"] = "{not json";
    b["Pagination"] = {{"limit", 1}};
    EXPECT_EQ(Invoke("QueryRecordResourceList", b).Info, a.Info);

    // A record without documents answers an empty object.
    const TAnswer empty = List(kOtherRecord);
    EXPECT_TRUE(empty.Result);
    EXPECT_EQ(empty.Info, json::object());
}

TEST_P(DocService, SessionKeepsOneRootAndReloadsOnlyWhenTheArgumentsChange) {
    const auto loads = [this] { return FRepository.Loads.load(); };
    ASSERT_TRUE(ByID("root.txt", R"({"size":1})").Result);
    ASSERT_TRUE(ByID("a.txt", R"({"size":1})").Result);
    EXPECT_EQ(loads(), 1);  // two downloads, one load

    // Other flag types for the table reload the tree.
    TVTLCustomRestService::ServiceDataSettings().Add({0, "contacts", AllConnectorSessionTypes, 1});
    ByID("root.txt", R"({"size":1})");
    EXPECT_EQ(loads(), 2);
    TVTLCustomRestService::ServiceDataSettings().Clear();

    // A listing always loads and leaves its root for the downloads that follow.
    ASSERT_TRUE(List().Result);
    ASSERT_TRUE(List().Result);
    EXPECT_EQ(loads(), 4);
    ASSERT_TRUE(ByID("root.txt", R"({"size":1})").Result);
    EXPECT_EQ(loads(), 4);

    // A listing of another record replaces the root; so does a failing unknown schema, which
    // gives up the cached root before it fails.
    ASSERT_TRUE(List(kOtherRecord).Result);
    ASSERT_TRUE(ByID("root.txt", R"({"size":1})").Result);
    EXPECT_EQ(loads(), 6);
    json b = Record(kRecord, "nosuchschema");
    b["ServerDBID"] = FDocs["root.txt"].ID;
    const TAnswer bad = Invoke("DownloadRecordDocument", b);
    EXPECT_FALSE(bad.Result);
    EXPECT_EQ(bad.Status(), 400);
    EXPECT_EQ(bad.Info["error"]["message"], "SchemaName \"nosuchschema\" not found");
    ASSERT_TRUE(ByID("root.txt", R"({"size":1})").Result);
    EXPECT_EQ(loads(), 7);

    // Once the module's shutdown has begun, a tree request is refused.
    SetDocumentsServiceRepository(nullptr);
    const TAnswer shutdown = List();
    EXPECT_FALSE(shutdown.Result);
    EXPECT_EQ(shutdown.Status(), 500);
    EXPECT_EQ(shutdown.Info["error"]["message"], "Service is in shutdown state!");
}

// One chunk call and what it must answer.
struct TChunkStep {
    const char* Chunk;
    std::int64_t Position, Size;
    const char* Content;
};
struct TChunkCase {
    const char* Name;
    std::vector<TChunkStep> Steps;
};

TEST_P(DocService, ChunkRulesOnBothRoutes) {
    // root.txt holds the ten digits. A step after an entry's end starts again at 0.
    const std::vector<TChunkCase> cases = {
        {"no chunk", {{"", 0, 10, "0123456789"}, {R"({"size":2})", 0, 2, "01"}}},
        {"size 0", {{R"({"size":0})", 0, 0, ""}, {R"({"size":3})", 0, 3, "012"}}},
        {"beyond end with size",
         {{R"({"position":20,"size":2})", 20, 2, ""},
          {R"({"size":2})", 20, 2, ""},
          {R"({"position":8})", 8, 2, "89"},
          {R"({"size":1})", 0, 1, "0"}}},
        {"beyond end without size",
         {{R"({"position":20})", 20, -10, ""}, {R"({"size":1})", 0, 1, "0"}}},
        {"negative position",
         {{R"({"size":4})", 0, 4, "0123"}, {R"({"position":-5,"size":2})", 4, 2, "45"}}},
        {"negative size",
         {{R"({"size":3})", 0, 3, "012"},
          {R"({"size":-7})", 3, 7, "3456789"},
          {R"({"size":1})", 0, 1, "0"}}},
        {"size beyond rest",
         {{R"({"position":7,"size":100})", 7, 100, "789"}, {R"({"size":1})", 0, 1, "0"}}},
        {"exact steps end the entry",
         {{R"({"size":5})", 0, 5, "01234"},
          {R"({"size":5})", 5, 5, "56789"},
          {R"({"size":5})", 0, 5, "01234"}}},
        {"chunk as a string", {{R"("{\"size\":2}")", 0, 2, "01"}, {R"({"size":2})", 2, 2, "23"}}},
    };
    for (const bool byUID : {false, true}) {
        for (const auto& c : cases) {
            for (const auto& s : c.Steps) {
                SCOPED_TRACE(std::string(c.Name) + (byUID ? " by UID " : " by ID ") + s.Chunk);
                const TAnswer a = Download(byUID, "root.txt", s.Chunk);
                ASSERT_TRUE(a.Result) << a.Info;
                EXPECT_EQ(a.Info["chunk"], (json{{"position", s.Position}, {"size", s.Size}}));
                EXPECT_EQ(a.Content(), s.Content);
                EXPECT_EQ(a.Info["content--encoding"], "Base64");
            }
            Download(byUID, "root.txt");  // reads the rest: the entry ends
        }
    }
}

TEST_P(DocService, ResultKeysEntriesPerRouteAndFailedFetches) {
    EXPECT_EQ(Keys(ByID("root.txt", R"({"size":2})").Info),
              (std::vector<std::string>{"chunk", "server_dbid", "name", "converted", "content",
                                        "content--encoding"}));
    const TAnswer uid = ByUID("root.txt", R"({"size":2})");
    EXPECT_EQ(Keys(uid.Info),
              (std::vector<std::string>{"chunk", "server_uid", "name", "lastmodified", "createdate",
                                        "converted", "content", "content--encoding"}));
    EXPECT_EQ(uid.Info["chunk"]["position"], 0);  // its own entry, not the one by ID
    EXPECT_EQ(ByID("root.txt", R"({"size":2})").Info["chunk"]["position"], 2);
    EXPECT_EQ(ByUID("root.txt", R"({"size":2})").Info["chunk"]["position"], 2);
    EXPECT_EQ(uid.Info["name"], "root.txt");

    // A "format" on a later chunk changes nothing.
    const TAnswer later = ByID("root.txt", R"({"size":2})", "", R"({"format":".pdf"})");
    EXPECT_EQ(later.Content(), "45");
    EXPECT_FALSE(later.Info["converted"].get<bool>());

    // Options that aren't an object fail in the shell.
    const TAnswer badOptions = ByUID("a.txt", "", "", "[1]");
    EXPECT_FALSE(badOptions.Result);
    EXPECT_EQ(badOptions.Status(), 400);

    // The stored file of gone.txt is lost. The record route keeps its entry, which answers the
    // failure once more (never the empty file as the document) and then goes, so that the next
    // call fetches afresh; the UID route keeps no entry.
    std::vector<std::pair<std::filesystem::path, std::string>> lost;
    for (const auto& f : std::filesystem::recursive_directory_iterator(FDir))
        if (f.path().filename().string().rfind(FDocs["gone.txt"].Remote, 0) == 0)
            lost.emplace_back(f.path(), ReadText(f.path()));
    ASSERT_FALSE(lost.empty());
    for (const auto& [path, bytes] : lost)
        std::filesystem::remove(path);
    const TAnswer failed = ByID("gone.txt", R"({"size":2})");
    EXPECT_FALSE(failed.Result);
    const TAnswer again = ByID("gone.txt", R"({"size":2})");
    EXPECT_FALSE(again.Result);
    EXPECT_EQ(again.Info, failed.Info);
    EXPECT_FALSE(ByUID("gone.txt").Result);
    for (const auto& [path, bytes] : lost)
        WriteText(path, bytes);
    EXPECT_EQ(ByID("gone.txt").Content(), "lost");
    EXPECT_EQ(ByUID("gone.txt").Content(), "lost");
}

TEST_P(DocService, ConversionAndItsFailure) {
    if (GetParam() != "sqlite") GTEST_SKIP() << "conversion doesn't depend on the database";
    const TAnswer pdf = ByID("note.txt", "", "", R"({"format":".pdf"})");
    ASSERT_TRUE(pdf.Result) << pdf.Info;
    EXPECT_TRUE(pdf.Info["converted"].get<bool>());
    EXPECT_EQ(pdf.Info["name"], "note.pdf");
    EXPECT_EQ(pdf.Content().substr(0, 5), "%PDF-");

    for (const bool byUID : {false, true}) {
        const TAnswer a = Download(byUID, "note.txt", "", "", R"({"format":".nosuchformat"})");
        ASSERT_TRUE(a.Result) << a.Info;
        EXPECT_FALSE(a.Info["converted"].get<bool>());
        EXPECT_EQ(a.Info["name"], "note.txt");
        EXPECT_EQ(a.Content(), FDocs["note.txt"].Bytes);
    }
}

TEST_P(DocService, UsersSeeAndFetchOnlyWhatTheirGroupsAllow) {
    const auto tokens = Tokens();
    const std::set<std::string> everyone = {"root.txt", "note.txt", "gone.txt", "a.txt", "old.txt"};
    const std::map<std::string, std::set<std::string>> extra = {{"alice", {"s.txt"}},
                                                                {"bob", {"h.txt", "deep.txt"}},
                                                                {"carol", {"s.txt"}},
                                                                {"dave", {"s.txt"}}};
    for (const auto& [user, token] : tokens) {
        SCOPED_TRACE(user);
        std::set<std::string> expected = everyone;
        expected.insert(extra.at(user).begin(), extra.at(user).end());
        EXPECT_EQ(Names(List(kRecord, token).Info), expected);
        for (const std::string doc : {"root.txt", "s.txt", "h.txt", "deep.txt"}) {
            // Each download method: by ID and by UID, plain and with options.
            for (const int method : {0, 1, 2, 3}) {
                const bool byUID = method & 1;
                const std::string options = method & 2 ? R"({"unknown":1})" : "";
                SCOPED_TRACE(doc + (byUID ? " by UID" : " by ID") + options);
                const TAnswer a = Download(byUID, doc, "", token, options);
                if (expected.count(doc)) {
                    EXPECT_TRUE(a.Result) << a.Info;
                    EXPECT_EQ(a.Content(), FDocs[doc].Bytes);
                    continue;
                }
                EXPECT_FALSE(a.Result);
                EXPECT_EQ(a.Info, (json{{"error",
                                         {{"status", 404},
                                          {"class", "EVTLRestServiceError"},
                                          {"message", DocumentNotFoundText}}}}));
            }
        }
    }
}

TEST_P(DocService, ImportThroughTheRecordDetailDecodesAndPlacesEachDocument) {
    AddContact(kRecord);
    // Element, then where it lands and what it holds. A number is skipped; an unknown path
    // creates nothing and puts the document into the record's folder.
    struct TCase {
        const char* Element;
        std::string Folder, Name, Bytes;
    };
    // clang-format off
    const std::vector<TCase> cases = {
        {R"({"name":"b64.txt","content":"SGVsbG8=","content--encoding":"Base64"})", "", "b64.txt", "Hello"},
        {R"({"name":"hex.bin","content":"00ff41","content--encoding":"hex"})", "", "hex.bin", {"\0\xff" "A", 3}},
        {R"({"name":"plain.txt","content":"Grüße SGVsbG8=","content--encoding":"base64"})", "", "plain.txt", "Grüße SGVsbG8="},
        {R"({"name":"empty.txt","path":"Letters,Old"})", "Old", "empty.txt", ""},
        {R"({"name":"lost.txt","path":"Letters,Nowhere","content":"x"})", "", "lost.txt", "x"},
        {R"({"content":"no name"})", "", "", "no name"},
    };
    // clang-format on
    json items = json::array({42});
    for (std::size_t i = 0; i < cases.size(); ++i) {
        items.push_back(json::parse(cases[i].Element));
        items.back()["remote_uid"] = "r" + std::to_string(i);
    }
    const auto [status, answer] = PutDocuments({{"insert", items}});
    ASSERT_EQ(status, 200) << answer;
    // The row, then each document with the client's remote_uid.
    const json& info = answer["record_info"];
    ASSERT_EQ(info.size(), cases.size() + 1) << answer;
    EXPECT_EQ(info[0]["server_uid"], kRecord);
    // The session's root holds the new documents: a download by ID needs no reload.
    const int loads = FRepository.Loads.load();
    json byID = Record();
    byID["ServerDBID"] = info[1]["dbid"];
    EXPECT_EQ(Invoke("DownloadRecordDocument", byID).Content(), "Hello");
    EXPECT_EQ(FRepository.Loads.load(), loads);
    const auto docs = Places(List().Info);
    for (std::size_t i = 0; i < cases.size(); ++i) {
        SCOPED_TRACE(i);
        const json& row = info[i + 1];
        EXPECT_EQ(row["remote_uid"], "r" + std::to_string(i));
        EXPECT_GT(row["dbid"].get<std::int64_t>(), 0);
        const std::string uid = row["server_uid"];
        ASSERT_EQ(docs.count(uid), 1u) << answer << List().Info;
        EXPECT_EQ(docs.at(uid).first, cases[i].Folder);
        const std::string name = docs.at(uid).second;
        if (cases[i].Name.empty()) {
            // The temporary file's name, without its folder.
            EXPECT_EQ(name.rfind("tmp", 0), 0u) << name;
            EXPECT_EQ(name.find('/'), std::string::npos) << name;
        } else {
            EXPECT_EQ(name, cases[i].Name);
        }
        EXPECT_EQ(FetchByUID(uid), cases[i].Bytes);
    }
    std::set<std::string> letters;
    const json listing = List().Info;
    for (const auto& d : listing["directories"][0]["directories"])
        letters.insert(d["name"].get<std::string>());
    EXPECT_EQ(letters, std::set<std::string>{"Old"});
    EXPECT_EQ(TempFiles(), std::vector<std::string>{});

    // A failing element ends the import: documents before it stay, none after it is made.
    const auto [badStatus, bad] =
        PutDocuments({{"insert",
                       {{{"name", "kept.txt"}, {"content", "k"}},
                        {{"name", "odd.bin"}, {"content", "abc"}, {"content--encoding", "hex"}},
                        {{"name", "never.txt"}, {"content", "n"}}}}});
    EXPECT_EQ(badStatus, 400) << bad;
    const std::set<std::string> names = Names(List().Info);
    EXPECT_TRUE(names.count("kept.txt"));
    EXPECT_FALSE(names.count("odd.bin") || names.count("never.txt"));
    EXPECT_EQ(TempFiles(), std::vector<std::string>{});

    // Forms of the section that carry nothing to insert are ignored; the row is still written.
    const std::size_t before = Places(List().Info).size();
    for (const json& section :
         {json::array({items[1]}), json::object(), json{{"update", json::array({items[1]})}},
          json{{"insert", json::array()}}, json{{"insert", items[1]}}}) {
        SCOPED_TRACE(section.dump());
        EXPECT_EQ(PutDocuments(section).first, 200);
    }
    EXPECT_EQ(Places(List().Info).size(), before);

    // A new row carries documents as well.
    const std::string fresh = "{0D0C5E41-0000-4000-8000-000000000003}";
    const auto [newStatus, created] =
        Records("POST", "/records/contacts",
                {{"globalrecuid", fresh},
                 {"name", "New"},
                 {"record_documents",
                  {{"insert", {{{"name", "n.txt"}, {"content", "new"}, {"remote_uid", "n"}}}}}}});
    ASSERT_EQ(newStatus, 201) << created;
    ASSERT_EQ(created["record_info"].size(), 2u);
    EXPECT_EQ(created["record_info"][1]["remote_uid"], "n");
    EXPECT_EQ(FetchByUID(created["record_info"][1]["server_uid"]), "new");
    EXPECT_EQ(Names(List(fresh).Info), std::set<std::string>{"n.txt"});
}

TEST_P(DocService, ImportSetsRecordFlagsAndWorksWithoutAResultObject) {
    AddContact(kRecord);
    // New documents carry the detail's flag types, so a tree loaded with them shows them.
    TDBRecordFlagsPlugin flags(FHost->GetDBInterface());
    const std::int64_t web = flags.DefineFlag("docadmindocs", "Web", 1);
    TVTLCustomRestService::ServiceDataSettings().Add(
        {1, "record_documents", AllConnectorSessionTypes, 2});
    const auto [status, answer] =
        PutDocuments({{"insert", {{{"name", "flagged.txt"}, {"content", "f"}}}}});
    ASSERT_EQ(status, 200) << answer;
    EXPECT_TRUE(
        flags.HasFlag("docadmindocs", answer["record_info"][1]["dbid"].get<std::int64_t>(), web));
    const auto [readStatus, read] =
        Records("GET", "/records/contacts/" + kRecord + "?fields=globalrecuid,record_documents");
    ASSERT_EQ(readStatus, 200) << read;
    EXPECT_EQ(Names(read["records"][0]["record_documents"]), std::set<std::string>{"flagged.txt"});
    TVTLCustomRestService::ServiceDataSettings().Clear();

    // Called directly without a result object: imported all the same, nothing reported.
    TRestSession session("direct", FAlice, "alice", cstAPIClient);
    TRestServiceSettings settings;
    TRestRequestContext context{&session, FHost.get(), nullptr, &settings, nullptr};
    {
        TRestRequestContextScope scope(&context);
        FHost->SetCurrentUser(FAlice);
        TFinally nobody{[this] { FHost->SetCurrentUser(0); }};
        TVTLDocumentsRestService service;
        auto schema = GetSchemaByName(FHost->GetDBFieldSchema(), "contacts");
        service.ImportRecordDocumentsFromJSONArray(
            json::array({{{"name", "quiet.txt"}, {"content", "q"}}}), schema.get(), kRecord,
            nullptr, 0);
    }
    session.GetSessionCache().Clear();
    EXPECT_TRUE(Names(List().Info).count("quiet.txt"));
}

TEST_P(DocService, RecordDetailOnReading) {
    AddContact(kRecord);
    AddContact(kOtherRecord);
    const std::string target = "/records/contacts/" + kRecord;
    const auto loads = [this] { return FRepository.Loads.load(); };

    // Not asked for: no key and no tree load, with and without a field list.
    for (const std::string query : {"", "?fields=name,globalrecuid"}) {
        const auto [status, body] = Records("GET", target + query);
        ASSERT_EQ(status, 200) << body;
        EXPECT_FALSE(body["records"][0].contains("record_documents"));
    }
    EXPECT_EQ(loads(), 0);

    // Asked for: the listing of the record under the detail's name; a record without documents
    // gets an empty object.
    const auto [status, body] = Records("GET", target + "?fields=globalrecuid,record_documents");
    ASSERT_EQ(status, 200) << body;
    EXPECT_EQ(body["records"][0]["record_documents"], List().Info);
    const auto [otherStatus, other] = Records(
        "GET", "/records/contacts/" + kOtherRecord + "?fields=globalrecuid,record_documents");
    ASSERT_EQ(otherStatus, 200) << other;
    EXPECT_EQ(other["records"][0]["record_documents"], json::object());

    // Without globalrecuid in the field list, also for a record without documents.
    for (const std::string& record : {kRecord, kOtherRecord}) {
        const auto [missingStatus, missing] =
            Records("GET", "/records/contacts/" + record + "?fields=name,record_documents");
        EXPECT_EQ(missingStatus, 400);
        EXPECT_EQ(missing["error"]["message"],
                  "Missing field \"globalrecuid\" (required for detail handler "
                  "\"record_documents\") in field list!");
    }

    // A mapping moves the output under its name; writing keeps the detail's own key.
    TVTLRestAPICustomKRRecordSetServiceImpl::RegisterFieldMapping("contacts", "record_documents",
                                                                  "files");
    TFinally unmap{[] {
        TVTLRestAPICustomKRRecordSetServiceImpl::UnRegisterFieldMapping("contacts",
                                                                        "record_documents");
    }};
    for (const std::string field : {"record_documents", "files"}) {
        const auto [mappedStatus, mapped] =
            Records("GET", target + "?fields=globalrecuid," + field);
        ASSERT_EQ(mappedStatus, 200) << mapped;
        EXPECT_FALSE(mapped["records"][0].contains("record_documents"));
        EXPECT_EQ(mapped["records"][0]["files"], body["records"][0]["record_documents"]);
    }
    EXPECT_EQ(PutDocuments({{"insert", {{{"name", "m.txt"}, {"content", "m"}}}}}).first, 200);
    EXPECT_TRUE(Names(List().Info).count("m.txt"));
}

TEST_P(DocService, ImportAccessFollowsTheFoldersRights) {
    AddContact(kRecord);
    const auto tokens = Tokens();
    // User, target path, HTTP status, folder the document lands in ("" the record's folder,
    // "-" nowhere). A folder the user can't see is an unknown path; one the user may only read
    // refuses; a read-only user writes nothing.
    struct TCase {
        const char* User;
        const char* Path;
        int Status;
        const char* Folder;
    };
    const std::vector<TCase> cases = {
        {"alice", "Sales", 200, "Sales"}, {"alice", "HR", 200, ""},     {"bob", "HR", 200, "HR"},
        {"bob", "Sales", 200, ""},        {"carol", "Sales", 403, "-"}, {"carol", "", 403, "-"},
        {"dave", "Sales", 403, "-"},      {"dave", "", 200, ""},
    };
    for (std::size_t i = 0; i < cases.size(); ++i) {
        const TCase& c = cases[i];
        SCOPED_TRACE(std::string(c.User) + " into \"" + c.Path + "\"");
        const std::string name = "in" + std::to_string(i) + ".txt";
        const auto [status, body] =
            PutDocuments({{"insert", {{{"name", name}, {"path", c.Path}, {"content", "secret"}}}}},
                         tokens.at(c.User));
        EXPECT_EQ(status, c.Status) << body;
        EXPECT_EQ(TempFiles(), std::vector<std::string>{});  // also after a refusal
        // Alice and bob between them see every folder.
        std::map<std::string, std::string> where;
        for (const auto& token : {FToken, tokens.at("bob")})
            for (const auto& [uid, doc] : Places(List(kRecord, token).Info))
                where[doc.second] = doc.first;
        if (std::string(c.Folder) == "-") {
            EXPECT_EQ(where.count(name), 0u);
            EXPECT_EQ(body.dump().find("HR"), std::string::npos);
        } else {
            ASSERT_EQ(where.count(name), 1u);
            EXPECT_EQ(where[name], c.Folder);
        }
    }
}

INSTANTIATE_TEST_SUITE_P(Backends, DocService, ::testing::Values("sqlite", "postgresql"));

TEST(DocServiceBase64, EncodesAcrossBlockBoundariesAndStopsAtTheCount) {
    for (const std::int64_t n : {0, 1, 2, 3, 4, 196607, 196608, 196609, 400000}) {
        std::string bytes(static_cast<std::size_t>(n), '\0');
        for (std::int64_t i = 0; i < n; ++i)
            bytes[static_cast<std::size_t>(i)] = static_cast<char>((i * 7919) >> 3);
        const std::string file = GetTempPath() + GetTempFileName();
        SaveStrToFile(file, bytes + "tail", false);
        {
            TFileStream s(file, fmOpenRead);
            const std::string text = MIMEEncodeRawByteStr(s, n);
            EXPECT_EQ(text.size(), static_cast<std::size_t>((n + 2) / 3 * 4)) << n;
            EXPECT_EQ(MIMEDecodeRawByteStr(text), bytes) << n;
            EXPECT_EQ(s.Position(), n);
        }
        std::filesystem::remove(file);
    }
}

}  // namespace
}  // namespace docadmin::test
