#include "rtsp/live555copy.h"

#include <liveMedia_version.hh>

#include <dlfcn.h>
#include <link.h>

#include <algorithm>
#include <cstdlib>
#include <memory>

#include "core/version.h"
#include "live555build.h"

namespace live555copy {
namespace {

// The canonical form of a path; empty when it does not resolve.
std::string RealPath(const std::string& path) {
    std::unique_ptr<char, decltype(&free)> real(realpath(path.c_str(), nullptr), &free);
    return real ? std::string(real.get()) : std::string();
}

std::string Directory(const std::string& path) {
    const size_t slash = path.rfind('/');
    return slash == std::string::npos ? std::string(".") : path.substr(0, slash);
}

// libcamfetch's own entry in the loader's list, found through a function of its own.
const importslot::Object* Self(const std::vector<importslot::Object>& objects) {
    Dl_info info{};
    link_map* map = nullptr;
    if (!dladdr1(reinterpret_cast<void*>(&FindPrivateCopy), &info, reinterpret_cast<void**>(&map),
                 RTLD_DL_LINKMAP) ||
        !map)
        return nullptr;
    for (const importslot::Object& object : objects)
        if (object.base == map->l_addr && object.path == map->l_name)
            return &object;
    return nullptr;
}

const importslot::Object* Loaded(const std::vector<importslot::Object>& objects,
                                 const std::string& soname, int& copies) {
    const importslot::Object* found = nullptr;
    copies = 0;
    for (const importslot::Object& object : objects)
        if (object.soname == soname) {
            found = &object;
            ++copies;
        }
    return found;
}

}  // namespace

bool FindPrivateCopy(std::vector<Library>& libraries, std::string& why) {
    libraries.clear();
    if (!*live555build::kBuildDirectory) {
        why = "camfetch was built against the system's shared live555, not a copy of its own";
        return false;
    }
    const std::vector<importslot::Object> objects = importslot::LoadedObjects();
    const importslot::Object* self = Self(objects);
    if (!self) {
        why = "libcamfetch is not in the loader's list";
        return false;
    }
    // Installed, the copy sits in a directory of its own beside libcamfetch; in the build tree
    // it is the one the build took.
    const std::string shipped =
        RealPath(Directory(self->path) + "/" + live555build::kInstallSubdirectory);
    const std::string built = RealPath(live555build::kBuildDirectory);
    for (const live555build::Library& recorded : live555build::kLibraries) {
        int copies = 0;
        const importslot::Object* object = Loaded(objects, recorded.soname, copies);
        if (!object) {
            why = std::string(recorded.soname) + " is not loaded";
            return false;
        }
        if (copies > 1) {
            why = std::string(recorded.soname) + " is loaded more than once";
            return false;
        }
        const std::string directory = RealPath(Directory(object->path));
        if (directory.empty() || (directory != shipped && directory != built)) {
            why = std::string(recorded.soname) + " is loaded from " + Directory(object->path) +
                  ", not from camfetch's own copy";
            return false;
        }
        if (object->order < self->order) {
            why = std::string(recorded.soname) + " was loaded before libcamfetch, by the host";
            return false;
        }
        Library library{
            recorded.soname, {recorded.imports, recorded.imports + recorded.importCount}, *object};
        std::sort(library.recorded.begin(), library.recorded.end());
        libraries.push_back(std::move(library));
    }
    return true;
}

}  // namespace live555copy

std::string CamfetchLive555Version() {
    try {
        std::string text = liveMediaLibraryVersionStr;
        text += std::string(" (built with ") + live555build::kVersion + " from " +
                live555build::kOrigin;
        int copies = 0;
        const std::vector<importslot::Object> objects = importslot::LoadedObjects();
        if (const importslot::Object* liveMedia =
                live555copy::Loaded(objects, live555build::kLibraries[0].soname, copies))
            text += "; loaded from " + live555copy::Directory(liveMedia->path);
        return text + ")";
    } catch (...) {
        return std::string();
    }
}
