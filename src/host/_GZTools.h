// The test for legacy compressed files: files that older versions of the system stored as one
// zlib stream, with either the gzip wrapper or the zlib wrapper around the deflate data.
#pragma once

#include <string>

namespace docadmin {

// True when the file holds a legacy compressed stream.
//
// A header that looks right is not enough: plain files may start with the same two or three
// bytes (0x78 0x9C is "x\x9c", 0x78 0x01 is "x\x01"). The file's start is therefore inflated as
// a trial, with header auto-detection; it counts as compressed only when that trial meets no
// error, and, for a file that the trial reads whole, when the stream also ends there.
// A missing or unreadable file answers false.
bool IsCompressedGZFile(const std::string& FileName);

}  // namespace docadmin
