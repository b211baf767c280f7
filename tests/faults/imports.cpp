#include "imports.h"

#include <dlfcn.h>
#include <elf.h>
#include <link.h>
#include <sys/mman.h>
#include <unistd.h>

#include <cstdint>
#include <stdexcept>

namespace tern::test {

namespace {

#if __SIZEOF_POINTER__ == 8
unsigned long SymbolOf(ElfW(Xword) info) {
    return ELF64_R_SYM(info);
}
#else
unsigned long SymbolOf(ElfW(Word) info) {
    return ELF32_R_SYM(info);
}
#endif

/// The tables of one library that tell what it imports.
struct Tables {
    const ElfW(Sym) * symbols = nullptr;
    const char* names = nullptr;
    ElfW(Addr) calls = 0;  ///< relocations of its procedure linkage table
    std::size_t callsSize = 0;
    bool callsWithAddend = true;
    const ElfW(Rela) * withAddend = nullptr;
    std::size_t withAddendSize = 0;
    const ElfW(Rel) * withoutAddend = nullptr;
    std::size_t withoutAddendSize = 0;
};

Tables ReadTables(const dl_phdr_info& library) {
    Tables tables;
    for (int i = 0; i < library.dlpi_phnum; ++i) {
        const ElfW(Phdr)& header = library.dlpi_phdr[i];
        if (header.p_type != PT_DYNAMIC) {
            continue;
        }
        const auto* entry = reinterpret_cast<const ElfW(Dyn)*>(library.dlpi_addr + header.p_vaddr);
        for (; entry->d_tag != DT_NULL; ++entry) {
            const ElfW(Addr) address = entry->d_un.d_ptr;
            switch (entry->d_tag) {
                case DT_SYMTAB:
                    tables.symbols = reinterpret_cast<const ElfW(Sym)*>(address);
                    break;
                case DT_STRTAB:
                    tables.names = reinterpret_cast<const char*>(address);
                    break;
                case DT_JMPREL:
                    tables.calls = address;
                    break;
                case DT_PLTRELSZ:
                    tables.callsSize = entry->d_un.d_val;
                    break;
                case DT_PLTREL:
                    tables.callsWithAddend = entry->d_un.d_val == DT_RELA;
                    break;
                case DT_RELA:
                    tables.withAddend = reinterpret_cast<const ElfW(Rela)*>(address);
                    break;
                case DT_RELASZ:
                    tables.withAddendSize = entry->d_un.d_val;
                    break;
                case DT_REL:
                    tables.withoutAddend = reinterpret_cast<const ElfW(Rel)*>(address);
                    break;
                case DT_RELSZ:
                    tables.withoutAddendSize = entry->d_un.d_val;
                    break;
                default:
                    break;
            }
        }
    }
    return tables;
}

void MakeWritable(void* address) {
    const auto page = static_cast<std::uintptr_t>(sysconf(_SC_PAGESIZE));
    const auto begin = reinterpret_cast<std::uintptr_t>(address) / page * page;
    // The linker protects the table once it is filled.
    if (mprotect(reinterpret_cast<void*>(begin), page, PROT_READ | PROT_WRITE) != 0) {
        throw std::runtime_error("the import table cannot be made writable");
    }
}

/// `isCall`: the place is one for calls, and may still lead to the linker, which looks the function up at the
/// first call. Any other place holds an address, of a function when that is what the name stands for.
template <typename Relocation>
void Visit(const Relocation* table, std::size_t size, bool isCall, const Tables& tables, ElfW(Addr) base,
           const std::function<void(const Import&)>& take) {
    for (const Relocation* entry = table; entry != nullptr && entry < table + size / sizeof *table; ++entry) {
        const ElfW(Sym)& symbol = tables.symbols[SymbolOf(entry->r_info)];
        if (SymbolOf(entry->r_info) == 0 || symbol.st_shndx != SHN_UNDEF) {
            continue;
        }
        const char* const name = tables.names + symbol.st_name;
        auto** const slot = reinterpret_cast<void**>(base + entry->r_offset);
        if (isCall || (*slot != nullptr && *slot == dlsym(RTLD_DEFAULT, name))) {
            MakeWritable(slot);
            take({name, slot});
        }
    }
}

struct Search {
    const std::string& library;
    dl_phdr_info found{};
};

int Look(dl_phdr_info* info, std::size_t /*size*/, void* data) {
    auto& search = *static_cast<Search*>(data);
    const std::string path = info->dlpi_name;
    if (path.compare(path.rfind('/') + 1, search.library.size(), search.library) != 0) {
        return 0;
    }
    search.found = *info;
    return 1;
}

dl_phdr_info Find(const std::string& library) {
    Search search{library};
    if (dl_iterate_phdr(Look, &search) != 1) {
        throw std::runtime_error("not loaded: " + library);
    }
    return search.found;
}

}  // namespace

void ForEachImport(const std::string& library, const std::function<void(const Import&)>& take) {
    const dl_phdr_info found = Find(library);
    const Tables tables = ReadTables(found);
    const ElfW(Addr) base = found.dlpi_addr;
    if (tables.callsWithAddend) {
        Visit(reinterpret_cast<const ElfW(Rela)*>(tables.calls), tables.callsSize, true, tables, base, take);
    } else {
        Visit(reinterpret_cast<const ElfW(Rel)*>(tables.calls), tables.callsSize, true, tables, base, take);
    }
    Visit(tables.withAddend, tables.withAddendSize, false, tables, base, take);
    Visit(tables.withoutAddend, tables.withoutAddendSize, false, tables, base, take);
}

AddressRange RangeOf(const std::string& library) {
    const dl_phdr_info found = Find(library);
    AddressRange range;
    range.begin = found.dlpi_addr;
    for (int i = 0; i < found.dlpi_phnum; ++i) {
        const ElfW(Phdr)& header = found.dlpi_phdr[i];
        if (header.p_type == PT_LOAD) {
            range.end = found.dlpi_addr + header.p_vaddr + header.p_memsz;
        }
    }
    return range;
}

}  // namespace tern::test
