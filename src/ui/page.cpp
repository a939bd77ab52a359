#include "ui/page.hpp"

#include <QScrollArea>
#include <QVBoxLayout>

#include "ui/views.hpp"
#include "ui/widgets.hpp"

namespace vistrel::ui {

PageWidget::PageWidget(PageContext& context, QWidget* parent) : QWidget(parent), context_(context) {
  auto* outer = new QVBoxLayout(this);
  outer->setContentsMargins(0, 0, 0, 0);
  scroll_ = new QScrollArea(this);
  scroll_->setWidgetResizable(true);
  scroll_->setFrameShape(QFrame::NoFrame);
  scroll_->setHorizontalScrollBarPolicy(Qt::ScrollBarAlwaysOff);
  auto* inner = new QWidget(scroll_);
  content_ = new QVBoxLayout(inner);
  content_->setContentsMargins(32, 26, 32, 28);
  content_->setSpacing(18);
  scroll_->setWidget(inner);
  outer->addWidget(scroll_);
}

void PageWidget::restyle() {
  restyleLabels(this);
  update();
}

PageWidget* makePage(Page page, PageContext& context, QWidget* parent) {
  if (page == Page::overview) return makeOverviewPage(context, parent);
  if (page == Page::settings) return makeSettingsPage(context, parent);
  if (page == Page::apps) return makeAppsPage(context, parent);
  if (page == Page::alerts) return makeAlertsPage(context, parent);
  if (page == Page::agents) return makeAgentsPage(context, parent);
  if (page == Page::sensors) return makeSensorsPage(context, parent);
  if (auto metric = pageMetric(page)) return makeMetricPage(*metric, context, parent);
  return makeComingPage(page, context, parent);
}

}  // namespace vistrel::ui
