// The record flags service of the host, as the document administrator asks it: whether it is
// available, and per table the interface that knows the table's record-flags meta id.
//
// The service itself belongs to the host; an administrator holds it by plain pointer and never
// frees it.
#pragma once

#include <cstdint>
#include <string>

#include "_Interfaces.h"

namespace docadmin {

// A bit set over the record flag kinds; 0 means a record has no flags to set.
using TRecordFlagTypes = std::uint8_t;

// The record-flags view of one table.
class IKRRecordFlagsTable : public IInterface {
  public:
    DOCADMIN_IID("{9D5E2B70-4A1C-4E8F-B3D6-7F21C0A85E39}");
    // The meta id under which flags of the table's records are kept.
    virtual std::int64_t Get_MetaID() = 0;
};

class TRecordFlagsPlugin : public TObject {
  public:
    // False while the record flags plug-in isn't loaded.
    virtual bool Available() = 0;
    // The table's interface, or an empty holder when the table has none.
    virtual IPtr<IKRRecordFlagsTable> GetPlugin(const std::string& ATableName) = 0;
};

}  // namespace docadmin
