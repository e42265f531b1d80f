// Thread creation of the default host.
#pragma once

namespace camfetch_host {

// Makes the next `count` CreateThread calls fail, as a system out of threads would. For
// tests of the callers' failure paths.
void ThreadFailNextCreates(int count);

}  // namespace camfetch_host
