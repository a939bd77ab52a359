#pragma once

// The platform's way of handing on a picture. macOS: the system share sheet
// (NSSharingServicePicker) shown from a view of the window. Elsewhere there is none, and the card
// is saved and copied instead.

#include <string>

class QWidget;

namespace vistrel::ui {

// Whether `presentShareSheet` is available here.
bool hasSystemShareSheet();
// Shows the system share sheet for the PNG file at `pngPath`, anchored on `anchor`. False when
// there is no share sheet on this platform.
bool presentShareSheet(const std::string& pngPath, QWidget& anchor);

}  // namespace vistrel::ui
