#include "util/SystemMemory.h"

#ifdef _WIN32
#include <windows.h>
#else
#include <unistd.h>
#endif

#include <fstream>
#include <sstream>
#include <string>

namespace qvhost {

uint64_t AvailableMemoryBytes() {
#ifdef _WIN32
    MEMORYSTATUSEX status{};
    status.dwLength = sizeof status;
    return GlobalMemoryStatusEx(&status) ? status.ullAvailPhys : 0;
#else
    std::ifstream meminfo("/proc/meminfo");
    std::string line;
    while (std::getline(meminfo, line)) {
        std::istringstream fields(line);
        std::string name;
        uint64_t kibibytes = 0;
        std::string unit;
        if (fields >> name >> kibibytes >> unit && name == "MemAvailable:" && unit == "kB") return kibibytes * 1024;
    }
#ifdef _SC_AVPHYS_PAGES
    const long pages = sysconf(_SC_AVPHYS_PAGES);
    const long pageSize = sysconf(_SC_PAGESIZE);
    if (pages > 0 && pageSize > 0) return static_cast<uint64_t>(pages) * static_cast<uint64_t>(pageSize);
#endif
    return 0;
#endif
}

}  // namespace qvhost
