// Which file store a database uses, from the host's answers: the run mode, and the setting
// DocumentsRepType of the selected database ("azureblobstorage", "awssimplestorage", "remote",
// anything else for the local store; compared exactly).
//
// The multi-user server (run mode 3) uses the cloud store named by the setting or else its own
// local store (TDocFileLoaderLocServer). Everybody else uses the local file store when working
// offline, else the cloud store named by the setting, else the local file store. "remote" needs
// a live server connection, which no program of this build holds, so it ends in the local store.
#pragma once

#include <memory>
#include <string>

#include "_TBaseDocFileLoader.h"

namespace docadmin {

// The store class for the host's run mode and the setting. Raises Exception when the setting
// names a cloud store that isn't built into this program.
TBaseDocFileLoaderClass GetDocFileLoaderClass(IMainInterface* AMainInterface,
                                              bool AOfflineContainer);

// A new store of that class, given the host and configured (LoadSettings(AOfflineContainer)).
std::unique_ptr<TBaseDocFileLoader> CreateConfiguredDocFileLoader(IMainInterface* AMainInterface,
                                                                  bool AOfflineContainer);

}  // namespace docadmin
