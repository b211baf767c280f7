// The shared libraries as such, beside sdbus-c++'s: size when stripped, relocations, and what loading costs a
// program that links one and ends immediately. The programs are run in turn.
//   library_comparison [RESULT.json]

#include <elf.h>
#include <link.h>
#include <spawn.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <time.h>

#include <algorithm>
#include <bit>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <iterator>
#include <map>
#include <sstream>
#include <string>
#include <utility>
#include <vector>

#include "benchmarks/support/comparison.h"

extern char** environ;

namespace {

using namespace tern::benchmarks;

constexpr int ROUNDS = 300;
/// Runs of one side that are one round together.
constexpr int RUNS = 2;

void Require(bool condition, const std::string& what) {
    if (!condition) {
        perror(what.c_str());
        std::exit(1);
    }
}

/// A list "side=path,side=path," that the build gives.
std::vector<std::pair<std::string, std::string>> Pairs(const char* list) {
    std::vector<std::pair<std::string, std::string>> pairs;
    std::istringstream stream(list);
    std::string entry;
    while (std::getline(stream, entry, ',')) {
        const std::size_t equals = entry.find('=');
        pairs.emplace_back(entry.substr(0, equals), entry.substr(equals + 1));
    }
    return pairs;
}

struct Library {
    double strippedSize = 0;
    double relocations = 0;
};

/// Relocations in a table of the packed form: an even word is the address of one, an odd word has a bit for
/// each of the words that follow the last one.
double CountPacked(const char* table, std::size_t size) {
    double count = 0;
    for (std::size_t at = 0; at < size; at += sizeof(ElfW(Relr))) {
        ElfW(Relr) word;
        memcpy(&word, table + at, sizeof word);
        count += (word & 1) == 0 ? 1 : std::popcount(word) - 1;
    }
    return count;
}

/// The end of the sections that a program needs at run time, as strip(1) leaves it except for the section
/// headers, and the entries of the relocation tables.
Library Inspect(const std::string& path) {
    std::ifstream file(path, std::ios::binary);
    const std::string bytes{std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>()};
    ElfW(Ehdr) header;
    Require(bytes.size() > sizeof header, path);
    memcpy(&header, bytes.data(), sizeof header);
    Library library;
    for (unsigned int i = 0; i < header.e_shnum; ++i) {
        ElfW(Shdr) section;
        memcpy(&section, bytes.data() + header.e_shoff + i * sizeof section, sizeof section);
        if ((section.sh_flags & SHF_ALLOC) == 0) {
            continue;
        }
        const std::size_t size = section.sh_type == SHT_NOBITS ? 0 : section.sh_size;
        library.strippedSize = std::max(library.strippedSize, static_cast<double>(section.sh_offset + size));
        if (section.sh_type == SHT_RELA || section.sh_type == SHT_REL) {
            library.relocations += static_cast<double>(section.sh_size / section.sh_entsize);
        } else if (section.sh_type == SHT_RELR) {
            library.relocations += CountPacked(bytes.data() + section.sh_offset, section.sh_size);
        }
    }
    return library;
}

struct Run {
    double wall = 0;       ///< seconds from before the start to the end
    double processor = 0;  ///< seconds
};

double Seconds(const timeval& time) {
    return static_cast<double>(time.tv_sec) + static_cast<double>(time.tv_usec) * 1e-6;
}

Run RunOnce(const std::string& program) {
    char* argv[] = {const_cast<char*>(program.c_str()), nullptr};
    timespec before{};
    clock_gettime(CLOCK_MONOTONIC, &before);
    pid_t pid = -1;
    Require(posix_spawn(&pid, program.c_str(), nullptr, nullptr, argv, environ) == 0, program);
    int status = 0;
    rusage usage{};
    Require(wait4(pid, &status, 0, &usage) == pid && status == 0, program);
    timespec after{};
    clock_gettime(CLOCK_MONOTONIC, &after);
    return {static_cast<double>(after.tv_sec - before.tv_sec) +
                static_cast<double>(after.tv_nsec - before.tv_nsec) * 1e-9,
            Seconds(usage.ru_utime) + Seconds(usage.ru_stime)};
}

void MeasureFiles(Comparison& comparison) {
    std::map<std::string, Library> sums;
    std::vector<Comparison::Row> rows;
    for (const auto& [place, path] : Pairs(TERN_LIBRARIES)) {
        const Library library = Inspect(path);
        const std::string side = place.substr(0, place.find('@'));
        const std::string name = place.substr(place.find('@') + 1);
        sums[side].strippedSize += library.strippedSize;
        sums[side].relocations += library.relocations;
        rows.push_back(comparison.MakeRow("size of " + name, "bytes"));
        rows.back().Add(side, library.strippedSize);
        rows.push_back(comparison.MakeRow("relocations of " + name, ""));
        rows.back().Add(side, library.relocations);
    }
    auto size = comparison.MakeRow("size of all of them, stripped", "bytes", "sdbus-c++", 1.0);
    auto relocations = comparison.MakeRow("relocations of all of them", "", "sdbus-c++", 1.0);
    for (const auto& [side, sum] : sums) {
        size.Add(side, sum.strippedSize);
        relocations.Add(side, sum.relocations);
    }
    comparison.Finish(size);
    comparison.Finish(relocations);
    for (const Comparison::Row& row : rows) {
        comparison.Finish(row);
    }
}

void MeasureLoading(Comparison& comparison) {
    auto wall = comparison.MakeRow("load and end", "ms", "sdbus-c++", 1.0);
    auto processor = comparison.MakeRow("load and end, processor time", "ms", "sdbus-c++", 1.0);
    for (int round = -1; round < Rounds(ROUNDS); ++round) {
        for (const auto& [side, program] : Pairs(TERN_PROGRAMS)) {
            Run sum;
            for (int i = 0; i < RUNS; ++i) {
                const Run run = RunOnce(program);
                sum.wall += run.wall * 1e3 / RUNS;
                sum.processor += run.processor * 1e3 / RUNS;
            }
            if (round >= 0) {  // before it everything is read from disk
                wall.Add(side, sum.wall);
                processor.Add(side, sum.processor);
            }
        }
    }
    comparison.Finish(wall);
    comparison.Finish(processor);
}

}  // namespace

int main(int argc, char* argv[]) {
    Comparison comparison("library", "The shared libraries, and loading them");
    comparison.SetNote(
        "sdbus-c++ is a bus library; ours holds timers, threads, files, archives, commands and settings as "
        "well, and two platform libraries of their own.");
    UseInstalledLibraries();
    MeasureFiles(comparison);
    MeasureLoading(comparison);
    if (argc > 1) {
        comparison.Write(argv[1]);
    }
}
