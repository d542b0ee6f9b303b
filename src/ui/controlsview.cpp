#include "ui/controlsview.h"

#include <algorithm>
#include <cmath>

#include <QBoxLayout>
#include <QEvent>
#include <QPainter>
#include <QLabel>
#include <QProgressBar>
#include <QPushButton>
#include <QShortcut>
#include <QSignalBlocker>
#include <QSlider>

#include "model/cropmodel.h"
#include "ui/coalescedrefresh.h"
#include "ui/symbols.h"
#include "ui/theme.h"

namespace orvane {

namespace {

void setTextColour(QWidget* widget, const QColor& colour)
{
    // Only the text colour is the label's own; the rest stays inherited.
    QPalette palette;
    palette.setColor(QPalette::WindowText, colour);
    widget->setPalette(palette);
}

QString rgba(const QColor& colour)
{
    return QStringLiteral("rgba(%1, %2, %3, %4)")
        .arg(colour.red())
        .arg(colour.green())
        .arg(colour.blue())
        .arg(colour.alpha());
}

} // namespace

ControlsView::ControlsView(CropModel* model, QWidget* parent)
    : BarWidget(parent)
    , m_model(model)
{
    setSizePolicy(QSizePolicy::Preferred, QSizePolicy::Fixed);
    const QFont callout = Theme::font(Theme::TextStyle::Callout, font());

    m_statusRow = new QWidget(this);
    m_statusRow->setObjectName(QStringLiteral("statusRow"));
    auto* statusLayout = new QHBoxLayout(m_statusRow);
    statusLayout->setContentsMargins(0, 0, 0, 0);
    statusLayout->setSpacing(6);
    m_statusIcon = new QLabel(m_statusRow);
    m_statusIcon->setObjectName(QStringLiteral("statusIcon"));
    m_statusIcon->setAlignment(Qt::AlignTop);
    m_statusText = new QLabel(m_statusRow);
    m_statusText->setObjectName(QStringLiteral("statusText"));
    m_statusText->setFont(callout);
    m_statusText->setWordWrap(true);
    // Messages carry file names: never interpret them as markup.
    m_statusText->setTextFormat(Qt::PlainText);
    m_statusText->setTextInteractionFlags(Qt::TextSelectableByMouse);
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
    m_slider = new QSlider(Qt::Horizontal, m_toleranceRow);
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

    auto* buttons = new QHBoxLayout;
    buttons->setSpacing(10);
    m_open = new QPushButton(tr("Open…"), this);
    m_open->setObjectName(QStringLiteral("open"));
    m_saveAsNew = new QPushButton(tr("Save as New…"), this);
    m_saveAsNew->setObjectName(QStringLiteral("saveAsNew"));
    m_saveOverOriginal = new QPushButton(tr("Save Over Original"), this);
    m_saveOverOriginal->setObjectName(QStringLiteral("saveOverOriginal"));
    // A button's shortcut only fires while the button is enabled: with no
    // active image Ctrl+S does nothing.
    m_saveOverOriginal->setShortcut(QKeySequence::Save);
    m_saveOverOriginal->setDefault(true);
    buttons->addWidget(m_open);
    buttons->addStretch(1);
    buttons->addWidget(m_saveAsNew);
    buttons->addWidget(m_saveOverOriginal);
    connect(m_open, &QPushButton::clicked, this, &ControlsView::openRequested);
    connect(m_saveAsNew, &QPushButton::clicked, this, [this] { m_model->saveAsNewFile(); });
    connect(m_saveOverOriginal, &QPushButton::clicked, this, [this] { m_model->saveOverOriginal(); });

    auto* column = new QVBoxLayout(this);
    column->setContentsMargins(16, 16, 16, 16);
    column->setSpacing(14);
    column->addWidget(m_statusRow);
    column->addWidget(m_openingRow);
    column->addWidget(m_toleranceRow);
    column->addLayout(buttons);

    updateColours();
    new CoalescedRefresh(model, this, [this] { refresh(); });
    refresh();
}

ControlsView::Status ControlsView::status(const std::optional<QString>& errorMessage, bool allSaved,
                                          const std::optional<QString>& saveConfirmation, int itemCount)
{
    if (errorMessage)
        return {Status::Kind::Error, *errorMessage};
    if (allSaved)
        return {Status::Kind::Success, tr("All %1 images saved.").arg(itemCount)};
    if (saveConfirmation && itemCount >= 2)
        return {Status::Kind::Success, tr("Saved %1 — next image ready.").arg(*saveConfirmation)};
    if (saveConfirmation)
        return {Status::Kind::Success, tr("Saved %1").arg(*saveConfirmation)};
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
        const QColor colour = error ? Theme::orange() : Theme::green();
        const int extent = m_statusText->fontMetrics().height();
        m_statusIcon->setPixmap(Symbols::tinted(error ? Symbol::Warning : Symbol::CheckCircle, extent, colour,
                                                devicePixelRatioF()));
        m_statusText->setText(shown.text);
        // Only the skip message has files behind it; the model clears them
        // with any other message.
        m_statusRow->setToolTip(error ? failuresToolTip(m_model->openFailures()) : QString());
        setTextColour(m_statusText, colour);
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
    const QPalette& p = palette();
    setTextColour(m_toleranceLabel, Theme::secondary(p));
    const int small = qMax(12, fontMetrics().height() - 1);
    m_lowIcon->setPixmap(Symbols::tinted(Symbol::DashedCircle, small, Theme::tertiary(p), devicePixelRatioF()));
    m_highIcon->setPixmap(Symbols::tinted(Symbol::DashedCircleFilled, small, Theme::tertiary(p), devicePixelRatioF()));

    // The window's primary action: filled with the accent colour.
    const QColor accent = Theme::accent(p);
    const QColor text = p.color(QPalette::HighlightedText);
    QColor disabled = accent;
    disabled.setAlphaF(0.4f);
    m_saveOverOriginal->setStyleSheet(
        QStringLiteral("QPushButton { background-color: %1; color: %2; border: 1px solid %3; border-radius: 5px;"
                       " padding: 4px 14px; font-weight: 600; }"
                       "QPushButton:hover { background-color: %4; }"
                       "QPushButton:pressed { background-color: %3; }"
                       "QPushButton:disabled { background-color: %5; color: %6; border-color: %5; }")
            .arg(rgba(accent), rgba(text), rgba(accent.darker(115)), rgba(accent.lighter(108)), rgba(disabled),
                 rgba(QColor(text.red(), text.green(), text.blue(), 200))));
}

void ControlsView::paletteChanged()
{
    updateColours();
    refresh();
}

} // namespace orvane
