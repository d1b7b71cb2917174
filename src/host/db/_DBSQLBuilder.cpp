#include "_DBSQLBuilder.h"

#include <charconv>
#include <cstring>

#include "_TKRACLDataTableController.h"

namespace docadmin {

namespace {

std::string UpperASCII(std::string s) {
    for (char& c : s)
        if (c >= 'a' && c <= 'z') c = static_cast<char>(c - 'a' + 'A');
    return s;
}

bool IsTextKind(TDBFieldKind k) {
    return k == TDBFieldKind::fkString || k == TDBFieldKind::fkMemo;
}

// "1,2,-3" without blanks or quotes; false for anything else.
bool ParseIntegerList(const std::string& text, std::vector<TVariant>& out) {
    if (text.empty()) return true;
    const char* p = text.data();
    const char* end = p + text.size();
    while (p <= end) {
        const char* comma =
            static_cast<const char*>(std::memchr(p, ',', static_cast<size_t>(end - p)));
        if (!comma) comma = end;
        std::int64_t v = 0;
        auto [q, ec] = std::from_chars(p, comma, v);
        if (ec != std::errc() || q != comma) return false;
        out.emplace_back(static_cast<long long>(v));
        p = comma + 1;
    }
    return true;
}

std::string Comparison(TSQLBuild& b, const TDBTableDef& table, const std::string& alias,
                       const TClientSQLFilter& f) {
    const TDBFieldDef& field = RequireField(table, f.GetFieldName());
    const bool upper = f.GetFieldFunction() == fffUpper;
    std::string expr = QualifiedName(alias, field.Name);
    const TFilterType type = f.GetFilterType();
    if (upper || (type == ftLike && !IsTextKind(field.Kind))) expr = "CAST(" + expr + " AS TEXT)";
    if (upper) expr = "upper(" + expr + ")";

    if ((type == ftInList || type == ftNotInList || type == ftEqual) && f.GetIsSubSelect()) {
        const TDBTableDef& sub = RequireTable(b.Catalogue, f.GetSubSelectSchema());
        const TDBFieldDef& subField = RequireField(sub, f.GetSubSelectField());
        const std::string a = b.NewAlias();
        std::string sql = "SELECT " + QualifiedName(a, subField.Name) + " FROM " +
                          TDBDialect::QuoteName(sub.SQLTableName) + " " + a;
        if (const TClientSQLFilters* sf = f.SubSelectFilters()) {
            const std::string w = RenderFilters(b, sub, a, *sf);
            if (!w.empty()) sql += " WHERE " + w;
        }
        return expr + (type == ftNotInList ? " NOT IN (" : " IN (") + sql + ")";
    }

    const TVariant& v = f.GetValue();
    // A folded column meets a value folded by the same database function, so that both sides
    // agree on letters beyond ASCII (PostgreSQL folds them, SQLite doesn't).
    auto param = [&](const TVariant& value) {
        if (upper) return "upper(CAST(" + b.AddParam(TVariant(value.AsString())) + " AS TEXT))";
        return b.AddParam(ConvertForField(value, field));
    };
    switch (type) {
        case ftEqual:
        case ftExactEqual:
            if (v.IsNull()) return expr + " IS NULL";
            return expr + " = " + param(v);
        case ftNotEqual:
            if (v.IsNull()) return expr + " IS NOT NULL";
            return expr + " <> " + param(v);
        case ftLess:
            return expr + " < " + param(v);
        case ftGreater:
            return expr + " > " + param(v);
        case ftLessEqual:
            return expr + " <= " + param(v);
        case ftGreaterEqual:
            return expr + " >= " + param(v);
        case ftLike:
            return expr + " LIKE " + (upper ? param(v) : b.AddParam(v.AsString()));
        case ftInList:
        case ftNotInList: {
            std::vector<TVariant> items;
            if (!v.IsNull() && !upper && IsIntegerFieldKind(field.Kind) &&
                ParseIntegerList(v.AsString(), items)) {
                // plain numbers: parsed directly
            } else if (!v.IsNull()) {
                items.clear();
                const std::string text = v.AsString();
                for (auto& s : SplitStrictCommaText(text)) {
                    TVariant item(std::move(s));
                    items.push_back(upper ? TVariant(UpperASCII(item.AsString()))
                                          : ConvertForField(item, field));
                }
            }
            const TDBFieldKind kind = upper ? TDBFieldKind::fkString : field.Kind;
            return b.Dialect.ListCondition(expr, b.AddListParam(std::move(items)), kind,
                                           type == ftNotInList);
        }
        case ftIsNull:
            return expr + " IS NULL";
        case ftIsNotNull:
            return expr + " IS NOT NULL";
    }
    throw EDBException("Unknown filter type " + std::to_string(static_cast<int>(type)));
}

struct TGroupFrame {
    std::string Text;
    TFilterLink OpenLink = flNone;
};

void Append(TGroupFrame& g, TFilterLink link, const std::string& cond) {
    if (g.Text.empty())
        g.Text = cond;
    else
        g.Text += (link == flOr ? " OR " : " AND ") + cond;
}

}  // namespace

std::string TSQLBuild::AddParam(TVariant AValue) {
    TDBParam p;
    p.Value = std::move(AValue);
    Params.push_back(std::move(p));
    return Dialect.Placeholder(static_cast<int>(Params.size()));
}

std::string TSQLBuild::AddListParam(std::vector<TVariant> AItems) {
    TDBParam p;
    p.IsList = true;
    p.Items = std::move(AItems);
    Params.push_back(std::move(p));
    return Dialect.Placeholder(static_cast<int>(Params.size()));
}

std::string QualifiedName(const std::string& AAlias, const std::string& AName) {
    if (AAlias.empty()) return TDBDialect::QuoteName(AName);
    return AAlias + "." + TDBDialect::QuoteName(AName);
}

const TDBTableDef& RequireTable(const IDBFieldSchema& ACatalogue, const std::string& ASchemaName) {
    const TDBTableDef* t = ACatalogue.FindTable(ASchemaName);
    if (!t) throw EDBUnknownSchema("Unknown schema \"" + ASchemaName + "\"");
    return *t;
}

const TDBTableDef& RequireTableBySQLName(const IDBFieldSchema& ACatalogue,
                                         const std::string& ASQLTableName) {
    const TDBTableDef* t = ACatalogue.FindTableBySQLName(ASQLTableName);
    if (!t) throw EDBUnknownSchema("Unknown table \"" + ASQLTableName + "\"");
    return *t;
}

const TDBFieldDef& RequireField(const TDBTableDef& ATable, const std::string& AFieldName) {
    const TDBFieldDef* f = ATable.FindField(AFieldName);
    if (!f)
        throw EDBUnknownField("Unknown field \"" + AFieldName + "\" in schema \"" +
                              ATable.SchemaName + "\"");
    return *f;
}

TVariant ConvertForField(const TVariant& AValue, const TDBFieldDef& AField) {
    if (AValue.IsNull()) return AValue;
    switch (AField.Kind) {
        case TDBFieldKind::fkString:
        case TDBFieldKind::fkMemo:
            return AValue.IsString() ? AValue : TVariant(AValue.AsString());
        case TDBFieldKind::fkFloat:
        case TDBFieldKind::fkDate:
            if (AValue.IsString()) {
                double d = 0;
                if (TryStrToFloat(AValue.RawString(), d)) return TVariant(d);
                return AValue;
            }
            return TVariant(AValue.AsFloat());
        default:
            if (AValue.IsString()) {
                std::int64_t i = 0;
                if (TryStrToInt64(AValue.RawString(), i))
                    return TVariant(static_cast<long long>(i));
                return AValue;
            }
            if (AValue.IsIntegral()) return AValue;
            return TVariant(static_cast<long long>(AValue.AsInt64()));
    }
}

std::string RenderFilters(TSQLBuild& ABuild, const TDBTableDef& ATable, const std::string& AAlias,
                          const TClientSQLFilters& AFilters) {
    std::vector<TGroupFrame> stack(1);
    auto close = [&]() {
        TGroupFrame g = std::move(stack.back());
        stack.pop_back();
        // A group without conditions adds nothing, whatever its link.
        if (!g.Text.empty()) Append(stack.back(), g.OpenLink, "(" + g.Text + ")");
    };
    for (int i = 0; i < AFilters.Count(); ++i) {
        const TClientSQLFilter& f = *AFilters.GetItems(i);
        const bool hasField = !f.GetFieldName().empty();
        if (f.GetParenthesis() == pOpen) {
            TGroupFrame g;
            g.OpenLink = f.GetFilterLink();
            stack.push_back(std::move(g));
            if (hasField) Append(stack.back(), flNone, Comparison(ABuild, ATable, AAlias, f));
            continue;
        }
        if (hasField)
            Append(stack.back(), f.GetFilterLink(), Comparison(ABuild, ATable, AAlias, f));
        if (f.GetParenthesis() == pClose) {
            if (stack.size() == 1) throw EDBException("Filter group closed that was never opened");
            close();
        }
    }
    while (stack.size() > 1)
        close();
    return stack.front().Text;
}

std::string RenderPaging(TSQLBuild& ABuild, std::int64_t ALimit, std::int64_t AOffset) {
    if (ALimit < -1 || AOffset < 0)
        throw EDBException("Invalid paging: limit " + std::to_string(ALimit) + ", offset " +
                           std::to_string(AOffset));
    std::string sql;
    if (ALimit >= 0)
        sql = " LIMIT " + ABuild.AddParam(TVariant(static_cast<long long>(ALimit)));
    else if (AOffset > 0 && ABuild.Dialect.Kind() == TDBBackendKind::bkSQLite)
        sql = " LIMIT -1";  // SQLite takes OFFSET only after a LIMIT
    if (AOffset > 0) sql += " OFFSET " + ABuild.AddParam(TVariant(static_cast<long long>(AOffset)));
    return sql;
}

std::string RenderACLCondition(TSQLBuild& ABuild, const TDBTableDef& ATable,
                               const std::string& AAlias, std::int64_t AUserID, int ADepth) {
    TKRACLDataTable reg;
    if (AUserID == 0 || ADepth > 4 ||
        !TKRACLDataTableController::FindTable(ATable.SQLTableName, reg))
        return {};
    std::vector<std::string> fields = SplitStrictCommaText(reg.ACLFields);
    std::string result;
    auto add = [&](const std::string& c) { result += (result.empty() ? "" : " AND ") + c; };
    if (fields.empty() || (fields.size() == 1 && fields[0].empty())) {
        const TDBFieldDef* grp = ATable.FindField("globalaclgrp");
        if (!grp) return {};
        const TDBTableDef& modes = RequireTable(ABuild.Catalogue, "useraclmodes");
        const std::string col = QualifiedName(AAlias, grp->Name);
        const std::string a = ABuild.NewAlias();
        add("(" + col + " IS NULL OR " + col + " = 0 OR " + col + " IN (SELECT " +
            QualifiedName(a, "aclgroupid") + " FROM " + TDBDialect::QuoteName(modes.SQLTableName) +
            " " + a + " WHERE " + QualifiedName(a, "userid") + " = " +
            ABuild.AddParam(TVariant(static_cast<long long>(AUserID))) + " AND " +
            QualifiedName(a, "accessmode") + " <> " +
            ABuild.AddParam(TVariant(static_cast<long long>(uamDenied))) + "))");
        return result;
    }
    for (const auto& name : fields) {
        const TDBFieldDef& field = RequireField(ATable, name);
        if (!field.HasLookup) continue;
        const TDBTableDef& master = RequireTable(ABuild.Catalogue, field.Lookup.MasterSchema);
        const std::string a = ABuild.NewAlias();
        const std::string inner = RenderACLCondition(ABuild, master, a, AUserID, ADepth + 1);
        if (inner.empty()) continue;
        const std::string col = QualifiedName(AAlias, field.Name);
        add("(" + col + " IS NULL OR " + col + " = 0 OR " + col + " IN (SELECT " +
            QualifiedName(a, field.Lookup.KeyField) + " FROM " +
            TDBDialect::QuoteName(master.SQLTableName) + " " + a + " WHERE " + inner + "))");
    }
    return result;
}

}  // namespace docadmin
