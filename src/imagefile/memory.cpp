// The memory this process may still use: the kernel's MemAvailable and the
// memory cgroup's headroom, with a seam for tests.
#include "imagefile/imagefile.h"

#include <algorithm>
#include <mutex>

#include <unistd.h>

#include <QDir>
#include <QFile>
#include <QFileInfo>

namespace orvane::ImageFile {

namespace {

std::mutex& seamMutex()
{
    static std::mutex mutex;
    return mutex;
}

std::optional<std::uint64_t>& memorySeam()
{
    static std::optional<std::uint64_t> bytes;
    return bytes;
}

std::optional<std::uint64_t> readNumber(const QString& path)
{
    QFile file(path);
    if (!file.open(QIODevice::ReadOnly))
        return std::nullopt;
    const QByteArray text = file.readAll().trimmed();
    bool ok = false;
    const qulonglong value = text.toULongLong(&ok);
    if (!ok)
        return std::nullopt; // "max" in cgroup v2 means no limit
    return value;
}

std::optional<std::uint64_t> memAvailable()
{
    QFile file(QStringLiteral("/proc/meminfo"));
    if (!file.open(QIODevice::ReadOnly))
        return std::nullopt;
    const QList<QByteArray> lines = file.readAll().split('\n');
    for (const QByteArray& line : lines) {
        if (!line.startsWith("MemAvailable:"))
            continue;
        const QList<QByteArray> parts = line.simplified().split(' ');
        bool ok = false;
        const qulonglong kib = parts.value(1).toULongLong(&ok);
        if (ok)
            return std::uint64_t(kib) * 1024;
    }
    return std::nullopt;
}

// What the memory cgroup of this process still allows: the smallest
// (limit − usage) of its folder and every folder above it, since a limit on a
// parent binds as well. Absent when no limit is set or nothing can be read.
std::optional<std::uint64_t> cgroupHeadroom()
{
    QFile cgroupFile(QStringLiteral("/proc/self/cgroup"));
    QFile mountFile(QStringLiteral("/proc/self/mountinfo"));
    if (!cgroupFile.open(QIODevice::ReadOnly) || !mountFile.open(QIODevice::ReadOnly))
        return std::nullopt;

    // A v1 memory controller, when mounted, is the one that limits; the
    // unified line "0::" only counts on a pure v2 system.
    QByteArray v1Path;
    QByteArray v2Path;
    bool hasV2 = false;
    for (const QByteArray& line : cgroupFile.readAll().split('\n')) {
        const qsizetype first = line.indexOf(':');
        const qsizetype second = line.indexOf(':', first + 1);
        if (first < 0 || second < 0)
            continue;
        const QByteArray controllers = line.mid(first + 1, second - first - 1);
        const QByteArray path = line.mid(second + 1);
        if (line.startsWith("0::")) {
            v2Path = path;
            hasV2 = true;
        } else if (controllers.split(',').contains("memory")) {
            v1Path = path;
        }
    }
    const bool useV1 = !v1Path.isEmpty();
    if (!useV1 && !hasV2)
        return std::nullopt;

    QString mountPoint;
    QByteArray mountRoot;
    for (const QByteArray& line : mountFile.readAll().split('\n')) {
        const QList<QByteArray> fields = line.split(' ');
        const qsizetype dash = fields.indexOf("-");
        if (dash < 5 || fields.size() < dash + 4)
            continue;
        const QByteArray& fsType = fields[dash + 1];
        const QByteArray& superOptions = fields[dash + 3];
        const bool matches = useV1 ? (fsType == "cgroup" && superOptions.split(',').contains("memory"))
                                   : fsType == "cgroup2";
        if (matches) {
            mountRoot = fields[3];
            mountPoint = QFile::decodeName(fields[4]);
            break;
        }
    }
    if (mountPoint.isEmpty())
        return std::nullopt;

    QByteArray relative = useV1 ? v1Path : v2Path;
    if (mountRoot != "/" && relative.startsWith(mountRoot))
        relative = relative.mid(mountRoot.size());
    QString folder = QDir::cleanPath(mountPoint + QLatin1Char('/') + QFile::decodeName(relative));
    if (!QFileInfo(folder).isDir())
        folder = mountPoint; // a cgroup namespace shows our own group at the mount point

    const QString limitName = useV1 ? QStringLiteral("memory.limit_in_bytes") : QStringLiteral("memory.max");
    const QString usageName = useV1 ? QStringLiteral("memory.usage_in_bytes") : QStringLiteral("memory.current");
    std::optional<std::uint64_t> headroom;
    const QString top = QDir::cleanPath(mountPoint);
    for (int depth = 0; depth < 64; ++depth) {
        const std::optional<std::uint64_t> limit = readNumber(folder + QLatin1Char('/') + limitName);
        // v1 writes "no limit" as a number near 2^63.
        if (limit && *limit < (std::uint64_t(1) << 62)) {
            const std::uint64_t usage = readNumber(folder + QLatin1Char('/') + usageName).value_or(0);
            const std::uint64_t room = usage < *limit ? *limit - usage : 0;
            headroom = std::min(headroom.value_or(room), room);
        }
        if (folder == top || folder.size() <= top.size())
            break;
        folder = QFileInfo(folder).path();
    }
    return headroom;
}

} // namespace

std::uint64_t availableMemory()
{
    {
        std::lock_guard lock(seamMutex());
        if (memorySeam())
            return *memorySeam();
    }
    std::optional<std::uint64_t> available = memAvailable();
    if (!available) {
        const long pages = ::sysconf(_SC_AVPHYS_PAGES);
        const long pageSize = ::sysconf(_SC_PAGESIZE);
        if (pages > 0 && pageSize > 0)
            available = std::uint64_t(pages) * std::uint64_t(pageSize);
    }
    const std::optional<std::uint64_t> headroom = cgroupHeadroom();
    if (headroom)
        available = std::min(available.value_or(*headroom), *headroom);
    return available.value_or(0);
}

void setAvailableMemoryForTesting(std::optional<std::uint64_t> bytes)
{
    std::lock_guard lock(seamMutex());
    memorySeam() = bytes;
}

} // namespace orvane::ImageFile
