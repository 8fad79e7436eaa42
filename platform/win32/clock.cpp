// Time.
#include "win32.h"

#include <time.h>

namespace cm::platform::system {

using namespace win32;

namespace {

constexpr int64_t kEpoch = 116444736000000000;  // 1970 in units of 100 ns since 1601
constexpr int64_t kUnitsPerSecond = 10000000, kUnitsPerMillisecond = 10000;

}  // namespace

bool wall_clock(WallTime *out) {
    FILETIME now;
    GetSystemTimeAsFileTime(&now);
    const int64_t units = ((static_cast<int64_t>(now.dwHighDateTime) << 32) | now.dwLowDateTime) - kEpoch;
    out->seconds = units / kUnitsPerSecond;
    out->milliseconds = static_cast<int32_t>(units % kUnitsPerSecond / kUnitsPerMillisecond);
    return true;
}

int64_t monotonic_ms() {
    static LARGE_INTEGER frequency;  // the same for every thread and every call
    LARGE_INTEGER now;
    if (frequency.QuadPart == 0) QueryPerformanceFrequency(&frequency);
    QueryPerformanceCounter(&now);
    const int64_t whole = now.QuadPart / frequency.QuadPart, rest = now.QuadPart % frequency.QuadPart;
    return whole * 1000 + rest * 1000 / frequency.QuadPart;
}

bool local_calendar(int64_t seconds, cm_tm *out) {
    const __time64_t time = seconds;
    tm local;
    if (_localtime64_s(&local, &time) != 0) return false;
    *out = {local.tm_sec,  local.tm_min,  local.tm_hour, local.tm_mday, local.tm_mon,
            local.tm_year, local.tm_wday, local.tm_yday, local.tm_isdst};
    return true;
}

int32_t zone_bias_seconds() {
    TIME_ZONE_INFORMATION zone;
    if (GetTimeZoneInformation(&zone) == TIME_ZONE_ID_INVALID) return 0;
    return static_cast<int32_t>((zone.Bias + zone.StandardBias) * 60);
}

Error set_wall_clock(const cm_tm *utc, int32_t milliseconds) {
    SYSTEMTIME time = {};
    time.wYear = static_cast<WORD>(utc->year + 1900);
    time.wMonth = static_cast<WORD>(utc->mon + 1);
    time.wDayOfWeek = static_cast<WORD>(utc->wday);
    time.wDay = static_cast<WORD>(utc->mday);
    time.wHour = static_cast<WORD>(utc->hour);
    time.wMinute = static_cast<WORD>(utc->min);
    time.wSecond = static_cast<WORD>(utc->sec);
    time.wMilliseconds = static_cast<WORD>(milliseconds);
    return SetSystemTime(&time) ? 0 : last_error();
}

bool sleep(int32_t milliseconds) {
    const DWORD limit = milliseconds < 0 ? 0 : static_cast<DWORD>(milliseconds);
    const Thread *thread = self();
    if (thread == nullptr) {
        Sleep(limit);
        return true;
    }
    return WaitForSingleObject(thread->ask, limit) != WAIT_OBJECT_0;
}

}  // namespace cm::platform::system
