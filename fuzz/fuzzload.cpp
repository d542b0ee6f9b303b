// libFuzzer target: any bytes as an image file, opened the way the window
// opens one (ImageFile::load, the buffer, the content rectangle, the crop),
// with LoadCheck's consistency checks turned into crashes.
#include <cstdint>
#include <cstdio>
#include <cstdlib>

#include <fcntl.h>
#include <unistd.h>

#include <QByteArray>
#include <QDir>
#include <QHashFunctions>
#include <QString>

#include <vips/vips8>

#include "fuzz/loadcheck.h"

namespace {

QString g_inputPath;
QString g_savePath;

void writeInput(const uint8_t* data, size_t size)
{
    // A file rather than a buffer: load takes a path, and the path is how
    // the window and the command-line tool reach it.
    const QByteArray path = g_inputPath.toLocal8Bit();
    const int fd = ::open(path.constData(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
    if (fd < 0) {
        std::perror("fuzz_load: input file");
        std::abort();
    }
    size_t done = 0;
    while (done < size) {
        const ssize_t n = ::write(fd, data + done, size - done);
        if (n <= 0) {
            std::perror("fuzz_load: writing input");
            std::abort();
        }
        done += static_cast<size_t>(n);
    }
    ::close(fd);
}

} // namespace

extern "C" int LLVMFuzzerInitialize(int* argc, char*** argv)
{
    (void)argc;
    if (VIPS_INIT((*argv)[0]) != 0) {
        std::fprintf(stderr, "fuzz_load: libvips does not start\n");
        std::abort();
    }
    // One decoding thread keeps runs repeatable and the reports readable.
    vips_concurrency_set(1);
    orvane::LoadCheck::prepare();

    // tmpfs when there is one: every input is written once.
    const QString base = QDir(QStringLiteral("/dev/shm")).exists() ? QStringLiteral("/dev/shm")
                                                                     : QDir::tempPath();
    const QString stem = QStringLiteral("%1/orvane-fuzz-load-%2").arg(base).arg(::getpid());
    g_inputPath = stem + QStringLiteral("-input");
    g_savePath = stem + QStringLiteral("-saved");
    std::atexit([] {
        ::unlink(g_inputPath.toLocal8Bit().constData());
        ::unlink(g_savePath.toLocal8Bit().constData());
    });
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    writeInput(data, size);
    // Writing and reading back costs as much as everything else together:
    // one input in eight, chosen by its bytes so that a finding reproduces.
    const bool write = qHashBits(data, size) % 8 == 0;
    const QString fault = orvane::LoadCheck::check(g_inputPath, write ? g_savePath : QString());
    if (!fault.isEmpty()) {
        std::fprintf(stderr, "fuzz_load: %s\n", fault.toLocal8Bit().constData());
        std::abort();
    }
    return 0;
}
