#include "_TVTLRestAPICustomKRRecordSetServiceImpl.h"

#include <algorithm>
#include <map>
#include <mutex>

#include "_TClientSQL.h"
#include "_TKRACLDataTableController.h"
#include "_TVTLSQLParser.h"
#include "_Tools.h"

namespace docadmin {

namespace {

std::mutex& RegistryLock() {
    static std::mutex m;
    return m;
}

struct THandlerRegistration {
    std::string Pattern;
    std::type_index Type;
    TVTLRestAPIDatabaseCustomDetailTableHandler::TFactory Factory;
};
std::vector<THandlerRegistration>& HandlerRegistry() {
    static std::vector<THandlerRegistration> r;
    return r;
}
std::map<std::string, std::vector<TFieldMappingItem>>& MappingRegistry() {
    static std::map<std::string, std::vector<TFieldMappingItem>> r;
    return r;
}
std::vector<TKRFilterHandlerClient*>& FilterClients() {
    static std::vector<TKRFilterHandlerClient*> r;
    return r;
}

std::vector<std::string> SplitList(const std::string& AText) {
    std::vector<std::string> r;
    std::size_t pos = 0;
    while (pos <= AText.size()) {
        std::size_t end = AText.find(',', pos);
        if (end == std::string::npos) end = AText.size();
        std::string item = AText.substr(pos, end - pos);
        item.erase(0, item.find_first_not_of(' '));
        item.erase(item.find_last_not_of(' ') + 1);
        if (!item.empty()) r.push_back(LowerCase(item));
        pos = end + 1;
    }
    return r;
}

TFilterType FilterTypeOf(TSQLParserCompare c) {
    switch (c) {
        case TSQLParserCompare::pcEqual:
            return ftEqual;
        case TSQLParserCompare::pcExact:
            return ftExactEqual;
        case TSQLParserCompare::pcNotEqual:
            return ftNotEqual;
        case TSQLParserCompare::pcLess:
            return ftLess;
        case TSQLParserCompare::pcLessEqual:
            return ftLessEqual;
        case TSQLParserCompare::pcGreater:
            return ftGreater;
        case TSQLParserCompare::pcGreaterEqual:
            return ftGreaterEqual;
        case TSQLParserCompare::pcLike:
            return ftLike;
        case TSQLParserCompare::pcIn:
            return ftInList;
        case TSQLParserCompare::pcNotIn:
            return ftNotInList;
    }
    return ftEqual;
}

TFilterLink LinkOf(int ALink) {
    return ALink == plOr ? flOr : ALink == plAnd ? flAnd : flNone;
}

}  // namespace

// ---- Detail handlers

TVTLRestAPIDatabaseCustomDetailTableHandler::TVTLRestAPIDatabaseCustomDetailTableHandler(
    TVTLRestAPICustomKRRecordSetServiceImpl* AServiceImpl, TFieldMappingProc AMappingProc)
    : FServiceImpl(AServiceImpl), FMappingProc(std::move(AMappingProc)) {}

bool TVTLRestAPIDatabaseCustomDetailTableHandler::GetFieldSettings(const std::string& ADetailName,
                                                                   std::string& AJSONFieldName,
                                                                   bool AOnlyWhenListed,
                                                                   TFieldMappingItem& AMapping) {
    AJSONFieldName = ADetailName;
    AMapping = TFieldMappingItem{ADetailName, ADetailName};
    if (FMappingProc)
        if (const TFieldMappingItem* m = FMappingProc(ADetailName)) {
            AMapping = *m;
            if (!m->JSONName.empty()) AJSONFieldName = m->JSONName;
        }
    if (!FServiceImpl) return false;
    if (!FServiceImpl->FieldListGiven()) return !AOnlyWhenListed;
    const auto& f = FServiceImpl->RequestedFields();
    const std::string lower = LowerCase(ADetailName), json = LowerCase(AJSONFieldName);
    return std::find(f.begin(), f.end(), lower) != f.end() ||
           std::find(f.begin(), f.end(), json) != f.end();
}

void TVTLRestAPIDatabaseCustomDetailTableHandler::Register(const std::string& AName,
                                                           std::type_index AType,
                                                           TFactory AFactory) {
    std::lock_guard lock(RegistryLock());
    HandlerRegistry().push_back({AName, AType, std::move(AFactory)});
}

void TVTLRestAPIDatabaseCustomDetailTableHandler::Unregister(const std::string& AName,
                                                             std::type_index AType) {
    std::lock_guard lock(RegistryLock());
    auto& r = HandlerRegistry();
    r.erase(std::remove_if(r.begin(), r.end(),
                           [&](const auto& h) { return h.Pattern == AName && h.Type == AType; }),
            r.end());
}

std::vector<std::unique_ptr<TVTLRestAPIDatabaseCustomDetailTableHandler>>
TVTLRestAPIDatabaseCustomDetailTableHandler::CreateHandlers(
    const std::string& ASchemaName, TVTLRestAPICustomKRRecordSetServiceImpl* AServiceImpl,
    const TFieldMappingProc& AMappingProc) {
    std::vector<TFactory> factories;
    {
        std::lock_guard lock(RegistryLock());
        for (const auto& h : HandlerRegistry())
            if (StrLike(LowerCase(ASchemaName), LowerCase(h.Pattern)))
                factories.push_back(h.Factory);
    }
    std::vector<std::unique_ptr<TVTLRestAPIDatabaseCustomDetailTableHandler>> r;
    for (auto& f : factories)
        r.push_back(f(AServiceImpl, AMappingProc));
    return r;
}

// ---- Filter handlers

TKRFilterHandlerClient::TKRFilterHandlerClient(TComponent* AOwner) : TComponent(AOwner) {
    std::lock_guard lock(RegistryLock());
    FilterClients().push_back(this);
}

TKRFilterHandlerClient::~TKRFilterHandlerClient() {
    std::lock_guard lock(RegistryLock());
    auto& r = FilterClients();
    r.erase(std::remove(r.begin(), r.end(), this), r.end());
}

std::vector<TKRFilterHandler> TKRFilterHandlerClient::HandlersForSchema(
    const std::string& ASchemaName) {
    std::vector<TKRFilterHandler> all;
    {
        std::lock_guard lock(RegistryLock());
        for (auto* c : FilterClients())
            for (const auto& h : c->Handlers())
                all.push_back(h);
    }
    std::vector<TKRFilterHandler> r;
    for (auto& h : all)
        if (!h.SupportsSchema || h.SupportsSchema(ASchemaName)) r.push_back(std::move(h));
    return r;
}

// ---- The service

TVTLRestAPICustomKRRecordSetServiceImpl::TVTLRestAPICustomKRRecordSetServiceImpl() = default;
TVTLRestAPICustomKRRecordSetServiceImpl::~TVTLRestAPICustomKRRecordSetServiceImpl() = default;

void TVTLRestAPICustomKRRecordSetServiceImpl::RegisterFieldMapping(const std::string& ASchema,
                                                                   const std::string& AFieldName,
                                                                   const std::string& AJSONName) {
    std::lock_guard lock(RegistryLock());
    auto& list = MappingRegistry()[LowerCase(ASchema)];
    for (auto& m : list)
        if (m.FieldName == LowerCase(AFieldName)) {
            m.JSONName = AJSONName;
            return;
        }
    list.push_back({LowerCase(AFieldName), AJSONName});
}

void TVTLRestAPICustomKRRecordSetServiceImpl::UnRegisterFieldMapping(
    const std::string& ASchema, const std::string& AFieldName) {
    std::lock_guard lock(RegistryLock());
    auto& list = MappingRegistry()[LowerCase(ASchema)];
    list.erase(std::remove_if(list.begin(), list.end(),
                              [&](const auto& m) { return m.FieldName == LowerCase(AFieldName); }),
               list.end());
}

bool TVTLRestAPICustomKRRecordSetServiceImpl::IsPrivateSchema(const std::string& ASchema) {
    static const char* const kPrivate[] = {"users", "useraclmodes", "usersettings",
                                           "globalsettings"};
    const std::string s = LowerCase(ASchema);
    return std::any_of(std::begin(kPrivate), std::end(kPrivate),
                       [&](const char* p) { return s == p; });
}

const TFieldMappingItem* TVTLRestAPICustomKRRecordSetServiceImpl::FindFieldMapping(
    const std::string& AFieldName) const {
    const std::string f = LowerCase(AFieldName);
    for (const auto& m : FMappings)
        if (m.FieldName == f) return &m;
    return nullptr;
}

TRecordFlagTypes TVTLRestAPICustomKRRecordSetServiceImpl::GetDetailRecordFlagTypes(
    const std::string& ADetailName) {
    TServiceDataSettings::TItem item;
    if (ServiceDataSettings().Find(1, ADetailName, CurrentSessionTypes(), item))
        return item.RecordFlagTypes;
    return DefaultRecordFlagTypes();
}

const TDBTableDef& TVTLRestAPICustomKRRecordSetServiceImpl::RequireSchema(
    const std::string& ASchema) {
    CheckCurrentSession();
    IMainInterface* mi = MainInterface();
    const TDBTableDef* t =
        mi && !IsPrivateSchema(ASchema) ? mi->GetDBFieldSchema()->FindTable(ASchema) : nullptr;
    if (!t) throw EVTLRestServiceError(404, "SchemaName \"" + ASchema + "\" not found");
    return *t;
}

void TVTLRestAPICustomKRRecordSetServiceImpl::PrepareRequest(const TDBTableDef& ATable,
                                                             const std::string& AFields) {
    FSchema = ATable.SchemaName;
    {
        std::lock_guard lock(RegistryLock());
        auto it = MappingRegistry().find(LowerCase(ATable.SchemaName));
        FMappings = it == MappingRegistry().end() ? std::vector<TFieldMappingItem>{} : it->second;
    }
    FFieldListGiven = !AFields.empty();
    FRequestedFields = SplitList(AFields);
    // A mapped JSON name in the field list stands for its column.
    for (auto& f : FRequestedFields)
        for (const auto& m : FMappings)
            if (LowerCase(m.JSONName) == f) f = m.FieldName;
    FHandlers = TVTLRestAPIDatabaseCustomDetailTableHandler::CreateHandlers(
        ATable.SchemaName, this, [this](const std::string& n) { return FindFieldMapping(n); });
    for (auto& h : FHandlers)
        h->InitializeDetails();
}

TJsonObject TVTLRestAPICustomKRRecordSetServiceImpl::RowToJson(TKRRecordSet& ASet, int ARecNo) {
    TJsonObject row = TJsonObject::object();
    for (int c = 0; c < ASet.GetFieldCount(); ++c) {
        const std::string& name = ASet.GetFieldName(c);
        const TFieldMappingItem* m = FindFieldMapping(name);
        const std::string key = m && !m->JSONName.empty() ? m->JSONName : name;
        const TVariant v = ASet.ValueByIndex(ARecNo, c).GetAsVariant();
        auto field = ASet.GetSchemaFields(c);
        const TDBFieldKind kind = field ? field->GetFieldKind() : TDBFieldKind::fkString;
        if (v.IsNull()) {
            row[key] = nullptr;
        } else if (kind == TDBFieldKind::fkDate) {
            row[key] = DateTimeToISO8601(v.AsFloat());
        } else if (kind == TDBFieldKind::fkBoolean) {
            row[key] = v.AsInt64() != 0;
        } else if (IsIntegerFieldKind(kind)) {
            row[key] = v.AsInt64();
        } else if (kind == TDBFieldKind::fkFloat) {
            row[key] = v.AsFloat();
        } else {
            row[key] = v.AsString();
        }
    }
    TFieldMappingProc proc = [this](const std::string& n) { return FindFieldMapping(n); };
    for (auto& h : FHandlers)
        h->WriteRecordToJson(ASet, ARecNo, row, nullptr, proc);
    return row;
}

namespace {

// Adds the parsed where-tree to the filter list, checking each field against the schema.
void AddWhereGroup(const TSQLParserFilterGroup& AGroup, const TDBTableDef& ATable,
                   TClientSQLFilters& AFilters, bool ABracket) {
    if (ABracket) {
        TClientSQLFilter* open = AFilters.Add();
        open->SetParenthesis(pOpen);
        open->SetFilterLink(LinkOf(AGroup.Link));
    }
    for (const auto& f : AGroup.Filters) {
        if (f.LeftKind != pvkFieldName || f.RightKind != pvkValue)
            throw EVTLRestServiceError(400,
                                       "A condition of the where-text must compare a field "
                                       "with a value");
        const TDBFieldDef* def = ATable.FindField(f.LeftValue);
        if (!def)
            throw EVTLRestServiceError(400, "Unknown field \"" + f.LeftValue + "\" in where-text");
        const TFilterType type = FilterTypeOf(f.Compare);
        TVariant value(f.RightValue);
        if (type != ftInList && type != ftNotInList && type != ftLike) {
            if (IsIntegerFieldKind(def->Kind)) {
                std::int64_t i = 0;
                if (!TryStrToInt64(f.RightValue, i))
                    throw EVTLRestServiceError(
                        400,
                        "\"" + f.RightValue + "\" is not a number for field \"" + def->Name + "\"");
                value = TVariant(static_cast<long long>(i));
            } else if (IsNumericFieldKind(def->Kind)) {
                double d = 0;
                if (!TryStrToFloat(f.RightValue, d))
                    throw EVTLRestServiceError(
                        400,
                        "\"" + f.RightValue + "\" is not a number for field \"" + def->Name + "\"");
                value = TVariant(d);
            }
        }
        TClientSQLFilter* item = AFilters.AddFilter(def->Name, value);
        item->SetFilterType(type);
        item->SetFilterLink(LinkOf(f.Link));
    }
    for (const auto& g : AGroup.Groups)
        AddWhereGroup(g, ATable, AFilters, true);
    if (ABracket) AFilters.Add()->SetParenthesis(pClose);
}

}  // namespace

std::int64_t TVTLRestAPICustomKRRecordSetServiceImpl::MaxPageSize() {
    const TRestRequestContext* c = CurrentRestRequestContext();
    return c && c->Settings ? c->Settings->MaxRecordPageSize
                            : TRestServiceSettings{}.MaxRecordPageSize;
}

void TVTLRestAPICustomKRRecordSetServiceImpl::PrepareListSet(const TDBTableDef& ATable,
                                                             const TRecordListQuery& AQuery,
                                                             TKRRecordSet& ASet) {
    ASet.SetSchemaName(ATable.SchemaName);
    ASet.SetOptions({rsoUserRowRights});
    ASet.SetAccessMode(gamRead);
    for (const auto& f : FRequestedFields) {
        const TDBFieldDef* def = ATable.FindField(f);
        if (def) {
            if (def->Name != "id") ASet.GetSelectFields()->Add(def->Name);
            continue;
        }
        const bool isDetail = std::any_of(FHandlers.begin(), FHandlers.end(), [&](auto& h) {
            return LowerCase(h->GetDetailName()) == f;
        });
        if (!isDetail) throw EVTLRestServiceError(400, "Unknown field \"" + f + "\" in field list");
    }
    ASet.SetSelectAll(FRequestedFields.empty());
    for (const auto& def : ATable.Fields)
        if (def.HasLookup) ASet.GetSelectFieldOptions(def.Name).DisableLookupValueLoading = true;

    TVTLSQLParser parser;
    try {
        parser.ParseSQL(AQuery.Where);
    } catch (const ESQLParserError& e) {
        throw EVTLRestServiceError(400, "where: " + e.Message());
    }
    if (!parser.WhereGroup().IsEmpty()) {
        TClientSQLFilters* filters = ASet.GetFilters();
        // The client's condition as one group, so that a filter handler's conditions AND with it.
        filters->Add()->SetParenthesis(pOpen);
        AddWhereGroup(parser.WhereGroup(), ATable, *filters, false);
        filters->Add()->SetParenthesis(pClose);
    }
    if (!AQuery.Filter.empty()) {
        bool applied = false;
        for (const auto& h : TKRFilterHandlerClient::HandlersForSchema(ATable.SchemaName))
            if (h.Identifier == AQuery.Filter && h.OnApplyFilter) {
                h.OnApplyFilter(ASet, AQuery.FilterValue);
                applied = true;
                break;
            }
        if (!applied)
            throw EVTLRestServiceError(400, "Filter \"" + AQuery.Filter + "\" not found for \"" +
                                                ATable.SchemaName + "\"");
    }
    bool first = true;
    for (const auto& o : SplitList(AQuery.Order)) {
        const bool desc = o[0] == '-';
        const std::string name = desc ? o.substr(1) : o;
        const TDBFieldDef* def = ATable.FindField(name);
        if (!def) throw EVTLRestServiceError(400, "Unknown field \"" + name + "\" in order");
        ASet.GetOrderFields()->SetOrder(def->Name, !desc, !first);
        first = false;
    }
    if (first) ASet.GetOrderFields()->SetOrder(ATable.KeyField().Name, true, false);
}

TJsonObject TVTLRestAPICustomKRRecordSetServiceImpl::ListRecords(const std::string& ASchema,
                                                                 const TRecordListQuery& AQuery) {
    const TDBTableDef& table = RequireSchema(ASchema);
    PrepareRequest(table, AQuery.Fields);
    const std::int64_t maxPage = MaxPageSize();
    if (AQuery.Limit < -1 || AQuery.Offset < 0)
        throw EVTLRestServiceError(400, "limit and offset must not be negative");
    if (AQuery.Limit > maxPage)
        throw EVTLRestServiceError(
            400, "limit must be at most " + std::to_string(maxPage) + "; page with offset");
    const std::int64_t limit = AQuery.Limit < 0 ? maxPage : AQuery.Limit;

    TKRRecordSet set(nullptr, MainInterface()->GetDBInterface());
    PrepareListSet(table, AQuery, set);
    set.SetPaging(limit, AQuery.Offset);
    set.Open();
    TJsonObject result = TJsonObject::object();
    result["records"] = TJsonObject::array();
    for (int r = 0; r < set.GetRecordCount(); ++r)
        result["records"].push_back(RowToJson(set, r));
    result["offset"] = AQuery.Offset;
    result["limit"] = limit;
    result["total"] = set.CountRecords();
    return result;
}

TJsonObject TVTLRestAPICustomKRRecordSetServiceImpl::ReadRecord(const std::string& ASchema,
                                                                const std::string& ARecordUID,
                                                                const std::string& AFields) {
    if (!IsGuid(ARecordUID)) throw EVTLRestServiceError(400, "Invalid record UID");
    const TDBTableDef& table = RequireSchema(ASchema);
    PrepareRequest(table, AFields);
    if (!table.FindField("globalrecuid"))
        throw EVTLRestServiceError(400, "\"" + table.SchemaName + "\" has no record UIDs");
    TKRRecordSet set(nullptr, MainInterface()->GetDBInterface());
    PrepareListSet(table, TRecordListQuery{}, set);
    set.GetFilters()->AddFilter("globalrecuid", TVariant(ARecordUID));
    set.SetPaging(1, 0);
    set.Open();
    if (set.GetRecordCount() == 0)
        throw EVTLRestServiceError(404, "Record not found or permission denied");
    TJsonObject out = TJsonObject::object();
    out["records"] = TJsonObject::array({RowToJson(set, 0)});
    return out;
}

namespace {

bool NoGroup(const TVariant& AValue) {
    return AValue.IsNull() || AValue.AsInt64() == 0;
}

// The fields of a table that decide its rows' write access: its own ACL group column and, for a
// table registered with ACL fields, those fields (each names a row of its lookup table whose
// rights the row follows). Empty for a table outside record ACLs.
std::vector<const TDBFieldDef*> ACLDecidingFields(const TDBTableDef& ATable) {
    std::vector<const TDBFieldDef*> r;
    TKRACLDataTable reg;
    if (!TKRACLDataTableController::FindTable(ATable.SQLTableName, reg)) return r;
    if (const TDBFieldDef* grp = ATable.FindField("globalaclgrp")) r.push_back(grp);
    for (const auto& name : SplitList(reg.ACLFields))
        if (const TDBFieldDef* f = ATable.FindField(name); f && f->HasLookup) r.push_back(f);
    return r;
}

// The values a statement writes, falling back to AOld (or null) for the fields it leaves alone.
TVTLRestAPICustomKRRecordSetServiceImpl::TRowValueFunc StatementValues(
    TClientSQL& AStatement, const TVTLRestAPICustomKRRecordSetServiceImpl::TRowValueFunc* AOld) {
    return [&AStatement, AOld](const std::string& AName) {
        if (const TClientSQLField* f = AStatement.GetFields()->FindField(AName))
            return f->GetValue();
        return AOld ? (*AOld)(AName) : TVariant();
    };
}

}  // namespace

void TVTLRestAPICustomKRRecordSetServiceImpl::CheckWritable(const TDBTableDef& ATable,
                                                            const TRowValueFunc& AValueOf,
                                                            int ADepth) {
    IUserAccess* access = MainInterface()->GetUserAccess();
    if (!access) return;  // nobody: the host's own work
    if (access->IsReadOnly()) throw EVTLRestServiceError(403, "The user is read-only");
    // Rights chains are short (a link follows its document, a document its folder).
    if (ADepth > 4) throw EVTLRestServiceError(403, "No write access to the record");
    for (const TDBFieldDef* f : ACLDecidingFields(ATable)) {
        const TVariant v = AValueOf(f->Name);
        if (NoGroup(v)) continue;
        if (!f->HasLookup || f->Name == "globalaclgrp") {
            const std::int32_t mode = access->GetGroupAccessMode(v.AsInt64());
            if (mode != uamFull && mode != uamReadWrite)
                throw EVTLRestServiceError(403, "No write access to the record");
            continue;
        }
        // The row follows the rights of the row its ACL field names, as this user sees it; a
        // row that is missing or hidden gives no right.
        const TDBTableDef* master =
            MainInterface()->GetDBFieldSchema()->FindTable(f->Lookup.MasterSchema);
        if (!master) throw EVTLRestServiceError(403, "No write access to the record");
        TKRRecordSet set(nullptr, MainInterface()->GetDBInterface());
        set.SetSchemaName(master->SchemaName);
        set.SetOptions({rsoUserRowRights});
        set.SetAccessMode(gamRead);
        const auto masterFields = ACLDecidingFields(*master);
        if (masterFields.empty()) continue;  // a table outside record ACLs gives no rights
        for (const TDBFieldDef* m : masterFields) {
            set.GetSelectFields()->Add(m->Name);
            set.GetSelectFieldOptions(m->Name).DisableLookupValueLoading = true;
        }
        set.GetFilters()->AddFilter(f->Lookup.KeyField,
                                    TVariant(static_cast<long long>(v.AsInt64())));
        set.Open();
        if (set.GetRecordCount() == 0)
            throw EVTLRestServiceError(403, "No write access to the record");
        CheckWritable(
            *master,
            [&](const std::string& AName) {
                const int c = set.GetFieldIndex(AName);
                return c < 0 ? TVariant() : set.ValueByIndex(0, c).GetAsVariant();
            },
            ADepth + 1);
    }
}

void TVTLRestAPICustomKRRecordSetServiceImpl::FillFields(const TDBTableDef& ATable,
                                                         const TJsonObject& AValues,
                                                         TClientSQL& AStatement, bool AInsert) {
    if (!AValues.is_object()) throw EVTLRestServiceError(400, "The values must be a JSON object");
    for (const auto& [key, value] : AValues.items()) {
        std::string field = LowerCase(key);
        for (const auto& m : FMappings)
            if (m.JSONName == key) field = m.FieldName;
        const bool isDetail = std::any_of(FHandlers.begin(), FHandlers.end(),
                                          [&](auto& h) { return h->GetDetailName() == key; });
        if (isDetail) continue;
        const TDBFieldDef* def = ATable.FindField(field);
        if (!def) throw EVTLRestServiceError(400, "Unknown field \"" + key + "\"");
        if (def->IsKey || (def->IsHostColumn && !(AInsert && def->Name == "globalrecuid")))
            throw EVTLRestServiceError(400, "Field \"" + key + "\" is set by the server");
        TVariant v;
        if (value.is_string()) {
            v = TVariant(value.get<std::string>());
        } else if (value.is_boolean()) {
            v = TVariant(value.get<bool>());
        } else if (value.is_number_integer()) {
            v = TVariant(static_cast<long long>(value.get<std::int64_t>()));
        } else if (value.is_number()) {
            v = TVariant(value.get<double>());
        } else if (!value.is_null()) {
            throw EVTLRestServiceError(400, "Field \"" + key + "\" needs a plain value");
        }
        // A reference holds a row's key: exactly an integer, so that the rights checked on it
        // are those of the row that is stored.
        if (def->HasLookup && !v.IsNull()) {
            std::int64_t ref = 0;
            if (!value.is_number_integer() &&
                !(value.is_string() && TryStrToInt64(value.get<std::string>(), ref)))
                throw EVTLRestServiceError(400, "Field \"" + key + "\" needs an integer");
            if (value.is_string()) v = TVariant(static_cast<long long>(ref));
        }
        if (def->Name == "globalrecuid" && !IsGuid(v.AsString()))
            throw EVTLRestServiceError(400, "globalrecuid must be a GUID in braces");
        AStatement.GetFields()->AddField(def->Name, std::move(v));
    }
}

TJsonObject TVTLRestAPICustomKRRecordSetServiceImpl::InsertRecord(const std::string& ASchema,
                                                                  const TJsonObject& AValues) {
    const TDBTableDef& table = RequireSchema(ASchema);
    PrepareRequest(table, "");
    TClientSQL sql(nullptr, MainInterface()->GetDBInterface());
    sql.SetStatementKind(skInsert);
    sql.SetSchemaName(table.SchemaName);
    FillFields(table, AValues, sql, true);
    if (table.FindField("globalaclgrp") && !sql.GetFields()->FindField("globalaclgrp")) {
        // A new row without a group gets the user's default group.
        ICurrentUser* user = MainInterface()->GetCurrentUser();
        if (user && user->GetDefaultACLGroup() != 0)
            sql.GetFields()->AddField("globalaclgrp",
                                      TVariant(static_cast<long long>(user->GetDefaultACLGroup())));
    }
    for (auto& h : FHandlers)
        h->BeforeSQLExecute(AValues, table.SchemaName, sql);
    // The row as it would be written decides, after the handlers had their say.
    CheckWritable(table, StatementValues(sql, nullptr));
    std::int64_t id = 0;
    sql.ExecuteSQL(id);
    const std::string uid =
        MainInterface()->GetDBInterface()->GetRecordUIDByDBID(table.SQLTableName, id);
    TJsonObject result = TJsonObject::object();
    const TClientSQLField* given = sql.GetFields()->FindField("globalrecuid");
    AddRecordInfoToJsonResult(given ? given->GetValue().AsString() : "", uid, id, result);
    for (auto& h : FHandlers)
        h->AfterInsertSQLExecute(AValues, table.SchemaName, uid, id, result);
    return result;
}

TJsonObject TVTLRestAPICustomKRRecordSetServiceImpl::UpdateRecord(const std::string& ASchema,
                                                                  const std::string& ARecordUID,
                                                                  const TJsonObject& AValues) {
    if (!IsGuid(ARecordUID)) throw EVTLRestServiceError(400, "Invalid record UID");
    const TDBTableDef& table = RequireSchema(ASchema);
    PrepareRequest(table, "");
    // The row as this user sees it: invisible rows are missing.
    TKRRecordSet set(nullptr, MainInterface()->GetDBInterface());
    set.SetSchemaName(table.SchemaName);
    set.SetOptions({rsoUserRowRights});
    set.SetAccessMode(gamRead);
    for (const TDBFieldDef* f : ACLDecidingFields(table)) {
        set.GetSelectFields()->Add(f->Name);
        set.GetSelectFieldOptions(f->Name).DisableLookupValueLoading = true;
    }
    set.GetFilters()->AddFilter("globalrecuid", TVariant(ARecordUID));
    set.Open();
    if (set.GetRecordCount() == 0)
        throw EVTLRestServiceError(404, "Record not found or permission denied");
    const std::int64_t id = set.GetDBIDByRecNo(0);
    const TRowValueFunc oldValues = [&](const std::string& AName) {
        const int c = set.GetFieldIndex(AName);
        return c < 0 ? TVariant() : set.ValueByIndex(0, c).GetAsVariant();
    };
    // The row as it is: a user who may not write it changes nothing in it.
    CheckWritable(table, oldValues);

    TClientSQL sql(nullptr, MainInterface()->GetDBInterface());
    sql.SetStatementKind(skUpdate);
    sql.SetSchemaName(table.SchemaName);
    FillFields(table, AValues, sql, false);
    sql.GetFilters()->AddFilter("id", TVariant(static_cast<long long>(id)));
    for (auto& h : FHandlers)
        h->BeforeSQLExecute(AValues, table.SchemaName, sql);
    // The row as it will be: nobody moves a row into a group or under a row they may not write.
    const auto deciding = ACLDecidingFields(table);
    if (std::any_of(deciding.begin(), deciding.end(), [&](const TDBFieldDef* f) {
            return sql.GetFields()->FindField(f->Name) != nullptr;
        }))
        CheckWritable(table, StatementValues(sql, &oldValues));
    if (sql.GetFields()->Count() > 0) sql.ExecuteSQL();
    TJsonObject result = TJsonObject::object();
    AddRecordInfoToJsonResult(ARecordUID, ARecordUID, id, result);
    for (auto& h : FHandlers)
        h->AfterUpdateSQLExecute(AValues, table.SchemaName, ARecordUID, result);
    return result;
}

TJsonObject TVTLRestAPICustomKRRecordSetServiceImpl::ListFilters(const std::string& ASchema) {
    const TDBTableDef& table = RequireSchema(ASchema);
    TJsonObject result = TJsonObject::object();
    result["filters"] = TJsonObject::array();
    for (const auto& h : TKRFilterHandlerClient::HandlersForSchema(table.SchemaName))
        result["filters"].push_back({{"identifier", h.Identifier}, {"caption", h.Caption}});
    return result;
}

}  // namespace docadmin
