// Which library this is and which live555 it runs on, for a host's "about" text.
#pragma once

#include <string>

// The library's version, "0.1.0".
const char* CamfetchVersion();
// The CAMFETCH_HOSTAPI_VERSION (core/hostapi.h) the library was built with: a host built
// against another declares the log configuration and DelayTimer differently.
int CamfetchHostApiVersion();
// The live555 the library runs on and the one the build took, on one line:
// "2026.10.24 (built with 2026.10.24 from Debian unstable 2026.10.24-2; loaded from DIR)".
std::string CamfetchLive555Version();
