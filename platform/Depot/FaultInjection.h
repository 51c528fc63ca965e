#pragma once
// A test hook that makes the environment fail on purpose: the Nth space
// reservation, mapping, allocation or file operation of the shared tables
// in this process fails as a full disk or exhausted memory would, so that
// tests can walk every such point of a load and check what a failure leaves.
// Off unless a test turns it on; a disabled point costs one relaxed load.
#include "Basis/Types.h"

namespace Depot {
using Basis::U8, Basis::U16, Basis::U32, Basis::U64;

// The nth point from now on fails (n >= 1); with persist, every point after
// it fails too (a disk that stays full). 0 turns failures off.
void injectFailureAt(U64 n, bool persist = false);
// The points reached since the process started (failed or not).
U64 failurePointsReached();

namespace sharedfile {
// The errno a point should fail with now (its argument), or 0 to go on.
int injectedFailure(int err);
}  // namespace sharedfile

}  // namespace Depot
