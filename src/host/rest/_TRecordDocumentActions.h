// TRecordDocumentActions: the changes that the page makes to a record's document tree, on the
// document module's tree interface (IDirectoryRoot), for one request of a session.
//
//   POST /record-documents/<action>   body {"storage", "schema", "record", ...}
//     folder    {"path", "name"}   a new folder in the folder at the comma path ("" the root)
//     replace   {"id", "content"}  new content (Base64) for the document; the old one is archived
//     delete    {"id"}             the document goes (row first, file after the commit)
//     versions  {"id"}             the document's current version and its archived versions
//
// The record must be one that the user can read through the record service, and a document is
// looked up in the record's tree as the user sees it (the user's row rights decide what the tree
// holds), so an id of another record, or one the user may not see, is the same 404. The tree is
// the module's ("storage" is the plug-in GUID under whose tree the table's records keep their
// documents, as the documents service takes it). Every failure raises EVTLRestServiceError or
// the module's exception, which the server answers in its error form; a replace writes its
// upload to a temporary file that is removed in every case.
#pragma once

#include <string>

#include "_PluginIntf.h"
#include "_TVTLCustomRestService.h"

namespace docadmin {

class TRecordDocumentActions {
  public:
    explicit TRecordDocumentActions(IMainInterface* AMainInterface);
    static bool IsAction(const std::string& AAction);
    TJsonObject Run(const std::string& AAction, const TJsonObject& ABody);

  private:
    IMainInterface* FMain;
};

}  // namespace docadmin
