// TKRRecordSet: reading a table by schema, and writing rows back by primary key.
//
// Calling order: create; SetSchemaName, options, select fields, filters and order; Open (or
// SetActive(true)); read and write cells by record number 0..GetRecordCount()-1; Close or free.
// Options, schema, select fields and filters may be changed while closed and the set reopened.
//
// Columns: the key field `id` always comes first; then the select fields in their order, or all
// fields of the schema when the select-all flag is set or no select field is given. A select field
// may name a lookup's master column as "<master schema>.<field>" (for example
// "docadmindocs.docname" on docadminressources through its `documentid` lookup); such a column
// belongs to no schema field (GetHasSchemaField is false) and is read only.
//
// Lookups: a field with a lookup reads as its master row's display value (GetAsString and
// GetAsVariant) unless DisableLookupValueLoading is set for it; GetRealValue and GetAsInteger
// always give the stored key.
//
// Row rights: with access mode 1 (gamRead) or option 0 (rsoUserRowRights) and a current user on
// the thread, rows of a table registered with TKRACLDataTableController whose ACL group the user
// may not read are left out; a table registered with ACL fields follows the row that field names.
//
// Paging: SetPaging(limit, offset) makes Open deliver at most `limit` rows (-1: all) after skipping
// `offset` rows of the ordered result; the database does the skipping. While paging, the order is
// completed by the key field (ascending), so that the rows have one total order and consecutive
// pages neither overlap nor skip rows. CountRecords counts the rows the same query gives without
// paging.
//
// Writing: with update mode 1 (umWriteBack) cells taken with the write flag are marked changed;
// SaveRecordNumber writes one row's changed cells, and Close (also from the destructor) writes
// all rows still pending. Without update mode 1 a write raises.
//
// Open runs InternalSetFiltersToSchema first: it copies the set's filters into the active schema
// item's filter list and fires OnSetFiltersToSchema with the set as sender, so that a subclass or
// a handler may extend the where-clause at that moment. The query is built from that list.
//
// A record set is used by one thread at a time; with a DBA transaction ID it runs on the thread
// that began the transaction and sees that transaction's uncommitted rows.
#pragma once

#include <bitset>
#include <cstdint>
#include <initializer_list>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "_DBInterface.h"
#include "_TClientSQL.h"

namespace docadmin {

class TSQLBuild;

enum TRSUpdateMode : std::uint8_t { umReadOnly = 0, umWriteBack = 1 };

enum TRSOption : std::uint8_t {
    rsoUserRowRights = 0,  // the current user's row rights apply
    rsoDistinct = 1,       // SELECT DISTINCT
};

// A set of up to 23 record set options.
class TRSOptions {
  public:
    TRSOptions() = default;
    TRSOptions(std::initializer_list<TRSOption> AOptions) {
        for (TRSOption o : AOptions)
            FBits.set(o);
    }
    bool Contains(TRSOption o) const { return FBits.test(o); }
    bool Empty() const { return FBits.none(); }

  private:
    std::bitset<23> FBits;
};

enum TUserGroupAccessMode : std::uint8_t { gamNone = 0, gamRead = 1 };

enum TFilterContextItem : std::uint8_t { fcSelect = 0, fcCount = 1 };
using TFilterContext = std::bitset<2>;

struct TRSSelectFieldOption {
    bool DisableLookupValueLoading = false;
};

class TOrderFields {
  public:
    struct TOrderField {
        std::string FieldName;
        bool Ascending = true;
    };
    // Sets the order to one field, or appends it as a further key when AAppend is true.
    void SetOrder(const std::string& AFieldName, bool AAscending = true, bool AAppend = false);
    void Clear() { FItems.clear(); }
    int Count() const { return static_cast<int>(FItems.size()); }
    const TOrderField& Items(int i) const { return FItems.at(static_cast<size_t>(i)); }

  private:
    std::vector<TOrderField> FItems;
};

class TKRCustomRecordSet;

// The handle of one cell.
class TFieldDataAccess {
  public:
    TFieldDataAccess(TKRCustomRecordSet* ASet, int ARecNo, int AColumn, bool AWrite)
        : FSet(ASet), FRecNo(ARecNo), FColumn(AColumn), FWrite(AWrite) {}

    std::string GetAsString() const;
    std::int64_t GetAsInteger() const;
    double GetAsFloat() const;
    TVariant GetAsVariant() const;
    // The stored value as a 64-bit integer, without lookup or display conversion.
    std::int64_t GetRealValue() const;
    bool IsNull() const;

    void SetAsString(const std::string& AValue) const;
    void SetAsInteger(std::int64_t AValue) const;
    void SetAsFloat(double AValue) const;
    void SetAsVariant(const TVariant& AValue) const;

  private:
    const TVariant& Cell() const;  // the display value of a lookup, else the stored value
    const TVariant& Raw() const;
    void Write(TVariant AValue) const;
    TKRCustomRecordSet* FSet;
    int FRecNo;
    int FColumn;
    bool FWrite;
};

class TKRCustomRecordSet : public TPluginBaseComponent {
  public:
    explicit TKRCustomRecordSet(TComponent* AOwner);
    TKRCustomRecordSet(TComponent* AOwner, IDBInterface* ADatabase);
    // Writes pending changes (failures are swallowed here; call Close to see them).
    ~TKRCustomRecordSet() override;

    void SetDatabase(IDBInterface* ADatabase) { FDatabase = ADatabase; }
    IDBInterface* GetDatabase() const;

    void SetSchemaName(const std::string& ASchemaName);
    const std::string& GetSchemaName() const { return FSchemaName; }
    IDBFieldSchemaItem* GetActiveSchema() const { return FActiveSchema.get(); }
    void SetDBATransactionID(std::int64_t AID) { FDBATransactionID = AID; }
    std::int64_t GetDBATransactionID() const { return FDBATransactionID; }
    void SetUpdateMode(TRSUpdateMode AMode) { FUpdateMode = AMode; }
    TRSUpdateMode GetUpdateMode() const { return FUpdateMode; }
    void SetOptions(TRSOptions AOptions) { FOptions = AOptions; }
    TRSOptions GetOptions() const { return FOptions; }
    void SetAccessMode(TUserGroupAccessMode AMode) { FAccessMode = AMode; }
    TUserGroupAccessMode GetAccessMode() const { return FAccessMode; }
    // All columns of the schema (true) or only GetSelectFields (false, the default).
    void SetSelectAll(bool AValue) { FSelectAll = AValue; }
    bool GetSelectAll() const { return FSelectAll; }

    // Paging of the next Open; (-1, 0) switches it off. Raises EDBException for a limit below -1
    // or a negative offset.
    void SetPaging(std::int64_t ALimit, std::int64_t AOffset);
    std::int64_t GetLimit() const { return FLimit; }
    std::int64_t GetOffset() const { return FOffset; }

    TClientSQLFilters* GetFilters() { return &FFilters; }
    TStringList* GetSelectFields() { return &FSelectFields; }
    TRSSelectFieldOption& GetSelectFieldOptions(const std::string& AFieldName);
    TOrderFields* GetOrderFields() { return &FOrderFields; }

    // Fired during InternalSetFiltersToSchema with the set as sender.
    TNotifyEvent OnSetFiltersToSchema;

    void Open();
    // The number of rows that Open would give without paging, with the same filters and row
    // rights; runs a COUNT query and leaves the set as it is.
    std::int64_t CountRecords();
    void Close();
    void SetActive(bool AValue);
    bool GetActive() const { return FActive; }

    int GetRecordCount() const;
    int GetFieldCount() const;
    const std::string& GetFieldName(int AColumn) const;
    // -1 when the field isn't in the result.
    int GetFieldIndex(const std::string& AFieldName) const;
    bool GetHasSchemaField(int AColumn) const;
    // The schema description of the column, or an empty holder.
    IPtr<IDBSchemaFieldItem> GetSchemaFields(int AColumn) const;

    TFieldDataAccess ValueByIndex(int ARecNo, int AColumn, bool AWrite = false);
    // An unknown name raises EDBUnknownField.
    TFieldDataAccess ValueByName(int ARecNo, const std::string& AFieldName, bool AWrite = false);
    std::int64_t GetDBIDByRecNo(int ARecNo) const;

    // Writes the changed cells of the row back; the flags are kept for callers and unused.
    void SaveRecordNumber(int ARecNo, bool AUnused1 = false, bool AUnused2 = false);
    // Deletes the row from the table (with delete notification) and from the result.
    void DeleteRecord(int ARecNo, bool AUnused = false, int ACount = -1);
    // The first row whose cell equals AValue, or -1. With ACaseInsensitive strings are compared
    // without regard to ASCII case.
    int FindLocalRecord(int AColumn, const TVariant& AValue, bool ACaseInsensitive = false) const;

    // Hands the set's filters to the active schema; subclasses extend it.
    virtual void InternalSetFiltersToSchema(TFilterContext AContext);

  private:
    friend class TFieldDataAccess;
    struct TColumn {
        std::string Name;
        const TDBFieldDef* Def = nullptr;  // null for a master column of a lookup
        int DisplayIndex = -1;             // row index of the lookup display value, or -1
    };
    void CheckOpen() const;
    void CheckRecNo(int ARecNo) const;
    void CheckColumn(int AColumn) const;
    void WritePending();
    IDBFieldSchemaItem* RequireSchema() const;
    // The SELECT of Open (with order and paging) and the columns it delivers, or with ACount the
    // COUNT over the same rows (AColumns untouched).
    std::string BuildSelect(TSQLBuild& ABuild, bool ACount, std::vector<TColumn>* AColumns);

    IDBInterface* FDatabase = nullptr;
    std::string FSchemaName;
    IPtr<IDBFieldSchemaItem> FActiveSchema;
    std::int64_t FDBATransactionID = 0;
    TRSUpdateMode FUpdateMode = umReadOnly;
    TRSOptions FOptions;
    TUserGroupAccessMode FAccessMode = gamNone;
    bool FSelectAll = false;
    TClientSQLFilters FFilters;
    TStringList FSelectFields;
    std::map<std::string, TRSSelectFieldOption> FSelectFieldOptions;  // by lower-case name
    TOrderFields FOrderFields;
    std::int64_t FLimit = -1;
    std::int64_t FOffset = 0;

    bool FActive = false;
    std::vector<TColumn> FColumns;
    // The cells row by row: FRowWidth per row (visible columns, then lookup display values).
    std::vector<TVariant> FCells;
    size_t FRowWidth = 0;
    TVariant* RowPtr(int ARecNo) { return FCells.data() + static_cast<size_t>(ARecNo) * FRowWidth; }
    const TVariant* RowPtr(int ARecNo) const {
        return FCells.data() + static_cast<size_t>(ARecNo) * FRowWidth;
    }
    std::vector<std::vector<bool>> FChanged;  // per row; empty while the row is unchanged
};

class TKRRecordSet : public TKRCustomRecordSet {
  public:
    using TKRCustomRecordSet::TKRCustomRecordSet;
};

}  // namespace docadmin
