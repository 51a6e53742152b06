// Memory running out where nothing can be refused: one NOTE line, status 1.
#include <cstdint>
#include <new>

#include "core/out_of_memory.h"
#include "world.h"

namespace {

using OutOfMemory = World;

TEST_F(OutOfMemory, AFailedAllocationEndsTheDaemonWithOneNoteAndStatusOne) {
    std::new_handler before = std::get_new_handler();
    tovrin_catch_allocation_failure();
    EXPECT_EQ(std::get_new_handler(), &tovrin_out_of_memory);
    std::set_new_handler(before);

    EXPECT_EXIT(tovrin_out_of_memory(), testing::ExitedWithCode(1), "");
    EXPECT_EQ(log_count("NOTE: Out of memory, exiting\n"), 1);
#if !defined(__SANITIZE_ADDRESS__)
    // A request no machine can grant, through operator new as the daemon's code makes it.
    EXPECT_EXIT(
        {
            tovrin_catch_allocation_failure();
            // More than any address space, 32-bit ones included, can give.
            volatile std::size_t huge = SIZE_MAX - 4095;
            ::operator delete(::operator new(huge));
        },
        testing::ExitedWithCode(1), "");
    EXPECT_EQ(log_count("NOTE: Out of memory, exiting\n"), 2);
#endif
}

}  // namespace
