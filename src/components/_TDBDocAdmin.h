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
// names the remote file. Every statement and record set joins DBATransactionID; without one, the
// statements of one document (its row and its archive row) run in a transaction of their own. A
// failed file transfer is answered by the host's MessageDlg on the main thread (Abort, Retry,
// Ignore) and is an abort everywhere else.
//
// Safety rules of a save, which several users may run on the same rows at once:
// - New content always goes to a new remote file, also when no version is archived; an existing
//   file is never overwritten, so a failed or killed save leaves the old row with its old file.
// - A change or deletion names the remote file that the row had when it was loaded; a row that
//   no longer has it was changed by someone else, and the save raises EDocAdminChangedByOtherUser
//   (the file just uploaded is removed again).
// - Rows go before files: a file that a save no longer needs is removed after the commit, and only
//   when no current or archived row names it (RemovePendingFiles). A failure between the two
//   leaves an unreferenced file, never a row without its file.
//
// The database is that of the main interface. An administrator and its record sets are used by
// one thread at a time.
#pragma once

#include <cstdint>
#include <functional>
#include <map>
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
    // flsize of the row; -1 without a row or with no size recorded (0).
    std::int64_t GetDocumentFileSize(std::int32_t ADocumentID) override;
    // Documents of every directory in ADirs that is neither loaded nor new, in one query.
    void LoadFilesForDirectory(const std::vector<TDocDirectory*>& ADirs) override;
    // Replaces the file of a row without a tree: uploads to a new remote name, then in one
    // transaction (DBATransactionID's, else one of its own) raises the version and writes the row
    // while it still names the file that was read (else EDocAdminChangedByOtherUser, and the
    // upload is removed), and with AddToArchive archives the row as it was. Without archive the
    // old file is removed after the commit. False when no row has the id; nothing is touched.
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

    // Deletes the row of a document only while it still names ARemoteFile; answers the number
    // of rows deleted (0: the row changed or went meanwhile).
    std::int64_t DeleteDocumentRowOf(std::int32_t ADocumentID,
                                     const std::string& ARemoteFile) override;
    // True while a row of the document table or of the archive names the remote file.
    bool IsRemoteFileReferenced(const std::string& ARemoteFile) override;

    // Batched saving, for long imports: with a batch size, DoSaveChanges uploads the files of the
    // next ABatchSize documents with no transaction open, then calls ABegin (which must open a
    // transaction and set DBATransactionID), writes their rows and calls ACommit, and so on; a
    // failure calls ARollback and removes the files that the rolled-back rows named. Other
    // writers so wait for one batch's rows at most, never for uploads.
    void SetSaveBatching(std::size_t ABatchSize, std::function<void()> ABegin,
                         std::function<void()> ACommit, std::function<void()> ARollback);
    // Documents whose rows were committed by the batches of the last save.
    std::size_t CommittedDocuments() const { return FCommittedDocuments; }

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
    static void CollectUploadDocuments(TDocDirectory* ADirectory, std::vector<TDocument*>& ADocs);
    // The upload of one document, to a new remote name that it answers (empty: nothing to
    // upload); a file uploaded ahead by a batch is taken as it is. Throws EAbort when the person
    // chose Abort (or nobody can be asked); ASkipped is set when the person chose Ignore.
    std::string SaveDocumentFile(TDocument* ADocument, bool& ASkipped);
    // Writes the row (and the archive row) of one document whose file step is done; raises
    // EDocAdminChangedByOtherUser when the row isn't the loaded one any more.
    void SaveDocumentRow(IDBSQLStatement& AStatement, TDocument* ADocument, TChangeState AState,
                         const std::string& ALoadedRemote, const std::string& ANewRemote);
    // Batching: uploads the files of the next batch and opens its transaction; after a batch's
    // last document, commits it.
    void BeginSaveBatch();
    void DocumentSaved(IDBSQLStatement& AStatement);
    void RemoveDeletedDirectories(TDocDirectory* ADirectory);
    // Removes a file just uploaded whose row was not written; failures leave it unreferenced.
    void DropUpload(const std::string& ARemoteFile) noexcept;

    std::string FDirSection;
    std::string FDocSection;

    std::size_t FBatchSize = 0;
    std::function<void()> FBatchBegin, FBatchCommit, FBatchRollback;
    std::vector<TDocument*> FBatchOrder;          // documents with uploads, in save order
    std::size_t FBatchNext = 0;                   // first document of FBatchOrder not uploaded
    std::map<TDocument*, std::string> FUploaded;  // uploaded ahead, rows not yet committed
    std::size_t FBatchDocuments = 0;              // documents saved in the open batch
    std::size_t FCommittedDocuments = 0;
    bool FBatchOpen = false;
};

}  // namespace docadmin
