// The apps page: every app with its processes under it, sortable and searchable, with the
// selected app's detail (its processes now and its share of the machine over the last day) and
// the actions on it. Nothing is ended from here without the window's quit confirmation.

#include <QAction>
#include <QApplication>
#include <QClipboard>
#include <QDesktopServices>
#include <QFileInfo>
#include <QFontMetrics>
#include <QHBoxLayout>
#include <QHeaderView>
#include <QLineEdit>
#include <QMenu>
#include <QPointer>
#include <QPushButton>
#include <QScrollBar>
#include <QTreeView>
#include <QUrl>
#include <QVBoxLayout>
#include <algorithm>
#include <chrono>
#include <set>

#include "app/model.hpp"
#include "base/user_defaults.hpp"
#include "format/platform_text.hpp"
#include "history/history_store.hpp"
#include "ui/apps_model.hpp"
#include "ui/charts.hpp"
#include "ui/page.hpp"
#include "ui/theme.hpp"
#include "ui/widgets.hpp"

namespace vistrel::ui {

namespace {

// Where the chosen sort is remembered.
constexpr const char* kSortKey = "appsSort";
// Seconds between two readings of the selected app's day from the history.
constexpr double kDayEvery = 60;

QString q(const std::string& s) {
  return QString::fromStdString(s);
}

double secondsNow() {
  using namespace std::chrono;
  return duration<double>(steady_clock::now().time_since_epoch()).count();
}

AppsQuery storedQuery(UserDefaults* defaults) {
  AppsQuery query;
  if (!defaults) return query;
  auto stored = defaults->get(kSortKey);
  if (!stored || !stored->is_object()) return query;
  auto column = stored->find("column");
  if (column != stored->end() && column->is_string()) {
    if (auto c = appColumnFromRaw(column->get<std::string>())) query.sort = *c;
  }
  auto descending = stored->find("descending");
  if (descending != stored->end() && descending->is_boolean()) {
    query.descending = descending->get<bool>();
  }
  return query;
}

class AppsPage final : public PageWidget {
 public:
  AppsPage(PageContext& context, QWidget* parent) : PageWidget(context, parent) {
    auto* header = new QHBoxLayout;
    auto* titles = new QVBoxLayout;
    titles->setSpacing(4);
    titles->addWidget(makeLabel("Apps", kTitle, false, true));
    summary_ = makeLabel({}, kBody, true);
    titles->addWidget(summary_);
    header->addLayout(titles, 1);
    content()->addLayout(header);

    auto* tools = new QHBoxLayout;
    tools->setSpacing(8);
    search_ = new QLineEdit;
    search_->setPlaceholderText("Search apps and processes");
    search_->setClearButtonEnabled(true);
    search_->setMinimumWidth(260);
    tools->addWidget(search_);
    tools->addStretch();
    auto* expandAll = new QPushButton("Expand All");
    auto* collapseAll = new QPushButton("Collapse All");
    tools->addWidget(expandAll);
    tools->addWidget(collapseAll);
    content()->addLayout(tools);

    model_ = new AppsTreeModel(this);
    model_->setQuery(storedQuery(context.defaults));
    model_->onSortChanged = [this](const AppsQuery& query) {
      if (context_.defaults) {
        context_.defaults->set(kSortKey, {{"column", std::string(rawValue(query.sort))},
                                          {"descending", query.descending}});
      }
    };
    tree_ = new QTreeView;
    tree_->setModel(model_);
    tree_->setUniformRowHeights(true);
    tree_->setAlternatingRowColors(false);
    tree_->setSelectionMode(QAbstractItemView::SingleSelection);
    tree_->setSelectionBehavior(QAbstractItemView::SelectRows);
    tree_->setEditTriggers(QAbstractItemView::NoEditTriggers);
    tree_->setContextMenuPolicy(Qt::CustomContextMenu);
    tree_->header()->setSortIndicator(
        static_cast<int>(model_->query().sort),
        model_->query().descending ? Qt::DescendingOrder : Qt::AscendingOrder);
    // After the indicator: turning sorting on sorts by it, which is the stored sort already.
    tree_->setSortingEnabled(true);
    tree_->header()->setStretchLastSection(false);
    tree_->header()->setSectionResizeMode(0, QHeaderView::Stretch);
    // Wide enough for the figures and for the column's title with the sort mark beside it.
    const int widths[] = {0, 60, 64, 80, 64, 80, 80, 52, 84};
    const QFontMetrics headerText(tree_->header()->font());
    for (int c = 1; c < kAppColumns; ++c) {
      const QString title = q(appColumnTitle(static_cast<AppColumn>(c)));
      tree_->header()->setSectionResizeMode(c, QHeaderView::Fixed);
      tree_->header()->resizeSection(c,
                                     std::max(widths[c], headerText.horizontalAdvance(title) + 30));
    }
    tree_->setMinimumHeight(300);
    content()->addWidget(tree_, 3);

    detail_ = new Card;
    detailTitle_ = makeLabel({}, kHeading, false, true);
    detailNote_ = makeLabel({}, kCaption, true);
    detail_->body()->addWidget(detailTitle_);
    detail_->body()->addWidget(detailNote_);
    auto* detailRow = new QHBoxLayout;
    detailRow->setSpacing(18);
    processes_ = new Rows({64, 96, 70});
    processes_->setTextColumns({true, false, false, false});
    detailRow->addWidget(processes_, 1, Qt::AlignTop);
    auto* dayBox = new QVBoxLayout;
    day_ = new Chart;
    day_->setMinimumHeight(120);
    dayBox->addWidget(day_);
    dayCaption_ = makeLabel({}, kCaption, true);
    dayCaption_->setWordWrap(true);
    dayBox->addWidget(dayCaption_);
    detailRow->addLayout(dayBox, 1);
    detail_->body()->addLayout(detailRow);
    auto* actions = new QHBoxLayout;
    actions->addStretch();
    quitButton_ = new QPushButton("Quit…");
    actions->addWidget(quitButton_);
    detail_->body()->addLayout(actions);
    detail_->hide();
    content()->addWidget(detail_, 2);

    QObject::connect(search_, &QLineEdit::textChanged, [this](const QString& text) {
      AppsQuery query = model_->query();
      query.filter = text.trimmed().toStdString();
      remember();
      model_->setQuery(std::move(query));
      restore(/*expandMatches=*/!search_->text().trimmed().isEmpty());
    });
    QObject::connect(expandAll, &QPushButton::clicked, [this] {
      tree_->expandAll();
      remember();
    });
    QObject::connect(collapseAll, &QPushButton::clicked, [this] {
      tree_->collapseAll();
      expanded_.clear();
    });
    QObject::connect(tree_, &QTreeView::expanded, [this](const QModelIndex& i) {
      if (const AppLine* app = model_->appAt(i)) expanded_.insert(app->id);
    });
    QObject::connect(tree_, &QTreeView::collapsed, [this](const QModelIndex& i) {
      if (const AppLine* app = model_->appAt(i)) expanded_.erase(app->id);
    });
    QObject::connect(tree_->selectionModel(), &QItemSelectionModel::currentRowChanged,
                     [this](const QModelIndex& current, const QModelIndex&) {
                       if (restoring_) return;
                       const AppLine* app = model_->appAt(current);
                       const ProcessLine* process = model_->processAt(current);
                       selectedApp_ = app ? app->id : "";
                       selectedPid_ = process ? process->pid : 0;
                       dayAt_ = -1e9;  // a new app: read its day now
                       showDetail();
                     });
    QObject::connect(tree_, &QTreeView::customContextMenuRequested,
                     [this](const QPoint& at) { contextMenu(tree_->indexAt(at), at); });
    QObject::connect(quitButton_, &QPushButton::clicked, [this] { askToQuit(); });
    restyle();
  }

  void refresh() override {
    const auto& latest = context_.model.latest();
    if (!latest) {
      summary_->setText("Reading the apps…");
      return;
    }
    remember();
    model_->setSnapshot(*latest);
    restore(!model_->query().filter.empty());
    if (!everSelected_ && model_->rowCount() > 0) {
      // The page opens on the busiest app's detail: something to read before the first click.
      everSelected_ = true;
      tree_->selectionModel()->setCurrentIndex(
          model_->index(0, 0), QItemSelectionModel::ClearAndSelect | QItemSelectionModel::Rows);
    }
    summary_->setText(
        QString("%1 apps, %2 processes").arg(latest->apps.size()).arg(latest->processes.size()));
    showDetail();
  }

  void restyle() override {
    PageWidget::restyle();
    // The selected row in the palette's quiet selection colour, its text unchanged: the accent
    // stays for marks, and a selected row's figures read as the others do.
    QPalette pal = tree_->palette();
    pal.setColor(QPalette::Highlight, currentPalette().selection);
    pal.setColor(QPalette::HighlightedText, currentPalette().text);
    tree_->setPalette(pal);
    tree_->viewport()->update();
  }

 private:
  // Before the model is reset: what is expanded (kept by the signals), and where the view is.
  void remember() { scroll_ = tree_->verticalScrollBar()->value(); }

  // After the reset: the same apps expanded, the same row selected, the view where it was. While
  // searching, every app with matches is expanded so each match shows under its app.
  void restore(bool expandMatches) {
    restoring_ = true;
    for (int row = 0; row < model_->rowCount(); ++row) {
      QModelIndex i = model_->index(row, 0);
      const AppLine* app = model_->appAt(i);
      if (expandMatches || expanded_.count(app->id)) tree_->setExpanded(i, true);
    }
    QModelIndex selected = selectedPid_ ? model_->indexOfProcess(selectedApp_, selectedPid_)
                                        : model_->indexOfApp(selectedApp_);
    if (selected.isValid()) {
      tree_->selectionModel()->setCurrentIndex(
          selected, QItemSelectionModel::ClearAndSelect | QItemSelectionModel::Rows);
    }
    tree_->verticalScrollBar()->setValue(scroll_);
    restoring_ = false;
  }

  const AppLine* selectedLine() const {
    QModelIndex i = model_->indexOfApp(selectedApp_);
    return i.isValid() ? model_->appAt(i) : nullptr;
  }

  // The app of the latest snapshot behind a line.
  const AppUsage* usageOf(const std::string& id) const {
    const auto& latest = context_.model.latest();
    if (!latest) return nullptr;
    for (const AppUsage& a : latest->apps) {
      if (a.id == id) return &a;
    }
    return nullptr;
  }

  void showDetail() {
    const AppLine* app = selectedLine();
    if (!app) {
      detail_->hide();
      return;
    }
    detail_->show();
    detailTitle_->setText(q(app->name));
    QString note = app->processCount == 1 ? QString("1 process")
                                          : QString("%1 processes").arg(app->processCount);
    if (app->bundlePath) note += QString::fromUtf8(" · ") + q(*app->bundlePath);
    detailNote_->setText(note);
    std::vector<Rows::Row> rows;
    rows.push_back({{"Process", "CPU", "Memory", "pid"}});
    for (const ProcessLine& p : app->processes) {
      rows.push_back({{q(p.name), q(cellText(p, AppColumn::cpu)), q(cellText(p, AppColumn::memory)),
                       QString::number(p.pid)}});
    }
    processes_->setRows(std::move(rows));
    const AppUsage* usage = usageOf(app->id);
    quitButton_->setEnabled(usage && context_.model.canQuit(*usage));
    quitButton_->setToolTip(quitButton_->isEnabled()
                                ? QString()
                                : q(platformText("This app belongs to macOS or another user.")));
    if (secondsNow() - dayAt_ > kDayEvery) askDay();
  }

  // The selected app's last day from the history store; the answer arrives on the main queue,
  // when the page may be gone or another app selected.
  void askDay() {
    dayAt_ = secondsNow();
    HistoryStore* history = context_.history;
    if (!history) {
      day_->setBars({}, {});
      day_->setEmptyText("The history could not be opened.");
      dayCaption_->clear();
      return;
    }
    QPointer<AppsPage> self(this);
    const std::string id = selectedApp_;
    // Enough apps that any app with a real share of the day is among them.
    history->topApps(Metric::cpu, TimeSpan::day, 200, [self, id](std::vector<AppHistory> top) {
      if (!self || self->selectedApp_ != id) return;
      const auto& latest = self->context_.model.latest();
      AppDayView v = appDayView(id, top, latest ? latest->cpu.cores.size() : 1);
      self->day_->setEmptyText(q(v.empty));
      self->day_->setBars(v.bars, {});
      self->day_->setAxis(q(v.scale), {}, "24 h ago", "now");
      self->dayCaption_->setText(q(v.average));
    });
  }

  void askToQuit() {
    if (const AppUsage* usage = usageOf(selectedApp_)) context_.model.confirmQuit(*usage);
  }

  void contextMenu(const QModelIndex& index, const QPoint& at) {
    const AppLine* app = model_->appAt(index);
    if (!app) return;
    const ProcessLine* process = model_->processAt(index);
    const AppUsage* usage = usageOf(app->id);
    const bool quittable = usage && context_.model.canQuit(*usage);
    const std::string appId = app->id;
    QMenu menu(tree_);
    // Both go through the confirmation, which offers the force quit beside the quit.
    QAction* quit = menu.addAction("Quit…", [this, appId] {
      if (const AppUsage* u = usageOf(appId)) context_.model.confirmQuit(*u);
    });
    QAction* force = menu.addAction("Force Quit…", [this, appId] {
      if (const AppUsage* u = usageOf(appId)) context_.model.confirmQuit(*u);
    });
    quit->setEnabled(quittable);
    force->setEnabled(quittable);
    menu.addSeparator();
    int32_t pid = process ? process->pid : (usage && !usage->pids.empty() ? usage->pids[0] : 0);
    QAction* copy = menu.addAction(
        "Copy Process ID", [pid] { QApplication::clipboard()->setText(QString::number(pid)); });
    copy->setEnabled(pid > 0);
    std::string path = process ? process->path : app->bundlePath.value_or("");
    if (path.empty() && usage) {
      for (const ProcessLine& p : app->processes) {
        if (!p.path.empty()) {
          path = p.path;
          break;
        }
      }
    }
    QAction* show =
        menu.addAction(runningOnLinux() ? "Show in File Manager" : "Show in Finder", [path] {
          QDesktopServices::openUrl(
              QUrl::fromLocalFile(QFileInfo(QString::fromStdString(path)).absolutePath()));
        });
    show->setEnabled(!path.empty());
    menu.exec(tree_->viewport()->mapToGlobal(at));
  }

  AppsTreeModel* model_ = nullptr;
  QTreeView* tree_ = nullptr;
  QLineEdit* search_ = nullptr;
  QLabel* summary_ = nullptr;
  Card* detail_ = nullptr;
  QLabel* detailTitle_ = nullptr;
  QLabel* detailNote_ = nullptr;
  Rows* processes_ = nullptr;
  Chart* day_ = nullptr;
  QLabel* dayCaption_ = nullptr;
  QPushButton* quitButton_ = nullptr;
  std::set<std::string> expanded_;
  std::string selectedApp_;
  int32_t selectedPid_ = 0;
  int scroll_ = 0;
  bool everSelected_ = false;  // the first snapshot selects the top app once
  bool restoring_ = false;
  double dayAt_ = -1e9;
};

}  // namespace

PageWidget* makeAppsPage(PageContext& context, QWidget* parent) {
  return new AppsPage(context, parent);
}

}  // namespace vistrel::ui
