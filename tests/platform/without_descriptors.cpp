// Started by standard_descriptors_test.cpp without some of the descriptors 0 to 2: opens a pipe and a file,
// as services do first, logs, and tells by its exit status what became of them.

#include <fcntl.h>
#include <poll.h>
#include <sys/stat.h>
#include <tern-basic-log/root_logger.h>
#include <unistd.h>

#include <cerrno>

int main(int, char** arguments) {
    int ends[2];
    const int file = open(arguments[1], O_RDWR | O_CREAT | O_CLOEXEC | O_TRUNC, 0600);
    if (file < 0 || pipe2(ends, O_CLOEXEC) != 0) {
        return 10;
    }
    for (int i = 0; i < 3; ++i) {
        mwl::Log::RootLogger::GetInstance().Print(TernLogLevel::Error, "nobody opened a place for this");
    }
    pollfd readable = {ends[0], POLLIN, 0};
    if (poll(&readable, 1, 0) != 0) {
        return 11;  // the lines are in the pipe
    }
    struct stat status {};
    if (fstat(file, &status) != 0 || status.st_size != 0) {
        return 12;  // the lines are in the file
    }
    if (file <= STDERR_FILENO || ends[0] <= STDERR_FILENO || ends[1] <= STDERR_FILENO) {
        return 13;
    }
    // What was closed fails as if it still were.
    char byte = 0;
    for (const char* closed = arguments[2]; *closed != '\0'; ++closed) {
        const int fd = *closed - '0';
        const ssize_t moved = fd == STDIN_FILENO ? read(fd, &byte, 1) : write(fd, &byte, 1);
        if (moved != -1 || errno != EBADF) {
            return 14;
        }
    }
    // Put there on purpose, it is written to.
    if (dup2(file, STDERR_FILENO) < 0) {
        return 15;
    }
    mwl::Log::RootLogger::GetInstance().Print(TernLogLevel::Error, "put there on purpose");
    return fstat(file, &status) == 0 && status.st_size > 0 ? 0 : 16;
}
