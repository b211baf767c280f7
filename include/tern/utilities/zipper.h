#pragma once

#include <tern/foundation/api.h>
#include <tern/foundation/status_code.h>

#include <string>

namespace mwl::Utilities {

/// Packs the files of one folder into a zip archive, optionally encrypted with a password, and unpacks such
/// an archive: a careful layer over libzip(3). Both ways are flat: one level of files, no trees.
///
///     if (Zipper::Zip("/data/app/settings", "/data/backup.zip", password) == StatusCode::Ok) { ... }
///     if (Zipper::Unzip("/data/backup.zip", "/data/restored", password) == StatusCode::Ok) { ... }
///
/// `Unzip` does what it is described to do and may lose data without a word: a file of which a full disk took
/// a part counts as written. `UnzipWhole` answers `Ok` only when everything arrived.
///
/// Every failure is logged where it happens under the logger name "mwl::Utilities::Zipper". A failure leaves
/// no descriptor, no memory and no temporary file behind, and no program started meanwhile inherits a file
/// that is being extracted. Apart from std::bad_alloc nothing throws.
///
/// The password is passed to libzip up to its first null byte, and neither kept nor logged.
///
/// libzip is loaded when an archive is first opened (dlopen(3)) and stays; where it is not installed, or is
/// older than 1.7, both operations fail with Failure.
///
/// Thread-safe: nothing is shared. When another thread changes an archive or folder meanwhile, libzip and the
/// file system decide the result.
class TERN_API Zipper {
public:
    static const std::string RELATIVE_PATH_STRING;  ///< "../", which no entry's name may hold

    /// Writes the archive `zipFile`, replacing an existing file, with the regular files that are directly in
    /// `folder`, under their bare names, encrypted with AES-128 unless `password` is empty. Sub-folders,
    /// links and entries whose type the file system does not report (DT_UNKNOWN of readdir(3)) are left out
    /// with an info message each.
    ///
    /// - Ok: the archive is written. Also when `folder` or `zipFile` is empty, and then nothing is done.
    /// - `GetStatusZipError` of libzip's code: the archive cannot be opened for writing (nothing is changed);
    ///   or a file cannot be added (the others are written); or a file's name cannot be taken or it cannot be
    ///   encrypted (it and the ones after it are left out: nothing is ever written in clear instead).
    /// - the status of errno: the folder cannot be read to its end; what was read of it is written.
    /// - Failure: `folder` cannot be opened, which is treated as a folder without files; or the archive
    ///   cannot be written (zip_close(3)), for example because a file cannot be read, and then an archive
    ///   that was there before is untouched.
    ///
    /// libzip opens the files by their paths when the archive is written: as root, zip no folder in which
    /// somebody less privileged can exchange a file for a link meanwhile.
    ///
    /// Without any entry libzip writes no archive and removes the one that was there before. Files without
    /// content are packed, but see `Unzip`. Blocks until all is written.
    static StatusCode Zip(const std::string& folder, const std::string& zipFile, const std::string& password);

    /// Extracts every entry of `zipFile`. May answer Ok for less than that: a file that was written in part
    /// (a full disk) or failed when it was closed, an entry shorter than it claims (zeros take the place of
    /// the rest), an entry that libzip cannot describe (left out), the end of a longer file that was there
    /// (stays). Where that matters, or somebody less privileged writes in `folder`, use `UnzipWhole`.
    ///
    /// The files come into `folder`, which is created when it is missing (its parent is not) and whose mode
    /// and owner are set again in any case (`FileSystem::CreateFolder`). An empty `password` opens entries
    /// without decryption; with a password, entries in clear are extracted as well.
    ///
    /// Stops at the first entry that fails; files written before stay.
    ///
    /// - Ok: everything is extracted; also an archive without entries.
    /// - Failure: a path is empty; an entry is damaged (shortened, wrong checksum or authentication code) or
    ///   cannot be closed; or `GetStatusZipError` says so.
    /// - the status of `FileSystem::CreateFolder`: `folder` cannot be created.
    /// - `GetStatusZipError` of libzip's code: the archive or an entry cannot be opened; `NotPermitted` when
    ///   a password is needed, `AccessDenied` when it is wrong (one wrong password in 65536 is noticed only
    ///   by the authentication code), `NotSupported` for an unknown compression or encryption.
    /// - NotFound: the number of entries is not known.
    /// - InvalidArgument: the name of an entry holds `RELATIVE_PATH_STRING`; or reading an entry failed and
    ///   libzip did not keep the error.
    /// - OutOfMemory: an entry claims to be larger than the memory that can be had.
    /// - the status of errno: a file cannot be opened for writing. Folders are not created: the entry "d/f"
    ///   needs an existing folder "d" in `folder` (`NotFound`), and an entry for a folder ("d/") always ends
    ///   here.
    /// - KeyNotFound: a file cannot be written. An entry without content counts as such, and its empty file
    ///   stays.
    ///
    /// The authentication code of an AES-encrypted entry is always compared; for that, one that is compressed
    /// as well is decrypted a second time. An encrypted entry whose code is right is taken even when its
    /// checksum is not: by the second of the two AES schemes, which other programs write, it has none.
    ///
    /// Each entry is held in memory whole and written by one write(2), so not more than 2147479552 bytes of
    /// one arrive. An existing file is overwritten from its start but not shortened; new ones get mode 0744
    /// less the umask. Names are appended to `folder` as they are: an absolute one stays below it. Links that
    /// are in `folder` already are followed, so let nobody else write there.
    ///
    /// Blocks until all is extracted. A hostile archive decides how long that is, because it may expand to a
    /// thousand times its size.
    static StatusCode Unzip(const std::string& zipFile, const std::string& folder,
                            const std::string& password);

    /// As Unzip, but answers Ok only when every entry is extracted whole and its file is on its medium
    /// (syncfs(2) of `folder`), and writes nowhere but in `folder`:
    ///
    /// - an existing file is emptied first;
    /// - an entry without content gives an empty file;
    /// - an entry shorter than it claims is InvalidArgument, and so is an entry that cannot be read;
    /// - an entry that libzip cannot describe gives `GetStatusZipError`;
    /// - what cannot be written whole, closed or stored gives the status of errno (IoError on a full disk);
    /// - links in `folder` are not followed: one in the place of a file is Failure (ELOOP), in the place of a
    ///   folder NotFound; another kind of entry in the place of a file is InvalidArgument or not waited for.
    ///
    /// Messages are those of Unzip.
    static StatusCode UnzipWhole(const std::string& zipFile, const std::string& folder,
                                 const std::string& password);

    /// Status of a ZIP_ER code of libzip (zip_errors(3)); codes below 2 and above 27 are Failure.
    static StatusCode GetStatusZipError(int zipErrorCode);
};

}  // namespace mwl::Utilities
