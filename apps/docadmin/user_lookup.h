// Users and ACL groups as an administrator names them on the command line.
#pragma once

#include <cstdint>
#include <string>

#include "_THost.h"

namespace docadmin::app {

// A group by id or by name; 0 is "no group" and always valid. Raises when there is no such group.
std::int64_t ResolveGroup(TUserStore& AUsers, const std::string& AText);

// Who a tree verb acts as, set on the calling thread before the tree is made. A user name (--as)
// makes that user current: the user's default group goes into new rows and the user's row rights
// and write rights apply, as on the server. Raises, before anything is written, when the user
// doesn't exist or is disabled, and for a writing verb (AWriting) when the user is read-only or
// may not write in the default group. Without a name the verb acts as the local administrator:
// every row visible and writable, new rows in the group of [host] tool_acl_group, which must
// exist.
void ActAs(THost& AHost, const std::string& AUserName, bool AWriting);

}  // namespace docadmin::app
