#include "_TDBRecordFlagsPlugin.h"

#include "_TKRRecordSet.h"

namespace docadmin {

namespace {

constexpr const char* kMetas = "recordflagmetas";
constexpr const char* kDefs = "recordflagdefs";
constexpr const char* kFlags = "recordflags";

// The view of one table: its meta id and the filter operations.
class TDBRecordFlagsTable : public TInterfacedImpl<IKRRecordFlagsTable> {
  public:
    TDBRecordFlagsTable(TDBRecordFlagsPlugin* AService, std::int64_t AMetaID)
        : FService(AService), FMetaID(AMetaID) {}

    std::int64_t Get_MetaID() override { return FMetaID; }

    void FlagNamesToIDs(const std::string& ANames, std::int64_t AMetaID,
                        TSortedIntegerList* AList) override {
        const std::vector<std::string> names = SplitStrictCommaText(ANames);
        // A table has few flags: read its definitions and match the names here.
        TKRRecordSet rs(nullptr, FService->Database());
        rs.SetSchemaName(kDefs);
        rs.GetSelectFields()->Add("flagname");
        AddFilter(rs.GetFilters(), "metaid", TVariant(static_cast<long long>(AMetaID)));
        rs.Open();
        for (int i = 0; i < rs.GetRecordCount(); ++i) {
            const std::string name = rs.ValueByName(i, "flagname").GetAsString();
            for (const std::string& wanted : names)
                if (wanted == name) AList->Add(rs.GetDBIDByRecNo(i));
        }
    }

    void AddFlagIDsCondition(TClientSQLFilters* AFilters, const std::string& AKeyField,
                             const TSortedIntegerList* AFlagIDs, TFilterType AType,
                             TFilterLink ALink) override {
        const bool negate = AType == ftNotEqual || AType == ftNotInList;
        TClientSQLFilter* f =
            AddFilter(AFilters, AKeyField, TVariant(), negate ? ftNotInList : ftInList, ALink);
        f->SetSubSelect(kFlags, "recid");
        TClientSQLFilters* sub = f->GetSubSelectFilters();
        AddFilter(sub, "metaid", TVariant(static_cast<long long>(FMetaID)));
        // An empty list matches no flag: null travels as the empty list.
        AddFilter(
            sub, "flagid",
            AFlagIDs && AFlagIDs->Count() > 0 ? TVariant(AFlagIDs->GetAsCommaText()) : TVariant(),
            ftInList);
    }

    void AddFlagTypesCondition(TClientSQLFilters* AFilters, const std::string& AKeyField,
                               TRecordFlagTypes ATypes) override {
        std::string kinds;
        for (int bit = 0; bit < 8; ++bit)
            if (ATypes & (1u << bit)) kinds += (kinds.empty() ? "" : ",") + std::to_string(bit);
        TClientSQLFilter* f = AddFilter(AFilters, AKeyField, TVariant(), ftInList, flAnd);
        f->SetSubSelect(kFlags, "recid");
        TClientSQLFilters* sub = f->GetSubSelectFilters();
        AddFilter(sub, "metaid", TVariant(static_cast<long long>(FMetaID)));
        AddFilter(sub, "flagtype", kinds.empty() ? TVariant() : TVariant(kinds), ftInList);
    }

  private:
    TDBRecordFlagsPlugin* FService;
    std::int64_t FMetaID;
};

std::int64_t FindFlagRow(IDBInterface* ADB, std::int64_t AMetaID, std::int64_t ARecID,
                         std::int64_t AFlagID) {
    TKRRecordSet rs(nullptr, ADB);
    rs.SetSchemaName(kFlags);
    AddFilter(rs.GetFilters(), "metaid", TVariant(static_cast<long long>(AMetaID)));
    AddFilter(rs.GetFilters(), "recid", TVariant(static_cast<long long>(ARecID)));
    AddFilter(rs.GetFilters(), "flagid", TVariant(static_cast<long long>(AFlagID)));
    rs.Open();
    return rs.GetRecordCount() > 0 ? rs.GetDBIDByRecNo(0) : 0;
}

}  // namespace

TDBRecordFlagsPlugin::TDBRecordFlagsPlugin(IDBInterface* ADatabase) : FDatabase(ADatabase) {}

bool TDBRecordFlagsPlugin::Available() {
    const IDBFieldSchema* cat = FDatabase ? FDatabase->GetFieldSchema() : nullptr;
    return cat && cat->FindTable(kMetas) && cat->FindTable(kDefs) && cat->FindTable(kFlags);
}

IPtr<IKRRecordFlagsTable> TDBRecordFlagsPlugin::GetPlugin(const std::string& ATableName) {
    if (!Available()) return IPtr<IKRRecordFlagsTable>();
    return IPtr<IKRRecordFlagsTable>(new TDBRecordFlagsTable(this, GetMetaID(ATableName)));
}

std::int64_t TDBRecordFlagsPlugin::GetMetaID(const std::string& ATableName) {
    std::lock_guard lock(FLock);
    if (auto it = FMetaIDs.find(ATableName); it != FMetaIDs.end()) return it->second;
    auto find = [&]() -> std::int64_t {
        TKRRecordSet rs(nullptr, FDatabase.get());
        rs.SetSchemaName(kMetas);
        AddFilter(rs.GetFilters(), "tablename", TVariant(ATableName));
        rs.Open();
        return rs.GetRecordCount() > 0 ? rs.GetDBIDByRecNo(0) : 0;
    };
    std::int64_t id = find();
    if (id == 0) {
        TClientSQL sql(nullptr, FDatabase.get());
        sql.SetSchemaName(kMetas);
        sql.SetStatementKind(skInsert);
        sql.GetFields()->AddField("tablename", TVariant(ATableName));
        try {
            sql.ExecuteSQL(id);
        } catch (const EDBSQLError&) {
            // Another process made the row first (the name is unique): take its id.
            id = find();
            if (id == 0) throw;
        }
    }
    FMetaIDs[ATableName] = id;
    return id;
}

std::int64_t TDBRecordFlagsPlugin::DefineFlag(const std::string& ATableName,
                                              const std::string& AFlagName, int AFlagType) {
    if (AFlagType < 0 || AFlagType > 7)
        throw EArgumentException("Record flag kind " + std::to_string(AFlagType) +
                                 " is out of range 0..7");
    const std::int64_t meta = GetMetaID(ATableName);
    TKRRecordSet rs(nullptr, FDatabase.get());
    rs.SetSchemaName(kDefs);
    AddFilter(rs.GetFilters(), "metaid", TVariant(static_cast<long long>(meta)));
    AddFilter(rs.GetFilters(), "flagname", TVariant(AFlagName));
    rs.Open();
    if (rs.GetRecordCount() > 0) return rs.GetDBIDByRecNo(0);
    TClientSQL sql(nullptr, FDatabase.get());
    sql.SetSchemaName(kDefs);
    sql.SetStatementKind(skInsert);
    sql.GetFields()->AddField("metaid", TVariant(static_cast<long long>(meta)));
    sql.GetFields()->AddField("flagname", TVariant(AFlagName));
    sql.GetFields()->AddField("flagtype", TVariant(AFlagType));
    std::int64_t id = 0;
    sql.ExecuteSQL(id);
    return id;
}

void TDBRecordFlagsPlugin::SetFlag(const std::string& ATableName, std::int64_t ARecID,
                                   std::int64_t AFlagID) {
    const std::int64_t meta = GetMetaID(ATableName);
    if (FindFlagRow(FDatabase.get(), meta, ARecID, AFlagID) != 0) return;
    // The kind travels with the flag so that a filter by kinds needs no join.
    TKRRecordSet def(nullptr, FDatabase.get());
    def.SetSchemaName(kDefs);
    def.GetSelectFields()->Add("metaid");
    def.GetSelectFields()->Add("flagtype");
    AddFilter(def.GetFilters(), "id", TVariant(static_cast<long long>(AFlagID)));
    def.Open();
    if (def.GetRecordCount() == 0 || def.ValueByName(0, "metaid").GetRealValue() != meta)
        throw EArgumentException("Record flag " + std::to_string(AFlagID) +
                                 " is not defined for table " + ATableName);
    TClientSQL sql(nullptr, FDatabase.get());
    sql.SetSchemaName(kFlags);
    sql.SetStatementKind(skInsert);
    sql.GetFields()->AddField("metaid", TVariant(static_cast<long long>(meta)));
    sql.GetFields()->AddField("recid", TVariant(static_cast<long long>(ARecID)));
    sql.GetFields()->AddField("flagid", TVariant(static_cast<long long>(AFlagID)));
    sql.GetFields()->AddField(
        "flagtype",
        TVariant(static_cast<long long>(def.ValueByName(0, "flagtype").GetAsInteger())));
    sql.ExecuteSQL();
}

void TDBRecordFlagsPlugin::ClearFlag(const std::string& ATableName, std::int64_t ARecID,
                                     std::int64_t AFlagID) {
    const std::int64_t meta = GetMetaID(ATableName);
    TClientSQL sql(nullptr, FDatabase.get());
    sql.SetSchemaName(kFlags);
    sql.SetStatementKind(skDelete);
    AddFilter(sql.GetFilters(), "metaid", TVariant(static_cast<long long>(meta)));
    AddFilter(sql.GetFilters(), "recid", TVariant(static_cast<long long>(ARecID)));
    AddFilter(sql.GetFilters(), "flagid", TVariant(static_cast<long long>(AFlagID)));
    sql.ExecuteSQL();
}

bool TDBRecordFlagsPlugin::HasFlag(const std::string& ATableName, std::int64_t ARecID,
                                   std::int64_t AFlagID) {
    return FindFlagRow(FDatabase.get(), GetMetaID(ATableName), ARecID, AFlagID) != 0;
}

}  // namespace docadmin
