// TDBDocAdmin: the document administrator over the host's database. Directories live in the
// table of DirSection ("docadmindir"), documents in that of DocSection ("docadmindocs"); file
// contents go through the administrator's file store.
//
// Loading is lazy and level by level: LoadDirectories reads the children of one directory (or the
// folders of one title, wherever they stand), LoadFilesForDirectory reads the documents of many
// directories with one in-list query. A record's folder is found by its title alone, and its
// record root folder ("<schema>#Records") comes from the shared TUniqueFolderCache on repeat, so
// that a record's tree costs one or two indexed lookups.
//
// Saving walks the tree in two passes: new directories and every document first, then changed
// and deleted directories. For a document the file moves first and the row second, since the row
// names the remote file. No transaction is opened here: every statement and record set joins
// DBATransactionID (0: each row stands by itself), except the archive rows, which are written on a
// connection of their own. A failed file transfer is answered by the host's MessageDlg on the main
// thread (Abort, Retry, Ignore) and is an abort everywhere else.
//
// The database is that of the main interface. An administrator and its record sets are used by
// one thread at a time.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "_DBInterface.h"
#include "_TBaseDocAdmin.h"
#include "_TKRRecordSet.h"
#include "_TVTLSQLParser.h"

namespace docadmin {

class TDBDocAdmin;

// A record set made by a TDBDocAdmin (its owner) to read one of the tree tables. At open time it
// adds the record-flag restriction of the owner's ActiveRecordFlagTypes, unless disabled.
class TBaseLoaderRecordSet : public TKRRecordSet {
  public:
    // AOwner must be the TDBDocAdmin whose tables are read.
    explicit TBaseLoaderRecordSet(TComponent* AOwner);

    bool DisableRecordFlagFilter() const { return FDisableRecordFlagFilter; }
    void SetDisableRecordFlagFilter(bool v) { FDisableRecordFlagFilter = v; }

    void InternalSetFiltersToSchema(TFilterContext AContext) override;

  protected:
    TDBDocAdmin* DocAdminOwner() const;
    // Appends a parsed where-group to the active schema's filters: its comparisons first, then
    // its subgroups, bracketed when the group has a link. "recordflags" on the left becomes a
    // condition on flag ids. Raises for a comparison that isn't field-name against value.
    void ApplySQLFilterGroup(const TSQLParserFilterGroup& AGroup);

  private:
    bool FDisableRecordFlagFilter = false;
};

class TDirectoryLoaderRecordSet : public TBaseLoaderRecordSet {
  public:
    using TBaseLoaderRecordSet::TBaseLoaderRecordSet;
    // Read by TDBDocAdmin::RootFolderFilter; the loader keeps it empty.
    const std::string& UniqueFolderName() const { return FUniqueFolderName; }
    void SetUniqueFolderName(std::string v) { FUniqueFolderName = std::move(v); }

  private:
    std::string FUniqueFolderName;
};

// Adds the owner's where-text filter (SQLFilters) as one bracket ANDed to the query.
class TDocLoaderRecordSet : public TBaseLoaderRecordSet {
  public:
    using TBaseLoaderRecordSet::TBaseLoaderRecordSet;
    void InternalSetFiltersToSchema(TFilterContext AContext) override;
};

class TDBDocAdmin : public TBaseDocAdmin {
  public:
    explicit TDBDocAdmin(TComponent* AOwner);

    const std::string& DirSection() const { return FDirSection; }
    void SetDirSection(std::string v) { FDirSection = std::move(v); }
    const std::string& DocSection() const { return FDocSection; }
    void SetDocSection(std::string v) { FDocSection = std::move(v); }

    // ---- Persistence hooks of TBaseDocAdmin

    // Two passes over the tree (see the file comment); true when any row or item was processed.
    // Raises "Not all dbsections found! ..." before touching anything when a section is unknown.
    bool DoSaveChanges() override;
    // Children of ADirectory; with a name, the folders of that title wherever they stand (record
    // root folders come from the unique folder cache when it knows them).
    void LoadDirectories(TDocDirectory* ADirectory, const std::string& AUniqueFolderName) override;
    // Remote name, document name and file date of a row; nothing is queried for an id below 1.
    // With AGenerateIfEmpty an old row without remote name gets a new one, written at once.
    std::string GetDocumentFileInfo(std::int32_t ADocumentID, std::string& ADocName,
                                    TDateTime& ADate, bool AGenerateIfEmpty) override;
    // Writes fldate (and with AChangeFileName docname) of a row; no file moves.
    void UpdateDocumentFileInfo(std::int32_t ADocumentID, const std::string& AFileName,
                                bool AChangeFileName, TDateTime ADate) override;
    void DeleteDocumentRow(std::int32_t ADocumentID) override;
    // Documents of every directory in ADirs that is neither loaded nor new, in one query.
    void LoadFilesForDirectory(const std::vector<TDocDirectory*>& ADirs) override;
    // Replaces the file of a row without a tree: archives the row first when AddToArchive,
    // raises the version, uploads (upmNew with archive, else upmChange) and writes the row back.
    // Works outside any transaction. False when no row has the id; then nothing is touched.
    bool UpdateDocumentWithID(TComponent* AOwner, std::int64_t ADocumentID,
                              const std::string& ASourceFileName,
                              TBaseDocFileLoader* ADocFileLoader, bool AddToArchive,
                              bool AChangeFileName) override;

    // The filter-building handler of a directory loader at the top level: parentdirid not among
    // the table's ids (so a row whose parent vanished is top level), or, with the loader's
    // UniqueFolderName set, among the ids of the folders of that title.
    void RootFolderFilter(TObject* Sender);

    // The database of the main interface; raises when there is none.
    IDBInterface* Database() const;

  private:
    friend class TBaseLoaderRecordSet;

    // Common set-up of every loader: schema, transaction, write-back mode, row rights option and
    // no lookup values for the id columns that the tree only needs as numbers.
    void PrepareLoader(TBaseLoaderRecordSet& ASet, bool ADirectories);
    void QueryDirectories(TDocDirectory* ADirectory, const std::string& AUniqueFolderName);
    static void CollectUploads(TDocDirectory* ADirectory, std::vector<std::string>& AFiles);
    void SaveDirectoryTree(IDBSQLStatement& AStatement, IDBFieldSchemaItem* ADirItem,
                           IDBFieldSchemaItem* ADocItem, TDocDirectory* ADirectory, bool AAddedPass,
                           bool& ASaved);
    void SaveDirectoryDocuments(IDBSQLStatement& AStatement, IDBFieldSchemaItem* ADocItem,
                                TDocDirectory* ADirectory, bool& ASaved);
    // The file step of one document; false when the person chose Ignore.
    bool SaveDocumentFile(TDocument* ADocument);
    void RemoveDeletedDirectories(TDocDirectory* ADirectory);

    std::string FDirSection;
    std::string FDocSection;
};

}  // namespace docadmin
