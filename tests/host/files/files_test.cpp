// File conversion: real conversions with LibreOffice and ImageMagick checked by rendering the
// result, and failing, hanging and parallel converters played by small scripts. Every test runs
// with a private temporary folder that must be empty at its end.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <unistd.h>
#include <zlib.h>

#include <algorithm>
#include <atomic>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <thread>

#include "_KRFileHandler.h"
#include "_KRProcessRunner.h"
#include "host/test_helpers.h"

using namespace docadmin;
using namespace docadmin::test;
namespace fs = std::filesystem;
using namespace std::chrono_literals;

namespace {

bool IsCI() {
    const char* ci = std::getenv("CI");
    return ci && std::string(ci) == "true";
}

// A missing program fails the test in CI, where scripts/setup has installed it, and skips it
// elsewhere.
#define REQUIRE_TOOL(available, name)                                                  \
    if (!(available)) {                                                                \
        if (IsCI()) FAIL() << name << " is not installed (scripts/setup installs it)"; \
        GTEST_SKIP() << name << " is not installed";                                   \
    }

// A W x H RGBA PNG: the left half opaque red, the right half fully transparent.
std::string HalfRedPNG(int W, int H) {
    auto chunk = [](const std::string& type, const std::string& data) {
        std::string c;
        for (int s = 24; s >= 0; s -= 8)
            c += static_cast<char>((data.size() >> s) & 0xFF);
        const std::string body = type + data;
        const uLong crc =
            crc32(0, reinterpret_cast<const Bytef*>(body.data()), static_cast<uInt>(body.size()));
        c += body;
        for (int s = 24; s >= 0; s -= 8)
            c += static_cast<char>((crc >> s) & 0xFF);
        return c;
    };
    std::string raw;
    for (int y = 0; y < H; ++y) {
        raw += '\0';  // no filter
        for (int x = 0; x < W; ++x)
            raw += x < W / 2 ? std::string("\xFF\x00\x00\xFF", 4) : std::string(4, '\0');
    }
    uLongf size = compressBound(static_cast<uLong>(raw.size()));
    std::string packed(size, '\0');
    compress(reinterpret_cast<Bytef*>(packed.data()), &size,
             reinterpret_cast<const Bytef*>(raw.data()), static_cast<uLong>(raw.size()));
    packed.resize(size);
    const std::string ihdr = {0, 0, 0, static_cast<char>(W), 0, 0, 0, static_cast<char>(H), 8, 6,
                              0, 0, 0};
    return "\x89PNG\r\n\x1A\n" + chunk("IHDR", ihdr) + chunk("IDAT", packed) + chunk("IEND", "");
}

class FilesConvert : public ::testing::Test {
  protected:
    void SetUp() override {
        fs::create_directories(FDir / "tmp");
        fs::create_directories(FDir / "data");
    }
    void TearDown() override {
        // Conversions leave nothing in the temporary folder, whatever happened.
        EXPECT_TRUE(fs::is_empty(FDir / "tmp"));
    }
    std::string Data(const std::string& name) { return (FDir / "data" / name).string(); }
    // Runs a poppler tool on a file; its output, or "" when it failed.
    std::string Poppler(const std::vector<std::string>& args) {
        const std::string log = Data("poppler.out");
        const TProcessResult r =
            RunProcess(args, Data(""), {}, log, std::chrono::steady_clock::now() + 30s);
        return r.ExitCode == 0 ? ReadFile(log) : std::string();
    }
    // A fake converter script standing in for LibreOffice.
    void FakeOffice(TKRFileHandlerClient& client, const std::string& body) {
        const std::string script = Data("fake-office");
        WriteFile(script, "#!/bin/sh\n" + body);
        fs::permissions(script, fs::perms::owner_all);
        client.OfficeHandler().SetExecutable(script);
    }

    TTempDir FTemp{"files_test"};
    const fs::path FDir = FTemp.Dir();
    TScopedEnv FTmpEnv{"TMPDIR", (FDir / "tmp").c_str()};
    TKRFileHandlerClient FClient{nullptr};
};

}  // namespace

TEST_F(FilesConvert, TextDocumentToAnOfficeFormatAndThatToPDF) {
    REQUIRE_TOOL(FClient.GetFileHandlerByExt(".txt"), "LibreOffice");
    REQUIRE_TOOL(!FindExecutable("pdftotext").empty(), "pdftotext (poppler-utils)");
    WriteFile(Data("letter.txt"), "Grüße from the document store\nsecond line\n");
    ASSERT_TRUE(FClient.ConvertFormat(Data("letter.txt"), Data("letter.docx")))
        << TKRFileHandlerClient::LastConvertError();
    EXPECT_EQ(ReadFile(Data("letter.docx")).substr(0, 4), "PK\x03\x04");
    // The PDF is made from the DOCX, so its text proves both steps.
    ASSERT_TRUE(FClient.ConvertFormat(Data("letter.docx"), Data("letter.pdf")))
        << TKRFileHandlerClient::LastConvertError();
    EXPECT_EQ(ReadFile(Data("letter.pdf")).substr(0, 5), "%PDF-");
    Poppler({FindExecutable("pdftotext"), Data("letter.pdf"), Data("letter-text.txt")});
    EXPECT_NE(ReadFile(Data("letter-text.txt")).find("Grüße from the document store"),
              std::string::npos);
}

TEST_F(FilesConvert, ImageToPDFKeepsItsPixelsOnWhite) {
    REQUIRE_TOOL(FClient.GetFileHandlerByExt(".png"), "ImageMagick");
    REQUIRE_TOOL(!FindExecutable("pdftoppm").empty(), "pdftoppm (poppler-utils)");
    WriteFile(Data("scan.png"), HalfRedPNG(40, 30));
    ASSERT_TRUE(FClient.ConvertFormat(Data("scan.png"), Data("scan.pdf")))
        << TKRFileHandlerClient::LastConvertError();
    EXPECT_EQ(ReadFile(Data("scan.pdf")).substr(0, 5), "%PDF-");
    std::string info = Poppler({FindExecutable("pdfinfo"), Data("scan.pdf")});
    info.erase(
        std::unique(info.begin(), info.end(), [](char a, char b) { return a == ' ' && b == ' '; }),
        info.end());
    EXPECT_NE(info.find("Pages: 1\n"), std::string::npos) << info;
    EXPECT_NE(info.find("Page size: 30 x 22.5 pts"), std::string::npos) << info;
    // Rendered back at 96 dpi: the same 40 x 30 pixels, red on the left, white where it was
    // transparent.
    Poppler(
        {FindExecutable("pdftoppm"), "-r", "96", "-singlefile", Data("scan.pdf"), Data("render")});
    std::ifstream in(Data("render.ppm"), std::ios::binary);
    std::string magic;
    int w = 0, h = 0, maxval = 0;
    in >> magic >> w >> h >> maxval;
    in.get();
    ASSERT_EQ(magic + " " + std::to_string(w) + "x" + std::to_string(h), "P6 40x30");
    std::string px(static_cast<size_t>(w * h * 3), '\0');
    in.read(px.data(), static_cast<std::streamsize>(px.size()));
    auto rgb = [&](int x, int y) {
        const size_t i = static_cast<size_t>((y * w + x) * 3);
        return std::to_string(static_cast<unsigned char>(px[i])) + "," +
               std::to_string(static_cast<unsigned char>(px[i + 1])) + "," +
               std::to_string(static_cast<unsigned char>(px[i + 2]));
    };
    EXPECT_EQ(rgb(5, 15), "255,0,0");
    EXPECT_EQ(rgb(35, 15), "255,255,255");

    // Between image formats ImageMagick writes the file itself.
    ASSERT_TRUE(FClient.ConvertFormat(Data("scan.png"), Data("scan.JPG")));
    EXPECT_EQ(ReadFile(Data("scan.JPG")).substr(0, 3), "\xFF\xD8\xFF");
}

struct TFakeCase {
    const char* Name;
    const char* Script;  // runs in the conversion folder; its result belongs in out/
    const char* Reason;
};

void PrintTo(const TFakeCase& c, std::ostream* os) {
    *os << c.Name;
}

class FilesFailure : public FilesConvert, public ::testing::WithParamInterface<TFakeCase> {};

TEST_P(FilesFailure, LeavesTheDestinationAndNothingElse) {
    const TFakeCase& c = GetParam();
    FakeOffice(FClient, c.Script);
    FClient.SetTimeout(500ms);
    setenv("FAKE_PIDFILE", Data("child.pid").c_str(), 1);
    WriteFile(Data("in.txt"), "text");
    WriteFile(Data("out.pdf"), "the old file");
    const auto start = std::chrono::steady_clock::now();
    EXPECT_FALSE(FClient.ConvertFormat(Data("in.txt"), Data("out.pdf")));
    EXPECT_LT(std::chrono::steady_clock::now() - start, 5s);
    EXPECT_NE(TKRFileHandlerClient::LastConvertError().find(c.Reason), std::string::npos)
        << TKRFileHandlerClient::LastConvertError();
    EXPECT_EQ(ReadFile(Data("out.pdf")), "the old file");
    if (fs::exists(Data("child.pid"))) {
        // What the converter started in the background went with it.
        const std::string pid = ReadFile(Data("child.pid"));
        const std::string stat = ReadFile("/proc/" + pid.substr(0, pid.find('\n')) + "/stat");
        EXPECT_TRUE(stat.empty() || stat.find(") Z ") != std::string::npos) << stat;
    }
}

INSTANTIATE_TEST_SUITE_P(
    Converters, FilesFailure,
    ::testing::Values(
        TFakeCase{"Hangs",
                  "echo partial > out/source.pdf\nsleep 30 &\necho $! > \"$FAKE_PIDFILE\"\nwait\n",
                  "LibreOffice timed out"},
        TFakeCase{"Fails",
                  "echo partial > out/source.pdf\necho cannot\necho 'read it' >&2\nexit 3\n",
                  "failed with exit code 3: cannot read it"},
        TFakeCase{"WritesNothing", "exit 0\n", "LibreOffice wrote no .pdf file"},
        TFakeCase{"WritesAnEmptyFile", ": > out/source.pdf\n", "LibreOffice wrote an empty file"}),
    [](const auto& info) { return std::string(info.param.Name); });

TEST_F(FilesConvert, ParallelConversionsKeepToTheLimit) {
    // Each fake conversion holds a lock folder for a while; a second one at the same time fails.
    FakeOffice(FClient,
               "mkdir \"$FAKE_LOCK\" 2>/dev/null || exit 9\nsleep 0.2\nrmdir \"$FAKE_LOCK\"\n"
               "echo converted > out/source.pdf\n");
    setenv("FAKE_LOCK", Data("lock").c_str(), 1);
    const int before = TKRFileHandlerClient::MaxParallelConversions();
    TKRFileHandlerClient::SetMaxParallelConversions(1);
    WriteFile(Data("in.txt"), "text");
    std::vector<std::thread> threads;
    std::atomic<int> converted{0};
    for (int i = 0; i < 3; ++i)
        threads.emplace_back([&, i] {
            converted += FClient.ConvertFormat(Data("in.txt"), Data(std::to_string(i) + ".pdf"));
        });
    for (auto& t : threads)
        t.join();
    TKRFileHandlerClient::SetMaxParallelConversions(before);
    EXPECT_EQ(converted, 3);
    EXPECT_EQ(ReadFile(Data("2.pdf")), "converted\n");
}

TEST_F(FilesConvert, ConvertersInheritNoOpenFileOfTheHost) {
    const int fd = ::open(Data("held.txt").c_str(), O_CREAT | O_WRONLY, 0600);  // no O_CLOEXEC
    ASSERT_GE(fd, 3);
    FakeOffice(FClient, "[ -e /proc/self/fd/" + std::to_string(fd) +
                            " ] && exit 9\necho converted > out/source.pdf\n");
    WriteFile(Data("in.txt"), "text");
    EXPECT_TRUE(FClient.ConvertFormat(Data("in.txt"), Data("in.pdf")))
        << TKRFileHandlerClient::LastConvertError();
    ::close(fd);
}

TEST_F(FilesConvert, UnknownFormatsMissingFilesAndHandlersByExtension) {
    FClient.OfficeHandler().SetExecutable("/bin/true");
    FClient.ImageHandler().SetExecutable("/bin/true");
    WriteFile(Data("a.txt"), "text");
    EXPECT_EQ(FClient.GetFileHandlerByExt("TXT"), &FClient.OfficeHandler());
    EXPECT_EQ(FClient.GetFileHandlerByExt(".Png"), &FClient.ImageHandler());
    EXPECT_EQ(FClient.GetFileHandlerByExt(".xyz"), nullptr);
    EXPECT_EQ(FClient.ShowFile(Data("a.txt"), false, true), fsrNoHandler);

    const struct {
        std::string Source, Dest, Reason;
    } failures[] = {
        {"a.txt", "a.xyz", "No file handler converts .txt files to .xyz"},
        {"a.txt", "a", "names no format"},
        {"missing.txt", "a.pdf", "does not exist"},
    };
    for (const auto& f : failures) {
        EXPECT_FALSE(FClient.ConvertFormat(Data(f.Source), Data(f.Dest))) << f.Dest;
        EXPECT_NE(TKRFileHandlerClient::LastConvertError().find(f.Reason), std::string::npos)
            << TKRFileHandlerClient::LastConvertError();
        EXPECT_FALSE(fs::exists(Data(f.Dest)));
    }
    // The same format is a copy; no program runs.
    EXPECT_TRUE(FClient.ConvertFormat(Data("a.txt"), Data("copy.TXT")));
    EXPECT_EQ(ReadFile(Data("copy.TXT")), "text");
    EXPECT_EQ(TKRFileHandlerClient::LastConvertError(), "");
    // A handler that isn't installed converts nothing.
    FClient.OfficeHandler().SetExecutable("");
    EXPECT_EQ(FClient.GetFileHandlerByExt("txt"), nullptr);
    EXPECT_FALSE(FClient.ConvertFormat(Data("a.txt"), Data("a.pdf")));
}
