// A one-line label that shortens its text in the middle when it gets too
// narrow, so that the end of a file name (its extension) stays visible.
#pragma once

#include <QWidget>

namespace orvane {

class ElidedLabel : public QWidget {
    Q_OBJECT

public:
    explicit ElidedLabel(QWidget* parent = nullptr);

    /// The full text, as set.
    QString text() const { return m_text; }
    void setText(const QString& text);
    /// The text as drawn at the current width, with "…" in its middle when shortened.
    QString displayedText() const;

    /// The full text's width: the label's natural size.
    QSize sizeHint() const override;
    /// Room for an ellipsis only: the label may shrink that far.
    QSize minimumSizeHint() const override;

protected:
    void paintEvent(QPaintEvent* event) override;
    void changeEvent(QEvent* event) override;

private:
    QString m_text;
};

} // namespace orvane
