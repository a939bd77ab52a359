#include "ui/apps_model.hpp"

#include "ui/theme.hpp"

namespace vistrel::ui {

namespace {
// An app row's internal id; a process row's is its app's row + 1.
constexpr quintptr kAppRow = 0;
}  // namespace

AppsTreeModel::AppsTreeModel(QObject* parent) : QAbstractItemModel(parent) {}

void AppsTreeModel::setSnapshot(const Snapshot& s) {
  snapshot_ = s;
  rebuild();
}

void AppsTreeModel::setQuery(AppsQuery query) {
  query_ = std::move(query);
  rebuild();
}

void AppsTreeModel::rebuild() {
  beginResetModel();
  lines_ = snapshot_ ? appLines(*snapshot_, query_) : std::vector<AppLine>{};
  endResetModel();
}

const AppLine* AppsTreeModel::appAt(const QModelIndex& index) const {
  if (!index.isValid()) return nullptr;
  size_t row = index.internalId() == kAppRow ? static_cast<size_t>(index.row())
                                             : static_cast<size_t>(index.internalId() - 1);
  return row < lines_.size() ? &lines_[row] : nullptr;
}

const ProcessLine* AppsTreeModel::processAt(const QModelIndex& index) const {
  if (!index.isValid() || index.internalId() == kAppRow) return nullptr;
  const AppLine* app = appAt(index);
  auto row = static_cast<size_t>(index.row());
  return app && row < app->processes.size() ? &app->processes[row] : nullptr;
}

QModelIndex AppsTreeModel::indexOfApp(const std::string& id) const {
  for (size_t i = 0; i < lines_.size(); ++i) {
    if (lines_[i].id == id) return index(static_cast<int>(i), 0);
  }
  return {};
}

QModelIndex AppsTreeModel::indexOfProcess(const std::string& appId, int32_t pid) const {
  QModelIndex app = indexOfApp(appId);
  if (!app.isValid()) return {};
  const auto& processes = lines_[static_cast<size_t>(app.row())].processes;
  for (size_t i = 0; i < processes.size(); ++i) {
    if (processes[i].pid == pid) return index(static_cast<int>(i), 0, app);
  }
  return {};
}

QModelIndex AppsTreeModel::index(int row, int column, const QModelIndex& parent) const {
  if (row < 0 || column < 0 || column >= kAppColumns) return {};
  if (!parent.isValid()) {
    if (static_cast<size_t>(row) >= lines_.size()) return {};
    return createIndex(row, column, kAppRow);
  }
  if (parent.internalId() != kAppRow || parent.column() != 0) return {};  // processes are leaves
  auto appRow = static_cast<size_t>(parent.row());
  if (appRow >= lines_.size() || static_cast<size_t>(row) >= lines_[appRow].processes.size()) {
    return {};
  }
  return createIndex(row, column, static_cast<quintptr>(appRow + 1));
}

QModelIndex AppsTreeModel::parent(const QModelIndex& child) const {
  if (!child.isValid() || child.internalId() == kAppRow) return {};
  return createIndex(static_cast<int>(child.internalId() - 1), 0, kAppRow);
}

int AppsTreeModel::rowCount(const QModelIndex& parent) const {
  if (!parent.isValid()) return static_cast<int>(lines_.size());
  if (parent.internalId() != kAppRow || parent.column() != 0) return 0;
  auto row = static_cast<size_t>(parent.row());
  return row < lines_.size() ? static_cast<int>(lines_[row].processes.size()) : 0;
}

int AppsTreeModel::columnCount(const QModelIndex&) const {
  return kAppColumns;
}

QVariant AppsTreeModel::data(const QModelIndex& index, int role) const {
  if (!index.isValid()) return {};
  auto column = static_cast<AppColumn>(index.column());
  const ProcessLine* process = processAt(index);
  const AppLine* app = appAt(index);
  if (!app) return {};
  switch (role) {
    case Qt::DisplayRole:
      return QString::fromStdString(process ? cellText(*process, column) : cellText(*app, column));
    case Qt::TextAlignmentRole:
      if (column == AppColumn::name || column == AppColumn::lean) {
        return QVariant(static_cast<int>(Qt::AlignLeft | Qt::AlignVCenter));
      }
      return QVariant(static_cast<int>(Qt::AlignRight | Qt::AlignVCenter));
    case Qt::FontRole:
      if (column == AppColumn::name || column == AppColumn::lean) return textFont(kBody);
      return figureFont(kBody);
    case Qt::ForegroundRole:
      // Processes and macOS's own apps read quieter than the person's apps.
      if (process || app->isSystem) return currentPalette().muted;
      return {};
    case Qt::ToolTipRole:
      if (process && !process->path.empty()) return QString::fromStdString(process->path);
      if (!process && app->bundlePath) return QString::fromStdString(*app->bundlePath);
      return {};
    default:
      return {};
  }
}

QVariant AppsTreeModel::headerData(int section, Qt::Orientation orientation, int role) const {
  if (orientation != Qt::Horizontal || section < 0 || section >= kAppColumns) return {};
  auto column = static_cast<AppColumn>(section);
  if (role == Qt::DisplayRole) return QString::fromStdString(appColumnTitle(column));
  if (role == Qt::TextAlignmentRole) {
    return column == AppColumn::name || column == AppColumn::lean
               ? QVariant(static_cast<int>(Qt::AlignLeft | Qt::AlignVCenter))
               : QVariant(static_cast<int>(Qt::AlignRight | Qt::AlignVCenter));
  }
  return {};
}

void AppsTreeModel::sort(int column, Qt::SortOrder order) {
  if (column < 0 || column >= kAppColumns) return;
  AppsQuery q = query_;
  q.sort = static_cast<AppColumn>(column);
  q.descending = order == Qt::DescendingOrder;
  if (q.sort == query_.sort && q.descending == query_.descending) return;
  // The view emits layout signals around sort(); a reset tells it everything moved.
  setQuery(std::move(q));
  if (onSortChanged) onSortChanged(query_);
}

}  // namespace vistrel::ui
