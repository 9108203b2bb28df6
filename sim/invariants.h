#pragma once
// Invariants of the filter's tables and of the memory it holds, checked by
// the whole-filter fuzzer and the soak test after their steps. Each check
// returns NULL when it holds, else what is wrong.

namespace invariants {

// Every slot of every table on exactly one of its bucket chains or free
// lists (the two HTTP tables together, since slots move between them); the
// age lists hold exactly the slots in use.
const char *tables(void);

// The held copies in the HTTP slots are live, distinct, and the only live
// buffers; bottom halves are enabled.
const char *buffers(void);

} // namespace invariants
