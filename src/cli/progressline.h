// The one-line progress display of orvane-trim on a terminal.
#pragma once

#include <QString>

namespace orvane {

class ProgressLine {
public:
    /// Shows progress on stderr only when stderr is a terminal; otherwise
    /// every call does nothing. total: the number of images of the run.
    explicit ProgressLine(qsizetype total);

    /// Redraws the line as "done/total name", cut to the terminal's width.
    void show(qsizetype done, const QString& name);
    /// Removes the line, so that other output starts on a clean line.
    void clear();
    bool enabled() const { return m_enabled; }

private:
    qsizetype m_total;
    bool m_enabled;
    bool m_shown = false;
};

} // namespace orvane
