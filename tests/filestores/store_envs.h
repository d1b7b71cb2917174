// Store factories for the shared store suite. Each gives a ready store (settings loaded) and raw
// access to the repository behind it, so that tests can place files of older generations and
// look at what an operation left.
#pragma once

#include <memory>
#include <string>
#include <vector>

#include "_TDocFileLoaderLocFile.h"
#include "fake_host.h"
#include "test_files.h"

namespace docadmin::test {

// A local store in a scratch folder, created through the fake host. What the suite needs of a
// store under test; a store of another kind gives the same members.
template <class TStore>
class LocalStoreEnv {
  public:
    LocalStoreEnv() {
        fs::create_directories(dir_ / "local");
        host_.dbSettings[{0, "DocumentsPath"}] = (dir_ / "repo").string();
        host_.local.strings[{"DOCSRV", "FileRoot"}] = (dir_ / "repo").string();
        store_ = std::make_unique<TStore>(nullptr);
        store_->SetMainInterface(&host_);
        store_->LoadSettings(false);
    }
    TBaseDocFileLoader& Store() { return *store_; }
    // Where the repository keeps a remote name, and the bytes there.
    fs::path RawPath(const std::string& remote) { return dir_ / "repo" / remote; }
    void PutRaw(const std::string& remote, const std::string& bytes) {
        WriteAll(RawPath(remote), bytes);
    }
    std::string GetRaw(const std::string& remote) { return ReadAll(RawPath(remote)); }
    // Every name the repository holds, sorted.
    std::vector<std::string> ListRaw() { return ListNames(dir_ / "repo"); }
    // The message of a download of a missing name.
    std::string MissingDownloadText(const std::string& remote) {
        return "File " + RawPath(remote).string() + " not found in repository!";
    }
    // A scratch folder for local files, outside the repository.
    fs::path Local() { return dir_ / "local"; }

  private:
    ScratchDir dir_;
    FakeHost host_;
    std::unique_ptr<TStore> store_;
};

using LocFileEnv = LocalStoreEnv<TDocFileLoaderLocFile>;
using LocServerEnv = LocalStoreEnv<TDocFileLoaderLocServer>;

// Local stores made through the fake host with its settings as a test sets them; the selected
// database keeps its documents in "repo", local files are in "local" of the test's scratch folder.
class LocalStoreTest : public ::testing::Test {
  protected:
    LocalStoreTest() {
        host.userDocuments = (dir / "userdocs").string();
        host.defaultDocRoot = (dir / "data" / "docroot").string();
        host.dbSettings[{0, "DocumentsPath"}] = (dir / "repo").string();
        fs::create_directories(dir / "local");
    }
    template <class T = TDocFileLoaderLocFile>
    std::unique_ptr<T> Make(bool offline = false) {
        auto s = std::make_unique<T>(nullptr);
        s->SetMainInterface(&host);
        s->LoadSettings(offline);
        return s;
    }
    std::string LocalFile(const std::string& name, const std::string& content) {
        WriteAll(dir / "local" / name, content);
        return (dir / "local" / name).string();
    }
    std::string Fetch(TBaseDocFileLoader& s, const std::string& remote) {
        s.DownloadFile(remote, (dir / "local" / "fetched").string());
        return ReadAll(dir / "local" / "fetched");
    }

    ScratchDir dir;
    FakeHost host;
};

}  // namespace docadmin::test
