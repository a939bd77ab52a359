#pragma once

// The images of the menu-bar items and of the tray icon, drawn with QPainter from their view
// models. Sizes are in points (one point is one logical pixel of the image); `scale` is the
// device's pixel ratio. Digits are tabular and each item is as wide as its widest figure, so an
// item never changes width as its value changes.

#include <QImage>
#include <vector>

#include "ui/menubar_view.hpp"
#include "ui/theme.hpp"

namespace vistrel::ui {

// The height of the macOS menu bar in points; items are drawn to it.
inline constexpr double kItemHeight = 22;
// Type sizes of the items (never under 10 pt): the figure and the small label.
inline constexpr double kItemFigure = 13;
inline constexpr double kItemSmall = 10;

// The item's width in points for this view (depends only on its style and widest figure).
double itemWidth(const MenuItemView& item);

// One menu-bar item. `monochrome`: a template image (black with alpha only, the system tints it
// for the bar's appearance); an item that needs attention is never monochrome, so that its
// amber or red and its mark show. Otherwise drawn in the shade's text and accent colours on a
// transparent background.
QImage drawMenuItem(const MenuItemView& item, Shade shade, double scale, bool monochrome);
// Whether the item is drawn as a template image when monochrome is asked for.
bool itemIsTemplate(const MenuItemView& item, bool monochrome);

// The tray icon: a square live meter of the first chosen metric (its newest levels as bars),
// `pixels` on a side. Readable at 16 px; amber or red with a mark when the metric needs attention.
QImage drawTrayIcon(const MenuItemView& item, int pixels, Shade shade);

// A strip of items as a menu bar would show them, over a bar of the shade's colour (for shots).
QImage drawMenuBarStrip(const std::vector<MenuItemView>& items, Shade shade, double scale);

}  // namespace vistrel::ui
