#include "_RecordFlagsIntf.h"

namespace docadmin {

void IKRRecordFlagsTable::FlagNamesToIDs(const std::string& /*ANames*/, std::int64_t /*AMetaID*/,
                                         TSortedIntegerList* /*AList*/) {
    throw Exception("The record flags service can't turn flag names into ids");
}

void IKRRecordFlagsTable::AddFlagIDsCondition(TClientSQLFilters* /*AFilters*/,
                                              const std::string& /*AKeyField*/,
                                              const TSortedIntegerList* /*AFlagIDs*/,
                                              TFilterType /*AType*/, TFilterLink /*ALink*/) {
    throw Exception("The record flags service can't filter by flags");
}

void IKRRecordFlagsTable::AddFlagTypesCondition(TClientSQLFilters* /*AFilters*/,
                                                const std::string& /*AKeyField*/,
                                                TRecordFlagTypes /*ATypes*/) {
    throw Exception("The record flags service can't filter by flag types");
}

}  // namespace docadmin
