#include "ui/theme.hpp"

#include <QApplication>
#include <QFontDatabase>
#include <QPalette>
#include <QStyle>
#include <QStyleFactory>
#include <QStyleHints>
#include <QtGlobal>

namespace vistrel::ui {

namespace {

Shade gShade = Shade::paper;
QString gTextFamily;
QString gFigureFamily;
bool gSystemDarkKnown = false;
bool gSystemDark = false;

const Palette kNight{
    /*window*/ QColor(0x16, 0x18, 0x1d),
    /*sidebar*/ QColor(0x1c, 0x1f, 0x25),
    /*card*/ QColor(0x21, 0x25, 0x2c),
    /*border*/ QColor(0x2e, 0x33, 0x3c),
    /*grid*/ QColor(0x2b, 0x30, 0x38),
    /*text*/ QColor(0xe9, 0xeb, 0xee),
    /*muted*/ QColor(0x9b, 0xa3, 0xae),
    /*accent*/ QColor(0x62, 0xc1, 0xad),
    /*accentSoft*/ QColor(0x62, 0xc1, 0xad, 0x40),
    /*amber*/ QColor(0xe8, 0xb0, 0x4a),
    /*red*/ QColor(0xef, 0x6f, 0x5e),
    /*selection*/ QColor(0x2a, 0x32, 0x36),
};

const Palette kPaper{
    /*window*/ QColor(0xf5, 0xf3, 0xee),
    /*sidebar*/ QColor(0xec, 0xe9, 0xe2),
    /*card*/ QColor(0xff, 0xff, 0xfd),
    /*border*/ QColor(0xde, 0xda, 0xd0),
    /*grid*/ QColor(0xe9, 0xe5, 0xdc),
    /*text*/ QColor(0x1f, 0x21, 0x25),
    /*muted*/ QColor(0x66, 0x6b, 0x73),
    /*accent*/ QColor(0x23, 0x7f, 0x6e),
    /*accentSoft*/ QColor(0x23, 0x7f, 0x6e, 0x2a),
    /*amber*/ QColor(0xa8, 0x6a, 0x0c),
    /*red*/ QColor(0xbb, 0x3b, 0x2a),
    /*selection*/ QColor(0xdd, 0xe6, 0xe1),
};

bool systemIsDark(QApplication& app) {
#if QT_VERSION >= QT_VERSION_CHECK(6, 5, 0)
  Qt::ColorScheme scheme = app.styleHints()->colorScheme();
  if (scheme != Qt::ColorScheme::Unknown) return scheme == Qt::ColorScheme::Dark;
#endif
  // Before the toolkit reported a scheme, the style's own palette tells: a dark window colour is
  // a dark desktop. Read once, before this application replaces the palette.
  if (!gSystemDarkKnown) {
    gSystemDarkKnown = true;
    gSystemDark = app.style()->standardPalette().color(QPalette::Window).lightness() < 128;
  }
  return gSystemDark;
}

QString styleSheet(const Palette& p) {
  auto c = [](const QColor& color) { return color.name(QColor::HexArgb); };
  return QString(R"(
QToolTip { color: %1; background: %2; border: 1px solid %3; padding: 4px; }
QDialog { border: 1px solid %3; }
QScrollArea, QScrollArea > QWidget > QWidget { background: transparent; border: none; }
QPushButton { color: %1; background: %2; border: 1px solid %3; border-radius: 7px;
  padding: 6px 14px; }
QPushButton:hover { border-color: %4; }
QPushButton:pressed { background: %5; }
QPushButton:checked { background: %5; border-color: %4; color: %1; }
QPushButton:disabled { color: %6; }
QCheckBox { color: %1; spacing: 10px; }
QCheckBox::indicator { width: 16px; height: 16px; border: 1px solid %6; border-radius: 4px;
  background: %2; }
QCheckBox::indicator:hover { border-color: %4; }
QCheckBox::indicator:checked { background: %4; border-color: %4; }
QCheckBox::indicator:disabled { border-color: %3; }
QComboBox { color: %1; background: %2; border: 1px solid %3; border-radius: 7px;
  padding: 4px 30px 4px 10px; }
QComboBox:hover { border-color: %4; }
QComboBox::drop-down { subcontrol-origin: padding; subcontrol-position: center right; width: 26px;
  border: none; background: transparent; }
QComboBox QAbstractItemView { color: %1; background: %2; selection-background-color: %5; }
QPlainTextEdit, QLineEdit { color: %1; background: %7; border: 1px solid %3; border-radius: 7px;
  padding: 6px; selection-background-color: %5; }
QScrollBar:vertical { background: transparent; width: 10px; margin: 2px; }
QScrollBar::handle:vertical { background: %3; border-radius: 4px; min-height: 30px; }
QScrollBar::add-line, QScrollBar::sub-line { height: 0; }
QMenuBar { background: %8; color: %1; }
QMenuBar::item:selected { background: %5; }
QMenu { background: %2; color: %1; border: 1px solid %3; }
QMenu::item:selected { background: %5; }
QMenu::item:disabled { color: %6; }
)")
      .arg(c(p.text), c(p.card), c(p.border), c(p.accent), c(p.accentSoft), c(p.muted), c(p.window),
           c(p.sidebar));
}

}  // namespace

const Palette& palette(Shade shade) {
  return shade == Shade::night ? kNight : kPaper;
}

Shade currentShade() {
  return gShade;
}

const Palette& currentPalette() {
  return palette(gShade);
}

Shade shadeFor(Appearance appearance, bool systemIsDarkNow) {
  switch (appearance) {
    case Appearance::night:
      return Shade::night;
    case Appearance::paper:
      return Shade::paper;
    case Appearance::system:
      break;
  }
  return systemIsDarkNow ? Shade::night : Shade::paper;
}

void applyAppearance(QApplication& app, Appearance appearance) {
  gShade = shadeFor(appearance, systemIsDark(app));
  const Palette& p = palette(gShade);
  QPalette qp;
  qp.setColor(QPalette::Window, p.window);
  qp.setColor(QPalette::WindowText, p.text);
  qp.setColor(QPalette::Base, p.card);
  qp.setColor(QPalette::AlternateBase, p.sidebar);
  qp.setColor(QPalette::Text, p.text);
  qp.setColor(QPalette::PlaceholderText, p.muted);
  qp.setColor(QPalette::Button, p.card);
  qp.setColor(QPalette::ButtonText, p.text);
  qp.setColor(QPalette::Highlight, p.accent);
  qp.setColor(QPalette::HighlightedText, p.card);
  qp.setColor(QPalette::ToolTipBase, p.card);
  qp.setColor(QPalette::ToolTipText, p.text);
  qp.setColor(QPalette::Link, p.accent);
  qp.setColor(QPalette::Mid, p.border);
  qp.setColor(QPalette::Disabled, QPalette::Text, p.muted);
  qp.setColor(QPalette::Disabled, QPalette::WindowText, p.muted);
  qp.setColor(QPalette::Disabled, QPalette::ButtonText, p.muted);
  app.setPalette(qp);
  app.setFont(textFont(kBody));
  app.setStyleSheet(styleSheet(p));
}

void loadFonts() {
  const QStringList families = QFontDatabase::families();
  // Inter where it is installed (Linux), else the system's own face (San Francisco on the Mac).
  gTextFamily = families.contains("Inter")
                    ? QString("Inter")
                    : QFontDatabase::systemFont(QFontDatabase::GeneralFont).family();
#if QT_VERSION >= QT_VERSION_CHECK(6, 7, 0)
  // The text face with its tabular figures switched on (see figureFont).
  gFigureFamily = gTextFamily;
#else
  // Without per-font features, a face whose digits are tabular by design: DejaVu Sans.
  gFigureFamily = families.contains("DejaVu Sans") ? QString("DejaVu Sans") : gTextFamily;
#endif
}

QFont textFont(double points, QFont::Weight weight) {
  QFont font(gTextFamily.isEmpty() ? QString() : gTextFamily);
  font.setPointSizeF(points);
  font.setWeight(weight);
  return font;
}

QFont figureFont(double points, QFont::Weight weight) {
  QFont font(gFigureFamily.isEmpty() ? QString() : gFigureFamily);
  font.setPointSizeF(points);
  font.setWeight(weight);
#if QT_VERSION >= QT_VERSION_CHECK(6, 7, 0)
  font.setFeature(QFont::Tag("tnum"), 1);
#endif
  return font;
}

}  // namespace vistrel::ui
