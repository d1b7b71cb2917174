// The documents service over real HTTP, on SQLite and PostgreSQL: listing, chunked download on
// both routes, the session's cached root, conversion and the user's rights.
#include <gtest/gtest.h>

#include <atomic>
#include <filesystem>
#include <set>

#include "_DocFileLoaderChoice.h"
#include "_TDBDocAdmin.h"
#include "_TDocAdminObject.h"
#include "_TKRACLDataTableController.h"
#include "_TKRRecordSet.h"
#include "_TUniqueFolderCache.h"
#include "_Tools.h"
#include "_VTLDocumentsRestService.h"
#include "host/rest/rest_test_support.h"

namespace docadmin::test {
namespace {

using json = nlohmann::ordered_json;

const std::string kStorage = "{A48847CA-33D3-4EB0-A586-E316EA2E5322}";
const std::string kRecord = "{0D0C5E41-0000-4000-8000-000000000001}";
const std::string kOtherRecord = "{0D0C5E41-0000-4000-8000-000000000002}";
const std::string kModuleGUID = "{DBAE1129-670F-45DA-8489-6D64A3429BBF}";
const std::string kDigits = "0123456789";

std::unique_ptr<TDBDocAdmin> NewAdmin(THost& AHost, TUniqueFolderCache& ACache,
                                      const std::string& ABaseDirectory) {
    auto admin = std::make_unique<TDBDocAdmin>(nullptr);
    admin->SetDocFileLoader(CreateConfiguredDocFileLoader(&AHost, false).release());
    admin->SetPlugin(kStorage);
    admin->SetRootDirectoryPath("\"" + kStorage + "\"," + ABaseDirectory);
    admin->SetAllwaysLoadGlobal(false);
    admin->SetMainInterface(&AHost);
    admin->SetUserAccess(AHost.GetUserAccess());
    admin->SetPluginGUID(kModuleGUID);
    admin->SetUniqueFolderCache(&ACache);
    return admin;
}

// The repository as the service meets it, counting tree loads. The download by UID applies no
// rights of its own, so that the service's own check is what the tests see.
class TTestRepository : public IDocumentsServiceRepository {
  public:
    explicit TTestRepository(THost& AHost) : FHost(AHost), FConverter(nullptr) {}
    IPtr<IDirectoryRoot> GetDocAdminObject(const std::string& Plugin,
                                           const std::string& BaseDirectory, bool ALoad,
                                           const std::string& AResIdentifier, std::int64_t AResID,
                                           std::int64_t ADBATransactionID,
                                           TRecordFlagTypes ARecordFlagTypes, bool AAutoSave,
                                           bool AIsNewUniqueFolder) override {
        ++Loads;
        EXPECT_EQ(Plugin, kStorage);
        auto admin = NewAdmin(FHost, FCache, BaseDirectory);
        admin->SetDBATransactionID(ADBATransactionID);
        admin->SetAutoSave(AAutoSave);
        admin->SetActiveRecordFlagTypes(ARecordFlagTypes);
        return IPtr<IDirectoryRoot>(static_cast<IDirectoryRoot*>(new TDocAdminObject(
            admin.release(), ALoad, AResIdentifier, AResID, false, AIsNewUniqueFolder)));
    }
    bool DownloadDocumentWithUID(const std::string& ADocumentUID, const std::string& ADest,
                                 std::string& ADocName, TDateTime& ACreateDate,
                                 TDateTime& ALastModifiedDate, bool AOffline) override {
        TKRRecordSet rs(nullptr, FHost.GetDBInterface());
        rs.SetSchemaName("docadmindocs");
        for (const char* f : {"docname", "fllocname", "creadate", "fldate"})
            rs.GetSelectFields()->Add(f);
        AddFilter(rs.GetFilters(), "globalrecuid", TVariant(ADocumentUID));
        rs.Open();
        if (rs.GetRecordCount() == 0) return false;
        ADocName = rs.ValueByName(0, "docname").GetAsString();
        CreateConfiguredDocFileLoader(&FHost, AOffline)
            ->DownloadFile(rs.ValueByName(0, "fllocname").GetAsString(), ADest);
        ACreateDate = rs.ValueByName(0, "creadate").GetAsFloat();
        ALastModifiedDate = rs.ValueByName(0, "fldate").GetAsFloat();
        return true;
    }
    TKRFileHandlerClient* KRFileHandlerClient() override { return &FConverter; }

    std::atomic<int> Loads{0};
    TUniqueFolderCache FCache;

  private:
    THost& FHost;
    TKRFileHandlerClient FConverter;
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

class DocService : public TRestServerFixture, public ::testing::WithParamInterface<std::string> {
  protected:
    std::string Backend() const override { return GetParam(); }

    void SetUp() override {
        TRestServerFixture::SetUp();
        if (IsSkipped()) return;
        FACL.AddTable("docadmindir", TACLTableType::atDefault, "", "Folders");
        FACL.AddTable("docadmindocs", TACLTableType::atDefault, "dirid", "Files");
        FSales = FHost->Users().AddACLGroup("sales", "");
        FHR = FHost->Users().AddACLGroup("hr", "");
        TUserInfo u;
        u.UserName = "carol";
        u.ReadOnly = true;
        FCarol = FHost->Users().AddUser(u, "password-1");
        FHost->Users().SetUserACLMode(FAlice, FSales, uamFull);
        FHost->Users().SetUserACLMode(FCarol, FSales, uamReadOnly);
        FHost->Users().SetUserACLMode(FBob, FHR, uamFull);
        BuildTree();

        FRepository = std::make_unique<TTestRepository>(*FHost);
        SetDocumentsServiceRepository(FRepository.get());
        FAPI = std::make_unique<TVTLBIAPIClient>(nullptr);
        FAPI->AddItem("Documents Services", "{7291FAEA-36AF-4E36-92A0-BFE1C4368A73}", "services");
        FAPI->OnGetAPIService = [](TVTLBIAPIClient*, const TVTLBIAPIItem& AItem,
                                   TRestServiceClass& AClass, TInterfaceTypeList& AIntfs) {
            AIntfs.clear();
            if (AItem.Index != 0) return;
            AClass = [] { return std::make_unique<TVTLDocumentsRestService>(); };
            AIntfs.push_back(DocumentStoreInterfaceType());
        };
        TVTLCustomRestService::ServiceDataSettings().Clear();
        StartServer();
        FToken = Login("alice");
    }
    void TearDown() override {
        FServer.reset();
        SetDocumentsServiceRepository(nullptr);
        TVTLCustomRestService::ServiceDataSettings().Clear();
        FAPI.reset();
        FRepository.reset();
        TRestServerFixture::TearDown();
    }

    // The record's tree, written as alice (so that folders get her default group, none):
    //   root.txt, note.txt, gone.txt (its stored file removed), Letters/{a.txt, Old/old.txt},
    //   Sales (group sales)/s.txt, HR (group hr)/{h.txt, Sub (no group)/deep.txt}
    void BuildTree() {
        FHost->SetCurrentUser(FAlice);
        TFinally nobody{[this] { FHost->SetCurrentUser(0); }};
        TUniqueFolderCache cache;
        auto admin = NewAdmin(*FHost, cache, "\"contacts#Records\",\"" + kRecord + "\"");
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
    TAnswer ByID(const std::string& ADoc, const std::string& AChunk = "",
                 const std::string& AToken = "", const std::string& AOptions = "") {
        json b = Record();
        b["ServerDBID"] = FDocs.at(ADoc).ID;
        if (!AChunk.empty()) b["Chunk"] = json::parse(AChunk);
        if (!AOptions.empty()) b["Options"] = json::parse(AOptions);
        return Invoke(AOptions.empty() ? "DownloadRecordDocument" : "DownloadRecordDocumentEx", b,
                      AToken);
    }
    TAnswer ByUID(const std::string& ADoc, const std::string& AChunk = "",
                  const std::string& AToken = "", const std::string& AOptions = "") {
        json b = {{"DocumentUID", FDocs.at(ADoc).UID}};
        if (!AChunk.empty()) b["Chunk"] = json::parse(AChunk);
        if (!AOptions.empty()) b["Options"] = json::parse(AOptions);
        return Invoke(AOptions.empty() ? "DownloadDocument" : "DownloadDocumentEx", b, AToken);
    }
    TAnswer List(const std::string& ARecord = kRecord, const std::string& AToken = "",
                 const std::string& ASchema = "contacts") {
        return Invoke("QueryRecordResourceList", Record(ARecord, ASchema), AToken);
    }
    static void CollectNames(const json& ALevel, std::set<std::string>& ANames) {
        for (const auto& d : ALevel.value("directories", json::array()))
            CollectNames(d, ANames);
        for (const auto& d : ALevel.value("documents", json::array()))
            ANames.insert(d["name"].get<std::string>());
    }

    TKRACLDataTableController FACL{nullptr};
    std::int64_t FSales = 0, FHR = 0, FCarol = 0;
    std::map<std::string, TDoc> FDocs;
    std::unique_ptr<TTestRepository> FRepository;
    std::unique_ptr<TVTLBIAPIClient> FAPI;
    std::string FToken;
};

TEST_P(DocService, ListingNestsDirectoriesBeforeDocumentsWithKeysInOrder) {
    const TAnswer a = List();
    ASSERT_TRUE(a.Result) << a.Info;
    std::vector<std::string> top;
    for (const auto& [k, v] : a.Info.items())
        top.push_back(k);
    EXPECT_EQ(top, (std::vector<std::string>{"directories", "documents"}));

    const json& letters = a.Info["directories"][0];
    std::vector<std::string> keys;
    for (const auto& [k, v] : letters.items())
        keys.push_back(k);
    EXPECT_EQ(keys, (std::vector<std::string>{"server_dbid", "server_uid", "name", "createdate",
                                              "directories", "documents"}));
    EXPECT_EQ(letters["name"], "Letters");
    EXPECT_EQ(letters["directories"][0]["name"], "Old");
    EXPECT_FALSE(letters["directories"][0].contains("directories"));  // only documents there

    // Documents in tree order; root.txt is one of them.
    json doc;
    for (const auto& d : a.Info["documents"])
        if (d["name"] == "root.txt") doc = d;
    keys.clear();
    for (const auto& [k, v] : doc.items())
        keys.push_back(k);
    EXPECT_EQ(keys, (std::vector<std::string>{"server_dbid", "server_uid", "name", "size",
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
    const auto loads = [this] { return FRepository->Loads.load(); };
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
                const TAnswer a = byUID ? ByUID("root.txt", s.Chunk) : ByID("root.txt", s.Chunk);
                ASSERT_TRUE(a.Result) << a.Info;
                EXPECT_EQ(a.Info["chunk"], (json{{"position", s.Position}, {"size", s.Size}}));
                EXPECT_EQ(a.Content(), s.Content);
                EXPECT_EQ(a.Info["content--encoding"], "Base64");
            }
            byUID ? ByUID("root.txt") : ByID("root.txt");  // reads the rest: the entry ends
        }
    }
}

TEST_P(DocService, ResultKeysEntriesPerRouteAndFailedFetches) {
    const TAnswer id = ByID("root.txt", R"({"size":2})");
    std::vector<std::string> keys;
    for (const auto& [k, v] : id.Info.items())
        keys.push_back(k);
    EXPECT_EQ(keys, (std::vector<std::string>{"chunk", "server_dbid", "name", "converted",
                                              "content", "content--encoding"}));
    const TAnswer uid = ByUID("root.txt", R"({"size":2})");
    keys.clear();
    for (const auto& [k, v] : uid.Info.items())
        keys.push_back(k);
    EXPECT_EQ(keys,
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

    // The stored file of gone.txt is lost: the record route leaves its entry (an empty file)
    // behind, the UID route leaves none.
    for (const auto& f : std::filesystem::recursive_directory_iterator(FDir))
        if (f.path().filename().string().rfind(FDocs["gone.txt"].Remote, 0) == 0)
            std::filesystem::remove(f.path());
    EXPECT_FALSE(ByID("gone.txt").Result);
    const TAnswer again = ByID("gone.txt");
    EXPECT_TRUE(again.Result);
    EXPECT_EQ(again.Info["chunk"]["size"], 0);
    EXPECT_FALSE(ByUID("gone.txt").Result);
    EXPECT_FALSE(ByUID("gone.txt").Result);
}

TEST_P(DocService, ConversionAndItsFailure) {
    if (GetParam() != "sqlite") GTEST_SKIP() << "conversion doesn't depend on the database";
    const TAnswer pdf = ByID("note.txt", "", "", R"({"format":".pdf"})");
    ASSERT_TRUE(pdf.Result) << pdf.Info;
    EXPECT_TRUE(pdf.Info["converted"].get<bool>());
    EXPECT_EQ(pdf.Info["name"], "note.pdf");
    EXPECT_EQ(pdf.Content().substr(0, 5), "%PDF-");

    for (const bool byUID : {false, true}) {
        const std::string format = R"({"format":".nosuchformat"})";
        const TAnswer a =
            byUID ? ByUID("note.txt", "", "", format) : ByID("note.txt", "", "", format);
        ASSERT_TRUE(a.Result) << a.Info;
        EXPECT_FALSE(a.Info["converted"].get<bool>());
        EXPECT_EQ(a.Info["name"], "note.txt");
        EXPECT_EQ(a.Content(), FDocs["note.txt"].Bytes);
    }
}

TEST_P(DocService, UsersSeeAndFetchOnlyWhatTheirGroupsAllow) {
    const std::map<std::string, std::string> tokens = {
        {"alice", FToken}, {"bob", Login("bob")}, {"carol", Login("carol")}};
    const std::set<std::string> everyone = {"root.txt", "note.txt", "gone.txt", "a.txt", "old.txt"};
    const std::map<std::string, std::set<std::string>> extra = {
        {"alice", {"s.txt"}}, {"bob", {"h.txt", "deep.txt"}}, {"carol", {"s.txt"}}};
    for (const auto& [user, token] : tokens) {
        SCOPED_TRACE(user);
        std::set<std::string> expected = everyone;
        expected.insert(extra.at(user).begin(), extra.at(user).end());
        std::set<std::string> listed;
        CollectNames(List(kRecord, token).Info, listed);
        EXPECT_EQ(listed, expected);
        for (const std::string doc : {"root.txt", "s.txt", "h.txt", "deep.txt"}) {
            for (const bool byUID : {false, true}) {
                SCOPED_TRACE(doc + (byUID ? " by UID" : " by ID"));
                const TAnswer a = byUID ? ByUID(doc, "", token) : ByID(doc, "", token);
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
    // The classic vectors.
    const std::string file = GetTempPath() + GetTempFileName();
    SaveStrToFile(file, "foobar", false);
    TFileStream s(file, fmOpenRead);
    for (const auto& [count, text] : std::vector<std::pair<int, const char*>>{
             {1, "Zg=="}, {2, "Zm8="}, {3, "Zm9v"}, {-1, "Zm9vYmFy"}}) {
        s.SetPosition(0);
        EXPECT_EQ(MIMEEncodeRawByteStr(s, count), text);
    }
    std::filesystem::remove(file);
}

}  // namespace
}  // namespace docadmin::test
