#pragma once

// What every page of the window is given and what it provides.

#include <QWidget>
#include <functional>
#include <string>

#include <optional>

#include "app/settings.hpp"
#include "history/time_span.hpp"

class QVBoxLayout;
class QScrollArea;

namespace vistrel {
class Model;
class HistoryStore;
class MainLoop;
class UserDefaults;
}  // namespace vistrel

namespace vistrel::ui {

class LoginItem;

struct PageContext {
  Model& model;
  HistoryStore* history = nullptr;   // null: no history (the pages say so)
  std::function<void(Page)> go;      // show another page
  std::string executable;            // this executable's path, for the agent-access commands
  LoginItem* loginItem = nullptr;    // null: opening at login is not offered
  UserDefaults* defaults = nullptr;  // the pages' own remembered choices; null: not remembered
  // Shows a short message at the bottom of the window; empty where there is no window (tests).
  std::function<void(const std::string&)> toast = nullptr;
};

// A page: scrolls when the window is smaller than its content, and is refreshed only while it is
// the one on screen (nothing is computed for what is not visible).
class PageWidget : public QWidget {
 public:
  PageWidget(PageContext& context, QWidget* parent);
  // Fresh data arrived (or the page just came on screen): show it.
  virtual void refresh() = 0;
  // The appearance changed: re-colour what is not repainted from the palette.
  virtual void restyle();
  // Metric pages: show a span of the history (absent: live). Other pages ignore it.
  virtual void setRange(std::optional<TimeSpan>) {}

 protected:
  QVBoxLayout* content() { return content_; }
  PageContext& context_;

 private:
  QScrollArea* scroll_ = nullptr;
  QVBoxLayout* content_ = nullptr;
};

// The page's widget for `page`, its parent `parent`.
PageWidget* makePage(Page page, PageContext& context, QWidget* parent);

PageWidget* makeOverviewPage(PageContext& context, QWidget* parent);
PageWidget* makeMetricPage(Metric metric, PageContext& context, QWidget* parent);
PageWidget* makeSettingsPage(PageContext& context, QWidget* parent);
PageWidget* makeAppsPage(PageContext& context, QWidget* parent);
PageWidget* makeAlertsPage(PageContext& context, QWidget* parent);
PageWidget* makeAgentsPage(PageContext& context, QWidget* parent);
PageWidget* makeSensorsPage(PageContext& context, QWidget* parent);
// A page not built yet.
PageWidget* makeComingPage(Page page, PageContext& context, QWidget* parent);

}  // namespace vistrel::ui
