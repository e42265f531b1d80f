#include "rtsp/importslot.h"

#include <elf.h>
#include <link.h>
#include <sys/mman.h>
#include <unistd.h>

#include <cstdint>
#include <cstring>

namespace importslot {
namespace {

struct Search {
    const char* library;
    const char* symbol;
    std::vector<void**> slots;
};

// Dynamic-section addresses are relocated by the loader on this platform; a value below the
// load address is still a file offset.
uintptr_t Address(const dl_phdr_info* info, ElfW(Addr) value) {
    return value < info->dlpi_addr ? info->dlpi_addr + value : value;
}

int VisitObject(dl_phdr_info* info, size_t, void* data) {
    auto* search = static_cast<Search*>(data);
    if (!info->dlpi_name || !strstr(info->dlpi_name, search->library))
        return 0;
    const ElfW(Dyn)* dynamic = nullptr;
    for (int i = 0; i < info->dlpi_phnum; ++i)
        if (info->dlpi_phdr[i].p_type == PT_DYNAMIC)
            dynamic =
                reinterpret_cast<const ElfW(Dyn)*>(info->dlpi_addr + info->dlpi_phdr[i].p_vaddr);
    if (!dynamic)
        return 0;
    uintptr_t jmprel = 0, strtab = 0, symtab = 0;
    size_t pltrelsz = 0;
    for (const ElfW(Dyn)* d = dynamic; d->d_tag != DT_NULL; ++d) {
        switch (d->d_tag) {
            case DT_JMPREL:
                jmprel = Address(info, d->d_un.d_ptr);
                break;
            case DT_PLTRELSZ:
                pltrelsz = d->d_un.d_val;
                break;
            case DT_STRTAB:
                strtab = Address(info, d->d_un.d_ptr);
                break;
            case DT_SYMTAB:
                symtab = Address(info, d->d_un.d_ptr);
                break;
            default:
                break;
        }
    }
    if (!jmprel || !strtab || !symtab)
        return 0;
    const auto* relocations = reinterpret_cast<const ElfW(Rela)*>(jmprel);
    const auto* symbols = reinterpret_cast<const ElfW(Sym)*>(symtab);
    const char* names = reinterpret_cast<const char*>(strtab);
    for (size_t i = 0; i < pltrelsz / sizeof(ElfW(Rela)); ++i) {
        const ElfW(Rela)& r = relocations[i];
        if (ELF64_R_TYPE(r.r_info) != R_X86_64_JUMP_SLOT)
            continue;
        if (strcmp(names + symbols[ELF64_R_SYM(r.r_info)].st_name, search->symbol) == 0)
            search->slots.push_back(reinterpret_cast<void**>(info->dlpi_addr + r.r_offset));
    }
    return 0;
}

}  // namespace

std::vector<void**> Find(const char* library, const char* symbol) {
    Search search{library, symbol, {}};
    dl_iterate_phdr(VisitObject, &search);
    return search.slots;
}

bool Redirect(void** slot, void* replacement) {
    const uintptr_t page = static_cast<uintptr_t>(sysconf(_SC_PAGESIZE));
    void* start = reinterpret_cast<void*>(reinterpret_cast<uintptr_t>(slot) & ~(page - 1));
    // The lazily bound part of the GOT is writable already; anything else is made so.
    if (mprotect(start, page, PROT_READ | PROT_WRITE) != 0)
        return false;
    __atomic_store_n(slot, replacement, __ATOMIC_RELEASE);
    return true;
}

}  // namespace importslot
