#include "widgets/activity_panel.h"

#include "engine/activity_tap.h"
#include "locale/translate.h"
#include "widgets/activity_view_model.h"

#include <QAction>
#include <QCheckBox>
#include <QClipboard>
#include <QGuiApplication>
#include <QHBoxLayout>
#include <QHeaderView>
#include <QLabel>
#include <QLineEdit>
#include <QMenu>
#include <QTableView>
#include <QToolButton>
#include <QVBoxLayout>

namespace corv::widgets {

ActivityPanel::ActivityPanel(ActivityViewModel *view_model, QWidget *parent)
    : QWidget(parent), m_view_model(view_model), m_filter(new ActivityFilter(this)),
      m_search(new QLineEdit(this)), m_filter_label(new QLabel(this)),
      m_show_all(new QToolButton(this)), m_trace_all(new QCheckBox(this)),
      m_pause(new QToolButton(this)), m_clear(new QToolButton(this)), m_status(new QLabel(this)),
      m_view(new QTableView(this))
{
    setObjectName(QStringLiteral("ActivityPanel"));
    auto *layout = new QVBoxLayout(this);
    layout->setContentsMargins(0, 0, 0, 0);
    auto *bar = new QHBoxLayout;
    m_search->setClearButtonEnabled(true);
    bar->addWidget(m_search, 1);
    bar->addWidget(m_filter_label);
    bar->addWidget(m_show_all);
    bar->addWidget(m_trace_all);
    m_pause->setCheckable(true);
    bar->addWidget(m_pause);
    bar->addWidget(m_clear);
    layout->addLayout(bar);
    layout->addWidget(m_status);
    layout->addWidget(m_view, 1);

    m_filter->setSourceModel(m_view_model);
    m_view->setModel(m_filter);
    m_view->setObjectName(QStringLiteral("ActivityView"));
    m_view->setSelectionBehavior(QAbstractItemView::SelectRows);
    m_view->setSelectionMode(QAbstractItemView::SingleSelection);
    m_view->setEditTriggers(QAbstractItemView::NoEditTriggers);
    m_view->setWordWrap(false);
    m_view->verticalHeader()->hide();
    m_view->verticalHeader()->setDefaultSectionSize(m_view->fontMetrics().height() + 4);
    m_view->horizontalHeader()->setStretchLastSection(true);
    m_view->setContextMenuPolicy(Qt::CustomContextMenu);

    connect(m_search, &QLineEdit::textChanged, m_filter, &ActivityFilter::set_text);
    connect(m_show_all, &QToolButton::clicked, this, [this] {
        m_filter->set_rack({});
        m_filter->set_node({});
        refresh_filter_label();
    });
    m_trace_all->setChecked(engine::ActivityTap::trace_all());
    connect(m_trace_all, &QCheckBox::toggled, this, [](bool on) { engine::ActivityTap::set_trace_all(on); });
    connect(m_pause, &QToolButton::toggled, m_view_model, &ActivityViewModel::set_paused);
    connect(m_clear, &QToolButton::clicked, m_view_model, &ActivityViewModel::clear);
    connect(m_view_model, &ActivityViewModel::counts_changed, this, &ActivityPanel::refresh_status);
    connect(m_view, &QTableView::clicked, this, [this](const QModelIndex &index) {
        const QModelIndex first = index.siblingAtColumn(0);
        Q_EMIT node_activated(first.data(ActivityViewModel::RackIdRole).toUuid(),
                              first.data(ActivityViewModel::NodeIdRole).toUuid());
    });
    connect(m_view, &QWidget::customContextMenuRequested, this, [this](const QPoint &at) {
        const QModelIndex index = m_view->indexAt(at);
        if (!index.isValid())
            return;
        m_view->setCurrentIndex(index);
        QMenu menu(this);
        const QList<QAction *> actions = row_actions(index.row());
        menu.addActions(actions);
        menu.exec(m_view->viewport()->mapToGlobal(at));
        qDeleteAll(actions);
    });
    retranslate();
}

QList<QAction *> ActivityPanel::row_actions(int row)
{
    const QModelIndex first = m_filter->index(row, 0);
    const QModelIndex current = m_view->currentIndex().row() == row ? m_view->currentIndex()
                                                                     : first;
    const QUuid rack = first.data(ActivityViewModel::RackIdRole).toUuid();
    const QUuid node = first.data(ActivityViewModel::NodeIdRole).toUuid();
    const QString rack_name = first.siblingAtColumn(ActivityViewModel::RackColumn).data().toString();
    const QString node_name = first.siblingAtColumn(ActivityViewModel::NodeColumn).data().toString();
    const int source_row = m_filter->mapToSource(first).row();
    QList<QAction *> actions;
    const auto add = [&](const char *key, auto &&what) {
        auto *action = new QAction(locale::translate(key));
        action->setObjectName(QString::fromLatin1(key));
        connect(action, &QAction::triggered, this, what);
        actions << action;
        return action;
    };
    add(CORV_TR_KEY("ActivityPanel.CopyValue"), [current] {
        QGuiApplication::clipboard()->setText(current.data().toString());
    });
    add(CORV_TR_KEY("ActivityPanel.CopyRow"), [this, source_row] {
        QGuiApplication::clipboard()->setText(m_view_model->row_text(source_row));
    });
    add(CORV_TR_KEY("ActivityPanel.OnlyRack"), [this, rack, rack_name] {
        m_rack_filter_name = rack_name;
        m_filter->set_rack(rack);
        refresh_filter_label();
    });
    add(CORV_TR_KEY("ActivityPanel.OnlyNode"), [this, node, node_name] {
        m_node_filter_name = node_name;
        m_filter->set_node(node);
        refresh_filter_label();
    });
    add(CORV_TR_KEY("ActivityPanel.HideNode"), [this, node] { m_view_model->set_node_hidden(node, true); });
    add(CORV_TR_KEY("ActivityPanel.ShowHidden"), [this] { m_view_model->show_hidden_nodes(); })
        ->setEnabled(m_view_model->has_hidden_nodes());
    return actions;
}

void ActivityPanel::refresh_status()
{
    const quint64 dropped = m_view_model->dropped();
    m_status->setVisible(dropped > 0);
    m_status->setText(locale::translate("ActivityPanel.Dropped.%1", QString::number(dropped)));
    QString tip = locale::translate("ActivityPanel.Capacity.%1",
                                    QString::number(ActivityViewModel::kCapacity));
    if (const quint64 gone = m_view_model->fallen_off())
        tip += u'\n' + locale::translate("ActivityPanel.FellOff.%1", QString::number(gone));
    m_view->setToolTip(tip);
}

void ActivityPanel::refresh_filter_label()
{
    QStringList parts;
    if (!m_filter->rack().isNull())
        parts << locale::translate("ActivityPanel.Filter.Rack.%1", m_rack_filter_name);
    if (!m_filter->node().isNull())
        parts << locale::translate("ActivityPanel.Filter.Node.%1", m_node_filter_name);
    m_filter_label->setText(parts.join(QLatin1String(", ")));
    m_filter_label->setVisible(!parts.isEmpty());
    m_show_all->setVisible(!parts.isEmpty());
}

void ActivityPanel::retranslate()
{
    m_search->setPlaceholderText(locale::translate("ActivityPanel.Search"));
    m_show_all->setText(locale::translate("ActivityPanel.ShowAll"));
    m_trace_all->setText(locale::translate("ActivityPanel.TraceAll"));
    m_pause->setText(locale::translate("ActivityPanel.Pause"));
    m_clear->setText(locale::translate("ActivityPanel.Clear"));
    refresh_status();
    refresh_filter_label();
    m_view_model->headerDataChanged(Qt::Horizontal, 0, ActivityViewModel::ColumnCount - 1);
}

} // namespace corv::widgets
