#include "_KRFileHandler.h"

#include <stdlib.h>
#include <zlib.h>

#include <algorithm>
#include <cctype>
#include <condition_variable>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <mutex>
#include <thread>

#include "_KRProcessRunner.h"
#include "_Tools.h"

namespace docadmin {

namespace fs = std::filesystem;
using TClock = std::chrono::steady_clock;

namespace {

thread_local std::string GLastConvertError;

// ".txt" from "txt", ".TXT" or ".txt"; "" stays "".
std::string NormalExt(const std::string& AExt) {
    std::string e = LowerCase(AExt);
    if (e == ".") return {};
    if (!e.empty() && e[0] != '.') e.insert(e.begin(), '.');
    return e;
}

std::vector<std::string> NormalExts(std::initializer_list<const char*> AExts) {
    std::vector<std::string> r;
    for (const char* e : AExts)
        r.push_back(NormalExt(e));
    return r;
}

bool Contains(const std::vector<std::string>& AList, const std::string& AItem) {
    return std::find(AList.begin(), AList.end(), AItem) != AList.end();
}

// ---- The process-wide limit of conversions at once

struct TSlots {
    std::mutex Lock;
    std::condition_variable Freed;
    int InUse = 0;  // guarded by Lock
    int Max = std::max(1, static_cast<int>(std::thread::hardware_concurrency()) / 2);  // ditto
};

TSlots& Slots() {
    static TSlots s;
    return s;
}

class TConversionSlot {
  public:
    explicit TConversionSlot(TClock::time_point ADeadline) {
        TSlots& s = Slots();
        std::unique_lock lock(s.Lock);
        FHeld = s.Freed.wait_until(lock, ADeadline, [&] { return s.InUse < s.Max; });
        if (FHeld) ++s.InUse;
    }
    ~TConversionSlot() {
        if (!FHeld) return;
        TSlots& s = Slots();
        std::lock_guard lock(s.Lock);
        --s.InUse;
        s.Freed.notify_all();
    }
    TConversionSlot(const TConversionSlot&) = delete;
    TConversionSlot& operator=(const TConversionSlot&) = delete;
    bool Held() const { return FHeld; }

  private:
    bool FHeld = false;
};

// ---- Files

// A file URL of an absolute path, percent-encoding all but the unreserved characters and '/'.
std::string FileURL(const std::string& APath) {
    static const char* hex = "0123456789ABCDEF";
    std::string url = "file://";
    for (unsigned char c : APath) {
        if (std::isalnum(c) || c == '/' || c == '-' || c == '_' || c == '.' || c == '~') {
            url += static_cast<char>(c);
        } else {
            url += '%';
            url += hex[c >> 4];
            url += hex[c & 15];
        }
    }
    return url;
}

// Copies AFrom over ADest in one step: a flushed copy beside ADest, renamed over it.
void CopyFileOver(const std::string& AFrom, const std::string& ADest) {
    fs::path dir = fs::path(ADest).parent_path();
    if (dir.empty()) dir = ".";
    const std::string part =
        (dir / ("." + ExtractFileName(ADest) + "." + GetTempFileName())).string();
    bool renamed = false;
    TFinally cleanup{[&] {
        std::error_code ec;
        if (!renamed) fs::remove(part, ec);
    }};
    {
        TFileStream in(AFrom, fmOpenRead);
        TFileStream out(part, fmCreate);
        out.CopyFrom(in, 0);
        out.Flush();
    }
    fs::rename(part, ADest);
    renamed = true;
}

// Moves a finished result to ADest in one step; across file systems through CopyFileOver.
void PublishFile(const std::string& AFrom, const std::string& ADest) {
    std::error_code ec;
    fs::rename(AFrom, ADest, ec);
    if (ec) CopyFileOver(AFrom, ADest);
}

// A fresh private folder (mode 0700) in the temporary path.
std::string MakeWorkDir() {
    std::string tmpl = GetTempPath() + "docadmin-convert-XXXXXX";
    if (!mkdtemp(tmpl.data()))
        throw EInOutError("Cannot create a conversion folder in " + GetTempPath());
    return tmpl;
}

// The first lines of a program's output, for an error text.
std::string OutputExcerpt(const std::string& AFile) {
    std::ifstream in(AFile, std::ios::binary);
    std::string text(512, '\0');
    in.read(text.data(), static_cast<std::streamsize>(text.size()));
    text.resize(static_cast<size_t>(in.gcount()));
    std::replace(text.begin(), text.end(), '\n', ' ');
    while (!text.empty() && (text.back() == ' ' || text.back() == '\r'))
        text.pop_back();
    return text;
}

// Runs a converter in the work folder with its temporary files and home there; answers whether
// it exited with 0, or the reason.
bool RunConverter(const TKRFileHandler& AHandler, const std::vector<std::string>& AArgv,
                  const std::string& AWorkDir, TClock::time_point ADeadline, std::string& AError) {
    const std::string log = AWorkDir + "/output.log";
    const TProcessResult r =
        RunProcess(AArgv, AWorkDir,
                   {"HOME=" + AWorkDir, "TMPDIR=" + AWorkDir, "MAGICK_TEMPORARY_PATH=" + AWorkDir},
                   log, ADeadline);
    if (!r.Started)
        AError = AHandler.Name() + ": " + r.Error;
    else if (r.TimedOut)
        AError = AHandler.Name() + " timed out";
    else if (r.ExitCode != 0)
        AError = AHandler.Name() + " failed with exit code " + std::to_string(r.ExitCode) + ": " +
                 OutputExcerpt(log);
    else
        return true;
    return false;
}

// Links the source into the work folder under a plain name, so that the programs never parse
// the caller's file name (options, format prefixes, frame selectors).
std::string LinkSource(const std::string& ASource, const std::string& ASourceExt,
                       const std::string& AWorkDir) {
    fs::create_directories(AWorkDir + "/in");
    fs::create_directories(AWorkDir + "/out");
    const std::string link = AWorkDir + "/in/source" + ASourceExt;
    fs::create_symlink(fs::absolute(ASource), link);
    return link;
}

// ---- PDF around decoded images

struct TPixmap {
    int Width = 0, Height = 0, Channels = 0;  // 1 gray, 3 RGB
    std::string Pixels;
};

// Reads a binary PGM (P5) or PPM (P6) file with 8-bit samples.
TPixmap ReadPixmap(const std::string& AFile) {
    std::ifstream in(AFile, std::ios::binary);
    std::string data((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
    size_t pos = 2;
    auto number = [&]() -> long {
        for (;;) {
            while (pos < data.size() && std::isspace(static_cast<unsigned char>(data[pos])))
                ++pos;
            if (pos < data.size() && data[pos] == '#') {
                while (pos < data.size() && data[pos] != '\n')
                    ++pos;
                continue;
            }
            break;
        }
        long v = -1;
        while (pos < data.size() && std::isdigit(static_cast<unsigned char>(data[pos])))
            v = (v < 0 ? 0 : v * 10) + (data[pos++] - '0');
        return v;
    };
    TPixmap p;
    if (data.size() < 2 || data[0] != 'P' || (data[1] != '5' && data[1] != '6'))
        throw EConvertError("Not a pixel map: " + AFile);
    p.Channels = data[1] == '6' ? 3 : 1;
    const long w = number(), h = number(), maxval = number();
    if (w <= 0 || h <= 0 || maxval <= 0 || maxval > 255 || w > 65535 || h > 65535)
        throw EConvertError("Unsupported pixel map: " + AFile);
    ++pos;  // the single white-space character before the samples
    const size_t size = static_cast<size_t>(w) * static_cast<size_t>(h) * p.Channels;
    if (pos + size > data.size()) throw EConvertError("Truncated pixel map: " + AFile);
    p.Width = static_cast<int>(w);
    p.Height = static_cast<int>(h);
    p.Pixels = data.substr(pos, size);
    return p;
}

std::string Deflate(const std::string& AData) {
    uLongf size = compressBound(static_cast<uLong>(AData.size()));
    std::string out(size, '\0');
    if (compress2(reinterpret_cast<Bytef*>(out.data()), &size,
                  reinterpret_cast<const Bytef*>(AData.data()), static_cast<uLong>(AData.size()),
                  6) != Z_OK)
        throw EConvertError("Cannot compress an image");
    out.resize(size);
    return out;
}

std::string Num(double AValue) {
    char buf[32];
    std::snprintf(buf, sizeof buf, "%.2f", AValue);
    return buf;
}

// Writes one page per image, each image filling its page at 96 pixels per inch (scaled down
// where a side would pass the 200 inches that PDF viewers accept).
void WriteImagesPDF(const std::vector<std::string>& APages, const std::string& ADest) {
    std::ofstream out(ADest, std::ios::binary | std::ios::trunc);
    std::vector<std::streamoff> offsets;  // of objects 1, 2, ...
    auto object = [&](const std::string& ABody) {
        offsets.push_back(out.tellp());
        out << offsets.size() << " 0 obj\n" << ABody << "\nendobj\n";
    };
    out << "%PDF-1.4\n%\xE2\xE3\xCF\xD3\n";
    object("<< /Type /Catalog /Pages 2 0 R >>");
    std::string kids;
    for (size_t i = 0; i < APages.size(); ++i)
        kids += std::to_string(3 + 3 * i) + " 0 R ";
    object("<< /Type /Pages /Kids [" + kids + "] /Count " + std::to_string(APages.size()) + " >>");
    for (size_t i = 0; i < APages.size(); ++i) {
        const TPixmap p = ReadPixmap(APages[i]);
        double w = p.Width * 0.75, h = p.Height * 0.75;
        const double scale = std::min(1.0, 14400.0 / std::max(w, h));
        w *= scale;
        h *= scale;
        const size_t image = 4 + 3 * i, content = 5 + 3 * i;
        object("<< /Type /Page /Parent 2 0 R /MediaBox [0 0 " + Num(w) + " " + Num(h) +
               "] /Resources << /XObject << /Im0 " + std::to_string(image) +
               " 0 R >> >> /Contents " + std::to_string(content) + " 0 R >>");
        const std::string pixels = Deflate(p.Pixels);
        object("<< /Type /XObject /Subtype /Image /Width " + std::to_string(p.Width) + " /Height " +
               std::to_string(p.Height) + " /ColorSpace " +
               (p.Channels == 3 ? "/DeviceRGB" : "/DeviceGray") +
               " /BitsPerComponent 8 /Filter /FlateDecode /Length " +
               std::to_string(pixels.size()) + " >>\nstream\n" + pixels + "\nendstream");
        const std::string draw = "q " + Num(w) + " 0 0 " + Num(h) + " 0 0 cm /Im0 Do Q";
        object("<< /Length " + std::to_string(draw.size()) + " >>\nstream\n" + draw +
               "\nendstream");
    }
    const std::streamoff xref = out.tellp();
    out << "xref\n0 " << offsets.size() + 1 << "\n0000000000 65535 f \n";
    for (std::streamoff o : offsets) {
        char line[24];
        std::snprintf(line, sizeof line, "%010lld 00000 n \n", static_cast<long long>(o));
        out << line;
    }
    out << "trailer\n<< /Size " << offsets.size() + 1 << " /Root 1 0 R >>\nstartxref\n"
        << xref << "\n%%EOF\n";
    out.close();
    if (!out) throw EInOutError("Cannot write " + ADest);
}

// ---- The handlers

class TOfficeFileHandler : public TKRFileHandler {
  public:
    explicit TOfficeFileHandler(std::string AExecutable)
        : TKRFileHandler("LibreOffice",
                         NormalExts({"txt", "text", "csv", "rtf",  "doc",  "docx", "docm",
                                     "dot", "dotx", "odt", "ott",  "fodt", "htm",  "html",
                                     "wpd", "wps",  "xls", "xlsx", "xlsm", "ods",  "fods",
                                     "ppt", "pptx", "pps", "ppsx", "odp",  "fodp", "odg"}),
                         NormalExts({"pdf", "odt", "doc", "docx", "rtf", "txt", "html", "ods",
                                     "xls", "xlsx", "csv", "odp", "ppt", "pptx"}),
                         std::move(AExecutable)) {}

    std::string Convert(const std::string& ASource, const std::string& ASourceExt,
                        const std::string& ADestExt, const std::string& AWorkDir,
                        TClock::time_point ADeadline, std::string& AError) override {
        const std::string link = LinkSource(ASource, ASourceExt, AWorkDir);
        // Plain text is read and written as UTF-8, whatever the locale says.
        const std::string target =
            ADestExt == ".txt" ? "txt:Text (encoded):UTF8" : ADestExt.substr(1);
        std::vector<std::string> argv = {Executable(),
                                         "-env:UserInstallation=" + FileURL(AWorkDir + "/profile"),
                                         "--headless",
                                         "--invisible",
                                         "--nocrashreport",
                                         "--nodefault",
                                         "--nofirststartwizard",
                                         "--nolockcheck",
                                         "--nologo",
                                         "--norestore",
                                         "--convert-to",
                                         target,
                                         "--outdir",
                                         AWorkDir + "/out"};
        if (ASourceExt == ".txt" || ASourceExt == ".text")
            argv.push_back("--infilter=Text (encoded):UTF8");
        else if (ASourceExt == ".csv")
            argv.push_back("--infilter=CSV:44,34,76,1");
        argv.push_back(link);
        if (!RunConverter(*this, argv, AWorkDir, ADeadline, AError)) return {};
        const std::string result = AWorkDir + "/out/source" + ADestExt;
        if (fs::is_regular_file(result)) return result;
        // LibreOffice answers 0 also when it could not load or export the file.
        AError =
            Name() + " wrote no " + ADestExt + " file: " + OutputExcerpt(AWorkDir + "/output.log");
        return {};
    }
};

class TImageFileHandler : public TKRFileHandler {
  public:
    explicit TImageFileHandler(std::string AExecutable)
        : TKRFileHandler("ImageMagick",
                         NormalExts({"png", "jpg", "jpeg", "gif", "bmp", "tif", "tiff", "webp",
                                     "pbm", "pgm", "ppm", "pnm"}),
                         NormalExts({"pdf", "png", "jpg", "jpeg", "gif", "bmp", "tif", "tiff"}),
                         std::move(AExecutable)) {}

    std::string Convert(const std::string& ASource, const std::string& ASourceExt,
                        const std::string& ADestExt, const std::string& AWorkDir,
                        TClock::time_point ADeadline, std::string& AError) override {
        // The coder is named, so the content can't pick another (and riskier) one.
        const std::string input =
            Coder(ASourceExt) + ":" + LinkSource(ASource, ASourceExt, AWorkDir);
        const std::string out = AWorkDir + "/out/";
        const std::vector<std::string> flatten = {"-background", "white",  "-alpha",
                                                  "remove",      "-alpha", "off"};
        std::vector<std::string> argv = {Executable()};
        if (ADestExt == ".pdf") {
            // Every frame decoded into a pixel map of its own; the PDF is written here.
            argv.insert(argv.end(), {input, "-coalesce", "-auto-orient"});
            argv.insert(argv.end(), flatten.begin(), flatten.end());
            argv.insert(argv.end(), {"-colorspace", "sRGB", "-depth", "8", "+adjoin",
                                     "PPM:" + out + "page-%04d.ppm"});
            if (!RunConverter(*this, argv, AWorkDir, ADeadline, AError)) return {};
            std::vector<std::string> pages;
            for (const auto& e : fs::directory_iterator(out))
                pages.push_back(e.path().string());
            std::sort(pages.begin(), pages.end());
            if (pages.empty()) {
                AError = Name() + " decoded no image";
                return {};
            }
            WriteImagesPDF(pages, out + "result.pdf");
            return out + "result.pdf";
        }
        // To another image format: the first frame, flattened for formats without alpha.
        argv.insert(argv.end(), {input + "[0]", "-auto-orient"});
        if (ADestExt == ".jpg" || ADestExt == ".jpeg" || ADestExt == ".bmp")
            argv.insert(argv.end(), flatten.begin(), flatten.end());
        const std::string result = out + "result" + ADestExt;
        argv.push_back(Coder(ADestExt) + ":" + result);
        if (!RunConverter(*this, argv, AWorkDir, ADeadline, AError)) return {};
        return fs::is_regular_file(result) ? result : std::string();
    }

  private:
    static std::string Coder(const std::string& AExt) {
        if (AExt == ".jpg") return "JPEG";
        if (AExt == ".tif") return "TIFF";
        return UpperCase(AExt.substr(1));
    }
};

}  // namespace

// ---- TKRFileHandler

TKRFileHandler::TKRFileHandler(std::string AName, std::vector<std::string> AReads,
                               std::vector<std::string> AWrites, std::string AExecutable)
    : FName(std::move(AName)),
      FReads(std::move(AReads)),
      FWrites(std::move(AWrites)),
      FExecutable(std::move(AExecutable)) {}

bool TKRFileHandler::ReadsExt(const std::string& AExt) const {
    return Contains(FReads, NormalExt(AExt));
}

bool TKRFileHandler::CanConvert(const std::string& ASourceExt, const std::string& ADestExt) const {
    return ReadsExt(ASourceExt) && Contains(FWrites, NormalExt(ADestExt));
}

// ---- TKRFileHandlerClient

TKRFileHandlerClient::TKRFileHandlerClient(TComponent* AOwner) : TPluginBaseComponent(AOwner) {
    std::string magick = FindExecutable("magick");
    if (magick.empty()) magick = FindExecutable("convert");
    FHandlers.push_back(std::make_unique<TOfficeFileHandler>(FindExecutable("soffice")));
    FHandlers.push_back(std::make_unique<TImageFileHandler>(magick));
}

TKRFileHandlerClient::~TKRFileHandlerClient() = default;

bool TKRFileHandlerClient::ConvertFormat(const std::string& ASource, const std::string& ADest) {
    std::string error;
    const bool ok = [&]() -> bool {
        try {
            const std::string srcExt = NormalExt(ExtractFileExt(ASource));
            const std::string destExt = NormalExt(ExtractFileExt(ADest));
            if (!fs::is_regular_file(ASource)) {
                error = "The file \"" + ASource + "\" does not exist";
                return false;
            }
            if (destExt.empty()) {
                error = "\"" + ADest + "\" names no format";
                return false;
            }
            if (srcExt == destExt) {  // already in that format
                std::error_code ec;
                if (!fs::equivalent(ASource, ADest, ec)) CopyFileOver(ASource, ADest);
                return true;
            }
            TKRFileHandler* handler = nullptr;
            for (auto& h : FHandlers)
                if (h->Available() && h->CanConvert(srcExt, destExt)) {
                    handler = h.get();
                    break;
                }
            if (!handler) {
                error = "No file handler converts " + (srcExt.empty() ? "\"\"" : srcExt) +
                        " files to " + destExt;
                return false;
            }
            const auto deadline = TClock::now() + FTimeout;
            TConversionSlot slot(deadline);
            if (!slot.Held()) {
                error = "No conversion slot became free in time";
                return false;
            }
            const std::string work = MakeWorkDir();
            TFinally cleanup{[&] {
                std::error_code ec;
                fs::remove_all(work, ec);
            }};
            const std::string result =
                handler->Convert(ASource, srcExt, destExt, work, deadline, error);
            if (result.empty()) return false;
            if (GetFileSize(result) <= 0) {
                error = handler->Name() + " wrote an empty file";
                return false;
            }
            PublishFile(result, ADest);
            return true;
        } catch (const std::exception& e) {
            error = e.what();
            return false;
        }
    }();
    GLastConvertError = ok ? std::string() : error;
    return ok;
}

TKRFileHandler* TKRFileHandlerClient::GetFileHandlerByExt(const std::string& AExt) const {
    for (auto& h : FHandlers)
        if (h->Available() && h->ReadsExt(AExt)) return h.get();
    return nullptr;
}

TKRFileHandlerShowResult TKRFileHandlerClient::ShowFile(const std::string& AFileName,
                                                        bool AReadOnly, bool AShowEditor) {
    return fsrNoHandler;
}

void TKRFileHandlerClient::SetMaxParallelConversions(int AMax) {
    TSlots& s = Slots();
    std::lock_guard lock(s.Lock);
    s.Max = std::max(1, AMax);
    s.Freed.notify_all();
}

int TKRFileHandlerClient::MaxParallelConversions() {
    TSlots& s = Slots();
    std::lock_guard lock(s.Lock);
    return s.Max;
}

std::string TKRFileHandlerClient::LastConvertError() {
    return GLastConvertError;
}

}  // namespace docadmin
