// docadmin container pack|unpack|info|verify: the compressed container from the command line.
#include <cerrno>
#include <cstdio>
#include <filesystem>
#include <iostream>
#include <sstream>

#include "_StoreFiles.h"
#include "_TBaseDocFileLoader.h"
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

// The output appears only when complete; the input is never the output.
void Pack(const std::string& in, const std::string& out, const std::string& levelName) {
    TECLCompressionLevel level = zlibMax;
    ECLLevelFromName(levelName, level);
    RefuseSameFile(in, out);
    errno = 0;
    try {
        TAtomicOutput output(out);
        {
            TFileStream target(output.Path(), fmCreate);
            TECLStream s(&target, true, "", level, 0);
            TerminalProgress bar("pack", FileSizeOf(in) > kProgressThreshold);
            s.OnProgress = [&](TObject*, double p) { bar.Update(p); };
            s.LoadFromFile(in);
            bar.Finish();
        }
        output.Commit();
    } catch (Exception& e) {
        const int err = errno;
        AddFailureContext(e, "while packing \"" + in + "\" into \"" + out + "\"", err);
        throw;
    }
}

void Unpack(const std::string& in, const std::string& out) {
    std::int64_t size = 0;
    {
        TFileStream source(in, fmShareDenyWrite);
        TECLStream s(&source, false, "", zlibMax, 0);
        size = s.CompressionLevel() == eclNone ? 0 : s.Size();
    }
    TerminalProgress bar("unpack", size > kProgressThreshold);
    UnpackStoredFile(in, out, [&](TObject*, double p) { bar.Update(p); });
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
          << ",\"declaredBlocks\":" << s.DeclaredBlocks()
          << ",\"damage\":" << JsonString(s.Damage()) << ",\"blocks\":[";
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
        if (!s.Damage().empty()) o << "damage:      " << s.Damage() << "\n";
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

// Reads every block and checks the chain against the header; reports every fault found.
void Verify(const std::string& file) {
    TFileStream source(file, fmShareDenyWrite);
    TECLStream s(&source, false, "", zlibMax, 0);
    if (s.CompressionLevel() == eclNone) {
        std::cout << file << ": plain file, " << s.Size() << " bytes, nothing to verify\n";
        return;
    }
    const std::int32_t n = s.Headers().ItemCount;
    int faults = 0;
    if (!s.Damage().empty()) {
        std::cerr << file << ": " << s.Damage() << "\n";
        ++faults;
    }
    TerminalProgress bar("verify", s.GetPackedSize() > kProgressThreshold);
    for (std::int32_t i = 0; i < n; ++i) {
        try {
            s.LoadBlock(i);
        } catch (const Exception& e) {
            bar.Finish();
            std::cerr << file << ": " << e.Message() << "\n";
            ++faults;
        }
        bar.Update(100.0 * (i + 1) / n);
    }
    bar.Finish();
    if (faults > 0) {
        std::cerr << file
                  << ": damaged; \"docadmin container repair\" keeps the intact blocks "
                     "from the start\n";
        throw CLI::RuntimeError(kExitFailure);
    }
    std::cout << file << ": " << n << " blocks, " << s.Size() << " bytes, all intact\n";
}

// Cuts a damaged container behind its intact blocks from the start, in place.
void Repair(const std::string& file) {
    TFileStream target(file, fmOpenReadWrite);
    TECLStream s(&target, false, "", zlibMax, 0);
    if (s.CompressionLevel() == eclNone) {
        std::cout << file << ": plain file, nothing to repair\n";
        return;
    }
    const std::int32_t before = std::max(s.DeclaredBlocks(), s.Headers().ItemCount);
    const std::string damage = s.Damage();
    const std::int32_t kept = s.Repair();
    if (damage.empty() && kept == before) {
        std::cout << file << ": " << kept << " blocks, all intact, nothing to repair\n";
        return;
    }
    target.Flush();
    std::cout << file << ": kept " << kept << " of " << before << " blocks, " << s.Size()
              << " bytes; the rest is lost\n";
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
        container->add_subcommand("verify", "Read every block and the chain; fail on damage");
    verify->add_option("FILE", file, "file to check")->required();
    verify->callback([] { Verify(file); });

    auto* repair = container->add_subcommand(
        "repair", "Cut a damaged container in place behind its intact blocks from the start");
    repair->add_option("FILE", file, "container to repair")->required();
    repair->callback([] { Repair(file); });
});

}  // namespace
}  // namespace docadmin::app
