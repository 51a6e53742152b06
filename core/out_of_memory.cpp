#include "core/out_of_memory.h"

#include <cstdlib>
#include <new>

#include "core/log_rule.h"

void tovrin_catch_allocation_failure() { std::set_new_handler(tovrin_out_of_memory); }

// _Exit, not exit: with the heap exhausted, destructors and atexit handlers
// could need memory themselves. The log line is written before it returns.
void tovrin_out_of_memory() {
    TOVRIN_LOG(TOVRIN_LOG_NOTE, "NOTE: Out of memory, exiting\n");
    std::_Exit(1);
}
