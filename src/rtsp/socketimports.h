// The imports through which a library can read, wait on, close or hand over a socket, and
// what the socket batch layer does about each one live555 imports: points it at the buffered
// reader, lets it be (with the reason it is safe), or refuses to sit under live555 at all.
// An import this table does not know is judged by the build's record of live555's imports.
#pragma once

#include <map>
#include <string>
#include <vector>

#include "rtsp/importslot.h"

namespace socketimports {

// One slot to point at a replacement.
struct Rewrite {
    void** slot;
    void* replacement;
};

// Decides from the imports of one live555 library whether batching can sit under it.
// `recorded` lists the imports the build recorded for it, sorted. Appends the slots to rewrite
// and returns true, or returns false with the reason in `why`.
bool Plan(const std::string& soname, const std::map<std::string, importslot::Import>& imports,
          const std::vector<std::string>& recorded, std::vector<Rewrite>& rewrites,
          std::string& why);

}  // namespace socketimports
