#include "_TStaticFileRoute.h"

#include <fstream>
#include <iterator>
#include <sstream>

#include "_Tools.h"

namespace docadmin {

namespace {

namespace fs = std::filesystem;

// The page's files are small; anything larger is no asset of ours.
constexpr std::uintmax_t kMaxFileBytes = 16u << 20;

bool IsPlainSegment(const std::string& ASegment) {
    if (ASegment.empty() || ASegment[0] == '.') return false;
    for (unsigned char c : ASegment)
        if (c < 0x20 || c == 0x7f || c == '\\') return false;
    return true;
}

bool IsInside(const fs::path& AFile, const fs::path& ARoot) {
    auto f = AFile.begin();
    for (auto r = ARoot.begin(); r != ARoot.end(); ++r, ++f)
        if (f == AFile.end() || *f != *r) return false;
    return f != AFile.end();
}

}  // namespace

TStaticFileRoute::TStaticFileRoute(const fs::path& ARoot) {
    std::error_code ec;
    if (ARoot.empty() || !fs::is_directory(ARoot, ec)) return;
    FRoot = fs::canonical(ARoot, ec);
    if (ec) FRoot.clear();
}

std::string TStaticFileRoute::ContentTypeOf(const std::string& AFileName) {
    static const std::pair<const char*, const char*> kTypes[] = {
        {".html", "text/html; charset=utf-8"},
        {".js", "text/javascript; charset=utf-8"},
        {".mjs", "text/javascript; charset=utf-8"},
        {".css", "text/css; charset=utf-8"},
        {".json", "application/json"},
        {".svg", "image/svg+xml"},
        {".png", "image/png"},
        {".ico", "image/x-icon"},
        {".woff2", "font/woff2"},
        {".txt", "text/plain; charset=utf-8"},
    };
    const std::string ext = LowerCase(fs::path(AFileName).extension().string());
    for (const auto& [e, type] : kTypes)
        if (ext == e) return type;
    return "application/octet-stream";
}

std::optional<THTTPResponse> TStaticFileRoute::Serve(const THTTPRequest& ARequest) const {
    if (FRoot.empty() || ARequest.Method != "GET" || ARequest.Path.empty() ||
        ARequest.Path[0] != '/')
        return std::nullopt;
    std::string relative = ARequest.Path.substr(1);
    if (relative.empty()) relative = "index.html";
    fs::path wanted = FRoot;
    std::size_t pos = 0;
    while (pos <= relative.size()) {
        std::size_t end = relative.find('/', pos);
        if (end == std::string::npos) end = relative.size();
        const std::string segment = relative.substr(pos, end - pos);
        if (!IsPlainSegment(segment)) return std::nullopt;
        wanted /= segment;
        pos = end + 1;
    }
    std::error_code ec;
    const fs::path real = fs::canonical(wanted, ec);
    if (ec || !IsInside(real, FRoot) || !fs::is_regular_file(real, ec)) return std::nullopt;
    const std::uintmax_t size = fs::file_size(real, ec);
    if (ec || size > kMaxFileBytes) return std::nullopt;
    const auto modified = fs::last_write_time(real, ec);
    if (ec) return std::nullopt;

    THTTPResponse r;
    r.ContentType = ContentTypeOf(real.filename().string());
    const std::string etag = "\"" + std::to_string(size) + "-" +
                             std::to_string(modified.time_since_epoch().count()) + "\"";
    r.Headers.push_back({"ETag", etag});
    r.Headers.push_back({"Cache-Control", "no-cache"});
    r.Headers.push_back({"X-Content-Type-Options", "nosniff"});
    r.Headers.push_back({"Referrer-Policy", "no-referrer"});
    if (r.ContentType.starts_with("text/html"))
        r.Headers.push_back({"Content-Security-Policy",
                             "default-src 'self'; img-src 'self' blob: data:; "
                             "frame-src 'self' blob:; object-src 'none'; base-uri 'none'; "
                             "form-action 'self'; frame-ancestors 'none'"});
    if (ARequest.Header("If-None-Match").find(etag) != std::string::npos) {
        r.Status = 304;
        return r;
    }
    std::ifstream in(real, std::ios::binary);
    if (!in) return std::nullopt;
    r.Body.assign(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
    return r;
}

}  // namespace docadmin
