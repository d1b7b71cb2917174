// The schema catalogue: table descriptions as data, from which the host creates its tables.
//
// A catalogue (`IDBFieldSchema`) holds one table description per schema name. Descriptions are
// JSON files (one per table, see schema/ at the root of the tree); they are compiled into the
// library and may be supplemented or overridden from a folder at start. Every table carries the
// host record columns `id` (the 64-bit key, assigned by the database), `creadate`, `creaid`,
// `lastchangedtsp`, `lastchangedid` and `globalrecuid` (a fresh GUID text assigned on insert);
// a description lists only its own columns.
//
// Table and column names reach SQL only from here: every name that a caller passes is looked up
// in a description, and an unknown one raises EDBUnknownField instead of being spliced.
//
// A catalogue is immutable once loaded and may be shared by any number of threads. A schema item
// (`IDBFieldSchemaItem`) that GetSchemaByName hands out is a fresh object with its own, empty
// filter list, so a caller may fill that list without disturbing anybody else.
#pragma once

#include <cstdint>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "_DBVariant.h"
#include "_Interfaces.h"

namespace docadmin {

class TClientSQLFilters;
class TClientSQLFilter;
// The filter list of a schema item is the same collection as a statement's filter list.
using IDBSchemaFilters = TClientSQLFilters;

DOCADMIN_DECLARE_EXCEPTION(EDBException, Exception);
// A schema name that the catalogue does not know.
DOCADMIN_DECLARE_EXCEPTION(EDBUnknownSchema, EDBException);
// A field name that the schema does not know.
DOCADMIN_DECLARE_EXCEPTION(EDBUnknownField, EDBException);
// The database refused a statement; the message carries the database's text.
DOCADMIN_DECLARE_EXCEPTION(EDBSQLError, EDBException);
// A schema description that cannot be read.
DOCADMIN_DECLARE_EXCEPTION(EDBSchemaError, EDBException);

// Kinds of fields. The numbers are stable: they are stored in no table, but callers compare them.
enum class TDBFieldKind : std::uint8_t {
    fkInteger = 0,  // 32-bit integer
    fkInt64 = 1,    // 64-bit integer
    fkFloat = 2,    // double
    fkDate = 3,     // date-time as a floating day count
    fkString = 4,   // text with a maximum length
    fkMemo = 5,     // text without limit
    fkByte = 6,     // 8-bit value
    fkBoolean = 7,  // 0 or 1
};

bool IsIntegerFieldKind(TDBFieldKind k);
bool IsNumericFieldKind(TDBFieldKind k);

// A field's lookup: the field holds the key of a row of another table, whose display field is
// shown in its place unless the caller disables lookup values.
struct TDBLookupDef {
    std::string MasterSchema;  // schema name of the master table
    std::string KeyField = "id";
    std::string DisplayField;
};

struct TDBFieldDef {
    std::string Name;  // lower case, as in the table
    TDBFieldKind Kind = TDBFieldKind::fkString;
    int Size = 0;  // maximum length of fkString
    bool NotNull = false;
    bool IsKey = false;
    bool IsHostColumn = false;  // one of the host record columns
    std::string DefaultValue;   // SQL default as literal text of a number, or empty
    bool HasLookup = false;
    TDBLookupDef Lookup;
};

struct TDBIndexDef {
    std::string Name;
    std::vector<std::string> Fields;
    bool Unique = false;
};

// One table description as read from its JSON file.
struct TDBTableDef {
    // Unique among all descriptions of the process (set when a catalogue takes it); caches key
    // on it.
    std::uint64_t Serial = 0;
    std::string SchemaName;
    std::string SQLTableName;
    std::string Caption;
    // A table of its own that holds documents of this schema's records ("" when none).
    std::string DocumentTableName;
    std::vector<TDBFieldDef> Fields;  // host record columns first, then the table's own
    std::vector<TDBIndexDef> Indexes;

    // The field by name (case-insensitive), or nullptr.
    const TDBFieldDef* FindField(const std::string& AName) const;
    int IndexOfField(const std::string& AName) const;
    const TDBFieldDef& KeyField() const;
};

// Parses one table description. Raises EDBSchemaError with the source name on bad input.
TDBTableDef ParseTableDef(const std::string& AJsonText, const std::string& ASourceName);

// The description of one field of a schema.
class IDBSchemaFieldItem : public IInterface {
  public:
    DOCADMIN_IID("{6A2E8F1C-3D47-4B9A-9E21-5C0D7B8A4F13}");
    virtual std::string GetFieldName() = 0;
    virtual TDBFieldKind GetFieldKind() = 0;
    virtual bool GetIsLookup() = 0;
    virtual const TDBFieldDef& GetDef() = 0;
};

// A table description with a filter list of its own.
class IDBFieldSchemaItem : public IInterface {
  public:
    DOCADMIN_IID("{B3C1D2E4-5F60-4A7B-8C9D-0E1F2A3B4C5D}");
    virtual std::string GetSchemaName() = 0;
    virtual std::string GetSQLTableName() = 0;
    virtual IDBSchemaFilters* GetFilters() = 0;
    // The field by name, or an empty holder.
    virtual IPtr<IDBSchemaFieldItem> GetFieldByName(const std::string& AName) = 0;
    // Whether the schema names a table of its own for its documents, and that table's name.
    virtual bool GetHasOwnDocumentTable() = 0;
    virtual std::string GetDocumentTableName() = 0;
    virtual std::string GetKeyFieldName() = 0;
    virtual int GetFieldCount() = 0;
    virtual IPtr<IDBSchemaFieldItem> GetFieldItem(int AIndex) = 0;
    virtual const TDBTableDef& GetTableDef() = 0;
};

// The catalogue.
class IDBFieldSchema {
  public:
    virtual ~IDBFieldSchema() = default;
    // The description, or nullptr.
    virtual const TDBTableDef* FindTable(const std::string& ASchemaName) const = 0;
    // The description whose SQL table name this is, or nullptr.
    virtual const TDBTableDef* FindTableBySQLName(const std::string& ASQLTableName) const = 0;
    virtual std::vector<std::string> SchemaNames() const = 0;
};

// The catalogue implementation: built-in descriptions plus those of an optional folder.
class TDBFieldSchema : public IDBFieldSchema {
  public:
    // The descriptions compiled into the library (schema/*.json).
    static std::shared_ptr<TDBFieldSchema> CreateBuiltIn();
    // The built-in descriptions, then every *.json of the folder (a schema of the same name
    // replaces the built-in one).
    static std::shared_ptr<TDBFieldSchema> Load(const std::string& AFolder);

    void AddTable(TDBTableDef ADef);
    const TDBTableDef* FindTable(const std::string& ASchemaName) const override;
    const TDBTableDef* FindTableBySQLName(const std::string& ASQLTableName) const override;
    std::vector<std::string> SchemaNames() const override;

  private:
    std::map<std::string, std::shared_ptr<const TDBTableDef>> FTables;  // by lower-case name
};

// A schema item for a description of the catalogue; the description must outlive the item.
IPtr<IDBFieldSchemaItem> CreateSchemaItem(const TDBTableDef& ADef);

// The schema item by name, or an empty holder. AUnused is kept for callers that pass the host's
// flag; it has no effect.
IPtr<IDBFieldSchemaItem> GetSchemaByName(const IDBFieldSchema* ASchema,
                                         const std::string& ASchemaName, bool AUnused = false);
// The SQL table name of a schema. Raises EDBUnknownSchema for an unknown schema.
std::string GetSQLTableNameFromSchemaName(const IDBFieldSchema* ASchema,
                                          const std::string& ASchemaName);

}  // namespace docadmin
