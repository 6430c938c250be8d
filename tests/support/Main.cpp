#include <cstdio>
#include <gtest/gtest.h>
#include <unistd.h>

#if defined(__SANITIZE_ADDRESS__)
#include <sanitizer/lsan_interface.h>
#endif

// The main of every test program. Threads of the library run until the process is gone, while the destructors of static
// objects run at exit, those of ACE among them: a test that has just started a thread would end in a race between the
// two. A test has nothing to win there and leaves without them.
int main(int argc, char **argv)
{
    testing::InitGoogleTest(&argc, argv);
    const int iResult = RUN_ALL_TESTS();
    fflush(nullptr);
#if defined(__SANITIZE_ADDRESS__)
    __lsan_do_leak_check();
#endif
    _exit(iResult);
}
