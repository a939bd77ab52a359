#pragma once

class QWidget;

namespace vistrel::ui {

struct PageContext;

// The welcome sheet, shown once per user account: what Vistrel does, and offers to connect Claude
// Code's status line and an AI agent through MCP. Window-modal over `window`; returns at once.
void showWelcome(QWidget& window, PageContext& context);
// The sheet open over `window`, if any (screenshots draw it over the content).
QWidget* activeSheet(QWidget& window);

}  // namespace vistrel::ui
