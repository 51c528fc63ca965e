#pragma once
#include "Basis/Assert.h"

// The runtime's assertion: on failure prints the condition text, the source
// path and the function's signature text, then stops the process.
#define KILN_ASSERT(cond, text, path, signature) BASIS_ASSERT_TEXT(cond, text, path, signature)
