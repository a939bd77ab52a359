#include "ui/share_sheet.hpp"

namespace vistrel::ui {

// Desktops have no common share sheet; the card is saved and copied instead.
bool hasSystemShareSheet() {
  return false;
}

bool presentShareSheet(const std::string&, QWidget&) {
  return false;
}

}  // namespace vistrel::ui
