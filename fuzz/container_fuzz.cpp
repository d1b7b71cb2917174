// Feeds arbitrary bytes to the container reader: open, read every block through the stream and
// each block on its own. Damage must end in one of the stream's exceptions, never in a crash,
// a hang or an allocation the input cannot justify; a repaired file must read as intact.
#include <cstddef>
#include <cstdint>

#include "_TECLStream.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    using namespace docadmin;
    TMemoryStream file;
    if (size > 0) file.WriteBuffer(data, static_cast<std::int64_t>(size));
    try {
        TECLStream s(&file, false, "", zlibMax, 0);
        s.SetThreads(1);
        TMemoryStream out;
        try {
            s.SaveToStream(out);
        } catch (const Exception&) {
        }
        for (std::int32_t i = 0; i < s.Headers().ItemCount; ++i) {
            try {
                s.LoadBlock(i);
            } catch (const Exception&) {
            }
        }
        // Reading from a position near the end and beyond it.
        std::uint8_t buf[64];
        s.Seek(-10, TSeekOrigin::soEnd);
        try {
            s.Read(buf, sizeof buf);
        } catch (const Exception&) {
        }
        s.Seek(100, TSeekOrigin::soEnd);
        s.Read(buf, sizeof buf);
    } catch (const Exception&) {
    }
    // Repair keeps the blocks that read back; what it leaves must be an intact container.
    try {
        TECLStream r(&file, false, "", zlibMax, 0);
        r.SetThreads(1);
        r.Repair();
        if (!r.Damage().empty()) __builtin_trap();
        TMemoryStream out;
        r.SaveToStream(out);
    } catch (const Exception&) {
    }
    return 0;
}
