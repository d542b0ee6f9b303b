// A push button that fits narrow windows: it may get narrower than its text
// and then ends the text with "…" instead of cutting letters off.
#pragma once

#include <QPushButton>

namespace orvane {

/// A QPushButton whose label is elided at the end when the button is given
/// less than its natural width, with the same padding around the text
/// whatever the text's length. The full text stays the button's text (and its
/// accessible name); while it is shortened it is also the tooltip. Optionally
/// draws a focus ring of its own, for buttons whose style sheet hides the
/// style's focus frame.
class ElidingButton : public QPushButton {
    Q_OBJECT

public:
    explicit ElidingButton(const QString& text, QWidget* parent = nullptr);

    /// The label as drawn at the current width: the longest of labels() that
    /// fits, else the text cut with "…" wherever it must.
    QString displayedText() const;
    /// The labels the button can show, shortest first: its first word and
    /// "…", its first two words and "…", … and the whole text last.
    QStringList labels() const;
    /// The button's width for one of labels(), padding included.
    int widthFor(const QString& label) const;
    /// The width the label has inside the button's padding, in pixels.
    int labelWidth() const;

    /// Draws a ring of this colour inside the edge while the button has the
    /// focus and got it from the keyboard (Tab, a shortcut), not from a click
    /// or the window opening; an invalid colour (the default) leaves it to the
    /// style.
    void setFocusRingColour(const QColor& colour);

    /// The least room on either side of the label, in pixels, beyond what the
    /// style leaves (10 by default; 0 for a style sheet with its own padding).
    void setTextPadding(int padding);

    /// At least the text padding on either side of the whole text.
    QSize sizeHint() const override;
    /// Room for the first letter and "…".
    QSize minimumSizeHint() const override;

protected:
    void paintEvent(QPaintEvent* event) override;
    void resizeEvent(QResizeEvent* event) override;
    void focusInEvent(QFocusEvent* event) override;

private:
    int frameWidth() const;
    void updateToolTip();

    QColor m_focusRing;
    bool m_keyboardFocus = false;
    int m_textPadding = 10;
};

} // namespace orvane
