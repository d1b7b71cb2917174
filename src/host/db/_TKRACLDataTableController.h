// Row rights: the tables that take part in record ACLs, and the rule by which rows are hidden.
//
// A TKRACLDataTableController component registers tables (SQL table name, table type, ACL fields,
// caption) for as long as it lives; registrations are process-wide and thread-safe. A row of a
// registered table without ACL fields is readable by a user when its `globalaclgrp` is null or 0,
// or when the user has a mode in that group (table `useraclmodes`) other than uamDenied. A table
// registered with an ACL field (e.g. docadmindocs by "dirid") has no rights of its own: a row is
// readable when that field is null or 0, or names a readable row of the field's lookup table.
#pragma once

#include <cstdint>
#include <mutex>
#include <string>
#include <vector>

#include "_Classes.h"

namespace docadmin {

// A user's mode in an ACL group (column useraclmodes.accessmode). Modes 0 and 2 allow writing;
// every mode but uamDenied allows reading.
enum TUserACLMode : std::int32_t {
    uamFull = 0,
    uamReadOnly = 1,
    uamReadWrite = 2,
    uamDenied = 3,
};

enum class TACLTableType : std::uint8_t { atDefault = 0, atFields = 1 };

struct TKRACLDataTable {
    std::string SQLTableName;
    TACLTableType TableType = TACLTableType::atDefault;
    std::string ACLFields;  // comma-separated; empty for rights of the row itself
    std::string Caption;
};

class TKRACLDataTableController : public TComponent {
  public:
    explicit TKRACLDataTableController(TComponent* AOwner);
    ~TKRACLDataTableController() override;

    // Registers a table; answers its index.
    int AddTable(const std::string& ASQLTableName, TACLTableType ATableType,
                 const std::string& AACLFields, const std::string& ACaption);
    int TableCount() const;
    TKRACLDataTable Tables(int AIndex) const;

    // The controller that registered the table (case-insensitive), or nullptr.
    static TKRACLDataTableController* FindController(const std::string& ASQLTableName);
    // The registration of the table; false when none.
    static bool FindTable(const std::string& ASQLTableName, TKRACLDataTable& ATable);

  private:
    std::vector<TKRACLDataTable> FTables;  // guarded by the registry lock
};

}  // namespace docadmin
