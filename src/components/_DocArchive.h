// The version archive: when the content of a document is replaced, the stored version gets a row
// in "docadmin_docarchive" that keeps its metadata and the remote file that still holds it.
//
// Both writers insert on a statement of their own. Without a transaction id it runs outside any
// caller's transaction, so an archive row outlives a rollback of the rest (on SQLite a thread that
// holds the write lock writes it on its own transaction's connection, which it can't outlive).
// The document layer passes its own transaction where the archive row and the row change must
// stand or fall together. Nothing here reads, restores or removes versions.
#pragma once

#include "_TBaseDocAdmin.h"
#include "_TKRRecordSet.h"

namespace docadmin {

// Archives the stored version of a loaded document: the Prev values for file size, version,
// date and last change, the current name, ACL group and tags, and the remote name that still
// holds the old content. Does nothing for a document without a row (DocID below 1); leaves out
// dirid for a document without a directory. The database is that of AOwner's main interface.
void ArchiveDocumentVersion(TBaseDocAdmin* AOwner, TDocument* ADocument,
                            std::int64_t ADBATransactionID = 0);

// Archives a row of "docadmindocs" as read by ARecordSet (opened on that schema, before the row
// is changed). Every schema column of the set except the key and the host record columns is
// copied by name, lookups by their raw key, so that columns a site adds to both tables travel
// along; a column the archive table lacks makes the insert fail. The database is the set's.
void ArchiveRecordSetRow(TComponent* AOwner, TKRCustomRecordSet* ARecordSet, int ARecNo,
                         std::int64_t ADBATransactionID = 0);

}  // namespace docadmin
