// TDBRecordFlagsPlugin: the host's record flags service over three tables of its catalogue.
//
//   recordflagmetas  one row per table whose records can carry flags; its id is the meta id
//   recordflagdefs   the flags defined for a meta id: a name and a kind (flagtype, 0..7)
//   recordflags      a flag set on a record: meta id, the record's key (recid), flag id, kind
//
// A flag kind n is bit (1 << n) of TRecordFlagTypes. The filter operations add sub-select
// conditions over recordflags to a filter list, so the restriction runs inside the reader's query.
//
// The service is shared by any number of threads; each call runs its own statements. Meta ids are
// made on first request for a table and kept (under a lock) for the life of the object.
#pragma once

#include <cstdint>
#include <map>
#include <mutex>
#include <string>

#include "_DBInterface.h"
#include "_RecordFlagsIntf.h"

namespace docadmin {

class TDBRecordFlagsPlugin : public TRecordFlagsPlugin {
  public:
    // The database must outlive the service.
    explicit TDBRecordFlagsPlugin(IDBInterface* ADatabase);

    // True while the three tables are in the catalogue.
    bool Available() override;
    // The view of one SQL table; its meta id row is created on first request.
    IPtr<IKRRecordFlagsTable> GetPlugin(const std::string& ATableName) override;

    // ---- Maintenance of flags

    // The meta id of a table, made when missing.
    std::int64_t GetMetaID(const std::string& ATableName);
    // Defines a flag (or answers the id of the one of that name) with a kind 0..7.
    std::int64_t DefineFlag(const std::string& ATableName, const std::string& AFlagName,
                            int AFlagType);
    // Sets a flag on a record; setting it twice keeps one row.
    void SetFlag(const std::string& ATableName, std::int64_t ARecID, std::int64_t AFlagID);
    // Removes a flag from a record; a flag not set is no failure.
    void ClearFlag(const std::string& ATableName, std::int64_t ARecID, std::int64_t AFlagID);
    // Whether a record carries a flag.
    bool HasFlag(const std::string& ATableName, std::int64_t ARecID, std::int64_t AFlagID);

    IDBInterface* Database() const { return FDatabase.get(); }

  private:
    IPtr<IDBInterface> FDatabase;
    std::mutex FLock;
    std::map<std::string, std::int64_t> FMetaIDs;  // by SQL table name; guarded by FLock
};

}  // namespace docadmin
