// What the soak watches in its own process: open descriptors, threads and resident memory,
// read from /proc, and the slope of a series of memory samples.
#pragma once

#include <dirent.h>
#include <unistd.h>

#include <cstdio>
#include <cstring>
#include <vector>

namespace soak {

inline int OpenDescriptors() {
    int n = 0;
    if (DIR* d = opendir("/proc/self/fd")) {
        while (dirent* e = readdir(d))
            if (e->d_name[0] != '.')
                ++n;
        closedir(d);
    }
    return n - 1;  // the directory's own descriptor
}

inline int Threads() {
    int threads = 0;
    if (FILE* f = fopen("/proc/self/status", "r")) {
        char line[256];
        while (fgets(line, sizeof(line), f))
            if (strncmp(line, "Threads:", 8) == 0)
                threads = atoi(line + 8);
        fclose(f);
    }
    return threads;
}

inline long ResidentKiB() {
    long pages = 0, resident = 0;
    if (FILE* f = fopen("/proc/self/statm", "r")) {
        if (fscanf(f, "%ld %ld", &pages, &resident) != 2)
            resident = 0;
        fclose(f);
    }
    return resident * (sysconf(_SC_PAGESIZE) / 1024);
}

// Least-squares slope of samples taken one per `intervalSec`, in KiB per minute.
inline double SlopeKiBPerMinute(const std::vector<long>& samples, double intervalSec) {
    const size_t n = samples.size();
    if (n < 2)
        return 0;
    double sx = 0, sy = 0, sxx = 0, sxy = 0;
    for (size_t i = 0; i < n; ++i) {
        double x = i * intervalSec / 60.0, y = static_cast<double>(samples[i]);
        sx += x;
        sy += y;
        sxx += x * x;
        sxy += x * y;
    }
    double den = n * sxx - sx * sx;
    return den == 0 ? 0 : (n * sxy - sx * sy) / den;
}

}  // namespace soak
