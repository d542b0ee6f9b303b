// What the benchmarks read about their own process.
#pragma once

#include <cstring>

#include <sys/resource.h>

#include <QByteArray>
#include <QFile>

namespace orvane::bench {

/// A figure of /proc/self/status in KiB ("VmHWM:", "VmRSS:"); 0 when unknown.
inline long statusKiB(const char* key)
{
    QFile status(QStringLiteral("/proc/self/status"));
    if (!status.open(QIODevice::ReadOnly))
        return 0;
    for (const QByteArray& line : status.readAll().split('\n'))
        if (line.startsWith(key))
            return line.mid(qsizetype(std::strlen(key))).trimmed().split(' ').value(0).toLong();
    return 0;
}

/// CPU time of this process so far, every thread, user and system.
inline double cpuMilliseconds()
{
    rusage usage{};
    getrusage(RUSAGE_SELF, &usage);
    return (usage.ru_utime.tv_sec + usage.ru_stime.tv_sec) * 1e3 + (usage.ru_utime.tv_usec + usage.ru_stime.tv_usec) / 1e3;
}

} // namespace orvane::bench
