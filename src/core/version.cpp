#include "core/version.h"

const char* CamfetchVersion() {
    return CAMFETCH_VERSION;
}
