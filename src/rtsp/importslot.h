// The dynamic imports of the shared objects loaded in this process: which objects are loaded
// and in what order, which undefined symbols one of them binds and through which PLT slots it
// calls them, and pointing such a slot at another function. Used to put a user-space read
// buffer under live555's socket calls (socketbatch.h); nothing here knows about live555.
#pragma once

#include <cstddef>
#include <cstdint>
#include <map>
#include <string>
#include <vector>

namespace importslot {

// One loaded object, as the dynamic loader lists it.
struct Object {
    std::string path;    // as the loader reports it; empty for the main program
    std::string soname;  // DT_SONAME; empty when it has none
    size_t order = 0;    // position in the loader's list: lower was loaded earlier
    uintptr_t base = 0;
    const void* dynamic = nullptr;  // its dynamic section
};

// One imported symbol of an object: the PLT slots (x86-64 jump slots) through which it calls
// the symbol, and whether anything else binds the symbol too (an address taken into the GOT
// or into data), which a slot rewrite cannot reach.
struct Import {
    std::vector<void**> slots;
    bool otherReferences = false;
};

std::vector<Object> LoadedObjects();
// Every undefined symbol the object's relocations bind, by name.
std::map<std::string, Import> Imports(const Object& object);
// Points a slot at `replacement`, then puts its page's protection back as it was (read from
// /proc/self/maps). False, with the slot unchanged, when the protection cannot be read,
// changed or put back.
bool Redirect(void** slot, void* replacement);

}  // namespace importslot
