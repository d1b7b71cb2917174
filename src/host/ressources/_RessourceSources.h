// The host's side of resource sources: asking every registered IRessourceSource for the
// containers of a record.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "_PluginIntf.h"
#include "_RessourceIntf.h"

namespace docadmin {

struct TSourceRessourceContainer {
    std::string SourceIdentifier;  // as the source was added to the list
    std::string Caption;           // the container's (IRessourceContainerEx), else the source's
    IPtr<IRessourceContainer> Container;
};

// The containers that the enabled sources of the list answer for the identifier and record id,
// in the list's order; sources that answer none are left out. A source that leaves the list
// meanwhile is skipped. An empty list for no list.
std::vector<TSourceRessourceContainer> GetRessourceContainers(IRessourceSourceList* ASources,
                                                              const std::string& AResIdentifier,
                                                              std::int64_t AResID);

}  // namespace docadmin
