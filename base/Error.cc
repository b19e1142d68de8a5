#include "ferritcore/Error.h"

#include <cstdarg>
#include <cstdio>

namespace FerritCore {

Error::Error(int32_t code, const char* format, ...) : code_(code) {
    if (format == nullptr) return;
    char buffer[256];
    va_list args;
    va_start(args, format);
    va_list again;
    va_copy(again, args);
    const int needed = std::vsnprintf(buffer, sizeof(buffer), format, args);
    va_end(args);
    if (needed >= 0 && static_cast<size_t>(needed) < sizeof(buffer)) {
        message_.assign(buffer, static_cast<size_t>(needed));
    } else if (needed >= 0) {
        // Did not fit: format again into a string of exactly the needed size.
        message_.resize(static_cast<size_t>(needed));
        std::vsnprintf(message_.data(), static_cast<size_t>(needed) + 1, format, again);
    }
    va_end(again);
}

}  // namespace FerritCore
