#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <string>

#include "support/emulation.h"
#include "support/temp_folder.h"

// Without descriptor 2 log lines went into whatever was opened next: a pipe's pointers, a file's data.
TEST(StandardDescriptors, ThoseThatAreClosedAtTheStartAreNotGivenToFiles) {
    SKIP_WHERE_EMULATED("a program cannot start another one of its own kind");
    const tern::test::TempFolder folder;
    const std::string path = folder / "data";
    for (const char* const closed : {"2", "12", "02", "012", "0", "1", ""}) {
        const pid_t pid = fork();
        if (pid == 0) {
            for (const char* digit = closed; *digit != '\0'; ++digit) {
                close(*digit - '0');
            }
            unsetenv("JOURNAL_STREAM");
            unsetenv("TERN_LOG_TARGET");
            execl(TERN_PROGRAM, TERN_PROGRAM, path.c_str(), closed, nullptr);
            _exit(127);
        }
        int status = -1;
        ASSERT_EQ(waitpid(pid, &status, 0), pid);
        EXPECT_EQ(WIFEXITED(status) ? WEXITSTATUS(status) : -1, 0) << "without " << closed;
    }
}
