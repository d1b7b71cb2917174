// A fast check of JSON text, beside the UTF-8 helpers of _Tools (implemented in _Tools.cpp).
#pragma once

#include <string>

namespace docadmin {

// True when the text is one JSON value (RFC 8259) with optional white space around it: strings
// hold well-formed UTF-8 and no lone surrogate escapes. Runs at memory speed on long strings,
// for checking large answers (Base64 chunks) that are passed on without parsing.
bool IsValidJsonText(const std::string& AText);

}  // namespace docadmin
