// The document tree verbs: import, ls, get, export, replace, rm, mkdir, versions. Each works on
// the tree that --plugin and --path name (see tree_session.h), in the configured database and
// store, through the document module's interfaces.
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

// For the progress bar only: a folder that can't be read ends the count early.
std::size_t CountFiles(const fs::path& ADir) {
    std::size_t n = 0;
    std::error_code ec;
    for (fs::recursive_directory_iterator it(ADir, ec), end; !ec && it != end; it.increment(ec))
        if (it->is_regular_file(ec)) ++n;
    return n;
}

// Documents of a loaded tree, counted through its interfaces.
std::int64_t CountDocuments(IDirectory& ADir) {
    std::int64_t n = ADir.Get_DocumentCount();
    for (std::int32_t i = 0; i < ADir.Get_ChildDirectoryCount(); ++i)
        n += CountDocuments(*ADir.Get_ChildDirectory(i));
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

// A folder's path below the tree's root as comma text of quoted titles.
std::string FolderPath(IDirectory* ADir) {
    std::string path;
    for (IPtr<IDirectory> d(ADir); d;) {
        IPtr<IDirectory> parent = d->Get_ParentDir();
        if (!parent) break;
        path = "\"" + d->Get_Title() + "\"" + (path.empty() ? "" : "," + path);
        d = parent;
    }
    return path;
}

// Options of a verb that only reads: loading creates no folder and nothing is saved.
TreeOptions Reading(TreeOptions AOptions) {
    AOptions.ReadOnly = true;
    return AOptions;
}

// Loads the whole tree for a reading verb. Without --path a plug-in that has no folder yet is an
// empty tree (answers false, nothing loaded); a missing folder of --path raises.
bool LoadTreeForReading(TTreeSession& ASession, const TreeOptions& AOptions) {
    return ASession.Tools().Do_LoadWholeTree(&ASession.Root(), AOptions.Path.empty());
}

// Clears the tree's events when a verb's scope ends, since they refer to its locals.
struct TEventsGuard {
    TTreeSession& Session;
    explicit TEventsGuard(TTreeSession& ASession, const TDocAdminToolEvents& AEvents)
        : Session(ASession) {
        Session.Tools().Do_SetEvents(&Session.Root(), AEvents);
    }
    ~TEventsGuard() {
        try {
            Session.Tools().Do_SetEvents(&Session.Root(), {});
        } catch (...) {  // the tree goes with the session; nothing calls the events then
        }
    }
};

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

    RunTreeVerb(o.Tree, [&](TTreeSession& session) {
        IDirectoryRoot& root = session.Root();
        IDocAdminTools& tools = session.Tools();
        session.ResolveRootForWriting();
        // Rows are committed in batches: each batch's files are stored first with no transaction
        // open, then its rows are written in a short transaction, so that other writers wait for
        // a batch's rows at most, never for the whole import.
        tools.Do_SetImportOptions(&root, o.FollowLinks, ImportBatchSize);
        TerminalProgress progress("import", total >= ProgressThreshold);
        std::size_t skipped = 0;
        std::size_t saved = 0;
        TDocAdminToolEvents events;
        events.OnImportSkipped = [&](const std::string& APath, const std::string& AReason) {
            ++skipped;
            std::cerr << "docadmin: skipped " << PrintableText(APath) << ": "
                      << PrintableText(AReason) << "\n";
        };
        events.OnDocumentStored = [&] {
            ++saved;
            if (total > 0) progress.Update(100.0 * static_cast<double>(saved) / total);
        };
        {
            TEventsGuard guard(session, events);
            try {
                root.Do_ImportDirectory(nullptr, dirName);
                root.Do_SaveChanges();
            } catch (const std::exception& e) {
                progress.Finish();
                const std::size_t kept = tools.Get_CommittedDocuments(&root);
                if (kept == 0) throw;
                throw Exception(std::string(e.what()) + "\nThe import stopped after " +
                                std::to_string(kept) + " of " + std::to_string(total) +
                                " documents; those are stored.");
            }
        }
        progress.Finish();
        // The folder that the import made (or filled) at the top of the tree.
        const std::string title = NameFromFileSystem(ExtractDirName(dirName));
        std::int64_t folderID = -1;
        for (std::int32_t i = 0; i < root.Get_RootDirectoryCount(); ++i) {
            IPtr<IDirectory> d = root.Get_RootDirectory(i);
            if (d->Get_Title() == title) folderID = d->Get_DirID();
        }
        std::cout << "imported " << saved << " documents from " << PrintableText(dirName)
                  << " into folder " << folderID << "; skipped " << skipped << " entries\n";
    });
}

// ---- ls

struct ListOptions {
    TreeOptions Tree;
    bool Json = false;
    bool CountQueries = false;
};

struct TTotals {
    std::int64_t Folders = 0;
    std::int64_t Documents = 0;
    std::int64_t Bytes = 0;
};

// The listing of a directory; ADescend false for a tree that isn't there (nothing to load).
json DirectoryJson(IDirectory& ADir, IDocAdminTools& ATools, bool ADescend, TTotals& ATotals) {
    json j;
    j["id"] = ADir.Get_DirID();
    j["title"] = VisibleName(ADir.Get_Title());
    json docs = json::array();
    json folders = json::array();
    if (ADescend) {
        for (std::int32_t i = 0; i < ADir.Get_DocumentCount(); ++i) {
            IPtr<IDocument> d = ADir.Get_Document(i);
            ++ATotals.Documents;
            ATotals.Bytes += d->Get_Size();
            docs.push_back({{"id", d->Get_DocID()},
                            {"name", VisibleName(d->Get_DocName())},
                            {"size", d->Get_Size()},
                            {"version", d->Get_Version()},
                            {"date", DateText(d->Get_Date())},
                            {"remote", ATools.Get_RemoteFileName(d.get())}});
        }
        for (std::int32_t i = 0; i < ADir.Get_ChildDirectoryCount(); ++i) {
            ++ATotals.Folders;
            folders.push_back(DirectoryJson(*ADir.Get_ChildDirectory(i), ATools, true, ATotals));
        }
    }
    j["folders"] = std::move(folders);
    j["documents"] = std::move(docs);
    return j;
}

void PrintDirectory(std::ostream& out, IDirectory& ADir, int ADepth, TTotals& ATotals) {
    const std::string indent(static_cast<std::size_t>(ADepth) * 2, ' ');
    for (std::int32_t i = 0; i < ADir.Get_DocumentCount(); ++i) {
        IPtr<IDocument> d = ADir.Get_Document(i);
        ++ATotals.Documents;
        ATotals.Bytes += d->Get_Size();
        out << indent << ShownName(d->Get_DocName()) << "  [" << d->Get_DocID() << "]  "
            << d->Get_Size() << " bytes  v" << d->Get_Version() << "  " << DateText(d->Get_Date())
            << "\n";
    }
    for (std::int32_t i = 0; i < ADir.Get_ChildDirectoryCount(); ++i) {
        IPtr<IDirectory> c = ADir.Get_ChildDirectory(i);
        ++ATotals.Folders;
        out << indent << ShownName(c->Get_Title()) << "/  [folder " << c->Get_DirID() << "]\n";
        PrintDirectory(out, *c, ADepth + 1, ATotals);
    }
}

void RunList(const ListOptions& o) {
    RunTreeVerb(Reading(o.Tree), [&](TTreeSession& session) {
        const bool loaded = LoadTreeForReading(session, o.Tree);
        IPtr<IDirectory> root = session.Root().Get_RootDir();
        const TDocAdminTreeAddress& address = session.Address();
        TTotals totals;
        if (o.Json) {
            json j;
            j["plugin"] = address.Plugin;
            j["path"] = VisibleName(address.RootDirectoryPath);
            j["root"] = DirectoryJson(*root, session.Tools(), loaded, totals);
            j["folders"] = totals.Folders;
            j["documents"] = totals.Documents;
            j["bytes"] = totals.Bytes;
            std::cout << JsonText(j) << "\n";
        } else {
            std::cout << (address.RootDirectoryPath.empty() ? std::string("(all)")
                                                            : ShownName(address.RootDirectoryPath))
                      << "  [folder " << root->Get_DirID() << "]\n";
            if (loaded) PrintDirectory(std::cout, *root, 1, totals);
            std::cout << totals.Folders << " folders, " << totals.Documents << " documents, "
                      << totals.Bytes << " bytes\n";
        }
        if (o.CountQueries) std::cerr << "queries: " << session.StatementCount() << "\n";
    });
}

// ---- get

struct GetOptions {
    TreeOptions Tree;
    std::string ID;
    std::string Dest;
};

void RunGet(const GetOptions& o) {
    const std::int32_t id = ParseID(o.ID);
    RunTreeVerb(Reading(o.Tree), [&](TTreeSession& session) {
        std::string dest = o.Dest;
        std::string shown = o.Dest;
        std::error_code ec;
        TDirHandle folder;
        if (fs::is_directory(dest, ec)) {
            // Into a folder under the document's name: one entry of that folder, whatever the
            // row says, and never through a link that stands there.
            const std::string name = session.Tools().Get_DocumentVersions(id).Current.DocName;
            folder = TDirHandle::Open(dest);
            const std::string file = SafeFileName(name);
            shown = IncludeTrailingDirSeparator(o.Dest) + file;
            struct stat st {};
            if (::fstatat(folder.Handle(), file.c_str(), &st, AT_SYMLINK_NOFOLLOW) == 0 &&
                !S_ISREG(st.st_mode))
                throw Exception("'" + shown + "' exists and is " +
                                (S_ISLNK(st.st_mode) ? "a symbolic link; it is not written through"
                                                     : "no file"));
            dest = folder.EntryPath(file);
            if (dest.empty()) dest = shown;
        }
        std::string name;
        session.Root().Do_DownloadFileByID(id, dest, name);
        std::cout << PrintableText(shown) << "\n";
    });
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
    RunTreeVerb(Reading(o.Tree), [&](TTreeSession& session) {
        if (!LoadTreeForReading(session, o.Tree)) {
            std::cout << "exported 0 documents to " << PrintableText(o.Dest) << "\n";
            return;
        }
        const std::int64_t total = CountDocuments(*session.Root().Get_RootDir());
        TerminalProgress progress("export", total >= static_cast<std::int64_t>(ProgressThreshold));
        std::int64_t done = 0;
        TDocAdminToolEvents events;
        events.OnDocumentDownloaded = [&] {
            ++done;
            if (total > 0) progress.Update(100.0 * static_cast<double>(done) / total);
        };
        {
            TEventsGuard guard(session, events);
            fs::create_directories(o.Dest);
            session.Root().Do_ExportDirectory(nullptr, o.Dest, o.ContinueOnMissing, o.Files,
                                              o.Dirs);
        }
        progress.Finish();
        std::cout << "exported " << done << " documents to " << PrintableText(o.Dest) << "\n";
    });
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
    RunTreeVerb(o.Tree, [&](TTreeSession& session) {
        session.Root().Do_ReplaceFileByID(id, o.File, o.NoArchive ? ramNoArchive : ramDefault);
    });
    std::cout << "replaced document " << id << (o.NoArchive ? "" : "; the old version is archived")
              << "\n";
}

struct RemoveOptions {
    TreeOptions Tree;
    std::string ID;
};

void RunRemove(const RemoveOptions& o) {
    const std::int32_t id = ParseID(o.ID);
    RunTreeVerb(o.Tree, [&](TTreeSession& session) { session.Root().Do_DeleteDocumentByID(id); });
    std::cout << "removed document " << id << "\n";
}

struct MkdirOptions {
    TreeOptions Tree;
    std::string Path;
};

void RunMkdir(const MkdirOptions& o) {
    if (o.Path.empty()) throw Exception("mkdir: no folder given");
    RunTreeVerb(o.Tree, [&](TTreeSession& session) {
        try {
            session.Tools().Do_CheckFolderPath(o.Path);
        } catch (const std::exception& e) {
            throw Exception(std::string("mkdir: ") + e.what());
        }
        IDirectoryRoot& root = session.Root();
        session.ResolveRootForWriting();
        session.BeginTransaction();
        IPtr<IDirectory> dir;
        try {
            dir = root.Do_CreateFolderStruct(nullptr, o.Path);
            root.Do_SaveChanges();
            session.Commit();
        } catch (...) {
            session.Rollback();
            throw;
        }
        std::cout << ShownName(FolderPath(dir.get())) << "  [folder " << dir->Get_DirID() << "]\n";
    });
}

// ---- versions

struct VersionsOptions {
    TreeOptions Tree;
    std::string ID;
    bool Json = false;
};

json VersionJson(const TDocAdminVersion& v, bool AArchived) {
    json j;
    if (AArchived) j["archive_id"] = v.ArchiveID;
    j["name"] = VisibleName(v.DocName);
    j["version"] = v.Version;
    j["size"] = v.Size;
    j["date"] = DateText(v.Date);
    j["remote"] = v.RemoteFileName;
    if (AArchived) {
        j["stored"] = DateText(v.StoredDate);
        j["stored_by"] = v.StoredBy;
        j["archived"] = DateText(v.ArchivedDate);
    }
    return j;
}

void RunVersions(const VersionsOptions& o) {
    const std::int32_t id = ParseID(o.ID);
    TDocAdminVersions history;
    RunTreeVerb(Reading(o.Tree),
                [&](TTreeSession& session) { history = session.Tools().Get_DocumentVersions(id); });
    json versions = json::array();
    for (const TDocAdminVersion& v : history.Archived)
        versions.push_back(VersionJson(v, true));
    const json now = VersionJson(history.Current, false);

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
ls->add_option("--where", listOpts->Tree.Where,
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
