#include "plain_file.h"

#include <fcntl.h>
#include <unistd.h>

#include <stdexcept>

#include "limits.h"

namespace tern::test {

void WritePlainFile(const std::string& path, const std::string& content) {
    const Shortage::Aside aside;
    const int fd = open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
    const bool written = write(fd, content.data(), content.size()) == static_cast<ssize_t>(content.size());
    close(fd);
    if (!written) {
        throw std::runtime_error("the test cannot write " + path);
    }
}

std::string ReadPlainFile(const std::string& path) {
    const Shortage::Aside aside;
    std::string content;
    const int fd = open(path.c_str(), O_RDONLY | O_CLOEXEC);
    if (fd >= 0) {
        char chunk[8192];
        ssize_t count = 0;
        while ((count = read(fd, chunk, sizeof chunk)) > 0) {
            content.append(chunk, static_cast<std::size_t>(count));
        }
        close(fd);
    }
    return content;
}

}  // namespace tern::test
