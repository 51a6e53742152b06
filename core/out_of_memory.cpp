#include "core/out_of_memory.h"

#include <cstdlib>
#if defined(__cpp_exceptions)
#include <new>
#endif

#include "core/log_rule.h"

// The device build links no C++ runtime, so no operator new can be in it at
// all (the link would fail) and there is nothing to catch; elsewhere a failed
// one would throw, and the new handler ends the process first.
void tovrin_catch_allocation_failure() {
#if defined(__cpp_exceptions)
    std::set_new_handler(tovrin_out_of_memory);
#endif
}

// _Exit, not exit: with the heap exhausted, destructors and atexit handlers
// could need memory themselves. The log line is written before it returns.
void tovrin_out_of_memory() {
    TOVRIN_LOG(TOVRIN_LOG_NOTE, "NOTE: Out of memory, exiting\n");
    std::_Exit(1);
}
