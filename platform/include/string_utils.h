#pragma once

#include <string>

#include "visibility.h"

namespace KITE {

// UTF-16 to UTF-8; a surrogate without its partner becomes U+FFFD.
KITE_API std::string Str16ToStr8(const std::u16string& text);

// UTF-8 to UTF-16; a byte that begins no valid sequence becomes U+FFFD.
KITE_API std::u16string Str8ToStr16(const std::string& text);

}  // namespace KITE
