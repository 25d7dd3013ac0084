// The memory of the started library: the growth of the resident set over the start, in a process that has loaded
// the library and done nothing else.

#include <unistd.h>

#include <cstdio>
#include <fstream>

#include "zol/zol.h"

namespace
{

long resident_kib()
{
    long total = 0;
    long resident = 0;
    std::ifstream("/proc/self/statm") >> total >> resident;
    return resident * (sysconf(_SC_PAGESIZE) / 1024);
}

} // namespace

int main()
{
    FILE *const out = fdopen(dup(STDOUT_FILENO), "w");
    if (out == nullptr || std::freopen("/dev/null", "w", stdout) == nullptr) {
        return 1;
    }
    resident_kib(); // what the measurement itself needs is there before it counts
    const long before = resident_kib();
    if (zol_init("Conf/kiv_test.xml") != KIV_OK) {
        std::fputs("zol_footprint: the library does not start\n", stderr);
        return 1;
    }
    const long after = resident_kib();
    zol_deinit();
    std::fprintf(out, "%-58s %12ld KiB\n", "resident memory, library loaded", before);
    std::fprintf(out, "%-58s %12ld KiB\n", "resident memory, library started: more", after - before);
    return std::fclose(out);
}
