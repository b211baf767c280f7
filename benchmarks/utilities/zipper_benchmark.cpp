// Packing and unpacking a folder of 16 files of 64 KiB, in clear and with AES-128: Zipper beside plain libzip
// calls. Target: at most 1.02 of the plain ones. Unpacking with AES has two of those: libzip itself does not
// compare the authentication code of a compressed entry, and Zipper does, by decrypting it once more.

#include <benchmark/benchmark.h>
#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <tern/utilities/zipper.h>
#include <unistd.h>
#include <zip.h>

#include <cstdint>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

namespace {

using mwl::StatusCode;
using mwl::Utilities::Zipper;

constexpr int FILES = 16;
constexpr std::size_t FILE_SIZE = 64 * 1024;

void Require(bool condition) {
    if (!condition) {
        std::abort();
    }
}

class Folders {
public:
    Folders() {
        // In memory where there is such a folder: the disk is no part of this.
        std::string name =
            std::filesystem::exists("/dev/shm") ? "/dev/shm/zipper-XXXXXX" : "/tmp/zipper-XXXXXX";
        Require(mkdtemp(name.data()) != nullptr);
        mRoot = name;
        std::filesystem::create_directories(Source());
        std::filesystem::create_directories(Target());
        std::uint32_t number = 1;
        for (int i = 0; i < FILES; ++i) {
            std::string text;
            while (text.size() < FILE_SIZE) {
                number = number * 1664525 + 1013904223;
                text += "key" + std::to_string(number >> 20) + "=" + std::to_string(number >> 12) + "\n";
            }
            std::ofstream(Source() + "/" + std::to_string(i)) << text;
        }
    }
    ~Folders() { std::filesystem::remove_all(mRoot); }
    Folders(const Folders&) = delete;
    Folders& operator=(const Folders&) = delete;

    std::string Source() const { return mRoot + "/source"; }
    std::string Target() const { return mRoot + "/target"; }
    std::string Archive() const { return mRoot + "/a.zip"; }

private:
    std::string mRoot;
};

void PlainZip(const std::string& folder, const std::string& file, const std::string& password) {
    int error = 0;
    zip_t* const archive = zip_open(file.c_str(), ZIP_CREATE | ZIP_TRUNCATE, &error);
    Require(archive != nullptr);
    DIR* const directory = opendir(folder.c_str());
    Require(directory != nullptr);
    while (const dirent* entry = readdir(directory)) {
        if (entry->d_type != DT_REG) {
            continue;
        }
        zip_source_t* const source = zip_source_file(archive, (folder + "/" + entry->d_name).c_str(), 0, 0);
        const zip_int64_t index = zip_file_add(archive, entry->d_name, source, ZIP_FL_ENC_UTF_8);
        Require(index >= 0);
        if (!password.empty()) {
            Require(zip_file_set_encryption(archive, static_cast<zip_uint64_t>(index), ZIP_EM_AES_128,
                                            password.c_str()) == 0);
        }
    }
    closedir(directory);
    Require(zip_close(archive) == 0);
}

zip_file_t* Open(zip_t* archive, zip_uint64_t index, zip_flags_t flags, const std::string& password) {
    zip_file_t* const entry = password.empty()
                                  ? zip_fopen_index(archive, index, flags)
                                  : zip_fopen_index_encrypted(archive, index, flags, password.c_str());
    Require(entry != nullptr);
    return entry;
}

void ReadToEnd(zip_file_t* entry) {
    std::vector<char> chunk(16384);
    while (zip_fread(entry, chunk.data(), chunk.size()) > 0) {
    }
}

void PlainUnzip(const std::string& file, const std::string& folder, const std::string& password,
                bool authenticate) {
    int error = 0;
    zip_t* const archive = zip_open(file.c_str(), 0, &error);
    Require(archive != nullptr);
    const auto count = static_cast<zip_uint64_t>(zip_get_num_entries(archive, 0));
    for (zip_uint64_t index = 0; index < count; ++index) {
        zip_stat_t stat;
        Require(zip_stat_index(archive, index, 0, &stat) == 0);
        std::vector<char> buffer(stat.size);
        zip_file_t* const entry = Open(archive, index, 0, password);
        Require(zip_fread(entry, buffer.data(), stat.size) == static_cast<zip_int64_t>(stat.size));
        ReadToEnd(entry);
        Require(zip_fclose(entry) == 0);
        if (authenticate) {
            zip_file_t* const again = Open(archive, index, ZIP_FL_COMPRESSED, password);
            ReadToEnd(again);
            Require(zip_fclose(again) == 0);
        }
        const int fd = open((folder + "/" + stat.name).c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0744);
        Require(write(fd, buffer.data(), stat.size) == static_cast<ssize_t>(stat.size));
        close(fd);
    }
    Require(zip_close(archive) == 0);
}

const char* PasswordOf(const benchmark::State& state) {
    return state.range(0) != 0 ? "password" : "";
}

void SetBytes(benchmark::State& state) {
    state.SetBytesProcessed(state.iterations() * FILES * static_cast<std::int64_t>(FILE_SIZE));
}

void ZipPlain(benchmark::State& state) {
    const Folders folders;
    for ([[maybe_unused]] auto _ : state) {
        PlainZip(folders.Source(), folders.Archive(), PasswordOf(state));
    }
    SetBytes(state);
}

void ZipZipper(benchmark::State& state) {
    const Folders folders;
    for ([[maybe_unused]] auto _ : state) {
        Require(Zipper::Zip(folders.Source(), folders.Archive(), PasswordOf(state)) == StatusCode::Ok);
    }
    SetBytes(state);
}

void UnzipPlain(benchmark::State& state) {
    const Folders folders;
    PlainZip(folders.Source(), folders.Archive(), PasswordOf(state));
    for ([[maybe_unused]] auto _ : state) {
        PlainUnzip(folders.Archive(), folders.Target(), PasswordOf(state), false);
    }
    SetBytes(state);
}

void UnzipPlainAuthenticated(benchmark::State& state) {
    const Folders folders;
    PlainZip(folders.Source(), folders.Archive(), PasswordOf(state));
    for ([[maybe_unused]] auto _ : state) {
        PlainUnzip(folders.Archive(), folders.Target(), PasswordOf(state), true);
    }
    SetBytes(state);
}

void UnzipZipper(benchmark::State& state) {
    const Folders folders;
    PlainZip(folders.Source(), folders.Archive(), PasswordOf(state));
    for ([[maybe_unused]] auto _ : state) {
        Require(Zipper::Unzip(folders.Archive(), folders.Target(), PasswordOf(state)) == StatusCode::Ok);
    }
    SetBytes(state);
}

}  // namespace

BENCHMARK(ZipPlain)->ArgName("aes")->Arg(0)->Arg(1)->Unit(benchmark::kMillisecond);
BENCHMARK(ZipZipper)->ArgName("aes")->Arg(0)->Arg(1)->Unit(benchmark::kMillisecond);
BENCHMARK(UnzipPlain)->ArgName("aes")->Arg(0)->Arg(1)->Unit(benchmark::kMillisecond);
BENCHMARK(UnzipPlainAuthenticated)->ArgName("aes")->Arg(1)->Unit(benchmark::kMillisecond);
BENCHMARK(UnzipZipper)->ArgName("aes")->Arg(0)->Arg(1)->Unit(benchmark::kMillisecond);

int main(int argc, char** argv) {
    setenv("TERN_LOG_LEVEL", "3", 1);
    benchmark::Initialize(&argc, argv);
    benchmark::RunSpecifiedBenchmarks();
    return 0;
}
