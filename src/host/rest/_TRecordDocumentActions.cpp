#include "_TRecordDocumentActions.h"

#include <algorithm>
#include <filesystem>

#include "_DocAdminIntf.h"
#include "_SysUtils.h"
#include "_TKRRecordSet.h"
#include "_TVTLRestAPICustomKRRecordSetServiceImpl.h"
#include "_Tools.h"

namespace docadmin {

namespace {

std::string Text(const TJsonObject& ABody, const char* AKey, bool ARequired = true) {
    auto it = ABody.find(AKey);
    if (it == ABody.end() || !it->is_string()) {
        if (!ARequired && it == ABody.end()) return {};
        throw EVTLRestServiceError(400, std::string("\"") + AKey + "\" must be a text");
    }
    return it->get<std::string>();
}

std::int64_t Id(const TJsonObject& ABody) {
    auto it = ABody.find("id");
    if (it == ABody.end() || !it->is_number_integer())
        throw EVTLRestServiceError(400, "\"id\" must be a document id");
    return it->get<std::int64_t>();
}

// Names that stay one folder wherever the tree is exported.
bool IsFolderName(const std::string& AName) {
    if (AName.find_first_not_of(' ') == std::string::npos || AName == "." || AName == "..")
        return false;
    return std::none_of(AName.begin(), AName.end(), [](unsigned char c) {
        return c < 0x20 || c == 0x7f || c == '/' || c == '\\';
    });
}

IPtr<IDocument> FindDocument(IDirectory* ADirectory, std::int64_t AID) {
    if (!ADirectory) return nullptr;
    for (std::int32_t i = 0; i < ADirectory->Get_DocumentCount(); ++i) {
        IPtr<IDocument> doc = ADirectory->Get_Document(i);
        if (doc->Get_DocID() == AID) return doc;
    }
    for (std::int32_t i = 0; i < ADirectory->Get_ChildDirectoryCount(); ++i)
        if (auto doc = FindDocument(ADirectory->Get_ChildDirectory(i).get(), AID)) return doc;
    return nullptr;
}

TJsonObject VersionJson(const std::string& AName, const std::string& AVersion, TDateTime ADate,
                        std::int64_t ASize, bool ACurrent) {
    return {{"name", AName},
            {"version", AVersion},
            {"lastmodified", DateTimeToISO8601(ADate)},
            {"size", ASize},
            {"current", ACurrent}};
}

}  // namespace

TRecordDocumentActions::TRecordDocumentActions(IMainInterface* AMainInterface)
    : FMain(AMainInterface) {}

bool TRecordDocumentActions::IsAction(const std::string& AAction) {
    return AAction == "folder" || AAction == "replace" || AAction == "delete" ||
           AAction == "versions";
}

TJsonObject TRecordDocumentActions::Run(const std::string& AAction, const TJsonObject& ABody) {
    if (!IsAction(AAction)) throw EVTLRestServiceError(404, "Not found");
    if (!ABody.is_object()) throw EVTLRestServiceError(400, "The request body must be an object");
    const std::string storage = Text(ABody, "storage");
    const std::string schema = Text(ABody, "schema");
    const std::string record = Text(ABody, "record");
    if (!IsGuid(storage)) throw EVTLRestServiceError(400, "\"storage\" must be a plug-in GUID");
    // The record as the user sees it through the record service: unknown schemas, malformed
    // UIDs and rows the user may not read end here with the service's answers.
    TVTLRestAPICustomKRRecordSetServiceImpl().ReadRecord(schema, record, "globalrecuid");

    IPluginLoader* plugins = FMain ? FMain->GetPluginLoader() : nullptr;
    void* raw = nullptr;
    if (!plugins ||
        !plugins->GetExtFuncInterface(DocAdminPluginGUID, IExtFuncPluginDocAdmin::IID, &raw) ||
        !raw)
        throw EVTLRestServiceError(503, "The document module isn't loaded");
    auto module = IPtr<IExtFuncPluginDocAdmin>::Adopt(static_cast<IExtFuncPluginDocAdmin*>(raw));
    const std::string base = "\"" + schema + "#Records\",\"" + record + "\"";
    IPtr<IDirectoryRoot> root = module->Get_DirectoryRoot(storage, base, true, 0, false);
    if (!root) throw EVTLRestServiceError(500, "The record's documents could not be loaded");
    auto save = [&] {
        if (root->Get_HasChanges()) root->Do_SaveChanges();
    };

    TJsonObject result = TJsonObject::object();
    if (AAction == "folder") {
        const std::string path = Text(ABody, "path", false);
        const std::string name = Text(ABody, "name");
        if (!IsFolderName(name))
            throw EVTLRestServiceError(400,
                                       "A folder name must not be empty, \".\" or \"..\" "
                                       "and must not hold / or \\ or control characters");
        IPtr<IDirectory> parent =
            path.empty() ? root->Get_RootDir() : root->Do_GetDirectoryByTitle(nullptr, path);
        if (!parent) throw EVTLRestServiceError(404, "Folder not found");
        IPtr<IDirectory> dir = root->Do_AddDirectory(parent.get(), name);
        save();
        result["server_dbid"] = dir ? dir->Get_DirID() : 0;
        result["name"] = name;
        return result;
    }

    const std::int64_t id = Id(ABody);
    IPtr<IDocument> doc = FindDocument(root->Get_RootDir().get(), id);
    if (!doc) throw EVTLRestServiceError(404, "Provided document not found or permission denied!");
    if (AAction == "delete") {
        root->Do_DeleteDocument(doc.get());
        save();
        result["deleted"] = id;
    } else if (AAction == "replace") {
        auto content = ABody.find("content");
        if (content == ABody.end() || !content->is_string())
            throw EVTLRestServiceError(400, "\"content\" must be Base64 text");
        std::string file =
            ChangeFileExt(GetTempPath() + GetTempFileName(), ExtractFileExt(doc->Get_DocName()));
        TFinally removeFile{[&file] {
            std::error_code ec;
            std::filesystem::remove(file, ec);
        }};
        SaveStrToFile(file, MIMEDecodeRawByteStr(content->get<std::string>()), false);
        root->Do_ReplaceFile(doc.get(), file, ramArchive);
        save();
        result["version"] = doc->Get_Version();
    } else {
        TJsonObject list = TJsonObject::array();
        list.push_back(VersionJson(doc->Get_DocName(), doc->Get_Version(), doc->Get_Date(),
                                   doc->Get_Size(), true));
        TKRRecordSet archive(nullptr, FMain->GetDBInterface());
        archive.SetSchemaName("docadmin_docarchive");
        archive.SetOptions({rsoUserRowRights});
        for (const char* f : {"docname", "flversion", "fldate", "flsize"})
            archive.GetSelectFields()->Add(f);
        archive.GetFilters()->AddFilter("docadmindocid", TVariant(static_cast<long long>(id)));
        archive.Open();
        std::vector<TJsonObject> archived;
        for (int r = 0; r < archive.GetRecordCount(); ++r)
            archived.push_back(VersionJson(archive.ValueByName(r, "docname").GetAsString(),
                                           archive.ValueByName(r, "flversion").GetAsString(),
                                           archive.ValueByName(r, "fldate").GetAsFloat(),
                                           archive.ValueByName(r, "flsize").GetAsInteger(), false));
        // Newest first, after the current one.
        std::stable_sort(archived.begin(), archived.end(), [](const auto& a, const auto& b) {
            return a["lastmodified"].template get<std::string>() >
                   b["lastmodified"].template get<std::string>();
        });
        for (auto& v : archived)
            list.push_back(std::move(v));
        result["versions"] = std::move(list);
    }
    return result;
}

}  // namespace docadmin
