// docadmin container pack|unpack|info|verify: the compressed container from the command line.
#include <zlib.h>

#include <cstdio>
#include <filesystem>
#include <iostream>
#include <sstream>

#include "_GZTools.h"
#include "_TECLStream.h"
#include "commands.h"
#include "progress.h"

namespace docadmin::app {
namespace {

// Files below this size finish too quickly for a progress bar to help.
constexpr std::int64_t kProgressThreshold = 4 << 20;

std::int64_t FileSizeOf(const std::string& name) {
    std::error_code ec;
    const auto n = std::filesystem::file_size(name, ec);
    return ec ? 0 : static_cast<std::int64_t>(n);
}

void Pack(const std::string& in, const std::string& out, const std::string& levelName) {
    TECLCompressionLevel level = zlibMax;
    ECLLevelFromName(levelName, level);
    TFileStream target(out, fmCreate);
    TECLStream s(&target, true, "", level, 0);
    TerminalProgress bar("pack", FileSizeOf(in) > kProgressThreshold);
    s.OnProgress = [&](TObject*, double p) { bar.Update(p); };
    s.LoadFromFile(in);
    bar.Finish();
}

// Legacy files are one zlib or gzip stream; inflate it in 32 KiB steps.
void InflateLegacy(const std::string& in, const std::string& out) {
    TFileStream source(in, fmOpenRead | fmShareDenyWrite);
    TFileStream target(out, fmCreate);
    z_stream zs{};
    if (::inflateInit2(&zs, 15 + 32) != Z_OK) throw Exception("inflate initialisation failed");
    std::vector<std::uint8_t> inBuf(32768), outBuf(32768);
    int rc = Z_OK;
    try {
        while (rc != Z_STREAM_END) {
            const std::int32_t n =
                source.Read(inBuf.data(), static_cast<std::int32_t>(inBuf.size()));
            if (n <= 0) throw Exception("legacy compressed file \"" + in + "\" is truncated");
            zs.next_in = inBuf.data();
            zs.avail_in = static_cast<uInt>(n);
            while (zs.avail_in > 0 && rc != Z_STREAM_END) {
                zs.next_out = outBuf.data();
                zs.avail_out = static_cast<uInt>(outBuf.size());
                rc = ::inflate(&zs, Z_NO_FLUSH);
                if (rc != Z_OK && rc != Z_STREAM_END)
                    throw Exception("legacy compressed file \"" + in + "\" is damaged");
                target.WriteBuffer(outBuf.data(),
                                   static_cast<std::int64_t>(outBuf.size() - zs.avail_out));
            }
        }
    } catch (...) {
        ::inflateEnd(&zs);
        throw;
    }
    ::inflateEnd(&zs);
}

void Unpack(const std::string& in, const std::string& out) {
    std::unique_ptr<TFileStream> source = std::make_unique<TFileStream>(in, fmShareDenyWrite);
    TECLStream s(source.get(), false, "", zlibMax, 0);
    if (s.CompressionLevel() == eclNone && IsCompressedGZFile(in)) {
        InflateLegacy(in, out);
        return;
    }
    TerminalProgress bar("unpack", s.Size() > kProgressThreshold);
    s.OnProgress = [&](TObject*, double p) { bar.Update(p); };
    s.SaveToFile(out);
    bar.Finish();
}

std::string JsonString(const std::string& s) {
    std::string r = "\"";
    for (const char c : s) {
        if (c == '"' || c == '\\') {
            r += '\\';
            r += c;
        } else if (static_cast<unsigned char>(c) < 0x20) {
            char buf[8];
            std::snprintf(buf, sizeof buf, "\\u%04x", c);
            r += buf;
        } else {
            r += c;
        }
    }
    return r + "\"";
}

void Info(const std::string& file, bool json) {
    TFileStream source(file, fmShareDenyWrite);
    TECLStream s(&source, false, "", zlibMax, 0);
    const TECLHeadersArray& h = s.Headers();
    const std::string level = ECLLevelName(s.CompressionLevel());
    std::ostringstream o;
    if (json) {
        o << "{\"file\":" << JsonString(file) << ",\"level\":" << JsonString(level)
          << ",\"blockSize\":" << s.StreamHeader().BlockSize << ",\"plainSize\":" << s.Size()
          << ",\"packedSize\":" << s.GetPackedSize() << ",\"rate\":" << s.GetCompressionRate()
          << ",\"blocks\":[";
        for (std::int32_t i = 0; i < h.ItemCount; ++i) {
            const TECLHeader& b = h.Items[static_cast<std::size_t>(i)];
            o << (i ? "," : "") << "{\"position\":" << h.Positions[static_cast<std::size_t>(i)]
              << ",\"packedSize\":" << b.packedSize << ",\"trueSize\":" << b.trueSize
              << ",\"Crc32\":" << b.Crc32 << ",\"nextHeaderNo\":" << b.nextHeaderNo << "}";
        }
        o << "]}\n";
    } else {
        o << "file:        " << file << "\nlevel:       " << level
          << "\nblock size:  " << s.StreamHeader().BlockSize << "\nplain size:  " << s.Size()
          << "\npacked size: " << s.GetPackedSize() << "\nrate:        " << s.GetCompressionRate()
          << " %\nblocks:      " << h.ItemCount << "\n";
        if (h.ItemCount > 0) o << "  #  position  packedSize  trueSize  Crc32     nextHeaderNo\n";
        for (std::int32_t i = 0; i < h.ItemCount; ++i) {
            const TECLHeader& b = h.Items[static_cast<std::size_t>(i)];
            char line[128];
            std::snprintf(line, sizeof line, "%3d  %8u  %10u  %8u  %08X  %u\n", i,
                          h.Positions[static_cast<std::size_t>(i)], b.packedSize, b.trueSize,
                          b.Crc32, b.nextHeaderNo);
            o << line;
        }
    }
    std::cout << o.str();
}

void Verify(const std::string& file) {
    TFileStream source(file, fmShareDenyWrite);
    TECLStream s(&source, false, "", zlibMax, 0);
    if (s.CompressionLevel() == eclNone) {
        std::cout << file << ": plain file, " << s.Size() << " bytes, nothing to verify\n";
        return;
    }
    const std::int32_t n = s.Headers().ItemCount;
    TerminalProgress bar("verify", s.GetPackedSize() > kProgressThreshold);
    for (std::int32_t i = 0; i < n; ++i) {
        try {
            s.LoadBlock(i);
        } catch (const Exception& e) {
            bar.Finish();
            std::cerr << file << ": block " << i << " is damaged: " << e.Message() << "\n";
            throw CLI::RuntimeError(kExitFailure);
        }
        bar.Update(100.0 * (i + 1) / n);
    }
    bar.Finish();
    std::cout << file << ": " << n << " blocks, " << s.Size() << " bytes, all intact\n";
}

CommandRegistrar reg([](CLI::App& app) {
    auto* container = app.add_subcommand("container", "Pack, unpack and inspect container files");
    container->require_subcommand(1);

    auto* pack = container->add_subcommand("pack", "Pack a file into a container");
    static std::string in, out, file, level = "zlibMax";
    static bool json = false;
    pack->add_option("IN", in, "plain input file")->required();
    pack->add_option("OUT", out, "container to write")->required();
    pack->add_option("--level", level, "compression level")
        ->check(CLI::IsMember({"zlibFastest", "zlibNormal", "zlibMax"}));
    pack->callback([] { Pack(in, out, level); });

    auto* unpack = container->add_subcommand(
        "unpack", "Write the plain content of a container, legacy or plain file");
    unpack->add_option("IN", in, "container, legacy compressed or plain file")->required();
    unpack->add_option("OUT", out, "plain file to write")->required();
    unpack->callback([] { Unpack(in, out); });

    auto* info = container->add_subcommand("info", "Show a container's header and blocks");
    info->add_option("FILE", file, "file to inspect")->required();
    info->add_flag("--json", json, "print JSON");
    info->callback([] { Info(file, json); });

    auto* verify =
        container->add_subcommand("verify", "Read every block; fail on the first damaged one");
    verify->add_option("FILE", file, "file to check")->required();
    verify->callback([] { Verify(file); });
});

}  // namespace
}  // namespace docadmin::app
