#include "atomic_file.h"

#include <fcntl.h>
#include <sys/stat.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>

#include "failure.h"
#include "foundation/unique_fd.h"

namespace ternctl {

namespace {

std::string FolderOf(const std::string& path) {
    const std::size_t slash = path.rfind('/');
    return slash == std::string::npos ? "." : path.substr(0, slash == 0 ? 1 : slash);
}

/// A file of its own beside the one that is wanted; removed unless it is put into its place.
class Beside {
public:
    explicit Beside(const std::string& path) : mTarget(path), mPath(path + ".XXXXXX") {
        mFd.Reset(mkostemp(mPath.data(), O_CLOEXEC));
        if (!mFd) {
            throw SystemFailure("'" + path + "' cannot be written", errno);
        }
    }
    ~Beside() {
        if (!mPath.empty()) {
            unlink(mPath.c_str());
        }
    }
    Beside(const Beside&) = delete;
    Beside& operator=(const Beside&) = delete;

    void Write(std::string_view content) {
        while (!content.empty()) {
            const ssize_t written = write(mFd.Get(), content.data(), content.size());
            if (written < 0 && errno != EINTR) {
                throw SystemFailure("'" + mTarget + "' cannot be written", errno);
            }
            content.remove_prefix(written > 0 ? static_cast<std::size_t>(written) : 0);
        }
    }
    void PutIntoPlace() {
        // The rights of a file that is created in the ordinary way.
        const mode_t mask = umask(0);
        umask(mask);
        if (fchmod(mFd.Get(), 0666 & ~mask) != 0 || fsync(mFd.Get()) != 0 ||
            rename(mPath.c_str(), mTarget.c_str()) != 0) {
            throw SystemFailure("'" + mTarget + "' cannot be written", errno);
        }
        mPath.clear();
        const mwl::UniqueFd folder(open(FolderOf(mTarget).c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
        static_cast<void>(fsync(folder.Get()));  // as good as can be: not every folder can be read
    }

private:
    std::string mTarget;
    std::string mPath;
    mwl::UniqueFd mFd;
};

}  // namespace

void CheckPlace(const std::string& path) {
    struct stat found {};
    if (stat(path.c_str(), &found) == 0 && !S_ISREG(found.st_mode)) {
        throw Failure("'" + path + "' cannot be written: it is no file");
    }
    const Beside attempt(path);
}

void WriteAtomically(const std::string& path, std::string_view content) {
    Beside file(path);
    file.Write(content);
    file.PutIntoPlace();
}

}  // namespace ternctl
