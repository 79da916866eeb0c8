#pragma once

#include <cstdio>
#include <cstdlib>

/// What must hold for every input of a fuzz target.
#define REQUIRE(condition)              \
    ((condition) ? static_cast<void>(0) \
                 : (std::fprintf(stderr, "%s:%d: %s\n", __FILE__, __LINE__, #condition), std::abort()))
