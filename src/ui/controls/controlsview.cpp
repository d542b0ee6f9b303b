#include "ui/controls/controlsview.h"

#include <algorithm>
#include <array>
#include <cmath>

#include <QBoxLayout>
#include <QEvent>
#include <QFocusEvent>
#include <QLabel>
#include <QPainter>
#include <QProgressBar>
#include <QPushButton>
#include <QShortcut>
#include <QSignalBlocker>
#include <QSlider>
#include <QStyleOptionSlider>

#include "model/cropmodel.h"
#include "ui/window/coalescedrefresh.h"
#include "ui/controls/elidingbutton.h"
#include "ui/controls/messagelabel.h"
#include "ui/style/painting.h"
#include "ui/style/symbols.h"
#include "ui/style/theme.h"

namespace orvane {

namespace {

// Below this width the block tightens its padding and the gaps between the
// buttons, so that their labels keep as many letters as they can.
constexpr int compactWidth = 400;

// The style marks a focused slider too faintly to find it: a ring in the
// accent colour around the knob shows where the keys will act, once the
// focus came from the keyboard (as the buttons' rings do).
class ToleranceSlider : public QSlider {
public:
    using QSlider::QSlider;

protected:
    void focusInEvent(QFocusEvent* event) override
    {
        if (event->reason() != Qt::ActiveWindowFocusReason && event->reason() != Qt::PopupFocusReason)
            m_keyboardFocus = event->reason() == Qt::TabFocusReason || event->reason() == Qt::BacktabFocusReason
                              || event->reason() == Qt::ShortcutFocusReason;
        QSlider::focusInEvent(event);
    }

    void paintEvent(QPaintEvent* event) override
    {
        QSlider::paintEvent(event);
        if (!hasFocus() || !m_keyboardFocus)
            return;
        QStyleOptionSlider option;
        initStyleOption(&option);
        const QRect handle = style()->subControlRect(QStyle::CC_Slider, &option, QStyle::SC_SliderHandle, this);
        QPainter painter(this);
        painter.setRenderHint(QPainter::Antialiasing);
        painter.setPen(QPen(Theme::accent(palette()), 2.0));
        painter.setBrush(Qt::NoBrush);
        const double side = std::min(std::max(handle.width(), handle.height()) + 4.0, double(height()) - 2.0);
        QRectF ring(0, 0, side, side);
        ring.moveCenter(QRectF(handle).center());
        painter.drawEllipse(ring);
    }

private:
    bool m_keyboardFocus = false;
};

// The part of an error message that may be shortened: the first name in
// typographic quotes, as in “name”.
QString quotedName(const QString& message)
{
    const qsizetype open = message.indexOf(QChar(0x201C));
    const qsizetype close = open < 0 ? -1 : message.indexOf(QChar(0x201D), open + 1);
    return close > open + 1 ? message.mid(open + 1, close - open - 1) : QString();
}

} // namespace

ControlsView::ControlsView(CropModel* model, QWidget* parent)
    : BarWidget(parent)
    , m_model(model)
{
    // Not Fixed: a fixed height would cap the block at its one-line size hint,
    // and a two-line message needs the height its width calls for.
    setSizePolicy(QSizePolicy::Preferred, QSizePolicy::Preferred);
    const QFont callout = Theme::font(Theme::TextStyle::Callout, font());

    m_statusRow = new QWidget(this);
    m_statusRow->setObjectName(QStringLiteral("statusRow"));
    auto* statusLayout = new QHBoxLayout(m_statusRow);
    statusLayout->setContentsMargins(0, 0, 0, 0);
    statusLayout->setSpacing(6);
    m_statusIcon = new QLabel(m_statusRow);
    m_statusIcon->setObjectName(QStringLiteral("statusIcon"));
    m_statusIcon->setAlignment(Qt::AlignTop);
    m_statusText = new MessageLabel(m_statusRow);
    m_statusText->setObjectName(QStringLiteral("statusText"));
    m_statusText->setFont(callout);
    statusLayout->addWidget(m_statusIcon, 0, Qt::AlignTop);
    statusLayout->addWidget(m_statusText, 1);

    // While files are being read: how far, a thin bar and a way out. The
    // rest of the block keeps working meanwhile.
    m_openingRow = new QWidget(this);
    m_openingRow->setObjectName(QStringLiteral("openingRow"));
    auto* openingLayout = new QHBoxLayout(m_openingRow);
    openingLayout->setContentsMargins(0, 0, 0, 0);
    openingLayout->setSpacing(10);
    m_openingText = new QLabel(m_openingRow);
    m_openingText->setObjectName(QStringLiteral("openingText"));
    m_openingText->setFont(callout);
    m_openingBar = new QProgressBar(m_openingRow);
    m_openingBar->setObjectName(QStringLiteral("openingBar"));
    m_openingBar->setTextVisible(false);
    m_openingBar->setFixedHeight(4);
    m_cancelOpen = new QPushButton(tr("Cancel"), m_openingRow);
    m_cancelOpen->setObjectName(QStringLiteral("cancelOpen"));
    openingLayout->addWidget(m_openingText);
    openingLayout->addWidget(m_openingBar, 1, Qt::AlignVCenter);
    openingLayout->addWidget(m_cancelOpen);
    connect(m_cancelOpen, &QPushButton::clicked, this, [this] { m_model->cancelOpen(); });
    m_cancelShortcut = new QShortcut(QKeySequence(Qt::Key_Escape), this);
    m_cancelShortcut->setContext(Qt::WindowShortcut);
    connect(m_cancelShortcut, &QShortcut::activated, this, [this] { m_model->cancelOpen(); });

    m_toleranceRow = new QWidget(this);
    m_toleranceRow->setObjectName(QStringLiteral("toleranceRow"));
    auto* toleranceLayout = new QHBoxLayout(m_toleranceRow);
    toleranceLayout->setContentsMargins(0, 0, 0, 0);
    toleranceLayout->setSpacing(12);
    m_toleranceLabel = new QLabel(tr("Trim tolerance"), m_toleranceRow);
    m_lowIcon = new QLabel(m_toleranceRow);
    m_lowIcon->setObjectName(QStringLiteral("toleranceLow"));
    m_slider = new ToleranceSlider(Qt::Horizontal, m_toleranceRow);
    m_slider->setObjectName(QStringLiteral("tolerance"));
    m_slider->setRange(0, 100 * sliderScale);
    m_slider->setSingleStep(sliderScale);
    m_slider->setPageStep(10 * sliderScale);
    m_slider->setTickPosition(QSlider::NoTicks);
    m_slider->setAccessibleName(tr("Trim tolerance"));
    m_highIcon = new QLabel(m_toleranceRow);
    m_highIcon->setObjectName(QStringLiteral("toleranceHigh"));
    toleranceLayout->addWidget(m_toleranceLabel);
    toleranceLayout->addWidget(m_lowIcon);
    toleranceLayout->addWidget(m_slider, 1);
    toleranceLayout->addWidget(m_highIcon);
    // Every position, while the knob moves: the model recomputes the content
    // rectangle on each, and the preview and sizes follow.
    connect(m_slider, &QSlider::valueChanged, this,
            [this](int value) { m_model->setThreshold(double(value) / sliderScale); });

    m_buttons = new QHBoxLayout;
    m_open = new ElidingButton(tr("Open…"), this);
    m_open->setObjectName(QStringLiteral("open"));
    m_saveAsNew = new ElidingButton(tr("Save as New…"), this);
    m_saveAsNew->setObjectName(QStringLiteral("saveAsNew"));
    m_saveOverOriginal = new ElidingButton(tr("Save Over Original"), this);
    m_saveOverOriginal->setObjectName(QStringLiteral("saveOverOriginal"));
    // A button's shortcut only fires while the button is enabled: with no
    // active image Ctrl+S does nothing.
    m_saveOverOriginal->setShortcut(QKeySequence::Save);
    m_saveOverOriginal->setDefault(true);
    m_saveOverOriginal->setTextPadding(0); // its style sheet pads the label
    m_buttons->addWidget(m_open);
    m_buttons->addStretch(1);
    m_buttons->addWidget(m_saveAsNew);
    m_buttons->addWidget(m_saveOverOriginal);
    connect(m_open, &QPushButton::clicked, this, &ControlsView::openRequested);
    connect(m_saveAsNew, &QPushButton::clicked, this, [this] { m_model->saveAsNewFile(); });
    connect(m_saveOverOriginal, &QPushButton::clicked, this, [this] { m_model->saveOverOriginal(); });

    m_column = new QVBoxLayout(this);
    m_column->addWidget(m_statusRow);
    m_column->addWidget(m_openingRow);
    m_column->addWidget(m_toleranceRow);
    m_column->addLayout(m_buttons);
    updateSpacing();

    updateColours();
    new CoalescedRefresh(model, this, [this] { refresh(); });
    refresh();
}

ControlsView::Status ControlsView::status(const std::optional<QString>& errorMessage, bool allSaved,
                                          const std::optional<QString>& saveConfirmation, int itemCount)
{
    if (errorMessage)
        return {Status::Kind::Error, *errorMessage, quotedName(*errorMessage)};
    if (allSaved)
        return {Status::Kind::Success, tr("All %1 images saved.").arg(itemCount), {}};
    if (saveConfirmation && itemCount >= 2)
        return {Status::Kind::Success, tr("Saved %1 — next image ready.").arg(*saveConfirmation), *saveConfirmation};
    if (saveConfirmation)
        return {Status::Kind::Success, tr("Saved %1").arg(*saveConfirmation), *saveConfirmation};
    return {};
}

QString ControlsView::openingText(const CropModel::Opening& opening)
{
    if (opening.total <= 0)
        return tr("Opening images…");
    return tr("Opening %1 of %2 images…").arg(opening.done).arg(opening.total);
}

QString ControlsView::failuresToolTip(const QList<CropModel::FailedFile>& failures)
{
    constexpr int shown = 20;
    QStringList lines;
    for (int i = 0; i < failures.size() && i < shown; ++i) {
        const CropModel::FailedFile& file = failures[i];
        lines << (file.reason.isEmpty() ? file.name : tr("%1 — %2").arg(file.name, file.reason));
    }
    if (failures.size() > shown)
        lines << tr("and %1 more").arg(failures.size() - shown);
    return lines.join(QLatin1Char('\n'));
}

void ControlsView::refresh()
{
    const Status shown = status(m_model->errorMessage(), m_model->allSaved(), m_model->saveConfirmation(),
                                int(m_model->items().size()));
    if (shown.kind == Status::Kind::None) {
        m_statusRow->setVisible(false);
        m_statusRow->setToolTip(QString());
        m_statusText->clear();
        m_statusIcon->clear();
    } else {
        const bool error = shown.kind == Status::Kind::Error;
        const QColor colour = error ? Theme::orange(palette()) : Theme::green(palette());
        const int extent = m_statusText->fontMetrics().height();
        m_statusIcon->setPixmap(Symbols::tinted(error ? Symbol::Warning : Symbol::CheckCircle, extent, colour,
                                                devicePixelRatioF()));
        m_statusText->setMessage(shown.text, shown.name);
        // Only the skip message has files behind it; the model clears them
        // with any other message.
        m_statusRow->setToolTip(error ? failuresToolTip(m_model->openFailures()) : QString());
        Painting::setTextColour(m_statusText, colour);
        m_statusRow->setVisible(true);
    }

    const std::optional<CropModel::Opening> opening = m_model->opening();
    m_openingRow->setVisible(opening.has_value());
    m_cancelShortcut->setEnabled(opening.has_value());
    if (opening) {
        m_openingText->setText(openingText(*opening));
        // No total yet: the bar shows that something is under way.
        m_openingBar->setRange(0, std::max(opening->total, 0));
        m_openingBar->setValue(opening->done);
    }

    const CropModel::Item* active = m_model->active();
    const bool hasActive = active != nullptr;
    // A save in flight holds both buttons for its item until it is written.
    const bool canSave = hasActive && !m_model->isSaving(active->id);
    m_toleranceRow->setVisible(hasActive);
    m_saveAsNew->setEnabled(canSave);
    m_saveOverOriginal->setEnabled(canSave);

    // The model stores the tolerance as given; the slider shows its nearest
    // position without writing it back.
    const double threshold = m_model->threshold();
    const int position = std::isfinite(threshold)
        ? int(std::lround(std::clamp(threshold, 0.0, 100.0) * sliderScale))
        : m_slider->minimum();
    if (m_slider->value() != position) {
        const QSignalBlocker blocker(m_slider);
        m_slider->setValue(position);
    }
}

void ControlsView::updateColours()
{
    using Painting::styleSheetColour;
    const QPalette& p = palette();
    Painting::setTextColour(m_toleranceLabel, Theme::secondary(p));
    const int small = qMax(12, fontMetrics().height() - 1);
    m_lowIcon->setPixmap(Symbols::tinted(Symbol::DashedCircle, small, Theme::tertiary(p), devicePixelRatioF()));
    m_highIcon->setPixmap(Symbols::tinted(Symbol::DashedCircleFilled, small, Theme::tertiary(p), devicePixelRatioF()));

    // The window's primary action: filled with the accent colour. Disabled,
    // it loses the accent and looks like any disabled button of the theme.
    const QColor accent = Theme::accent(p);
    const QColor text = p.color(QPalette::HighlightedText);
    m_saveOverOriginal->setStyleSheet(
        QStringLiteral("QPushButton { background-color: %1; color: %2; border: 1px solid %3; border-radius: 5px;"
                       " padding: 4px 12px; font-weight: 600; }"
                       "QPushButton:hover { background-color: %4; }"
                       "QPushButton:pressed { background-color: %3; }"
                       "QPushButton:disabled { background-color: %5; color: %6; border-color: %7; }")
            .arg(styleSheetColour(accent), styleSheetColour(text), styleSheetColour(accent.darker(115)),
                 styleSheetColour(accent.lighter(108)), styleSheetColour(p.color(QPalette::Disabled, QPalette::Button)),
                 styleSheetColour(p.color(QPalette::Disabled, QPalette::ButtonText)),
                 styleSheetColour(Theme::quaternary(p))));
    m_saveOverOriginal->setFocusRingColour(text);
    // The style marks a focused button too faintly on the bar.
    m_open->setFocusRingColour(accent);
    m_saveAsNew->setFocusRingColour(accent);
    fitButtons();
}

void ControlsView::updateSpacing()
{
    const bool compact = width() < compactWidth;
    const int padding = compact ? 10 : 16;
    m_column->setContentsMargins(padding, compact ? 12 : 16, padding, compact ? 12 : 16);
    m_column->setSpacing(compact ? 10 : 14);
    m_buttons->setSpacing(compact ? 6 : 10);
    fitButtons();
}

void ControlsView::fitButtons()
{
    // When the row is too narrow for every label, each button starts from its
    // shortest label and they grow a word at a time, the primary action
    // first, then "Save as New…", then "Open…", while the room lasts.
    const std::array<ElidingButton*, 3> byPriority{m_saveOverOriginal, m_saveAsNew, m_open};
    const QMargins margins = m_column->contentsMargins();
    const int available = width() - margins.left() - margins.right() - 2 * m_buttons->spacing();
    std::array<QStringList, 3> labels;
    std::array<qsizetype, 3> chosen{};
    int used = 0;
    for (std::size_t i = 0; i < byPriority.size(); ++i) {
        labels[i] = byPriority[i]->labels();
        used += byPriority[i]->widthFor(labels[i].front());
    }
    for (bool grew = true; grew;) {
        grew = false;
        for (std::size_t i = 0; i < byPriority.size(); ++i) {
            if (chosen[i] + 1 >= labels[i].size())
                continue;
            const int extra = byPriority[i]->widthFor(labels[i][chosen[i] + 1])
                              - byPriority[i]->widthFor(labels[i][chosen[i]]);
            if (used + extra <= available) {
                ++chosen[i];
                used += extra;
                grew = true;
            }
        }
    }
    // Short of room, every button gets just its label and padding (the
    // style's minimum width for buttons included); with room, the style decides.
    bool everyWhole = true;
    for (std::size_t i = 0; i < byPriority.size(); ++i)
        everyWhole = everyWhole && chosen[i] + 1 == labels[i].size();
    for (std::size_t i = 0; i < byPriority.size(); ++i)
        byPriority[i]->setMaximumWidth(everyWhole ? QWIDGETSIZE_MAX : byPriority[i]->widthFor(labels[i][chosen[i]]));
}

void ControlsView::resizeEvent(QResizeEvent* event)
{
    BarWidget::resizeEvent(event);
    updateSpacing();
}

void ControlsView::paletteChanged()
{
    updateColours();
    refresh();
}

} // namespace orvane
