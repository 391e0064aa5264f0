// UTF-8 as RFC 3629 has it: no overlong forms, no surrogates, nothing above U+10FFFF.
#pragma once

#include <string>
#include <string_view>

namespace libvariant {

// The text itself when it is UTF-8; else a corrected copy in `storage`, with U+FFFD for each longest part
// that can't begin or go on with a character (the practice of the Unicode standard, section 3.9).
std::string_view as_utf8(std::string_view text, std::string& storage);

}  // namespace libvariant
