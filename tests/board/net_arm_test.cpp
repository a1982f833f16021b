// One 64-bit server serves 32-bit processes.
#include <gtest/gtest.h>
#include <unistd.h>

#include "tests/board/served.h"

using namespace qel::test;

TEST(Server, ServesA32BitProcess) {
#ifdef QEL_ARM_CLIENT
    const Served board("bytes = 1048576");
    char fingerprint[20];
    snprintf(fingerprint, sizeof fingerprint, "%llx", static_cast<unsigned long long>(class_fingerprint()));
    const int client = fork_child();
    if (client == 0) {
        execl(QEL_ARM_EMULATOR, QEL_ARM_EMULATOR, QEL_ARM_CLIENT, board.socket().c_str(), fingerprint,
              nullptr);
        _exit(98);
    }
    EXPECT_EQ(wait_for_child(client, 60000), 0);
    EXPECT_TRUE(board.reaches_open_count(0));
#else
    GTEST_SKIP() << "this machine has no cross compiler for ARM or no emulator";
#endif
}
