#pragma once

// The two appearances of the window and the type it is set in. Night and paper are designed each
// for itself (paper is warm and quiet, night is dim without being black), not one inverted into
// the other. One calm accent colour; amber and red only when something needs attention, and
// always with a shape or a word beside them.

#include <QColor>
#include <QFont>

#include "app/settings.hpp"

class QApplication;

namespace vistrel::ui {

enum class Shade { night, paper };

struct Palette {
  QColor window;      // the page behind the cards
  QColor sidebar;     // the sidebar
  QColor card;        // raised surfaces
  QColor border;      // hairlines around cards and between rows
  QColor grid;        // chart grid lines
  QColor text;        // primary text
  QColor muted;       // secondary text, captions
  QColor accent;      // the one accent: series, selection, switches
  QColor accentSoft;  // fills under series, selected rows
  QColor amber;       // attention
  QColor red;         // trouble
  QColor selection;   // the selected sidebar row
};

const Palette& palette(Shade shade);
// The shade in use now (the setting, or the system's when it says "system").
Shade currentShade();
const Palette& currentPalette();

// Which shade an appearance setting gives, `systemIsDark` answering for "system".
Shade shadeFor(Appearance appearance, bool systemIsDark);

// Applies the appearance to the whole application at once (palette, style sheet, fonts).
void applyAppearance(QApplication& app, Appearance appearance);

// Type sizes in points; nothing is smaller than `caption`.
inline constexpr double kCaption = 11;
inline constexpr double kBody = 12.5;
inline constexpr double kHeading = 15;
inline constexpr double kTitle = 22;
inline constexpr double kFigure = 30;

// The interface's text face at a size and weight.
QFont textFont(double points, QFont::Weight weight = QFont::Normal);
// A face for figures whose digits all have one width, so numbers that change every second do not
// shift sideways.
QFont figureFont(double points, QFont::Weight weight = QFont::Normal);

// Registers the application's preferred faces; call once after the application object exists.
void loadFonts();

}  // namespace vistrel::ui
