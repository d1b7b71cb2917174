#include "_DBSchema.h"

#include <algorithm>
#include <atomic>
#include <filesystem>
#include <fstream>
#include <nlohmann/json.hpp>
#include <sstream>

#include "_TClientSQL.h"

namespace docadmin {

const std::vector<std::pair<std::string, std::string>>& BuiltInSchemaFiles();

namespace {

// Names reach SQL text: only lower-case letters, digits and "_", starting with a letter or "_".
bool IsPlainName(const std::string& s) {
    if (s.empty() || s.size() > 63) return false;
    if (!(std::islower(static_cast<unsigned char>(s[0])) || s[0] == '_')) return false;
    return std::all_of(s.begin(), s.end(), [](char c) {
        return std::islower(static_cast<unsigned char>(c)) ||
               std::isdigit(static_cast<unsigned char>(c)) || c == '_';
    });
}

TDBFieldKind KindFromText(const std::string& t, const std::string& source) {
    static const std::pair<const char*, TDBFieldKind> kinds[] = {
        {"integer", TDBFieldKind::fkInteger}, {"int64", TDBFieldKind::fkInt64},
        {"float", TDBFieldKind::fkFloat},     {"date", TDBFieldKind::fkDate},
        {"string", TDBFieldKind::fkString},   {"memo", TDBFieldKind::fkMemo},
        {"byte", TDBFieldKind::fkByte},       {"boolean", TDBFieldKind::fkBoolean}};
    for (const auto& [name, kind] : kinds)
        if (t == name) return kind;
    throw EDBSchemaError(source + ": unknown field type \"" + t + "\"");
}

void AddHostColumns(std::vector<TDBFieldDef>& fields) {
    auto add = [&](const char* name, TDBFieldKind kind, bool key = false) {
        TDBFieldDef f;
        f.Name = name;
        f.Kind = kind;
        f.IsKey = key;
        f.NotNull = key;
        f.IsHostColumn = true;
        if (kind == TDBFieldKind::fkString) f.Size = 38;
        fields.push_back(f);
    };
    add("id", TDBFieldKind::fkInt64, true);
    add("creadate", TDBFieldKind::fkDate);
    add("creaid", TDBFieldKind::fkInteger);
    add("lastchangedtsp", TDBFieldKind::fkDate);
    add("lastchangedid", TDBFieldKind::fkInteger);
    add("globalrecuid", TDBFieldKind::fkString);
    for (auto& f : fields) {
        if (f.Name == "creaid" || f.Name == "lastchangedid") {
            f.HasLookup = true;
            f.Lookup = TDBLookupDef{"users", "id", "username"};
        }
    }
}

class TDBSchemaFieldItem : public TInterfacedImpl<IDBSchemaFieldItem> {
  public:
    explicit TDBSchemaFieldItem(const TDBFieldDef& ADef) : FDef(ADef) {}
    std::string GetFieldName() override { return FDef.Name; }
    TDBFieldKind GetFieldKind() override { return FDef.Kind; }
    bool GetIsLookup() override { return FDef.HasLookup; }
    const TDBFieldDef& GetDef() override { return FDef; }

  private:
    const TDBFieldDef& FDef;
};

class TDBFieldSchemaItem : public TInterfacedImpl<IDBFieldSchemaItem> {
  public:
    explicit TDBFieldSchemaItem(const TDBTableDef& ADef) : FDef(ADef) {}
    std::string GetSchemaName() override { return FDef.SchemaName; }
    std::string GetSQLTableName() override { return FDef.SQLTableName; }
    IDBSchemaFilters* GetFilters() override { return &FFilters; }
    IPtr<IDBSchemaFieldItem> GetFieldByName(const std::string& AName) override {
        const TDBFieldDef* f = FDef.FindField(AName);
        if (!f) return {};
        return IPtr<IDBSchemaFieldItem>(new TDBSchemaFieldItem(*f));
    }
    bool GetHasOwnDocumentTable() override { return !FDef.DocumentTableName.empty(); }
    std::string GetDocumentTableName() override { return FDef.DocumentTableName; }
    std::string GetKeyFieldName() override { return FDef.KeyField().Name; }
    int GetFieldCount() override { return static_cast<int>(FDef.Fields.size()); }
    IPtr<IDBSchemaFieldItem> GetFieldItem(int AIndex) override {
        return IPtr<IDBSchemaFieldItem>(new TDBSchemaFieldItem(FDef.Fields.at(AIndex)));
    }
    const TDBTableDef& GetTableDef() override { return FDef; }

  private:
    const TDBTableDef& FDef;
    TClientSQLFilters FFilters;
};

}  // namespace

bool IsIntegerFieldKind(TDBFieldKind k) {
    return k == TDBFieldKind::fkInteger || k == TDBFieldKind::fkInt64 ||
           k == TDBFieldKind::fkByte || k == TDBFieldKind::fkBoolean;
}

bool IsNumericFieldKind(TDBFieldKind k) {
    return IsIntegerFieldKind(k) || k == TDBFieldKind::fkFloat || k == TDBFieldKind::fkDate;
}

const TDBFieldDef* TDBTableDef::FindField(const std::string& AName) const {
    const int i = IndexOfField(AName);
    return i < 0 ? nullptr : &Fields[static_cast<size_t>(i)];
}

int TDBTableDef::IndexOfField(const std::string& AName) const {
    for (size_t i = 0; i < Fields.size(); ++i) {
        const std::string& n = Fields[i].Name;
        if (n.size() == AName.size() &&
            std::equal(n.begin(), n.end(), AName.begin(), [](char a, char b) {
                return a == std::tolower(static_cast<unsigned char>(b));
            }))
            return static_cast<int>(i);
    }
    return -1;
}

const TDBFieldDef& TDBTableDef::KeyField() const {
    for (const auto& f : Fields)
        if (f.IsKey) return f;
    throw EDBSchemaError("Schema \"" + SchemaName + "\" has no key field");
}

TDBTableDef ParseTableDef(const std::string& AJsonText, const std::string& ASourceName) {
    TDBTableDef def;
    try {
        const auto j = nlohmann::json::parse(AJsonText);
        def.SchemaName = LowerCase(j.at("schema").get<std::string>());
        def.SQLTableName = LowerCase(j.value("table", def.SchemaName));
        def.Caption = j.value("caption", "");
        def.DocumentTableName = LowerCase(j.value("documentTable", ""));
        if (!IsPlainName(def.SchemaName) || !IsPlainName(def.SQLTableName))
            throw EDBSchemaError(ASourceName + ": invalid schema or table name");
        AddHostColumns(def.Fields);
        for (const auto& jf : j.at("fields")) {
            TDBFieldDef f;
            f.Name = LowerCase(jf.at("name").get<std::string>());
            if (!IsPlainName(f.Name))
                throw EDBSchemaError(ASourceName + ": invalid field name \"" + f.Name + "\"");
            if (def.FindField(f.Name))
                throw EDBSchemaError(ASourceName + ": field \"" + f.Name + "\" given twice");
            f.Kind = KindFromText(jf.at("type").get<std::string>(), ASourceName);
            f.Size = jf.value("size", f.Kind == TDBFieldKind::fkString ? 255 : 0);
            f.NotNull = jf.value("notNull", false);
            if (jf.contains("lookup")) {
                const auto& jl = jf.at("lookup");
                f.HasLookup = true;
                f.Lookup.MasterSchema = LowerCase(jl.at("schema").get<std::string>());
                f.Lookup.KeyField = LowerCase(jl.value("key", "id"));
                f.Lookup.DisplayField = LowerCase(jl.at("display").get<std::string>());
            }
            def.Fields.push_back(std::move(f));
        }
        for (const auto& ji : j.value("indexes", nlohmann::json::array())) {
            TDBIndexDef ix;
            for (const auto& jn : ji.at("fields")) {
                const std::string n = LowerCase(jn.get<std::string>());
                if (!def.FindField(n))
                    throw EDBSchemaError(ASourceName + ": index on unknown field \"" + n + "\"");
                ix.Fields.push_back(n);
            }
            ix.Unique = ji.value("unique", false);
            ix.Name = "ix_" + def.SQLTableName;
            for (const auto& n : ix.Fields)
                ix.Name += "_" + n;
            def.Indexes.push_back(std::move(ix));
        }
        TDBIndexDef uid;
        uid.Fields = {"globalrecuid"};
        uid.Name = "ix_" + def.SQLTableName + "_globalrecuid";
        def.Indexes.push_back(uid);
    } catch (const nlohmann::json::exception& e) {
        throw EDBSchemaError(ASourceName + ": " + e.what());
    }
    return def;
}

std::shared_ptr<TDBFieldSchema> TDBFieldSchema::CreateBuiltIn() {
    auto schema = std::make_shared<TDBFieldSchema>();
    for (const auto& [name, text] : BuiltInSchemaFiles())
        schema->AddTable(ParseTableDef(text, name));
    return schema;
}

std::shared_ptr<TDBFieldSchema> TDBFieldSchema::Load(const std::string& AFolder) {
    auto schema = CreateBuiltIn();
    if (AFolder.empty()) return schema;
    std::vector<std::filesystem::path> files;
    for (const auto& e : std::filesystem::directory_iterator(AFolder))
        if (e.is_regular_file() && e.path().extension() == ".json") files.push_back(e.path());
    std::sort(files.begin(), files.end());
    for (const auto& p : files) {
        std::ifstream in(p, std::ios::binary);
        std::stringstream ss;
        ss << in.rdbuf();
        schema->AddTable(ParseTableDef(ss.str(), p.string()));
    }
    return schema;
}

void TDBFieldSchema::AddTable(TDBTableDef ADef) {
    static std::atomic<std::uint64_t> serial{0};
    ADef.Serial = ++serial;
    std::string key = LowerCase(ADef.SchemaName);
    FTables[key] = std::make_shared<const TDBTableDef>(std::move(ADef));
}

const TDBTableDef* TDBFieldSchema::FindTable(const std::string& ASchemaName) const {
    auto it = FTables.find(LowerCase(ASchemaName));
    return it == FTables.end() ? nullptr : it->second.get();
}

const TDBTableDef* TDBFieldSchema::FindTableBySQLName(const std::string& ASQLTableName) const {
    const std::string n = LowerCase(ASQLTableName);
    for (const auto& [k, t] : FTables)
        if (t->SQLTableName == n) return t.get();
    return nullptr;
}

std::vector<std::string> TDBFieldSchema::SchemaNames() const {
    std::vector<std::string> r;
    for (const auto& [k, t] : FTables)
        r.push_back(t->SchemaName);
    return r;
}

IPtr<IDBFieldSchemaItem> CreateSchemaItem(const TDBTableDef& ADef) {
    return IPtr<IDBFieldSchemaItem>(new TDBFieldSchemaItem(ADef));
}

IPtr<IDBFieldSchemaItem> GetSchemaByName(const IDBFieldSchema* ASchema,
                                         const std::string& ASchemaName, bool) {
    if (!ASchema) return {};
    const TDBTableDef* def = ASchema->FindTable(ASchemaName);
    if (!def) return {};
    return CreateSchemaItem(*def);
}

std::string GetSQLTableNameFromSchemaName(const IDBFieldSchema* ASchema,
                                          const std::string& ASchemaName) {
    const TDBTableDef* def = ASchema ? ASchema->FindTable(ASchemaName) : nullptr;
    if (!def) throw EDBUnknownSchema("Unknown schema \"" + ASchemaName + "\"");
    return def->SQLTableName;
}

}  // namespace docadmin
