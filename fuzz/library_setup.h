// What all fuzzers do to the library's global state. Used by one thread.

#pragma once

// Has all lines of the log formatted, as that may go wrong too, but written nowhere.
void quiet_log();

// Forgets the names of types that inputs have added, so that each finds the same table; requires
// that they have become known in no other way.
void restore_data_types();
