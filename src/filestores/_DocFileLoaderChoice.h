// Which file store a database uses, from three answers of the host: the run mode, the connection
// kind of the selected database and its setting DocumentsRepType ("azureblobstorage",
// "awssimplestorage", "remote", anything else for the local store; compared exactly).
//
// The multi-user server (run mode 3) uses the cloud store named by the setting or else its own
// local store (TDocFileLoaderLocServer); it never works offline. Everybody else works offline
// when asked to or when the selected database is a local offline copy (connection kind 1), and
// then uses the local file store whatever the setting says; otherwise "remote" with a live server
// connection gives the server command store, a cloud setting the cloud store, and anything else
// (also "remote" without a connection) the local file store.
//
// The server command store and the cloud stores are not part of this program yet: their classes
// construct, so that the choice and its questions work, but every operation (LoadSettings first)
// raises EDocAdminException naming the store kind.
#pragma once

#include <memory>
#include <string>

#include "_TBaseDocFileLoader.h"

namespace docadmin {

// The store class for the host's answers. In a client, AOfflineContainer becomes true when the
// selected database has connection kind 1; it is never cleared.
TBaseDocFileLoaderClass GetDocFileLoaderClass(IMainInterface* AMainInterface,
                                              bool& AOfflineContainer);

// Whether a store class is the local file store or derives from it.
bool IsLocalFileStoreClass(TBaseDocFileLoaderClass AClass);

// A new store of the chosen class, given the host and configured with LoadSettings and the
// offline flag as the choice left it.
std::unique_ptr<TBaseDocFileLoader> CreateConfiguredDocFileLoader(IMainInterface* AMainInterface,
                                                                  bool AOfflineContainer);

}  // namespace docadmin
