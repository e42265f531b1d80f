// Redirection of one shared library's calls to an imported function: the library's PLT slot
// for the symbol is pointed at a replacement. Nothing else in the process is affected; other
// libraries keep calling the original. Used to put a user-space read buffer under live555's
// socket calls (socketbatch.h).
#pragma once

#include <vector>

namespace importslot {

// The PLT slots (x86-64 jump slots) through which the loaded libraries whose file name
// contains `library` call `symbol`. Empty when none is loaded or none imports it.
std::vector<void**> Find(const char* library, const char* symbol);
// Points a slot at `replacement`; false when its page cannot be made writable.
bool Redirect(void** slot, void* replacement);

}  // namespace importslot
