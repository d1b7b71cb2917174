// The thin zlib layer of the container: one-shot deflate and inflate of a block and the block
// CRC. Failures inside raise EZlibError descendants carrying the text "error"; the stream classes
// catch them and raise their own texts, so these never reach a caller of the streams.
#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

#include "_SysUtils.h"

namespace docadmin {

DOCADMIN_DECLARE_EXCEPTION(EZlibError, Exception);
DOCADMIN_DECLARE_EXCEPTION(ECompressionError, EZlibError);
DOCADMIN_DECLARE_EXCEPTION(EDecompressionError, EZlibError);

// The block CRC: reflected CRC with the CRC-32 polynomial 0xEDB88320, initial value 0 and no
// final complement. Not the usual CRC-32 (that one starts from and ends with all ones).
std::uint32_t ECLBlockCrc(const std::uint8_t* data, std::size_t len);

// Compresses len bytes into a complete zlib stream at the given zlib level (1..9) with the
// default window and memory settings. Raises ECompressionError on any failure, including len 0.
void ZCompressBuf(const std::uint8_t* data, std::size_t len, int zlevel,
                  std::vector<std::uint8_t>& out);

enum class TZInflateResult { Exact, Shorter, Longer };

// Inflates one complete zlib stream into exactly outLen bytes of out. Answers whether the stream
// held exactly outLen bytes, fewer (produced tells how many) or more. Raises EDecompressionError
// when the stream is damaged or incomplete. Without checkStreamSum the stream's Adler-32 is not
// computed, for a caller that checks the plain bytes itself (the container's CRC-32 of a block).
TZInflateResult ZDecompressBuf(const std::uint8_t* data, std::size_t len, std::uint8_t* out,
                               std::size_t outLen, std::size_t& produced,
                               bool checkStreamSum = true);

// Upper bound of the deflate output for len input bytes.
std::size_t ZCompressBound(std::size_t len);

}  // namespace docadmin
