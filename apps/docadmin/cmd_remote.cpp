// docadmin remote ...: a client of a running server, for a person at a terminal.
//
//   remote --url URL --user NAME [--password-file F] ls  --schema S --record UID [--json]
//   remote ... get --schema S --record UID (--id N | --path FOLDER/NAME) [-o FILE|DIR]
//   remote ... get --uid DOCUMENT-UID [-o FILE|DIR]
//              [--chunk-size BYTES] [--format .EXT] [--retries N] [--force]
//   remote ... put FILE... --schema S --record UID [--path FOLDER]
//
// The password comes from --password-file (its first line), else from DOCADMIN_PASSWORD, else it
// is asked for on the terminal without echo. The storage of a schema's documents follows from the
// schema's name as the server decides it; --storage names it where a schema's table is named
// otherwise.
//
// get writes into a temporary file beside the target and renames it only when every byte has
// come and the size matches the listing: an interrupted download never leaves a partial file
// under the target's name. An existing target is only replaced with --force.
#include <fcntl.h>
#include <sys/stat.h>
#include <termios.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iostream>

#include "_DocAdminStorageUIDs.h"
#include "_TTerminalProgress.h"
#include "_Tools.h"
#include "commands.h"
#include "remote_client.h"

namespace docadmin::app {
namespace {

namespace fs = std::filesystem;

struct RemoteOptions {
    std::string URL;
    std::string User;
    std::string PasswordFile;
    bool Insecure = false;
    int Retries = 5;
    std::string Storage;
    std::string Schema;
    std::string Record;
    bool Json = false;
    std::int64_t ID = -1;
    std::string Path;
    std::string UID;
    std::string Output;
    std::string ChunkSize = "4M";
    std::string Format;
    bool Force = false;
    std::vector<std::string> Files;
};

std::string FirstLine(std::istream& in) {
    std::string line;
    std::getline(in, line);
    if (!line.empty() && line.back() == '\r') line.pop_back();
    return line;
}

std::string Password(const RemoteOptions& o) {
    if (!o.PasswordFile.empty()) {
        std::ifstream in(o.PasswordFile);
        if (!in) throw Exception("Cannot read the password file " + o.PasswordFile);
        return FirstLine(in);
    }
    if (const char* env = std::getenv("DOCADMIN_PASSWORD")) return env;
    if (!isatty(STDIN_FILENO))
        throw Exception("No password: use --password-file, DOCADMIN_PASSWORD or a terminal");
    std::cerr << "Password for " << PrintableText(o.User) << ": " << std::flush;
    termios old{};
    tcgetattr(STDIN_FILENO, &old);
    termios quiet = old;
    quiet.c_lflag &= ~static_cast<tcflag_t>(ECHO);
    tcsetattr(STDIN_FILENO, TCSANOW, &quiet);
    const std::string line = FirstLine(std::cin);
    tcsetattr(STDIN_FILENO, TCSANOW, &old);
    std::cerr << "\n";
    return line;
}

std::unique_ptr<TRemoteClient> Connect(const RemoteOptions& o) {
    TRemoteClientOptions co;
    co.Insecure = o.Insecure;
    co.Retries = o.Retries;
    auto client = std::make_unique<TRemoteClient>(o.URL, co);
    client->Login(o.User, Password(o));
    return client;
}

std::string StorageOf(const RemoteOptions& o) {
    return o.Storage.empty() ? GuessStorageUIDBySQLTableName(o.Schema) : o.Storage;
}

// "4M", "512K", "1048576" to bytes.
std::int64_t ParseSize(const std::string& AText) {
    std::int64_t factor = 1;
    std::string digits = AText;
    if (!digits.empty()) {
        const char unit =
            static_cast<char>(std::toupper(static_cast<unsigned char>(digits.back())));
        if (unit == 'K' || unit == 'M' || unit == 'G') {
            factor = unit == 'K' ? 1 << 10 : unit == 'M' ? 1 << 20 : 1 << 30;
            digits.pop_back();
        }
    }
    std::int64_t n = 0;
    if (!TryStrToInt64(digits, n) || n < 1 || n > (std::int64_t{1} << 40) / factor)
        throw CLI::ValidationError("--chunk-size", "a positive size such as 65536, 512K or 4M");
    return n * factor;
}

// "2026-11-23T17:40:12.000" as "2026-11-23 17:40:12".
std::string ShortDate(const TJson& AValue) {
    if (!AValue.is_string()) return "";
    std::string s = AValue.get<std::string>().substr(0, 19);
    if (s.size() > 10 && s[10] == 'T') s[10] = ' ';
    return s;
}

// The array under AKey of a listing level, or an empty one.
const TJson& Items(const TJson& ALevel, const char* AKey) {
    static const TJson none = TJson::array();
    const auto it = ALevel.find(AKey);
    return it != ALevel.end() && it->is_array() ? *it : none;
}

struct TreeLine {
    std::string Name;  // indented
    std::string Size, Version, Modified, Created, ID;
};

void CollectTree(const TJson& ALevel, int ADepth, std::vector<TreeLine>& ALines) {
    const std::string indent(static_cast<std::size_t>(ADepth) * 2, ' ');
    for (const TJson& d : Items(ALevel, "directories")) {
        ALines.push_back({indent + PrintableText(d.value("name", "")) + "/", "", "", "",
                          ShortDate(d.value("createdate", TJson())),
                          std::to_string(d.value("server_dbid", std::int64_t{0}))});
        CollectTree(d, ADepth + 1, ALines);
    }
    for (const TJson& f : Items(ALevel, "documents"))
        ALines.push_back({indent + PrintableText(f.value("name", "")),
                          std::to_string(f.value("size", std::int64_t{0})),
                          PrintableText(f.value("version", "")),
                          ShortDate(f.value("lastmodified", TJson())),
                          ShortDate(f.value("createdate", TJson())),
                          std::to_string(f.value("server_dbid", std::int64_t{0}))});
}

void PrintTree(const TJson& ARoot) {
    std::vector<TreeLine> lines;
    lines.push_back({"NAME", "SIZE", "VERSION", "MODIFIED", "CREATED", "ID"});
    CollectTree(ARoot, 0, lines);
    if (lines.size() == 1) {
        std::cout << "(no documents)\n";
        return;
    }
    std::size_t w[6] = {};
    for (const auto& l : lines) {
        const std::string* cols[] = {&l.Name, &l.Size, &l.Version, &l.Modified, &l.Created, &l.ID};
        for (int i = 0; i < 6; ++i)
            w[i] = std::max(w[i], cols[i]->size());
    }
    for (const auto& l : lines) {
        std::string out = l.Name + std::string(w[0] - l.Name.size(), ' ');
        out += "  " + std::string(w[1] - l.Size.size(), ' ') + l.Size;  // sizes to the right
        const std::string* rest[] = {&l.Version, &l.Modified, &l.Created, &l.ID};
        for (int i = 0; i < 4; ++i)
            out += "  " + *rest[i] + std::string(w[i + 2] - rest[i]->size(), ' ');
        while (!out.empty() && out.back() == ' ')
            out.pop_back();
        std::cout << out << "\n";
    }
}

// A document of the listing by ID or by its path of folder and document names.
const TJson* FindDocument(const TJson& ALevel, std::int64_t AID, const std::string& APath) {
    if (AID >= 0) {
        for (const TJson& f : Items(ALevel, "documents"))
            if (f.value("server_dbid", std::int64_t{-1}) == AID) return &f;
        for (const TJson& d : Items(ALevel, "directories"))
            if (const TJson* hit = FindDocument(d, AID, APath)) return hit;
        return nullptr;
    }
    const std::size_t slash = APath.find('/');
    if (slash == std::string::npos) {
        for (const TJson& f : Items(ALevel, "documents"))
            if (f.value("name", "") == APath) return &f;
        return nullptr;
    }
    for (const TJson& d : Items(ALevel, "directories"))
        if (d.value("name", "") == APath.substr(0, slash))
            if (const TJson* hit = FindDocument(d, AID, APath.substr(slash + 1))) return hit;
    return nullptr;
}

bool FolderExists(const TJson& ALevel, const std::string& APath) {
    if (APath.empty()) return true;
    const std::size_t slash = APath.find('/');
    const std::string head = APath.substr(0, slash);
    for (const TJson& d : Items(ALevel, "directories"))
        if (d.value("name", "") == head &&
            FolderExists(d, slash == std::string::npos ? "" : APath.substr(slash + 1)))
            return true;
    return false;
}

// The download's temporary file beside the target; removed unless committed.
class TempFileSink : public TDownloadSink {
  public:
    explicit TempFileSink(const fs::path& ADir) {
        std::string name = (ADir / ".docadmin-get-XXXXXX").string();
        FHandle = ::mkstemp(name.data());
        if (FHandle < 0)
            throw Exception("Cannot create a temporary file in " + ADir.string() + ": " +
                            std::strerror(errno));
        FName = name;
    }
    ~TempFileSink() override {
        if (FHandle >= 0) ::close(FHandle);
        if (!FName.empty()) ::unlink(FName.c_str());
    }
    void Write(const std::string& ABytes) override {
        std::size_t done = 0;
        while (done < ABytes.size()) {
            const ssize_t n = ::write(FHandle, ABytes.data() + done, ABytes.size() - done);
            if (n < 0 && errno == EINTR) continue;
            if (n <= 0) throw Exception("Cannot write " + FName + ": " + std::strerror(errno));
            done += static_cast<std::size_t>(n);
        }
    }
    void Restart() override {
        if (::ftruncate(FHandle, 0) != 0 || ::lseek(FHandle, 0, SEEK_SET) != 0)
            throw Exception("Cannot empty " + FName + ": " + std::strerror(errno));
    }
    // Flushes and renames onto the target; with AReplace false an existing target stays.
    void Commit(const fs::path& ATarget, bool AReplace) {
        if (::fsync(FHandle) != 0 || ::close(FHandle) != 0) {
            FHandle = -1;
            throw Exception("Cannot write " + FName + ": " + std::strerror(errno));
        }
        FHandle = -1;
        const int flags = AReplace ? 0 : RENAME_NOREPLACE;
        if (::renameat2(AT_FDCWD, FName.c_str(), AT_FDCWD, ATarget.c_str(), flags) != 0)
            throw Exception(errno == EEXIST ? ATarget.string() + " exists; --force replaces it"
                                            : "Cannot rename to " + ATarget.string() + ": " +
                                                  std::strerror(errno));
        FName.clear();
        // The rename itself reaches the disk with its folder.
        const int dir = ::open(ATarget.parent_path().empty() ? "." : ATarget.parent_path().c_str(),
                               O_RDONLY | O_DIRECTORY);
        if (dir >= 0) {
            ::fsync(dir);
            ::close(dir);
        }
    }

  private:
    int FHandle = -1;
    std::string FName;
};

std::string MiB(std::int64_t ABytes) {
    char buf[32];
    std::snprintf(buf, sizeof buf, "%.1f MiB", static_cast<double>(ABytes) / (1 << 20));
    return buf;
}

void RunGet(const RemoteOptions& o) {
    const bool byUID = !o.UID.empty();
    if (byUID == (o.ID >= 0 || !o.Path.empty()) || (o.ID >= 0 && !o.Path.empty()))
        throw CLI::ValidationError("get",
                                   "give one of --id, --path (with --schema and "
                                   "--record) or --uid");
    if (!byUID && (o.Schema.empty() || o.Record.empty()))
        throw CLI::ValidationError("get", "--id and --path need --schema and --record");
    TDownloadRequest req;
    req.ChunkSize = ParseSize(o.ChunkSize);
    req.Format = o.Format;
    auto client = Connect(o);
    std::string name;
    if (byUID) {
        req.DocumentUID = o.UID;
    } else {
        req.StorageUID = StorageOf(o);
        req.SchemaName = o.Schema;
        req.RecordUID = o.Record;
        const TJson tree = client->ListRecordDocuments(req.StorageUID, o.Schema, o.Record);
        const TJson* doc = FindDocument(tree, o.ID, o.Path);
        if (!doc)
            throw Exception("No document " +
                            (o.ID >= 0 ? "with id " + std::to_string(o.ID)
                                       : "\"" + PrintableText(o.Path) + "\"") +
                            " in the record");
        req.ServerDBID = doc->value("server_dbid", std::int64_t{-1});
        req.ExpectedSize = doc->value("size", std::int64_t{-1});
        name = doc->value("name", "");
    }
    // The target: -o as a file, or a folder (-o DIR, or the current one) with the document's
    // name, which for the route by UID is known after the first chunk.
    fs::path target = o.Output.empty() ? fs::path(".") : fs::path(o.Output);
    const bool intoFolder = o.Output.empty() || fs::is_directory(target) ||
                            (!o.Output.empty() && o.Output.back() == '/');
    const fs::path folder = intoFolder ? target : target.parent_path();
    if (!folder.empty() && !fs::is_directory(folder))
        throw Exception("No folder " + folder.string());
    auto targetFor = [&](const std::string& ADocName) {
        return intoFolder ? folder / SafeFileName(ExtractFileName(ADocName)) : target;
    };
    if (!byUID && o.Format.empty() && !o.Force && fs::exists(targetFor(name)))
        throw Exception(targetFor(name).string() + " exists; --force replaces it");

    TempFileSink sink(folder.empty() ? fs::path(".") : folder);
    TTerminalProgress bar("get " + (name.empty() ? o.UID : name));
    const TDownloadResult r = client->Download(req, sink, [&](std::int64_t done, std::int64_t all) {
        bar.Update(all > 0 ? 100.0 * static_cast<double>(done) / static_cast<double>(all) : 0.0,
                   all >= 0 ? MiB(done) + " of " + MiB(all) : MiB(done));
    });
    const fs::path dest = targetFor(r.Name.empty() ? name : r.Name);
    sink.Commit(dest, o.Force);
    bar.Finish();
    client->Logout();
    const double seconds = std::chrono::duration<double>(r.Duration).count();
    char rate[64];
    std::snprintf(rate, sizeof rate, " in %.3f s, %.1f MiB/s", seconds,
                  seconds > 0 ? static_cast<double>(r.Bytes) / 1048576.0 / seconds : 0.0);
    std::cout << "fetched " << PrintableText(dest.string()) << " (" << r.Bytes << " bytes" << rate
              << (r.Converted ? ", converted" : "")
              << (r.Retries ? ", " + std::to_string(r.Retries) + " chunk(s) asked again" : "")
              << ")\n";
}

void RunPut(const RemoteOptions& o) {
    for (const auto& f : o.Files)
        if (!fs::is_regular_file(f)) throw Exception("No file " + f);
    auto client = Connect(o);
    const std::string storage = StorageOf(o);
    // The server puts a document whose folder it can't find into the record's root without a
    // word; the folder is checked here first.
    if (!o.Path.empty() &&
        !FolderExists(client->ListRecordDocuments(storage, o.Schema, o.Record), o.Path))
        throw Exception("The record has no folder \"" + PrintableText(o.Path) + "\"");
    // One request per file: the server doesn't say which documents of a failed request it kept.
    for (const auto& f : o.Files) {
        TFileStream in(f, fmOpenRead);
        const std::string name = ExtractFileName(f);
        TJson item = {{"name", name},
                      {"path", o.Path},
                      {"content", MIMEEncodeRawByteStr(in, -1)},
                      {"content--encoding", "Base64"},
                      {"remote_uid", name}};
        const TJson answer =
            client->InsertRecordDocuments(o.Schema, o.Record, TJson::array({std::move(item)}));
        std::string uid;
        std::int64_t id = -1;
        for (const TJson& info : answer.value("record_info", TJson::array()))
            if (info.value("remote_uid", "") == name && info.value("server_uid", "") != o.Record) {
                uid = info.value("server_uid", "");
                id = info.value("dbid", std::int64_t{-1});
            }
        if (uid.empty()) throw Exception("The server did not report a document for " + f);
        std::cout << "uploaded " << PrintableText(f) << " as id " << id << " " << uid << "\n";
    }
    client->Logout();
}

void Install(CLI::App& app) {
    auto o = std::make_shared<RemoteOptions>();
    CLI::App* remote = app.add_subcommand("remote", "A client of a running server");
    remote->require_subcommand(1);
    remote->fallthrough();
    remote->add_option("--url", o->URL, "the server, e.g. http://127.0.0.1:8080")->required();
    remote->add_option("--user", o->User, "user name")->required();
    remote->add_option("--password-file", o->PasswordFile,
                       "file whose first line is the password (else DOCADMIN_PASSWORD, else "
                       "asked for)");
    remote->add_flag("--insecure", o->Insecure, "accept a server certificate that doesn't verify");
    auto record = [o](CLI::App* cmd, bool required) {
        auto* s = cmd->add_option("--schema", o->Schema, "the record's schema, e.g. contacts");
        auto* r = cmd->add_option("--record", o->Record, "the record's UID");
        if (required) {
            s->required();
            r->required();
        }
        cmd->add_option("--storage", o->Storage,
                        "storage UID of the schema's documents (default: by the schema's name)");
    };

    CLI::App* ls = remote->add_subcommand("ls", "List a record's folders and documents");
    record(ls, true);
    ls->add_flag("--json", o->Json, "print the service's JSON");
    ls->callback([o] {
        auto client = Connect(*o);
        const TJson tree = client->ListRecordDocuments(StorageOf(*o), o->Schema, o->Record);
        client->Logout();
        if (o->Json)
            std::cout << tree.dump(2) << "\n";
        else
            PrintTree(tree);
    });

    CLI::App* get = remote->add_subcommand("get", "Fetch a document into a file");
    record(get, false);
    get->add_option("--id", o->ID, "the document's id in the record");
    get->add_option("--path", o->Path, "the document's path in the record, FOLDER/NAME");
    get->add_option("--uid", o->UID, "the document's UID (needs no record)");
    get->add_option("-o,--output", o->Output, "target file or folder (default: the current one)");
    get->add_option("--chunk-size", o->ChunkSize, "bytes per request, e.g. 1M (default 4M)");
    get->add_option("--format", o->Format, "convert on the server, e.g. .pdf");
    get->add_option("--retries", o->Retries, "attempts again after a failed chunk (default 5)")
        ->check(CLI::Range(0, 100));
    get->add_flag("--force", o->Force, "replace an existing file");
    get->callback([o] { RunGet(*o); });

    CLI::App* put = remote->add_subcommand("put", "Upload files to a record's folder");
    record(put, true);
    put->add_option("FILE", o->Files, "files to upload")->required();
    put->add_option("--path", o->Path, "an existing folder of the record (default: its root)");
    put->callback([o] { RunPut(*o); });
}

CommandRegistrar reg(Install);

}  // namespace
}  // namespace docadmin::app
