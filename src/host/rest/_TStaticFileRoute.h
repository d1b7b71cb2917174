// TStaticFileRoute: the page's files (HTML, CSS, JavaScript modules, images) from one folder.
//
// "/" answers the folder's index.html; "/a/b.js" answers the file a/b.js below the folder. A path
// is taken only when every segment is a plain name: no empty segment, no "." or "..", no name
// that starts with a dot, no backslash or control character. The file found must be a regular
// file whose real path (links resolved) lies inside the folder's real path, so neither a
// crafted path nor a link leads out of it. Anything else is "not mine" and the caller answers as
// it does for unknown routes.
//
// Answers carry the content type by extension, an ETag of size and modification time, and
// "Cache-Control: no-cache": browsers keep the files and revalidate them, and a matching
// If-None-Match gets 304 without a body, so a changed file is seen at the next load. HTML pages
// get a content security policy that allows only this server as a source of scripts, styles,
// images and connections, and no framing by other sites.
//
// Thread-safe: the object only reads its folder.
#pragma once

#include <filesystem>
#include <optional>
#include <string>

#include "_THTTPServer.h"

namespace docadmin {

class TStaticFileRoute {
  public:
    // An empty or missing folder serves nothing.
    explicit TStaticFileRoute(const std::filesystem::path& ARoot);

    // The answer for a GET of ARequest's path, or nothing when the path names no file here.
    std::optional<THTTPResponse> Serve(const THTTPRequest& ARequest) const;

    // The content type for a file name's extension ("application/octet-stream" when unknown).
    static std::string ContentTypeOf(const std::string& AFileName);

  private:
    std::filesystem::path FRoot;  // canonical; empty when there is no folder
};

}  // namespace docadmin
