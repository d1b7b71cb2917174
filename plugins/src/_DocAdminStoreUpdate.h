// Store migration: brings the document tables of an older installation to the current layout,
// once per database, when the module starts in the server process.
//
// The older layout had one folder titled "Records" or "Main" per plug-in, record folders titled
// with the record's number, and documents of the archive-only file types without the read-only
// tag. DoStoreUpdate renames the plug-in folders to "<schema>#Records" / "<schema>#Main" and the
// record folders to the record's UID; DoArchiveFlagUpdate sets the read-only tag by file type.
// Global settings in section "DocAdmin" record what is done: STOREUPD = 2 and ARCHIVEFLAGUPD = 1,
// each written only after its routine returned, so a failed routine runs again at the next start.
// Both routines can run again safely: what they changed no longer matches what they look for.
//
// Each changed row is written as soon as it is changed; there is no transaction around a
// routine, so a failure leaves the rows done so far. Exceptions of the data layer pass on to
// the caller. Progress goes to the host's progress object when there is one; it can't cancel.
//
// Where a folder titled "Records" is merged into an existing "<schema>#Records" folder and then
// deleted, nothing it still holds is left pointing at the deleted row: its own documents move to
// the existing folder, and children that aren't record folders become top-level folders of the
// plug-in (which is what a dangling parent would give, but without depending on the deleted id
// never being handed out again).
//
// Runs on the start-up thread before the module serves anybody; not meant for concurrent use.
#pragma once

#include <cstdint>
#include <string>

namespace docadmin {

class IMainInterface;

// The plug-ins whose documents lived in the older layout: the word that their folder titles
// carry and the schema that knows their records.
struct TDocStorePluginSchema {
    const char* PluginGUID;
    const char* SchemaName;
    const char* DetailSchemaName;
};
inline constexpr TDocStorePluginSchema DocStorePluginSchemas[] = {
    {"{A48847CA-33D3-4EB0-A586-E316EA2E5322}", "contacts", "contact_details"},
    {"{14003704-5069-4B18-AA23-A71F76B231C2}", "catalog_items", "catalog_items"},
};

// The folder word of a plug-in ("contacts"), or "" for any other plug-in. GUIDs compare without
// regard to letter case.
std::string PluginSchemaName(const std::string& APlugin);
// The schema that knows a plug-in's records ("contact_details"), or "" for any other plug-in.
std::string PluginDetailSchemaName(const std::string& APlugin);

// Runs DoStoreUpdate unless STOREUPD is 2 and DoArchiveFlagUpdate unless ARCHIVEFLAGUPD is 1,
// writing each key after its routine returned. The caller decides that this is the server
// process. Without global settings nothing runs, since nothing could record that it ran.
void DoDocAdminStoreMigrations(IMainInterface* AMainInterface);

// Renames the "Records" and "Main" folders of all plug-ins and the record folders below them.
void DoStoreUpdate(IMainInterface* AMainInterface);

// The id of a folder with this title and plug-in, or -1.
std::int64_t FindStoreFolder(IMainInterface* AMainInterface, const std::string& ATitle,
                             const std::string& APlugin);

// Renames the numbered children of folder AFolderID to their record's UID, and moves them below
// AExistingFolderID when that is above -1. A child whose record no longer exists becomes the
// global top-level folder "Lost&Found <number> (<caption of the schema>)" with its documents.
// Children that aren't numbers are left alone; so is everything of a plug-in whose record schema
// the catalogue doesn't know.
void UpdateRecordFolders(IMainInterface* AMainInterface, const std::string& APlugin,
                         std::int64_t AFolderID, std::int64_t AExistingFolderID);

// Adds the read-only tag to documents of the archive-only kinds (.fp3, .krmsg, .msg, .eml, .dmfd,
// .rtf) whose tags are 0 or 1; documents with other tags are left as they are.
void DoArchiveFlagUpdate(IMainInterface* AMainInterface);

}  // namespace docadmin
