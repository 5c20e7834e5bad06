// AddressSanitizer's defaults for every fuzz target (ASAN_OPTIONS overrides them).
//
// AddressSanitizer keeps freed blocks poisoned until 256 MiB more have been freed (its
// quarantine). An input of these targets builds and drops caches, queues, strings and 1 KiB
// frames, so with that quarantine nearly every allocation landed on fresh pages: half of the
// time went to page faults and filling new memory, and a process grew to about 480 MiB
// resident within 100,000 inputs (fuzz_address; the same run without AddressSanitizer stays
// at 33 MiB, so the growth was the quarantine, not the driver). 32 MiB still holds the freed
// blocks of many inputs, far more than one input frees, so a use after free within an input,
// or of a block the previous input left behind, is still caught.
extern "C" const char* __asan_default_options() { return "quarantine_size_mb=32"; }
