// Visibility control for the CoreUtils shared library: the library is built
// with hidden visibility, so only what is marked KALDO_API is exported.
#pragma once

#define KALDO_API __attribute__((visibility("default")))
