// Storage UIDs: the plug-in under whose document tree a table's records keep their documents.
#pragma once

#include <string>

namespace docadmin {

// The storage of the contacts tables, and the fallback for every table no prefix names.
inline const std::string ContactsStorageUID = "{A48847CA-33D3-4EB0-A586-E316EA2E5322}";
inline const std::string CatalogStorageUID = "{14003704-5069-4B18-AA23-A71F76B231C2}";

// The storage UID for a SQL table name, by its prefix (case-sensitive, first match wins); every
// name yields one.
std::string GuessStorageUIDBySQLTableName(const std::string& ASQLTableName);

}  // namespace docadmin
