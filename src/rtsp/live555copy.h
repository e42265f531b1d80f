// The live555 this library runs on: whether the loaded libraries are the library's own private
// copy, the very libraries the build took and recorded, and not a live555 the host process
// loaded for itself.
#pragma once

#include <string>
#include <vector>

#include "rtsp/importslot.h"

namespace live555copy {

struct Library {
    std::string soname;
    std::vector<std::string> recorded;  // the imports the build recorded for it, sorted
    importslot::Object object;          // the loaded object
};

// The loaded live555 libraries when they are the private copy: each found by the soname the
// build recorded, loaded once, from the directory shipped beside libcamfetch (or the build's
// own copy), and after libcamfetch. Otherwise false with the reason in `why`.
bool FindPrivateCopy(std::vector<Library>& libraries, std::string& why);

}  // namespace live555copy
