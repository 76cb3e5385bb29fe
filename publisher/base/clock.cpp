#include "publisher/base/clock.hpp"

#include <ctime>
#include <fstream>

namespace
{

int64_t milliseconds_of(clockid_t clock)
{
    timespec now{};
    clock_gettime(clock, &now);
    return int64_t{now.tv_sec} * 1000 + now.tv_nsec / 1000000;
}

} // namespace

int64_t boot_ms()
{
    return milliseconds_of(CLOCK_BOOTTIME);
}

int64_t unix_ms()
{
    return milliseconds_of(CLOCK_REALTIME);
}

std::string boot_id()
{
    std::ifstream file("/proc/sys/kernel/random/boot_id");
    std::string id;
    std::getline(file, id);
    return id;
}
