// The record flags service of the host, as the document administrator asks it: whether it is
// available, and per table the interface that knows the table's record-flags meta id.
//
// The service itself belongs to the host; an administrator holds it by plain pointer and never
// frees it.
#pragma once

#include <cstdint>
#include <string>

#include "_Interfaces.h"
#include "_Tools.h"

namespace docadmin {

class TClientSQLFilters;  // a filter list of the data layer
enum TFilterType : std::uint8_t;
enum TFilterLink : std::uint8_t;

// A bit set over the record flag kinds; 0 means a record has no flags to set.
using TRecordFlagTypes = std::uint8_t;

// The record-flags view of one table.
class IKRRecordFlagsTable : public IInterface {
  public:
    DOCADMIN_IID("{9D5E2B70-4A1C-4E8F-B3D6-7F21C0A85E39}");
    // The meta id under which flags of the table's records are kept.
    virtual std::int64_t Get_MetaID() = 0;

    // The three operations a filter needs. A service that can't filter keeps the defaults, which
    // raise.

    // Adds to AList the ids of the flags named in ANames (strict comma text) under AMetaID;
    // unknown names add nothing.
    virtual void FlagNamesToIDs(const std::string& ANames, std::int64_t AMetaID,
                                TSortedIntegerList* AList);
    // Restricts AFilters to rows (by their key field AKeyField) that carry one of the flags in
    // AFlagIDs; with ftNotEqual or ftNotInList to rows that carry none of them. AFlagIDs may be
    // empty. The condition joins what precedes it with ALink.
    virtual void AddFlagIDsCondition(TClientSQLFilters* AFilters, const std::string& AKeyField,
                                     const TSortedIntegerList* AFlagIDs, TFilterType AType,
                                     TFilterLink ALink);
    // Restricts AFilters (ANDed) to rows that carry a flag of one of the kinds in ATypes.
    virtual void AddFlagTypesCondition(TClientSQLFilters* AFilters, const std::string& AKeyField,
                                       TRecordFlagTypes ATypes);
};

class TRecordFlagsPlugin : public TObject {
  public:
    // False while the record flags plug-in isn't loaded.
    virtual bool Available() = 0;
    // The table's interface, or an empty holder when the table has none.
    virtual IPtr<IKRRecordFlagsTable> GetPlugin(const std::string& ATableName) = 0;
};

}  // namespace docadmin
