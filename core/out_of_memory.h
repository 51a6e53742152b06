#pragma once
// What the daemon does when memory runs out where there is no refusal to
// give: one NOTE line and exit status 1, as for any other end of the daemon,
// rather than an abort from an exception nobody catches.

// Makes every failed operator new end the process through tovrin_out_of_memory.
void tovrin_catch_allocation_failure();
// Logs "NOTE: Out of memory, exiting" and ends the process with status 1.
[[noreturn]] void tovrin_out_of_memory();
