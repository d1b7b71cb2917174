// The document tree verbs: import, ls, get, export, replace, rm, mkdir, versions. Each works on
// the tree that --plugin and --path name (see tree_session.h), in the configured database and
// store.
//
// Writing verbs run in one transaction (an import in batches of rows, each committed on its own):
// rows appear only when their part succeeded, and the store has written every file before its row
// (temporary file, flush, rename), so a process that is killed half way leaves no row without its
// file; at worst unreferenced files in the store.
#include <fcntl.h>
#include <sys/stat.h>
#include <nlohmann/json.hpp>

#include <filesystem>
#include <iostream>
#include <memory>
#include <string>
#include <vector>

#include "_TDocFileLoaderLocFile.h"
#include "_TKRRecordSet.h"
#include "_Tools.h"
#include "commands.h"
#include "progress.h"
#include "tree_session.h"

namespace docadmin::app {
namespace {

namespace fs = std::filesystem;
using json = nlohmann::ordered_json;

// Below this many files a progress bar isn't worth drawing.
constexpr std::size_t ProgressThreshold = 50;
// Documents per committed batch of an import.
constexpr std::size_t ImportBatchSize = 200;

// Loads every directory and document of the tree in memory: the children of one directory per
// query, the documents of a whole level of directories in one query. Answers the directories,
// root first, level by level.
std::vector<TDocDirectory*> LoadWholeTree(TDBDocAdmin& AAdmin) {
    std::vector<TDocDirectory*> all;
    std::vector<TDocDirectory*> level{AAdmin.Directories()};
    level.front()->ChildDirectoryCount();  // resolves the root first
    while (!level.empty()) {
        AAdmin.LoadFilesForDirectory(level);
        std::vector<TDocDirectory*> next;
        for (TDocDirectory* dir : level) {
            all.push_back(dir);
            const std::int32_t n = dir->ChildDirectoryCount();
            for (std::int32_t i = 0; i < n; ++i)
                next.push_back(dir->GetChildDirectorys(i));
        }
        level = std::move(next);
    }
    return all;
}

// For the progress bar only: a folder that can't be read ends the count early.
std::size_t CountFiles(const fs::path& ADir) {
    std::size_t n = 0;
    std::error_code ec;
    for (fs::recursive_directory_iterator it(ADir, ec), end; !ec && it != end; it.increment(ec))
        if (it->is_regular_file(ec)) ++n;
    return n;
}

// A name as the listings show it: names that aren't UTF-8 (rows that another client wrote) in
// the escaped form that import stores, so one name can't break a listing.
std::string VisibleName(const std::string& AName) {
    return IsValidUtf8(AName) ? AName : NameFromFileSystem(AName);
}

// The same for a terminal, with control characters escaped.
std::string ShownName(const std::string& AName) {
    return PrintableText(VisibleName(AName));
}

std::string JsonText(const json& AJson) {
    return AJson.dump(1, ' ', false, json::error_handler_t::replace);
}

// A --path or mkdir path typed by the user must be well-formed, with proper folder names.
void CheckUserPath(const std::string& APath, const std::string& AWhat) {
    try {
        TBaseDocAdmin::ParseFolderPath(APath);
    } catch (Exception& e) {
        e.SetMessage(AWhat + ": " + e.Message());
        throw;
    }
}

// Opens a session for a verb that only reads: loading creates no folder and nothing is saved.
std::unique_ptr<TTreeSession> ReadingSession(TreeOptions AOptions) {
    CheckUserPath(AOptions.Path, "--path");
    AOptions.ReadOnly = true;
    return std::make_unique<TTreeSession>(AOptions);
}

// Loads the whole tree for a reading verb. Without --path a plug-in that has no folder yet is an
// empty tree (answers false, nothing loaded); a missing folder of --path raises.
bool LoadTreeForReading(TDBDocAdmin& AAdmin, const TreeOptions& AOptions,
                        std::vector<TDocDirectory*>* ADirectories = nullptr) {
    try {
        std::vector<TDocDirectory*> all = LoadWholeTree(AAdmin);
        if (ADirectories) *ADirectories = std::move(all);
        return true;
    } catch (const EDocAdminFolderNotFound&) {
        if (!AOptions.Path.empty()) throw;
        return false;
    }
}

std::int32_t ParseID(const std::string& AText) {
    std::size_t used = 0;
    long long v = 0;
    try {
        v = std::stoll(AText, &used);
    } catch (const std::exception&) {
        used = 0;
    }
    if (used != AText.size() || v < 1 || v > INT32_MAX)
        throw CLI::ValidationError("ID", "\"" + AText + "\" is no document id");
    return static_cast<std::int32_t>(v);
}

std::string DateText(TDateTime ADate) {
    return ADate > 0 ? DateTimeToISO8601(ADate) : std::string();
}

// ---- import

struct ImportOptions {
    TreeOptions Tree;
    std::string Dir;
    bool FollowLinks = false;
};

void RunImport(const ImportOptions& o) {
    CheckUserPath(o.Tree.Path, "--path");
    std::error_code ec;
    const fs::file_status status = fs::status(o.Dir, ec);
    if (!fs::exists(status)) throw Exception("Folder '" + o.Dir + "' not found!");
    if (!fs::is_directory(status))
        throw Exception("'" + o.Dir + "' is " +
                        (fs::is_regular_file(status) ? "a file" : "no folder") +
                        "; import takes a folder (with everything below it)");
    const fs::path dir = fs::absolute(o.Dir).lexically_normal();
    std::string dirName = dir.string();
    while (dirName.size() > 1 && dirName.back() == '/')
        dirName.pop_back();
    const std::size_t total = CountFiles(dirName);

    TTreeSession session(o.Tree);
    TDBDocAdmin& admin = session.Admin();
    session.ResolveRootForWriting();
    admin.SetImportFollowLinks(o.FollowLinks);
    std::size_t skipped = 0;
    admin.OnImportSkipped = [&](TObject*, const std::string& APath, const std::string& AReason) {
        ++skipped;
        std::cerr << "docadmin: skipped " << PrintableText(APath) << ": " << PrintableText(AReason)
                  << "\n";
    };
    // The local store flushes all files of a batch in one go before its commit instead of one by
    // one.
    auto* local = dynamic_cast<TDocFileLoaderLocFile*>(admin.DocFileLoader());
    if (local != nullptr) local->SetDeferFlush(true);
    // Rows are committed in batches: each batch's files are stored first with no transaction
    // open, then its rows are written in a short transaction, so that other writers wait for a
    // batch's rows at most, never for the whole import.
    admin.SetSaveBatching(
        ImportBatchSize,
        [&] {
            if (local != nullptr) local->FlushUploads();  // durable before any row names them
            session.BeginTransaction();
        },
        [&] { session.Commit(); }, [&] { session.Rollback(); });
    TerminalProgress progress("import", total >= ProgressThreshold);
    std::size_t saved = 0;
    try {
        admin.ImportDirectory(dirName, nullptr);
        admin.OnChangeDocumentState = [&](TObject*, TDocument*, TChangeState APrev) {
            if (APrev != chAdded) return;
            ++saved;
            if (total > 0) progress.Update(100.0 * static_cast<double>(saved) / total);
        };
        admin.SaveChanges();
        admin.OnChangeDocumentState = nullptr;
    } catch (const std::exception& e) {
        admin.OnChangeDocumentState = nullptr;
        progress.Finish();
        const std::size_t kept = admin.CommittedDocuments();
        if (kept == 0) throw;
        throw Exception(std::string(e.what()) + "\nThe import stopped after " +
                        std::to_string(kept) + " of " + std::to_string(total) +
                        " documents; those are stored.");
    }
    progress.Finish();
    TDocDirectory* root = admin.Directories();
    std::int64_t folderID = -1;
    for (TDocDirectory* d : root->ChildDirectoriesInMemory())
        if (d->Titel() == NameFromFileSystem(ExtractDirName(dirName))) folderID = d->DirID();
    std::cout << "imported " << saved << " documents from " << PrintableText(dirName)
              << " into folder " << folderID << "; skipped " << skipped << " entries\n";
}

// ---- ls

struct ListOptions {
    TreeOptions Tree;
    bool Json = false;
    std::string Where;
    bool CountQueries = false;
};

struct TTotals {
    std::int64_t Folders = 0;
    std::int64_t Documents = 0;
    std::int64_t Bytes = 0;
};

json DirectoryJson(TDocDirectory* ADir, TTotals& ATotals) {
    json j;
    j["id"] = ADir->DirID();
    j["title"] = VisibleName(ADir->Titel());
    json docs = json::array();
    for (TDocument* d : ADir->DocumentsInMemory()) {
        ++ATotals.Documents;
        ATotals.Bytes += d->Size();
        docs.push_back({{"id", d->DocID()},
                        {"name", VisibleName(d->DocName())},
                        {"size", d->Size()},
                        {"version", FileVersionToStr(d->Version())},
                        {"date", DateText(d->Date())},
                        {"remote", d->RemoteFileName()}});
    }
    json folders = json::array();
    for (TDocDirectory* c : ADir->ChildDirectoriesInMemory()) {
        ++ATotals.Folders;
        folders.push_back(DirectoryJson(c, ATotals));
    }
    j["folders"] = std::move(folders);
    j["documents"] = std::move(docs);
    return j;
}

void PrintDirectory(std::ostream& out, TDocDirectory* ADir, int ADepth, TTotals& ATotals) {
    const std::string indent(static_cast<std::size_t>(ADepth) * 2, ' ');
    for (TDocument* d : ADir->DocumentsInMemory()) {
        ++ATotals.Documents;
        ATotals.Bytes += d->Size();
        out << indent << ShownName(d->DocName()) << "  [" << d->DocID() << "]  " << d->Size()
            << " bytes  v" << FileVersionToStr(d->Version()) << "  " << DateText(d->Date()) << "\n";
    }
    for (TDocDirectory* c : ADir->ChildDirectoriesInMemory()) {
        ++ATotals.Folders;
        out << indent << ShownName(c->Titel()) << "/  [folder " << c->DirID() << "]\n";
        PrintDirectory(out, c, ADepth + 1, ATotals);
    }
}

void RunList(const ListOptions& o) {
    auto sessionHolder = ReadingSession(o.Tree);
    TTreeSession& session = *sessionHolder;
    TDBDocAdmin& admin = session.Admin();
    if (!o.Where.empty()) admin.ApplyParams(o.Where);
    LoadTreeForReading(admin, o.Tree);
    TDocDirectory* root = admin.Directories();
    TTotals totals;
    if (o.Json) {
        json j;
        j["plugin"] = admin.Plugin();
        j["path"] = VisibleName(admin.RootDirectoryPath());
        j["root"] = DirectoryJson(root, totals);
        j["folders"] = totals.Folders;
        j["documents"] = totals.Documents;
        j["bytes"] = totals.Bytes;
        std::cout << JsonText(j) << "\n";
    } else {
        std::cout << (admin.RootDirectoryPath().empty() ? std::string("(all)")
                                                        : ShownName(admin.RootDirectoryPath()))
                  << "  [folder " << root->DirID() << "]\n";
        PrintDirectory(std::cout, root, 1, totals);
        std::cout << totals.Folders << " folders, " << totals.Documents << " documents, "
                  << totals.Bytes << " bytes\n";
    }
    if (o.CountQueries) std::cerr << "queries: " << session.StatementCount() << "\n";
}

// ---- get

struct GetOptions {
    TreeOptions Tree;
    std::string ID;
    std::string Dest;
};

void RunGet(const GetOptions& o) {
    const std::int32_t id = ParseID(o.ID);
    auto session = ReadingSession(o.Tree);
    TDBDocAdmin& admin = session->Admin();
    std::string dest = o.Dest;
    std::string shown = o.Dest;
    std::error_code ec;
    TDirHandle folder;
    if (fs::is_directory(dest, ec)) {
        // Into a folder under the document's name: one entry of that folder, whatever the row
        // says, and never through a link that stands there.
        std::string name;
        TDateTime date = 0;
        if (admin.GetDocumentFileInfo(id, name, date, false).empty())
            throw EDocAdminFileNotFoundInRepository("File with ID '" + std::to_string(id) +
                                                    "' not found in repository!");
        folder = TDirHandle::Open(dest);
        const std::string file = SafeFileName(name);
        shown = IncludeTrailingDirSeparator(o.Dest) + file;
        struct stat st {};
        if (::fstatat(folder.Handle(), file.c_str(), &st, AT_SYMLINK_NOFOLLOW) == 0 &&
            !S_ISREG(st.st_mode))
            throw Exception(
                "'" + shown + "' exists and is " +
                (S_ISLNK(st.st_mode) ? "a symbolic link; it is not written through" : "no file"));
        dest = folder.EntryPath(file);
        if (dest.empty()) dest = shown;
    }
    std::string name;
    admin.DownloadFile(id, dest, name);
    std::cout << PrintableText(shown) << "\n";
}

// ---- export

struct ExportOptions {
    TreeOptions Tree;
    std::string Dest;
    std::string Files;
    std::string Dirs;
    bool ContinueOnMissing = false;
};

void RunExport(const ExportOptions& o) {
    auto session = ReadingSession(o.Tree);
    TDBDocAdmin& admin = session->Admin();
    std::vector<TDocDirectory*> dirs;
    if (!LoadTreeForReading(admin, o.Tree, &dirs)) {
        std::cout << "exported 0 documents to " << PrintableText(o.Dest) << "\n";
        return;
    }
    std::int64_t total = 0;
    for (TDocDirectory* d : dirs)
        total += static_cast<std::int64_t>(d->DocumentsInMemory().size());
    TerminalProgress progress("export", total >= static_cast<std::int64_t>(ProgressThreshold));
    std::int64_t done = 0;
    admin.OnDownloadDocumentDone = [&](TObject*) {
        ++done;
        if (total > 0) progress.Update(100.0 * static_cast<double>(done) / total);
    };
    fs::create_directories(o.Dest);
    admin.ExportDirectory(o.Dest, nullptr, o.ContinueOnMissing, o.Files, o.Dirs);
    admin.OnDownloadDocumentDone = nullptr;
    progress.Finish();
    std::cout << "exported " << done << " documents to " << PrintableText(o.Dest) << "\n";
}

// ---- replace, rm, mkdir

struct ReplaceOptions {
    TreeOptions Tree;
    std::string ID;
    std::string File;
    bool NoArchive = false;
};

void RunReplace(const ReplaceOptions& o) {
    const std::int32_t id = ParseID(o.ID);
    std::error_code ec;
    if (!fs::is_regular_file(o.File, ec)) throw EFOpenError("File '" + o.File + "' not found!");
    TTreeSession session(o.Tree);
    session.Admin().ReplaceFile(static_cast<std::int64_t>(id), o.File, false,
                                o.NoArchive ? ramNoArchive : ramDefault);
    std::cout << "replaced document " << id << (o.NoArchive ? "" : "; the old version is archived")
              << "\n";
}

struct RemoveOptions {
    TreeOptions Tree;
    std::string ID;
};

void RunRemove(const RemoveOptions& o) {
    const std::int32_t id = ParseID(o.ID);
    TTreeSession session(o.Tree);
    session.Admin().DeleteDocument(id);
    std::cout << "removed document " << id << "\n";
}

struct MkdirOptions {
    TreeOptions Tree;
    std::string Path;
};

void RunMkdir(const MkdirOptions& o) {
    CheckUserPath(o.Tree.Path, "--path");
    CheckUserPath(o.Path, "mkdir");
    if (o.Path.empty()) throw Exception("mkdir: no folder given");
    TTreeSession session(o.Tree);
    TDBDocAdmin& admin = session.Admin();
    session.ResolveRootForWriting();
    session.BeginTransaction();
    TDocDirectory* dir = nullptr;
    try {
        dir = admin.CreateFolderStruct(nullptr, o.Path);
        admin.SaveChanges();
        session.Commit();
    } catch (...) {
        session.Rollback();
        throw;
    }
    std::cout << ShownName(dir->Path()) << "  [folder " << dir->DirID() << "]\n";
}

// ---- versions

struct VersionsOptions {
    TreeOptions Tree;
    std::string ID;
    bool Json = false;
};

void RunVersions(const VersionsOptions& o) {
    const std::int32_t id = ParseID(o.ID);
    auto session = ReadingSession(o.Tree);
    IDBInterface* db = session->Host().GetDBInterface();

    TKRRecordSet current(nullptr, db);
    current.SetSchemaName("docadmindocs");
    for (const char* f : {"docname", "flversion", "flsize", "fldate", "fllocname"})
        current.GetSelectFields()->Add(f);
    current.GetFilters()->AddFilter("id", TVariant(static_cast<long long>(id)));
    current.Open();
    if (current.GetRecordCount() == 0)
        throw EDocAdminFileNotFoundInRepository("File with ID '" + std::to_string(id) +
                                                "' not found in repository!");

    TKRRecordSet archive(nullptr, db);
    archive.SetSchemaName("docadmin_docarchive");
    for (const char* f : {"docname", "flversion", "flsize", "fldate", "fllocname", "origcreadate",
                          "origcreaid", "creadate"})
        archive.GetSelectFields()->Add(f);
    archive.GetSelectFieldOptions("origcreaid").DisableLookupValueLoading = true;
    archive.GetFilters()->AddFilter("docadmindocid", TVariant(static_cast<long long>(id)));
    archive.GetOrderFields()->SetOrder("id");
    archive.Open();

    auto row = [](TKRRecordSet& rs, int r, bool archived) {
        json j;
        if (archived) j["archive_id"] = rs.GetDBIDByRecNo(r);
        j["name"] = VisibleName(rs.ValueByName(r, "docname").GetAsString());
        j["version"] = rs.ValueByName(r, "flversion").GetAsString();
        j["size"] = rs.ValueByName(r, "flsize").GetAsInteger();
        j["date"] = DateText(rs.ValueByName(r, "fldate").GetAsFloat());
        j["remote"] = rs.ValueByName(r, "fllocname").GetAsString();
        if (archived) {
            j["stored"] = DateText(rs.ValueByName(r, "origcreadate").GetAsFloat());
            j["stored_by"] = rs.ValueByName(r, "origcreaid").GetAsInteger();
            j["archived"] = DateText(rs.ValueByName(r, "creadate").GetAsFloat());
        }
        return j;
    };
    json versions = json::array();
    for (int r = 0; r < archive.GetRecordCount(); ++r)
        versions.push_back(row(archive, r, true));
    const json now = row(current, 0, false);

    if (o.Json) {
        json j;
        j["id"] = id;
        j["current"] = now;
        j["archived"] = std::move(versions);
        std::cout << JsonText(j) << "\n";
        return;
    }
    auto line = [](const json& v) {
        std::cout << "v" << v["version"].get<std::string>() << "  " << v["size"].get<std::int64_t>()
                  << " bytes  " << v["date"].get<std::string>() << "  "
                  << v["remote"].get<std::string>() << "  "
                  << PrintableText(v["name"].get<std::string>());
    };
    std::cout << "document " << id << "\ncurrent   ";
    line(now);
    std::cout << "\n";
    for (const json& v : versions) {
        std::cout << "archived  ";
        line(v);
        std::cout << "  (stored " << v["stored"].get<std::string>() << ")\n";
    }
    std::cout << versions.size() << " archived version(s)\n";
}

}  // namespace

static CommandRegistrar reg([](CLI::App& app) {
    const std::string treeNote = "Works on the tree of --plugin (default: this tool's own tree " +
                                 CommandLineTreeGUID + ") below --path.";

    auto importOpts = std::make_shared<ImportOptions>();
    auto* import =
        app.add_subcommand("import", "Import a local folder with everything below it. " + treeNote);
    import->add_option("DIR", importOpts->Dir, "local folder")->required();
    import->add_flag("--follow-links", importOpts->FollowLinks,
                     "follow symbolic links whose target lies inside DIR (default: skip links)");
    AddTreeOptions(import, importOpts->Tree);
    import->callback([importOpts] { RunImport(*importOpts);
});

auto listOpts = std::make_shared<ListOptions>();
auto* ls = app.add_subcommand(
    "ls", "List the tree: folders, documents with ids, sizes and versions. " + treeNote);
ls->add_flag("--json", listOpts->Json, "print JSON");
ls->add_option("--where", listOpts->Where,
               "only documents matching a where-text, e.g. \"docname like '%.pdf'\"");
ls->add_flag("--count-queries", listOpts->CountQueries,
             "print the number of database queries to stderr");
AddTreeOptions(ls, listOpts->Tree);
ls->callback([listOpts] { RunList(*listOpts); });

auto getOpts = std::make_shared<GetOptions>();
auto* get = app.add_subcommand("get", "Write a document's content to a file");
get->add_option("ID", getOpts->ID, "document id")->required();
get->add_option("DEST", getOpts->Dest, "file, or folder to write it in under its name")->required();
AddTreeOptions(get, getOpts->Tree);
get->callback([getOpts] { RunGet(*getOpts); });

auto exportOpts = std::make_shared<ExportOptions>();
auto* exp = app.add_subcommand(
    "export", "Write the tree's folders and documents to a local folder. " + treeNote);
exp->add_option("DEST", exportOpts->Dest, "local folder (created when missing)")->required();
exp->add_option("--files", exportOpts->Files, "only documents whose name matches, e.g. *.pdf");
exp->add_option("--dirs", exportOpts->Dirs,
                "only folders whose title matches (a folder that doesn't is left out with "
                "everything below it)");
exp->add_flag("--continue-on-missing", exportOpts->ContinueOnMissing,
              "skip documents whose file is missing in the store");
AddTreeOptions(exp, exportOpts->Tree);
exp->callback([exportOpts] { RunExport(*exportOpts); });

auto replaceOpts = std::make_shared<ReplaceOptions>();
auto* replace = app.add_subcommand(
    "replace", "Give a document new content; the old version goes to the archive");
replace->add_option("ID", replaceOpts->ID, "document id")->required();
replace->add_option("FILE", replaceOpts->File, "local file")->required();
replace->add_flag("--no-archive", replaceOpts->NoArchive,
                  "overwrite the content in place and keep no archived version");
AddTreeOptions(replace, replaceOpts->Tree);
replace->callback([replaceOpts] { RunReplace(*replaceOpts); });

auto rmOpts = std::make_shared<RemoveOptions>();
auto* rm = app.add_subcommand("rm", "Delete a document: its file and its row");
rm->add_option("ID", rmOpts->ID, "document id")->required();
AddTreeOptions(rm, rmOpts->Tree);
rm->callback([rmOpts] { RunRemove(*rmOpts); });

auto mkdirOpts = std::make_shared<MkdirOptions>();
auto* mkdir = app.add_subcommand(
    "mkdir", "Create a folder path (comma text, e.g. '\"a\",\"b\"'). " + treeNote);
mkdir->add_option("PATH", mkdirOpts->Path, "folders as comma text")->required();
AddTreeOptions(mkdir, mkdirOpts->Tree);
mkdir->callback([mkdirOpts] { RunMkdir(*mkdirOpts); });

auto versionsOpts = std::make_shared<VersionsOptions>();
auto* versions =
    app.add_subcommand("versions", "Show a document's current version and its archived versions");
versions->add_option("ID", versionsOpts->ID, "document id")->required();
versions->add_flag("--json", versionsOpts->Json, "print JSON");
AddTreeOptions(versions, versionsOpts->Tree);
versions->callback([versionsOpts] { RunVersions(*versionsOpts); });
});

}  // namespace docadmin::app
