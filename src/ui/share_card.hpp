#pragma once

// "Share Today…": today's summary drawn as a card, shown in a sheet over the window, and handed
// on as a PNG: to the system's share sheet on macOS; saved to a file and copied to the clipboard
// elsewhere.

#include <QImage>

#include "ui/share_view.hpp"

class QWidget;

namespace vistrel::ui {

struct PageContext;

// The card at 1200 × 630 pixels (times `scale`), in the current appearance.
QImage renderShareCard(const ShareCardView& view, double scale = 1);

// Opens the share sheet over `window` (window-modal; returns at once). It reads today's figures
// from the history store first and shows the card when they arrive.
void showShareSheet(QWidget& window, PageContext& context);
// The share sheet open over `window`, if any (screenshots draw it over the content).
QWidget* activeShareSheet();

}  // namespace vistrel::ui
