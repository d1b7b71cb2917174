#include "_TVTLRessourcesRestService.h"

#include <filesystem>
#include <fstream>
#include <iterator>
#include <vector>

#include "_DocAdminIntf.h"
#include "_RessourceSources.h"
#include "_TVTLCustomRestService.h"
#include "_Tools.h"

namespace docadmin {

namespace {

namespace fs = std::filesystem;

struct TActionName {
    const char* Name;
    TRessourceAction Action;
};
const TActionName ActionNames[] = {
    {"view", raView},
    {"save_copy", raSaveCopy},
    {"replace", raReplace},
    {"delete", raDelete},
    {"add_directory", raAddDirectory},
    {"import_directory", raImportDirectory},
    {"add_document", raAddDocument},
    {"action_7", raAction7},
    {"action_8", raAction8},
    {"edit_monitored", raEditMonitored},
};
// What a client may ask for over HTTP: viewing, editing under watch and importing a folder of
// the server make no sense for a remote client (or would read the server's own files).
const TRessourceAction HTTPActions[] = {raSaveCopy, raReplace, raDelete, raAddDirectory,
                                        raAddDocument};

TJsonObject ActionList(TRessourceActions AActions) {
    TJsonObject list = TJsonObject::array();
    for (const TActionName& a : ActionNames)
        if (AActions & RessourceActionBit(a.Action)) list.push_back(a.Name);
    return list;
}

THTTPResponse Json(int AStatus, const TJsonObject& ABody) {
    THTTPResponse r;
    r.Status = AStatus;
    r.Body = ABody.dump(-1, ' ', false, TJsonObject::error_handler_t::replace);
    return r;
}

int StatusOf(const std::exception& AException) {
    if (auto* e = dynamic_cast<const EVTLRestServiceError*>(&AException)) return e->Status();
    if (dynamic_cast<const EDocAdminNoWriteAccessError*>(&AException)) return 403;
    if (dynamic_cast<const EDocAdminFileNotFoundInRepository*>(&AException) ||
        dynamic_cast<const EFileNotFoundInRepositoryException*>(&AException))
        return 404;
    if (dynamic_cast<const EDocAdminChangedByOtherUser*>(&AException)) return 409;
    if (dynamic_cast<const EConvertError*>(&AException)) return 400;
    return 500;
}

THTTPResponse Error(const std::exception& AException) {
    TJsonObject body = TJsonObject::object();
    const int status = StatusOf(AException);
    TVTLCustomRestService::AddExceptionToJsonResult(EVTLRestServiceError(status, AException.what()),
                                                    body);
    return Json(status, body);
}

[[noreturn]] void Fail(int AStatus, const std::string& AMessage) {
    throw EVTLRestServiceError(AStatus, AMessage);
}

std::string RefOf(const std::string& AParentRef, IRessource* ARessource) {
    const std::string own = std::string(ARessource->Get_HasChildren() ? "d:" : "f:") +
                            std::to_string(ARessource->Get_ID());
    return AParentRef.empty() ? own : AParentRef + "/" + own;
}

TJsonObject RessourceJson(IRessource* ARessource, const std::string& ARef) {
    const TDateTime date = ARessource->Get_Date();
    return {{"ref", ARef},
            {"id", ARessource->Get_ID()},
            {"caption", ARessource->Get_Caption()},
            {"extension", ARessource->Get_Extension()},
            {"name", ARessource->Get_Caption() + ARessource->Get_Extension()},
            {"date", date > 0 ? TJsonObject(DateTimeToISO8601(date)) : TJsonObject()},
            {"size", ARessource->Get_Size()},
            {"flags", ARessource->Get_RessourceFlags()},
            {"tags", ARessource->Get_Tags()},
            {"has_children", ARessource->Get_HasChildren()},
            {"writeable", ARessource->Get_ACLWriteable()},
            {"actions", ActionList(ARessource->Get_SupportedActions())}};
}

// The resource a ref names; raises 400 for a malformed ref, 404 for one that names nothing.
IPtr<IRessource> Resolve(IRessourceContainer* AContainer, const std::string& ARef) {
    IPtr<IRessource> current;
    std::size_t pos = 0;
    while (pos <= ARef.size()) {
        std::size_t end = ARef.find('/', pos);
        if (end == std::string::npos) end = ARef.size();
        const std::string step = ARef.substr(pos, end - pos);
        std::int64_t id = 0;
        if (step.size() < 3 || (step[0] != 'd' && step[0] != 'f') || step[1] != ':' ||
            !TryStrToInt64(step.substr(2), id))
            Fail(400, "ref must read like \"d:12/f:7\"");
        const bool directory = step[0] == 'd';
        const std::int32_t count = current ? current->Get_ChildCount() : AContainer->Get_Count();
        IPtr<IRessource> found;
        for (std::int32_t i = 0; i < count && !found; ++i) {
            IPtr<IRessource> r = current ? current->Get_Child(i) : AContainer->Get_Item(i);
            if (r && r->Get_ID() == id && r->Get_HasChildren() == directory) found = r;
        }
        if (!found) Fail(404, "No resource " + ARef + " in this container");
        current = found;
        pos = end + 1;
    }
    return current;
}

// A name for a new document or directory: one path component of printable UTF-8.
std::string CheckedName(const std::string& AName) {
    bool ok = !AName.empty() && AName != "." && AName != ".." && IsValidUtf8(AName);
    for (unsigned char c : AName)
        ok = ok && c >= 0x20 && c != 0x7F && c != '/' && c != '\\';
    if (!ok) Fail(400, "name must be a file or folder name without separators");
    return AName;
}

// A temporary file that goes with the scope.
struct TTempFile {
    explicit TTempFile(const std::string& AExt)
        : Name(GetTempPath() + ChangeFileExt(GetTempFileName(), AExt)) {}
    ~TTempFile() {
        std::error_code ec;
        fs::remove(Name, ec);
    }
    TTempFile(const TTempFile&) = delete;
    TTempFile& operator=(const TTempFile&) = delete;
    std::string Name;
};

std::string ReadFileBytes(const std::string& AFile) {
    std::ifstream in(AFile, std::ios::binary);
    if (!in) Fail(500, "The copy of the resource could not be read");
    return {std::istreambuf_iterator<char>(in), {}};
}

struct TRequestArgs {
    std::string Identifier;
    std::int64_t ID = 0;
    std::string Ref;
    std::string Source;
    bool HasSource = false;
};

TRequestArgs ReadArgs(const THTTPRequest& ARequest) {
    TRequestArgs a;
    std::string id;
    if (!ARequest.QueryParam("identifier", a.Identifier) || a.Identifier.empty())
        Fail(400, "identifier is required");
    if (!ARequest.QueryParam("id", id) || !TryStrToInt64(id, a.ID))
        Fail(400, "id must be a number");
    ARequest.QueryParam("ref", a.Ref);
    a.HasSource = ARequest.QueryParam("source", a.Source);
    return a;
}

// The containers of the request; with a source only that one's.
std::vector<TSourceRessourceContainer> Containers(IMainInterface* AMain,
                                                  const TRequestArgs& AArgs) {
    std::vector<TSourceRessourceContainer> all =
        GetRessourceContainers(AMain->GetRessourceSources(), AArgs.Identifier, AArgs.ID);
    if (AArgs.HasSource)
        std::erase_if(all, [&](const TSourceRessourceContainer& c) {
            return LowerCase(c.SourceIdentifier) != LowerCase(AArgs.Source);
        });
    if (all.empty()) Fail(404, "No resource source offers a container for " + AArgs.Identifier);
    return all;
}

TJsonObject ListContainer(const TSourceRessourceContainer& AEntry, const std::string& ARef) {
    IRessourceContainer* c = AEntry.Container.get();
    TJsonObject resources = TJsonObject::array();
    TRessourceActions actions = 0;
    if (ARef.empty()) {
        actions = c->Get_SupportedActions(nullptr);
        const std::int32_t count = c->Get_Count();
        for (std::int32_t i = 0; i < count; ++i) {
            IPtr<IRessource> r = c->Get_Item(i);
            resources.push_back(RessourceJson(r.get(), RefOf({}, r.get())));
        }
    } else {
        IPtr<IRessource> parent = Resolve(c, ARef);
        actions = parent->Get_SupportedActions();
        const std::int32_t count = parent->Get_ChildCount();
        for (std::int32_t i = 0; i < count; ++i) {
            IPtr<IRessource> r = parent->Get_Child(i);
            resources.push_back(RessourceJson(r.get(), RefOf(ARef, r.get())));
        }
    }
    return {{"source", AEntry.SourceIdentifier},
            {"caption", AEntry.Caption},
            {"actions", ActionList(actions)},
            {"resources", std::move(resources)}};
}

THTTPResponse List(const THTTPRequest& ARequest, IMainInterface* AMain) {
    const TRequestArgs args = ReadArgs(ARequest);
    std::vector<TSourceRessourceContainer> containers = Containers(AMain, args);
    // Refs belong to one container: with a ref only the chosen (or first) one is listed.
    if (!args.Ref.empty()) containers.resize(1);
    TJsonObject list = TJsonObject::array();
    for (const TSourceRessourceContainer& c : containers)
        list.push_back(ListContainer(c, args.Ref));
    return Json(200, {{"identifier", args.Identifier},
                      {"id", args.ID},
                      {"ref", args.Ref},
                      {"containers", std::move(list)}});
}

THTTPResponse Act(const THTTPRequest& ARequest, IMainInterface* AMain) {
    const TRequestArgs args = ReadArgs(ARequest);
    std::string actionName, name;
    if (!ARequest.QueryParam("action", actionName)) Fail(400, "action is required");
    const bool hasName = ARequest.QueryParam("name", name);
    const TSourceRessourceContainer entry = Containers(AMain, args).front();
    IRessourceContainer* c = entry.Container.get();

    if (actionName == "add_link") {
        std::string document;
        std::int64_t documentID = 0;
        if (!ARequest.QueryParam("document_id", document) || !TryStrToInt64(document, documentID))
            Fail(400, "document_id must be a number");
        IPtr<IDocAdminRessourceContainer> links;
        if (!Supports(c, links)) Fail(400, "This container takes no links");
        links->AddLink(documentID, CheckedName(name));
        return Json(200, {{"done", true}});
    }

    const TActionName* known = nullptr;
    for (const TActionName& a : ActionNames)
        if (actionName == a.Name) known = &a;
    bool offered = false;
    for (TRessourceAction a : HTTPActions)
        offered = offered || (known && known->Action == a);
    if (!offered) Fail(400, "Unknown action '" + actionName + "'");
    const TRessourceAction action = known->Action;

    IPtr<IRessource> r = args.Ref.empty() ? nullptr : Resolve(c, args.Ref);
    const bool needsRessource = action == raSaveCopy || action == raReplace || action == raDelete;
    if (needsRessource && !r) Fail(400, "ref is required for " + actionName);
    if ((action == raAddDocument || action == raAddDirectory) && !hasName)
        Fail(400, "name is required for " + actionName);
    if (!(c->Get_SupportedActions(r.get()) & RessourceActionBit(action)))
        Fail(403, "The action '" + actionName + "' is not offered for this resource");

    auto run = [&](const std::string& AFileName, const std::string& ACaption) {
        if (!c->Do_ExecuteAction(action, r.get(), AFileName, ACaption, false, false, nullptr,
                                 nullptr, ramDefault))
            Fail(409, "The action '" + actionName + "' was not carried out");
    };
    switch (action) {
        case raSaveCopy: {
            TTempFile copy(r->Get_Extension());
            run(copy.Name, {});
            THTTPResponse answer;
            answer.ContentType = "application/octet-stream";
            answer.Body = ReadFileBytes(copy.Name);
            const std::string file =
                ConvertToFileName(r->Get_Caption() + r->Get_Extension(), false, 255);
            answer.Headers.push_back(
                {"Content-Disposition", "attachment; filename=\"" + file + "\""});
            return answer;
        }
        case raReplace:
        case raAddDocument: {
            const std::string caption = action == raAddDocument ? CheckedName(name) : "";
            TTempFile upload(action == raReplace ? r->Get_Extension() : ExtractFileExt(caption));
            SaveStrToFile(upload.Name, ARequest.Body, false);
            run(upload.Name, caption);
            break;
        }
        case raAddDirectory:
            run(CheckedName(name), {});
            break;
        default:
            run({}, {});
            break;
    }
    return Json(200, {{"done", true}});
}

}  // namespace

THTTPResponse HandleRessourcesRequest(const THTTPRequest& ARequest,
                                      IMainInterface* AMainInterface) {
    try {
        if (ARequest.Method == "GET") return List(ARequest, AMainInterface);
        if (ARequest.Method == "POST") return Act(ARequest, AMainInterface);
        return Error(EVTLRestServiceError(405, "Method not allowed"));
    } catch (const std::exception& e) {
        return Error(e);
    }
}

}  // namespace docadmin
