// Small painting and styling helpers shared by the window's views.
#pragma once

#include <QColor>
#include <QString>
#include <Qt>

class QFrame;
class QWidget;

namespace orvane::Painting {

/// colour with its opacity multiplied by opacity (0 to 1).
QColor withOpacity(QColor colour, double opacity);

/// foreground as it shows over an opaque background: the opaque blend.
QColor over(const QColor& foreground, const QColor& background);

/// The colour between from (t = 0) and to (t = 1), opacity included.
QColor mix(const QColor& from, const QColor& to, double t);

/// colour written for a style sheet: rgba(r, g, b, a).
QString styleSheetColour(const QColor& colour);

/// Gives widget a text colour of its own (WindowText and Text); every other
/// colour stays inherited from its parent, so a new theme still reaches it.
void setTextColour(QWidget* widget, const QColor& colour);

/// A one-pixel rule between two sections, in the palette's Mid colour.
QFrame* rule(Qt::Orientation orientation, QWidget* parent);

} // namespace orvane::Painting
