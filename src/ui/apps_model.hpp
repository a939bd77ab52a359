#pragma once

// The apps table as a two-level Qt item model: apps at the top, their processes under them. It
// holds the lines of the view model (apps_view.hpp) and nothing else; sorting and filtering are
// done there, so the tree view asks the model to sort and the model rebuilds its lines.

#include <QAbstractItemModel>
#include <functional>

#include "ui/apps_view.hpp"

namespace vistrel::ui {

class AppsTreeModel final : public QAbstractItemModel {
 public:
  explicit AppsTreeModel(QObject* parent = nullptr);

  // New lines for a snapshot: the whole model is reset (the page keeps what was expanded and
  // selected by app id and pid).
  void setSnapshot(const Snapshot& s);
  void setQuery(AppsQuery query);
  const AppsQuery& query() const { return query_; }
  // Called after the person changed the sort (to remember it).
  std::function<void(const AppsQuery&)> onSortChanged;

  const std::vector<AppLine>& lines() const { return lines_; }
  // The app of a row (for a process row: its app); null for an invalid index.
  const AppLine* appAt(const QModelIndex& index) const;
  // The process of a process row; null for an app row.
  const ProcessLine* processAt(const QModelIndex& index) const;
  QModelIndex indexOfApp(const std::string& id) const;
  QModelIndex indexOfProcess(const std::string& appId, int32_t pid) const;

  QModelIndex index(int row, int column, const QModelIndex& parent = {}) const override;
  QModelIndex parent(const QModelIndex& child) const override;
  int rowCount(const QModelIndex& parent = {}) const override;
  int columnCount(const QModelIndex& parent = {}) const override;
  QVariant data(const QModelIndex& index, int role) const override;
  QVariant headerData(int section, Qt::Orientation orientation, int role) const override;
  void sort(int column, Qt::SortOrder order) override;

 private:
  void rebuild();
  std::optional<Snapshot> snapshot_;
  AppsQuery query_;
  std::vector<AppLine> lines_;
};

}  // namespace vistrel::ui
