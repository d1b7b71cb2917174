// What the host hands a plug-in: the main interface and its accessors, user rights and settings.
//
// The objects that the accessors answer belong to the host and live as long as it; callers hold
// them by plain pointer for the duration of a call and never free them. Everything here must be
// safe to call from any thread.
#pragma once

#include <cstdint>
#include <string>

#include "_Classes.h"

namespace docadmin {

class IDBFieldSchema;             // schema catalogue (data layer)
class IDBInterface;               // database access (data layer)
class TKRACLDataTableController;  // a table registered for record ACLs (data layer)

// Rights of the current user.
class IUserAccess : public IInterface {
  public:
    DOCADMIN_IID("{C18CBD25-F19C-433A-99BC-18BAC542884E}");
    virtual std::int32_t GetUserID() = 0;
    virtual bool IsReadOnly() = 0;
    // Access mode of the user in an ACL group; modes 0 and 2 allow writing.
    virtual std::int32_t GetGroupAccessMode(std::int64_t AGroupID) = 0;
    // The ACL controller registered for a table, or nullptr.
    virtual TKRACLDataTableController* GetACLTableController(const std::string& ATableName) = 0;
};

// The logged-in user object of the main interface.
class ICurrentUser {
  public:
    virtual std::int32_t GetDefaultACLGroup() = 0;

  protected:
    ~ICurrentUser() = default;
};

// Per-database configuration: which database is selected and its settings.
class IVantrelDatabaseRepository {
  public:
    virtual int SelectedDatabaseIndex() = 0;
    // Negative when there is no offline database.
    virtual int OfflineDatabaseIndex() = 0;
    // A per-database setting ("DocumentsPath", "AccountName", ...); empty when not set.
    virtual std::string ReadDatabaseSetting(int AIndex, const std::string& AKey) = 0;
    // Expands path macros such as "$UserDocuments$"; a relative result is taken from the data
    // folder.
    virtual std::string ExpandPathMacros(const std::string& APath) = 0;
    // The folder behind the default "docroot" of the selected database's local documents.
    virtual std::string DefaultDocRootFolder() = 0;
    // The folder from which a new store is seeded once; empty when there is none.
    virtual std::string SeedDocRootFolder() = 0;
    // How the database is reached; 1 means a local offline copy (stores then stay local).
    virtual int ConnectionKind(int AIndex) { return 0; }

  protected:
    ~IVantrelDatabaseRepository() = default;
};

// A settings store addressed by section and key.
class ISettingsStorage {
  public:
    // A 64-bit number; 0 when it was never written.
    virtual std::int64_t ReadInt64(const std::string& ASection, const std::string& AKey) = 0;
    virtual void WriteInt64(const std::string& ASection, const std::string& AKey,
                            std::int64_t AValue) = 0;
    virtual bool ReadBool(const std::string& ASection, const std::string& AKey, bool ADefault) = 0;
    virtual std::string ReadString(const std::string& ASection, const std::string& AKey,
                                   const std::string& ADefault) = 0;

  protected:
    ~ISettingsStorage() = default;
};

// The host's progress display for long routines (a progress bar in a terminal, nothing where no
// one watches). Begin and End nest.
class IProgress {
  public:
    virtual void Begin(const std::string& ATitle, bool AShowCancel) = 0;
    // ACancel is set when the user asked to stop; callers may ignore it.
    virtual void Step(std::int64_t APosition, std::int64_t ACount, const std::string& AText,
                      bool& ACancel) = 0;
    virtual void End() = 0;

  protected:
    ~IProgress() = default;
};

// The loaded plug-ins, by plug-in GUID.
class IPluginLoader {
  public:
    virtual std::int32_t PluginCount() = 0;
    virtual std::string PluginGUID(std::int32_t AIndex) = 0;
    virtual bool IsPluginLoaded(const std::string& APluginGUID) = 0;
    // The external-function interface AIID of a loaded plug-in (a new reference in *AObj); false
    // when the plug-in isn't loaded or doesn't offer it.
    virtual bool GetExtFuncInterface(const std::string& APluginGUID, const TGUID& AIID,
                                     void** AObj) = 0;

  protected:
    ~IPluginLoader() = default;
};

class IRessourceSource;

// The host's list of resource sources; plug-ins add themselves at start and delete themselves
// at their end. The list holds a reference to each source.
class IRessourceSourceList {
  public:
    virtual void Add(const std::string& AIdentifier, IRessourceSource* ASource) = 0;
    // -1 when the source isn't in the list.
    virtual std::int32_t IndexOf(IRessourceSource* ASource) = 0;
    virtual void Delete(std::int32_t AIndex) = 0;
    virtual std::int32_t Count() = 0;
    virtual IRessourceSource* Item(std::int32_t AIndex) = 0;
    // The identifier the source was added with.
    virtual std::string Identifier(std::int32_t AIndex) = 0;

  protected:
    ~IRessourceSourceList() = default;
};

// The connection of a client process to the multi-user server.
class IServerConnection {
  public:
    virtual bool Connected() = 0;

  protected:
    ~IServerConnection() = default;
};

// The host's application object.
class ICustomApp {
  public:
    virtual std::string DataDirectory() = 0;
    virtual bool IsServer() = 0;
    virtual bool CanCreateContainer() = 0;

  protected:
    ~ICustomApp() = default;
};

class IMainInterface : public IInterface {
  public:
    DOCADMIN_IID("{3119F002-952C-4B39-AB30-23DD48672154}");
    virtual IDBFieldSchema* GetDBFieldSchema() = 0;
    virtual IDBInterface* GetDBInterface() = 0;
    virtual IVantrelDatabaseRepository* GetDatabaseRepository() = 0;
    // User settings (section "DocAdmin" and others).
    virtual ISettingsStorage* GetUserSettings() = 0;
    // Global settings kept in the database.
    virtual ISettingsStorage* GetGlobalSettings() = 0;
    // Local settings of this machine ("DOCSRV", ...).
    virtual ISettingsStorage* GetLocalSettings() = 0;
    virtual ICustomApp* GetCustomApp() = 0;
    // Rights of the current user; may be null when nobody is logged in.
    virtual IUserAccess* GetUserAccess() = 0;
    // The current user object; may be null.
    virtual ICurrentUser* GetCurrentUser() = 0;
    // 3 when this process is the multi-user server.
    virtual std::uint8_t RunMode() = 0;
    // The services below are the plug-in host's; an object that isn't one answers null.
    virtual IProgress* GetProgress() { return nullptr; }
    virtual IPluginLoader* GetPluginLoader() { return nullptr; }
    virtual IRessourceSourceList* GetRessourceSources() { return nullptr; }
    // The connection to the multi-user server; null where there is none (the server itself).
    virtual IServerConnection* GetServerConnection() { return nullptr; }
    // The user interface language: 0 German, 1 English, 2 French, 3 Italian.
    virtual std::int32_t LanguageIndex() { return 0; }
};

// Base of the non-visual parts that need the plug-in context. The main interface is set
// explicitly or found through the owner chain.
class TPluginBaseComponent : public TComponent {
  public:
    explicit TPluginBaseComponent(TComponent* AOwner) : TComponent(AOwner) {}

    IMainInterface* GetMainInterface() const;
    void SetMainInterface(IMainInterface* AMainInterface) { FMainInterface = AMainInterface; }
    // The local settings of this machine, through the main interface; null without one.
    ISettingsStorage* GetSaveSettings() const;

  private:
    IPtr<IMainInterface> FMainInterface;
};

}  // namespace docadmin
