// Symbol export for libferritcore.so. Everything else in the library is hidden.
#pragma once

#define FERRIT_EXPORT [[gnu::visibility("default")]]
