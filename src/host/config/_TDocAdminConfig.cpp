#include "_TDocAdminConfig.h"

#include <pwd.h>
#include <unistd.h>

#include <toml++/toml.h>
#include <algorithm>
#include <charconv>
#include <cstdint>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <set>
#include <sstream>

namespace docadmin {

namespace fs = std::filesystem;

namespace {

std::string Env(const char* name) {
    const char* v = std::getenv(name);
    return v ? std::string(v) : std::string();
}

std::string HomeDir() {
    std::string home = Env("HOME");
    if (!home.empty()) return home;
    if (const passwd* pw = getpwuid(getuid()); pw && pw->pw_dir) return pw->pw_dir;
    return fs::current_path().string();
}

// "~/x" to the home folder; relative paths against ABase; the result is absolute and normal.
std::string ResolvePath(const std::string& APath, const fs::path& ABase) {
    fs::path p = APath;
    if (APath == "~" || APath.rfind("~/", 0) == 0)
        p = fs::path(HomeDir()) / APath.substr(APath.size() > 1 ? 2 : 1);
    if (p.is_relative()) p = ABase / p;
    p = p.lexically_normal();
    std::string s = p.string();
    while (s.size() > 1 && s.back() == '/')
        s.pop_back();
    return s;
}

const std::set<std::string>& TopLevelKeys() {
    static const std::set<std::string> keys{
        "data_dir",     "selected_database",    "offline_database",
        "seed_docroot", "can_create_container", "databases",
        "local",        "min_password_length",  "server",
        "host"};
    return keys;
}

class TReader {
  public:
    explicit TReader(std::string ASource) : FSource(std::move(ASource)) {}

    [[noreturn]] void Fail(const std::string& what) const {
        throw EConfigError((FSource.empty() ? std::string("configuration") : FSource) + ": " +
                           what);
    }

    std::string String(const toml::node& n, const std::string& key) const {
        if (auto s = n.value_exact<std::string>()) return *s;
        Fail(key + " must be a string");
    }

    // A scalar as text; tables and arrays are refused.
    TLocalSettingValue Scalar(const toml::node& n, const std::string& key) const {
        TLocalSettingValue v;
        if (auto s = n.value_exact<std::string>()) {
            v.Text = *s;
        } else if (auto i = n.value_exact<std::int64_t>()) {
            v.Kind = TLocalSettingValue::TKind::Integer;
            v.Text = std::to_string(*i);
        } else if (auto b = n.value_exact<bool>()) {
            v.Kind = TLocalSettingValue::TKind::Boolean;
            v.Text = *b ? "true" : "false";
        } else if (auto d = n.value_exact<double>()) {
            v.Kind = TLocalSettingValue::TKind::Float;
            char buf[32];
            const auto res = std::to_chars(buf, buf + sizeof buf, *d);
            v.Text.assign(buf, res.ptr);
        } else {
            Fail(key + " must be a string, a number or a boolean");
        }
        return v;
    }

  private:
    std::string FSource;
};

toml::table ParseText(const std::string& AText, const std::string& ASource) {
    try {
        return toml::parse(AText, ASource);
    } catch (const toml::parse_error& e) {
        std::ostringstream os;
        os << (ASource.empty() ? std::string("configuration") : ASource) << ":"
           << e.source().begin.line << ":" << e.source().begin.column << ": " << e.description();
        throw EConfigError(os.str());
    }
}

std::string ReadWholeFile(const std::string& AFileName) {
    std::ifstream in(AFileName, std::ios::binary);
    if (!in) throw EConfigError(AFileName + ": cannot be read");
    std::ostringstream os;
    os << in.rdbuf();
    return os.str();
}

}  // namespace

std::string TDocAdminConfig::DefaultDataDir() {
    std::string d = Env("DOCADMIN_DATA");
    if (!d.empty()) return ResolvePath(d, fs::current_path());
    const std::string xdg = Env("XDG_DATA_HOME");
    if (!xdg.empty() && fs::path(xdg).is_absolute()) return ResolvePath(xdg + "/docadmin", "/");
    return ResolvePath(HomeDir() + "/.local/share/docadmin", "/");
}

std::string TDocAdminConfig::DefaultPluginDir() {
    const std::string d = Env("DOCADMIN_PLUGIN_DIR");
    if (!d.empty()) return ResolvePath(d, fs::current_path());
    return ResolvePath(DOCADMIN_DEFAULT_PLUGIN_DIR, "/");
}

TDocAdminConfig TDocAdminConfig::Locate(const std::string& AConfigFile) {
    if (!AConfigFile.empty()) return FromFile(AConfigFile);
    const std::string fromEnv = Env("DOCADMIN_CONFIG");
    if (!fromEnv.empty()) return FromFile(fromEnv);
    const std::string inData = DefaultDataDir() + "/docadmin.toml";
    std::error_code ec;
    if (fs::is_regular_file(inData, ec)) return FromFile(inData);
    return Defaults();
}

TDocAdminConfig TDocAdminConfig::FromFile(const std::string& AFileName) {
    std::error_code ec;
    if (!fs::is_regular_file(AFileName, ec))
        throw EConfigError("configuration file " + AFileName + " not found");
    const std::string abs = ResolvePath(AFileName, fs::current_path());
    return FromString(ReadWholeFile(abs), abs);
}

TDocAdminConfig TDocAdminConfig::Defaults() {
    return FromString("", "");
}

TDocAdminConfig TDocAdminConfig::FromString(const std::string& AText,
                                            const std::string& ASourceFile) {
    const TReader r(ASourceFile);
    const toml::table doc = ParseText(AText, ASourceFile);
    TDocAdminConfig c;
    c.FConfigFile = ASourceFile;
    const fs::path base =
        ASourceFile.empty() ? fs::current_path() : fs::path(ASourceFile).parent_path();

    for (auto&& [k, v] : doc)
        if (!TopLevelKeys().count(std::string(k.str())))
            r.Fail("unknown key " + std::string(k.str()));

    if (const toml::node* n = doc.get("data_dir")) {
        const std::string d = r.String(*n, "data_dir");
        if (d.empty()) r.Fail("data_dir must not be empty");
        c.FDataDir = ResolvePath(d, base);
    } else {
        c.FDataDir = DefaultDataDir();
    }
    if (const toml::node* n = doc.get("seed_docroot")) {
        const std::string s = r.String(*n, "seed_docroot");
        if (!s.empty()) c.FSeedDocRoot = ResolvePath(s, c.FDataDir);
    }
    if (const toml::node* n = doc.get("can_create_container")) {
        auto b = n->value_exact<bool>();
        if (!b) r.Fail("can_create_container must be true or false");
        c.FCanCreateContainer = *b;
    }
    if (const toml::node* n = doc.get("min_password_length")) {
        auto i = n->value_exact<std::int64_t>();
        if (!i || *i < 1 || *i > 1024)
            r.Fail("min_password_length must be a number from 1 to 1024");
        c.FMinPasswordLength = static_cast<int>(*i);
    }

    // Databases, ordered by name (the order of a TOML table).
    if (const toml::node* n = doc.get("databases")) {
        const toml::table* dbs = n->as_table();
        if (!dbs) r.Fail("databases must be a table of [databases.<name>] tables");
        for (auto&& [k, v] : *dbs) {
            const std::string name(k.str());
            const toml::table* t = v.as_table();
            if (!t) r.Fail("databases." + name + " must be a table");
            TDatabaseConfig db;
            db.Name = name;
            std::string path = name == "main" ? "docadmin.db" : name + ".db";
            for (auto&& [sk, sv] : *t) {
                const std::string key(sk.str());
                const std::string full = "databases." + name + "." + key;
                if (key == "backend") {
                    db.Backend = r.String(sv, full);
                    if (db.Backend != "sqlite" && db.Backend != "postgresql")
                        r.Fail(full + " must be \"sqlite\" or \"postgresql\", not \"" + db.Backend +
                               "\"");
                } else if (key == "path") {
                    path = r.String(sv, full);
                    if (path.empty()) r.Fail(full + " must not be empty");
                } else if (key == "conninfo") {
                    db.ConnInfo = r.String(sv, full);
                } else if (key == "connection_kind") {
                    auto i = sv.value_exact<std::int64_t>();
                    if (!i || *i < 0 || *i > 255)
                        r.Fail(full + " must be a number from 0 to 255 (1: an offline copy)");
                    db.ConnectionKind = static_cast<int>(*i);
                } else {
                    db.Settings[key] = r.Scalar(sv, full).Text;
                }
            }
            if (db.Backend == "sqlite") db.Path = ResolvePath(path, c.FDataDir);
            c.FDatabases.push_back(std::move(db));
        }
    }
    if (c.FDatabases.empty()) {
        TDatabaseConfig db;
        db.Name = "main";
        db.Path = c.FDataDir + "/docadmin.db";
        c.FDatabases.push_back(std::move(db));
    }

    // The selected database: the key, else "main", else the only one there is.
    if (const toml::node* n = doc.get("selected_database")) {
        const std::string name = r.String(*n, "selected_database");
        c.FSelectedIndex = c.IndexOfDatabase(name);
        if (c.FSelectedIndex < 0)
            r.Fail("selected_database \"" + name + "\" has no [databases." + name + "] table");
    } else if ((c.FSelectedIndex = c.IndexOfDatabase("main")) < 0) {
        if (c.FDatabases.size() != 1)
            r.Fail(
                "selected_database is required when there are several databases and none "
                "is called \"main\"");
        c.FSelectedIndex = 0;
    }
    if (const toml::node* n = doc.get("offline_database")) {
        const std::string name = r.String(*n, "offline_database");
        if (!name.empty()) {
            c.FOfflineIndex = c.IndexOfDatabase(name);
            if (c.FOfflineIndex < 0)
                r.Fail("offline_database \"" + name + "\" has no [databases." + name + "] table");
        }
    }

    if (const toml::node* n = doc.get("local")) {
        const toml::table* local = n->as_table();
        if (!local) r.Fail("local must be a table of [local.<section>] tables");
        for (auto&& [k, v] : *local) {
            const std::string section(k.str());
            const toml::table* t = v.as_table();
            if (!t) r.Fail("local." + section + " must be a table");
            auto& dest = c.FLocalSettings[section];
            for (auto&& [sk, sv] : *t) {
                const std::string key(sk.str());
                dest[key] = r.Scalar(sv, "local." + section + "." + key);
            }
        }
    }
    c.FPluginDir = DefaultPluginDir();
    if (const toml::node* n = doc.get("host")) {
        const toml::table* t = n->as_table();
        if (!t) r.Fail("host must be a table");
        for (auto&& [k, v] : *t) {
            const std::string key(k.str());
            if (key == "plugin_dir") {
                const std::string d = r.String(v, "host.plugin_dir");
                if (d.empty()) r.Fail("host.plugin_dir must not be empty");
                c.FPluginDir = ResolvePath(d, base);
            } else if (key == "language") {
                static const char* const names[] = {"de", "en", "fr", "it"};
                const std::string lang = r.String(v, "host.language");
                const auto* it = std::find(std::begin(names), std::end(names), lang);
                if (it == std::end(names))
                    r.Fail("host.language must be \"de\", \"en\", \"fr\" or \"it\", not \"" + lang +
                           "\"");
                c.FLanguageIndex = static_cast<int>(it - std::begin(names));
            } else if (key == "tool_acl_group") {
                auto i = v.value_exact<std::int64_t>();
                if (!i || *i < 0 || *i > INT32_MAX)
                    r.Fail("host.tool_acl_group must be an ACL group id from 0 to 2147483647");
                c.FToolACLGroup = *i;
            } else {
                r.Fail("unknown key host." + key);
            }
        }
    }
    if (const toml::node* n = doc.get("server")) {
        const toml::table* t = n->as_table();
        if (!t) r.Fail("server must be a table");
        for (auto&& [k, v] : *t) {
            const std::string key(k.str());
            c.FServerSettings[key] = r.Scalar(v, "server." + key);
        }
    }
    return c;
}

std::string TDocAdminConfig::SaveFileName() const {
    return FConfigFile.empty() ? FDataDir + "/docadmin.toml" : FConfigFile;
}

int TDocAdminConfig::IndexOfDatabase(const std::string& AName) const {
    for (size_t i = 0; i < FDatabases.size(); ++i)
        if (FDatabases[i].Name == AName) return static_cast<int>(i);
    return -1;
}

const TDatabaseConfig& TDocAdminConfig::SelectedDatabase() const {
    return FDatabases.at(static_cast<size_t>(FSelectedIndex));
}

void SaveLocalSettingsToFile(const std::string& AFileName, const TLocalSettings& ASettings) {
    std::error_code ec;
    toml::table doc;
    if (fs::exists(AFileName, ec)) doc = ParseText(ReadWholeFile(AFileName), AFileName);

    toml::table local;
    for (const auto& [section, values] : ASettings) {
        toml::table t;
        for (const auto& [key, v] : values) {
            using K = TLocalSettingValue::TKind;
            switch (v.Kind) {
                case K::Integer:
                    t.insert_or_assign(key, std::stoll(v.Text));
                    break;
                case K::Boolean:
                    t.insert_or_assign(key, v.Text == "true");
                    break;
                case K::Float:
                    t.insert_or_assign(key, std::stod(v.Text));
                    break;
                case K::String:
                    t.insert_or_assign(key, v.Text);
                    break;
            }
        }
        local.insert_or_assign(section, std::move(t));
    }
    doc.insert_or_assign("local", std::move(local));

    const fs::path target = AFileName;
    if (target.has_parent_path()) fs::create_directories(target.parent_path(), ec);
    const std::string tmp = AFileName + ".tmp" + std::to_string(getpid());
    {
        std::ofstream out(tmp, std::ios::binary | std::ios::trunc);
        if (!out) throw EConfigError(AFileName + ": cannot be written");
        out << "# Written by docadmin; see docadmin.example.toml for the keys.\n" << doc << "\n";
        out.flush();
        if (!out) {
            fs::remove(tmp, ec);
            throw EConfigError(AFileName + ": cannot be written");
        }
    }
    fs::rename(tmp, target, ec);
    if (ec) {
        fs::remove(tmp, ec);
        throw EConfigError(AFileName + ": cannot be replaced");
    }
}

}  // namespace docadmin
