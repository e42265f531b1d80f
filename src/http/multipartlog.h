// Logging of the multipart fetcher. Its messages all name the source "multipartfetch",
// whichever of its files they come from: hosts filter and search their logs on that name.
#pragma once

#include "core/log.h"

#undef CF_LOG_FILE
#define CF_LOG_FILE "multipartfetch"

#define MF_LOG(level, ...) CF_LOG(LOG_CATEG_MULTIPART, level, __VA_ARGS__)
