// The status row's text: wrapped on at most two lines, with a long file name
// shortened in its middle rather than the message cut off.
#pragma once

#include <QWidget>

namespace orvane {

/// Shows one message in its palette's WindowText colour, wrapped at word
/// boundaries (or inside a word longer than a line). Its height follows the
/// width it is given (height for width), so the row above and below it makes
/// room for every line. When the message needs more than maxLines lines at
/// its width, the part that may be shortened (a file name) loses characters
/// in its middle until the message fits.
class MessageLabel : public QWidget {
    Q_OBJECT

public:
    explicit MessageLabel(QWidget* parent = nullptr);

    static constexpr int maxLines = 2;

    /// Shows text; shortenable is the part of it that may be shortened
    /// (empty: the end of the message gives way instead).
    void setMessage(const QString& text, const QString& shortenable = QString());
    void clear() { setMessage(QString()); }

    /// The whole message, as set.
    QString text() const { return m_text; }
    /// The message as drawn at the current width.
    QString displayedText() const;

    /// The number of lines text takes when wrapped to width in font.
    static int lineCount(const QString& text, const QFont& font, int width);
    /// text itself when it fits on lines lines of width; else text with
    /// shortenable elided in its middle just enough to fit (with an empty or
    /// missing shortenable, or when even "…" is too long, the end of text is
    /// elided instead).
    static QString fitted(const QString& text, const QString& shortenable, const QFont& font, int width, int lines);

    bool hasHeightForWidth() const override { return true; }
    int heightForWidth(int width) const override;
    QSize sizeHint() const override;
    QSize minimumSizeHint() const override;

protected:
    void paintEvent(QPaintEvent* event) override;
    void changeEvent(QEvent* event) override;

private:
    QString m_text;
    QString m_shortenable;
};

} // namespace orvane
