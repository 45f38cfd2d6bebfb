// Marks the declarations that form the library's exported interface. Everything else is
// compiled with hidden visibility and stays private to the shared library.
#pragma once

#define ORV_EXPORT __attribute__((visibility("default")))
