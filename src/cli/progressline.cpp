#include "cli/progressline.h"

#include <cstdio>

#include <sys/ioctl.h>
#include <unistd.h>

namespace orvane {

namespace {

int terminalColumns()
{
    winsize size{};
    if (::ioctl(STDERR_FILENO, TIOCGWINSZ, &size) == 0 && size.ws_col > 0)
        return size.ws_col;
    return 80;
}

} // namespace

ProgressLine::ProgressLine(qsizetype total)
    : m_total(total)
    , m_enabled(::isatty(STDERR_FILENO) == 1)
{
}

void ProgressLine::show(qsizetype done, const QString& name)
{
    if (!m_enabled)
        return;
    QString line = QStringLiteral("%1/%2 %3").arg(done).arg(m_total).arg(name);
    // A name with a line break would scroll the terminal instead of redrawing.
    line.replace(QLatin1Char('\n'), QLatin1Char(' '));
    // The last column would wrap on some terminals; leave it free.
    const qsizetype width = terminalColumns() - 1;
    if (line.size() > width)
        line = line.left(qMax<qsizetype>(0, width - 1)) + QChar(0x2026);
    std::fprintf(stderr, "\r\033[K%s", line.toLocal8Bit().constData());
    std::fflush(stderr);
    m_shown = true;
}

void ProgressLine::clear()
{
    if (!m_enabled || !m_shown)
        return;
    std::fputs("\r\033[K", stderr);
    std::fflush(stderr);
    m_shown = false;
}

} // namespace orvane
