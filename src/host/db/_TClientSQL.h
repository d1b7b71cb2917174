// Fields and filters shared by statements and record sets, and TClientSQL, the one-shot insert,
// update or delete by field list.
//
// A filter list is an ordered list of items. An item is a comparison (field, value, filter type,
// field function), carries a link to what precedes it (0 and 1 AND, 2 OR) and may open or close a
// group (parenthesis 1 or 2); an item without a field carries only its parenthesis. The link of
// the first item of a group has no effect: the group joins what precedes it with the link of the
// item that opens it. Values are always bound as parameters; field names are checked against the
// schema when the statement is built.
//
// A list filter (types 8 and 9) takes its list as one comma-separated string, of any length; it
// travels to the database as a single array parameter, so no list meets a parameter limit.
//
// A sub-select filter (types 8 and 9 with SetSubSelect) compares the field with one field of
// another schema's rows that match the sub-select's own filter list.
//
// Objects here are used by one thread at a time.
#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "_DBSchema.h"
#include "_DBVariant.h"
#include "_PluginIntf.h"

namespace docadmin {

class IDBInterface;

enum TFilterType : std::uint8_t {
    ftEqual = 0,
    ftExactEqual = 1,  // "==": equal, compared exactly (same as ftEqual on both databases)
    ftLess = 2,
    ftGreater = 3,
    ftLessEqual = 4,
    ftGreaterEqual = 5,
    ftNotEqual = 6,
    ftLike = 7,       // pattern with "%" as wildcard, case-sensitive
    ftInList = 8,     // value in a comma-separated list, or in a sub-select
    ftNotInList = 9,  // value not in such a list or sub-select
    ftIsNull = 10,    // value ignored
    ftIsNotNull = 11  // value ignored
};

enum TFilterLink : std::uint8_t { flNone = 0, flAnd = 1, flOr = 2 };

enum TParenthesis : std::uint8_t { pNone = 0, pOpen = 1, pClose = 2 };

enum TFilterFieldFunction : std::uint8_t {
    fffNone = 0,
    fffUpper = 6,  // compare the upper-case form of field and value
};

// Base of a field or filter item: a name and a value.
class TClientSQLBaseItem : public TObject {
  public:
    TClientSQLBaseItem() = default;
    TClientSQLBaseItem(std::string AFieldName, TVariant AValue)
        : FFieldName(std::move(AFieldName)), FValue(std::move(AValue)) {}

    const std::string& GetFieldName() const { return FFieldName; }
    void SetFieldName(std::string AName) { FFieldName = std::move(AName); }
    const TVariant& GetValue() const { return FValue; }
    void SetValue(TVariant AValue) { FValue = std::move(AValue); }
    void SetAsInteger(std::int64_t AValue) { FValue = TVariant(static_cast<long long>(AValue)); }
    void SetAsString(std::string AValue) { FValue = TVariant(std::move(AValue)); }
    void SetAsFloat(double AValue) { FValue = TVariant(AValue); }
    void SetAsDateTime(TDateTime AValue) { FValue = TVariant::FromDate(AValue); }
    void SetNull() { FValue = TVariant(); }

  private:
    std::string FFieldName;
    TVariant FValue;
};

class TClientSQLField : public TClientSQLBaseItem {
  public:
    using TClientSQLBaseItem::TClientSQLBaseItem;
};

class TClientSQLFields : public TObject {
  public:
    // Appends a field and returns it; the list owns it.
    TClientSQLField* AddField(const std::string& AName, TVariant AValue);
    TClientSQLField* GetItems(int AIndex) const;
    int Count() const { return static_cast<int>(FItems.size()); }
    void Clear() { FItems.clear(); }
    // The field by name (case-insensitive), or nullptr.
    TClientSQLField* FindField(const std::string& AName) const;

  private:
    std::vector<std::unique_ptr<TClientSQLField>> FItems;
};

class TClientSQLFilter : public TClientSQLBaseItem {
  public:
    using TClientSQLBaseItem::TClientSQLBaseItem;
    ~TClientSQLFilter() override;

    TFilterType GetFilterType() const { return FFilterType; }
    void SetFilterType(TFilterType A) { FFilterType = A; }
    TFilterLink GetFilterLink() const { return FFilterLink; }
    void SetFilterLink(TFilterLink A) { FFilterLink = A; }
    TParenthesis GetParenthesis() const { return FParenthesis; }
    void SetParenthesis(TParenthesis A) { FParenthesis = A; }
    TFilterFieldFunction GetFieldFunction() const { return FFieldFunction; }
    void SetFieldFunction(TFilterFieldFunction A) { FFieldFunction = A; }

    // Turns the filter into a sub-select: the field is compared (type 8 in, 9 not in, 0 equal)
    // with ASelectField of the rows of ASchemaName that match GetSubSelectFilters().
    void SetSubSelect(const std::string& ASchemaName, const std::string& ASelectField);
    bool GetIsSubSelect() const { return !FSubSchema.empty(); }
    const std::string& GetSubSelectSchema() const { return FSubSchema; }
    const std::string& GetSubSelectField() const { return FSubField; }
    TClientSQLFilters* GetSubSelectFilters();
    const TClientSQLFilters* SubSelectFilters() const { return FSubFilters.get(); }

    std::unique_ptr<TClientSQLFilter> Clone() const;

  private:
    TFilterType FFilterType = ftEqual;
    TFilterLink FFilterLink = flNone;
    TParenthesis FParenthesis = pNone;
    TFilterFieldFunction FFieldFunction = fffNone;
    std::string FSubSchema;
    std::string FSubField;
    std::unique_ptr<TClientSQLFilters> FSubFilters;
};

class TClientSQLFilters : public TObject {
  public:
    // Appends an equality filter with link 0 and returns it.
    TClientSQLFilter* AddFilter(const std::string& AFieldName, TVariant AValue);
    // Appends an empty item, used to carry only a parenthesis.
    TClientSQLFilter* Add();
    TClientSQLFilter* GetItems(int AIndex) const;
    int Count() const { return static_cast<int>(FItems.size()); }
    void Clear() { FItems.clear(); }
    // Appends copies of all items of another list.
    void Assign(const TClientSQLFilters& ASource);

  private:
    std::vector<std::unique_ptr<TClientSQLFilter>> FItems;
};

// Appends a filter to a schema's filter list. AUnused stands for the host's flag. The returned
// filter may be turned into a sub-select.
TClientSQLFilter* AddFilter(IDBSchemaFilters* AFilters, const std::string& AFieldName,
                            TVariant AValue, TFilterType AType = ftEqual, TFilterLink ALink = flAnd,
                            bool AUnused = false, TParenthesis AParenthesis = pNone,
                            TFilterFieldFunction AFunction = fffNone);
TClientSQLFilter* AddFilter(IDBFieldSchemaItem* ASchema, const std::string& AFieldName,
                            TVariant AValue, TFilterType AType = ftEqual, TFilterLink ALink = flAnd,
                            bool AUnused = false, TParenthesis AParenthesis = pNone,
                            TFilterFieldFunction AFunction = fffNone);
// Appends a group bracket (an item with only a parenthesis).
TClientSQLFilter* AddFilterGroup(IDBSchemaFilters* AFilters, TParenthesis AParenthesis,
                                 TFilterLink ALink = flAnd, TFilterType AType = ftEqual);

enum TClientSQLKind : std::uint8_t { skInsert = 0, skUpdate = 1, skDelete = 2 };

// A one-shot insert (kind 0), update (1) or delete (2) on one schema. Reusable: fields and
// filters stay after ExecuteSQL, so a caller may change values and execute again.
// The database comes from SetDatabase or else from the main interface of the owner chain.
class TClientSQL : public TPluginBaseComponent {
  public:
    explicit TClientSQL(TComponent* AOwner);
    TClientSQL(TComponent* AOwner, IDBInterface* ADatabase);
    ~TClientSQL() override;

    void SetDatabase(IDBInterface* ADatabase) { FDatabase = ADatabase; }
    IDBInterface* GetDatabase() const;

    TClientSQLKind GetStatementKind() const { return FKind; }
    void SetStatementKind(TClientSQLKind AKind) { FKind = AKind; }
    void SetSchemaName(const std::string& ASchemaName);
    const std::string& GetSchemaName() const { return FSchemaName; }
    void SetDBATransactionID(std::int64_t AID) { FDBATransactionID = AID; }
    std::int64_t GetDBATransactionID() const { return FDBATransactionID; }

    TClientSQLFields* GetFields() { return &FFields; }
    TClientSQLFilters* GetFilters() { return &FFilters; }

    // Runs the statement; failures are raised.
    void ExecuteSQL();
    // Runs an insert and delivers the key of the new row.
    void ExecuteSQL(std::int64_t& ANewID);
    // Rows touched by the last execution.
    std::int64_t RowsAffected() const { return FRowsAffected; }

  private:
    IDBInterface* FDatabase = nullptr;
    TClientSQLKind FKind = skInsert;
    std::string FSchemaName;
    std::int64_t FDBATransactionID = 0;
    TClientSQLFields FFields;
    TClientSQLFilters FFilters;
    std::int64_t FRowsAffected = 0;
};

}  // namespace docadmin
