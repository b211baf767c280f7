#pragma once

#include <sys/types.h>
#include <tern/foundation/status_code.h>
#include <zip.h>

#include <cstddef>
#include <string>

namespace mwl::Utilities {

/// Where and how the entries of an archive become files. One thread at a time. `folder` must outlive it.
class UnzipTarget {
public:
    explicit UnzipTarget(const std::string& folder) : mPath(folder) {}
    virtual ~UnzipTarget() = default;
    UnzipTarget(const UnzipTarget&) = delete;
    UnzipTarget& operator=(const UnzipTarget&) = delete;

    /// Of an entry that libzip cannot describe.
    virtual StatusCode Undescribed(zip_t* archive, zip_uint64_t index) = 0;
    /// Whether an entry shorter than it claims is written, with zeros in place of the rest.
    virtual bool TakesShortEntries() const = 0;
    /// Makes the entry's file. A failure is logged.
    virtual StatusCode Write(const char* name, const char* buffer, std::size_t size) = 0;
    /// When everything is written.
    virtual StatusCode Finish() = 0;

protected:
    const std::string& GetPath() const { return mPath; }
    std::string PathOf(const char* name) const;
    /// Logs it; the status of the error number.
    static StatusCode FailedToOpen(const std::string& path, int error);
    static void FailedToWrite(const char* name, int error);

    static constexpr mode_t FILE_MODE = 0744;

private:
    const std::string& mPath;
};

}  // namespace mwl::Utilities
