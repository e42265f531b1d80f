#include "rtsp/importslot.h"

#include <elf.h>
#include <link.h>
#include <sys/mman.h>
#include <unistd.h>

#include <cinttypes>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <new>

namespace importslot {
namespace {

// Dynamic-section addresses are relocated by the loader on this platform; a value below the
// load address is still an offset (the vDSO's are).
uintptr_t Address(uintptr_t base, ElfW(Addr) value) {
    return value < base ? base + value : value;
}

struct RelocationTable {
    const ElfW(Rela) * entries = nullptr;
    size_t count = 0;
    bool Holds(const ElfW(Rela) * entry) const {
        return entries && entry >= entries && entry < entries + count;
    }
};

// What the dynamic section of one object says about its names, symbols and relocations.
struct DynamicInfo {
    const char* names = nullptr;
    const ElfW(Sym) * symbols = nullptr;
    const char* soname = nullptr;
    RelocationTable general;  // DT_RELA
    RelocationTable plt;      // DT_JMPREL
};

DynamicInfo ReadDynamic(uintptr_t base, const ElfW(Dyn) * dynamic) {
    DynamicInfo info;
    uintptr_t rela = 0, jmprel = 0;
    size_t relaSize = 0, jmprelSize = 0, soname = 0;
    bool hasSoname = false, pltIsRela = true;
    for (const ElfW(Dyn)* d = dynamic; d && d->d_tag != DT_NULL; ++d) {
        switch (d->d_tag) {
            case DT_STRTAB:
                info.names = reinterpret_cast<const char*>(Address(base, d->d_un.d_ptr));
                break;
            case DT_SYMTAB:
                info.symbols = reinterpret_cast<const ElfW(Sym)*>(Address(base, d->d_un.d_ptr));
                break;
            case DT_SONAME:
                soname = d->d_un.d_val;
                hasSoname = true;
                break;
            case DT_RELA:
                rela = Address(base, d->d_un.d_ptr);
                break;
            case DT_RELASZ:
                relaSize = d->d_un.d_val;
                break;
            case DT_JMPREL:
                jmprel = Address(base, d->d_un.d_ptr);
                break;
            case DT_PLTRELSZ:
                jmprelSize = d->d_un.d_val;
                break;
            case DT_PLTREL:
                pltIsRela = d->d_un.d_val == DT_RELA;
                break;
            default:
                break;
        }
    }
    if (info.names && hasSoname)
        info.soname = info.names + soname;
    info.general = {reinterpret_cast<const ElfW(Rela)*>(rela), relaSize / sizeof(ElfW(Rela))};
    if (pltIsRela)
        info.plt = {reinterpret_cast<const ElfW(Rela)*>(jmprel), jmprelSize / sizeof(ElfW(Rela))};
    return info;
}

const ElfW(Dyn) * DynamicSection(const dl_phdr_info* info) {
    for (int i = 0; i < info->dlpi_phnum; ++i)
        if (info->dlpi_phdr[i].p_type == PT_DYNAMIC)
            return reinterpret_cast<const ElfW(Dyn)*>(info->dlpi_addr + info->dlpi_phdr[i].p_vaddr);
    return nullptr;
}

int VisitObject(dl_phdr_info* info, size_t, void* data) {
    auto* objects = static_cast<std::vector<Object>*>(data);
    try {
        Object object;
        object.path = info->dlpi_name ? info->dlpi_name : "";
        object.order = objects->size();
        object.base = info->dlpi_addr;
        const ElfW(Dyn)* dynamic = DynamicSection(info);
        object.dynamic = dynamic;
        if (dynamic)
            if (const char* soname = ReadDynamic(info->dlpi_addr, dynamic).soname)
                object.soname = soname;
        objects->push_back(std::move(object));
        return 0;
    } catch (const std::bad_alloc&) {
        objects->clear();
        return 1;
    }
}

// The protection of the mapping that holds `address`; -1 when it cannot be told.
int ProtectionOf(uintptr_t address) {
    FILE* maps = fopen("/proc/self/maps", "re");
    if (!maps)
        return -1;
    int protection = -1;
    char* line = nullptr;
    size_t capacity = 0;
    while (protection < 0 && getline(&line, &capacity, maps) > 0) {
        uintptr_t start = 0, end = 0;
        char perms[5] = {};
        if (sscanf(line, "%" SCNxPTR "-%" SCNxPTR " %4s", &start, &end, perms) != 3 ||
            address < start || address >= end)
            continue;
        protection = (perms[0] == 'r' ? PROT_READ : 0) | (perms[1] == 'w' ? PROT_WRITE : 0) |
                     (perms[2] == 'x' ? PROT_EXEC : 0);
    }
    free(line);
    fclose(maps);
    return protection;
}

}  // namespace

std::vector<Object> LoadedObjects() {
    std::vector<Object> objects;
    dl_iterate_phdr(VisitObject, &objects);
    return objects;
}

std::map<std::string, Import> Imports(const Object& object) {
    std::map<std::string, Import> imports;
    const DynamicInfo info =
        ReadDynamic(object.base, static_cast<const ElfW(Dyn)*>(object.dynamic));
    if (!info.names || !info.symbols)
        return imports;
    auto visit = [&](const RelocationTable& table, const RelocationTable* skip) {
        for (size_t i = 0; i < table.count; ++i) {
            const ElfW(Rela)& r = table.entries[i];
            // Linkers may let the general table run over the PLT's; each entry counts once.
            if (skip && skip->Holds(&r))
                continue;
            const ElfW(Sym)& symbol = info.symbols[ELF64_R_SYM(r.r_info)];
            if (ELF64_R_SYM(r.r_info) == 0 || symbol.st_shndx != SHN_UNDEF)
                continue;
            Import& import = imports[info.names + symbol.st_name];
            if (ELF64_R_TYPE(r.r_info) == R_X86_64_JUMP_SLOT)
                import.slots.push_back(reinterpret_cast<void**>(object.base + r.r_offset));
            else
                import.otherReferences = true;
        }
    };
    visit(info.plt, nullptr);
    visit(info.general, &info.plt);
    return imports;
}

bool Redirect(void** slot, void* replacement) {
    const uintptr_t pageSize = static_cast<uintptr_t>(sysconf(_SC_PAGESIZE));
    const uintptr_t page = reinterpret_cast<uintptr_t>(slot) & ~(pageSize - 1);
    const int protection = ProtectionOf(page);
    if (protection < 0)
        return false;
    // The lazily bound part of the GOT is writable already; a page under RELRO is opened for
    // this one store and closed again, so the host keeps the protection it relies on.
    const bool opened = !(protection & PROT_WRITE);
    void* start = reinterpret_cast<void*>(page);
    if (opened && mprotect(start, pageSize, protection | PROT_WRITE) != 0)
        return false;
    void* previous = __atomic_exchange_n(slot, replacement, __ATOMIC_ACQ_REL);
    if (opened && mprotect(start, pageSize, protection) != 0) {
        __atomic_store_n(slot, previous, __ATOMIC_RELEASE);
        return false;
    }
    return true;
}

}  // namespace importslot
