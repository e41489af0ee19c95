#include "widgets/hotkeys_panel.h"

#include "widgets/hotkeys_view_model.h"

#include <QHeaderView>
#include <QSortFilterProxyModel>
#include <QTableView>
#include <QVBoxLayout>

namespace corv::widgets {

HotkeysPanel::HotkeysPanel(HotkeysViewModel *view_model, QWidget *parent)
    : QWidget(parent), m_view_model(view_model), m_sorted(new QSortFilterProxyModel(this)),
      m_view(new QTableView(this))
{
    setObjectName(QStringLiteral("HotkeysPanel"));
    auto *layout = new QVBoxLayout(this);
    layout->setContentsMargins(0, 0, 0, 0);
    layout->addWidget(m_view);

    m_sorted->setSourceModel(m_view_model);
    m_sorted->setSortCaseSensitivity(Qt::CaseInsensitive);
    m_view->setModel(m_sorted);
    m_view->setObjectName(QStringLiteral("HotkeysView"));
    m_view->setSelectionBehavior(QAbstractItemView::SelectRows);
    m_view->setSelectionMode(QAbstractItemView::SingleSelection);
    m_view->setEditTriggers(QAbstractItemView::NoEditTriggers);
    m_view->setWordWrap(false);
    m_view->verticalHeader()->hide();
    m_view->verticalHeader()->setDefaultSectionSize(m_view->fontMetrics().height() + 6);
    m_view->horizontalHeader()->setSectionResizeMode(QHeaderView::ResizeToContents);
    m_view->horizontalHeader()->setStretchLastSection(true);
    m_view->setSortingEnabled(true);
    m_view->sortByColumn(HotkeysViewModel::HotkeyColumn, Qt::AscendingOrder);

    connect(m_view, &QTableView::doubleClicked, this, [this](const QModelIndex &index) {
        const QModelIndex first = index.siblingAtColumn(0);
        Q_EMIT node_activated(first.data(HotkeysViewModel::RackIdRole).toUuid(),
                              first.data(HotkeysViewModel::NodeIdRole).toUuid());
    });
}

void HotkeysPanel::retranslate()
{
    m_view_model->headerDataChanged(Qt::Horizontal, 0, HotkeysViewModel::ColumnCount - 1);
    // "no hotkey" and the tooltips are texts of the rows.
    if (m_view_model->rowCount() > 0)
        Q_EMIT m_view_model->dataChanged(m_view_model->index(0, 0),
                                         m_view_model->index(m_view_model->rowCount() - 1,
                                                             HotkeysViewModel::ColumnCount - 1));
}

} // namespace corv::widgets
