#include "widgets/racks_panel.h"

#include "locale/translate.h"
#include "widgets/racks_panel_view_model.h"

#include <QEvent>
#include <QAction>
#include <QClipboard>
#include <QGuiApplication>
#include <QLineEdit>
#include <QListView>
#include <QMenu>
#include <QMimeData>
#include <QSortFilterProxyModel>
#include <QLabel>
#include <QPainter>
#include <QPushButton>
#include <QStyledItemDelegate>
#include <QVBoxLayout>

namespace corv::widgets {

namespace {

// A rack's row: its name, and its status in a smaller, muted text at the right.
class RackRowDelegate : public QStyledItemDelegate
{
public:
    using QStyledItemDelegate::QStyledItemDelegate;

    void paint(QPainter *painter, const QStyleOptionViewItem &option, const QModelIndex &index) const override
    {
        QStyledItemDelegate::paint(painter, option, index);
        const QString status = index.data(RacksPanelViewModel::StatusRole).toString();
        if (status.isEmpty())
            return;
        painter->save();
        QFont font = option.font;
        font.setPointSizeF(font.pointSizeF() * 0.85);
        painter->setFont(font);
        const bool selected = option.state & QStyle::State_Selected;
        painter->setPen(option.palette.color(QPalette::Disabled,
                                             selected ? QPalette::HighlightedText : QPalette::Text));
        const QFontMetrics metrics(font);
        const QRect area = option.rect.adjusted(option.rect.width() / 2, 0, -4, 0);
        painter->drawText(area, Qt::AlignRight | Qt::AlignVCenter,
                          metrics.elidedText(status, Qt::ElideLeft, area.width()));
        painter->restore();
    }
};

} // namespace

RacksPanel::RacksPanel(RacksPanelViewModel *view_model, QWidget *parent)
    : QWidget(parent), m_view_model(view_model), m_search(new QLineEdit(this)), m_list(new QListView(this)),
      m_filter(new QSortFilterProxyModel(this))
{
    setWindowTitle(locale::translate("RacksPanel.Title"));
    auto *layout = new QVBoxLayout(this);
    layout->setContentsMargins(0, 0, 0, 0);
    m_search->setPlaceholderText(locale::translate("RacksPanel.Search"));
    m_search->setClearButtonEnabled(true);
    layout->addWidget(m_search);
    layout->addWidget(m_list);
    m_empty = new QWidget(this);
    m_empty->setObjectName(QStringLiteral("RacksPanelEmptyHint"));
    auto *hint = new QVBoxLayout(m_empty);
    m_empty_label = new QLabel(locale::translate("RacksPanel.EmptyHint"), m_empty);
    m_empty_label->setWordWrap(true);
    m_empty_button = new QPushButton(locale::translate("Action.Add"), m_empty);
    hint->addWidget(m_empty_label);
    hint->addWidget(m_empty_button, 0, Qt::AlignLeft);
    hint->addStretch(1);
    layout->addWidget(m_empty, 1);

    m_filter->setSourceModel(m_view_model);
    m_filter->setFilterCaseSensitivity(Qt::CaseInsensitive);
    m_list->setModel(m_filter);
    m_list->setItemDelegate(new RackRowDelegate(m_list));
    m_list->setSelectionMode(QAbstractItemView::ExtendedSelection);
    m_list->setEditTriggers(QAbstractItemView::EditKeyPressed | QAbstractItemView::SelectedClicked |
                            QAbstractItemView::DoubleClicked);
    m_list->setDragDropMode(QAbstractItemView::DragDrop);
    m_list->setDefaultDropAction(Qt::MoveAction);
    m_list->setDropIndicatorShown(true);
    m_list->setContextMenuPolicy(Qt::CustomContextMenu);
    setFocusProxy(m_list);

    m_add = new QAction(locale::translate("Action.Add"), this);
    m_rename = new QAction(locale::translate("Action.Rename"), this);
    m_enabled = new QAction(locale::translate("Action.Enabled"), this);
    m_enabled->setCheckable(true);
    m_cut = new QAction(locale::translate("Action.Cut"), this);
    m_copy = new QAction(locale::translate("Action.Copy"), this);
    m_paste = new QAction(locale::translate("Action.Paste"), this);
    m_delete = new QAction(locale::translate("Action.Delete"), this);
    connect(m_add, &QAction::triggered, this, &RacksPanel::add_rack);
    connect(m_rename, &QAction::triggered, this, &RacksPanel::rename_selected);
    connect(m_enabled, &QAction::triggered, this,
            [this](bool on) { m_view_model->set_racks_enabled(selected_racks(), on); });
    connect(m_cut, &QAction::triggered, this, &RacksPanel::cut);
    connect(m_copy, &QAction::triggered, this, &RacksPanel::copy);
    connect(m_paste, &QAction::triggered, this, &RacksPanel::paste);
    connect(m_delete, &QAction::triggered, this, &RacksPanel::remove_selected);
    connect(m_empty_button, &QPushButton::clicked, this, &RacksPanel::add_rack);
    for (auto changed : {&QAbstractItemModel::rowsInserted, &QAbstractItemModel::rowsRemoved})
        connect(m_view_model, changed, this, &RacksPanel::update_empty_hint);
    connect(m_view_model, &QAbstractItemModel::modelReset, this, &RacksPanel::update_empty_hint);

    connect(m_list, &QWidget::customContextMenuRequested, this, [this](const QPoint &at) {
        update_actions();
        QMenu menu(this);
        menu.addActions({m_add, m_rename, m_enabled});
        menu.addSeparator();
        menu.addActions({m_cut, m_copy, m_paste, m_delete});
        menu.exec(m_list->viewport()->mapToGlobal(at));
    });
    connect(m_search, &QLineEdit::textChanged, this, [this](const QString &text) {
        m_filter->setFilterFixedString(text);
        // Rows of a narrowed list are no place to drop at.
        m_list->setDragDropMode(text.isEmpty() ? QAbstractItemView::DragDrop : QAbstractItemView::DragOnly);
    });
    connect(m_list->selectionModel(), &QItemSelectionModel::currentChanged, this,
            [this](const QModelIndex &current) {
                m_view_model->set_selected_rack(m_filter->mapToSource(current).data(RacksPanelViewModel::IdRole).toUuid());
            });
    connect(m_list->selectionModel(), &QItemSelectionModel::selectionChanged, this, &RacksPanel::update_actions);
    connect(m_view_model, &RacksPanelViewModel::selected_rack_changed, this, [this](const QUuid &rack) {
        show_rack(rack);
        update_actions();
        Q_EMIT selected_rack_changed(rack);
    });
    connect(m_view_model, &QAbstractItemModel::dataChanged, this, &RacksPanel::update_actions);
    // A project taken up (a new one has no rack to select) enables Add.
    connect(m_view_model, &QAbstractItemModel::modelReset, this, &RacksPanel::update_actions);
    update_actions();
    update_empty_hint();
}

void RacksPanel::update_empty_hint()
{
    const bool empty = m_view_model->context().project && m_view_model->rowCount() == 0;
    m_empty->setVisible(empty);
    m_list->setVisible(!empty);
    m_search->setVisible(!empty);
}

RacksPanel::~RacksPanel() = default;

void RacksPanel::show_rack(const QUuid &rack)
{
    const QModelIndex index = m_filter->mapFromSource(m_view_model->index(m_view_model->row_of(rack)));
    if (index == m_list->currentIndex())
        return;
    if (index.isValid())
        m_list->setCurrentIndex(index);
    else
        m_list->selectionModel()->clear();
}

QList<QUuid> RacksPanel::selected_racks() const
{
    QList<int> rows;
    for (const QModelIndex &index : m_list->selectionModel()->selectedIndexes())
        rows.append(m_filter->mapToSource(index).row());
    std::sort(rows.begin(), rows.end());
    QList<QUuid> racks;
    for (int row : std::as_const(rows))
        racks.append(m_view_model->rack_at(row));
    return racks;
}

void RacksPanel::update_actions()
{
    const QList<QUuid> selected = selected_racks();
    const bool has_project = m_view_model->context().project != nullptr;
    m_add->setEnabled(has_project);
    m_rename->setEnabled(selected.size() == 1);
    m_enabled->setEnabled(!selected.isEmpty());
    const QModelIndex current = m_view_model->index(m_view_model->row_of(m_view_model->selected_rack()));
    m_enabled->setChecked(current.isValid() ? current.data(RacksPanelViewModel::EnabledRole).toBool() : false);
    m_cut->setEnabled(!selected.isEmpty());
    m_copy->setEnabled(!selected.isEmpty());
    m_delete->setEnabled(!selected.isEmpty());
    m_paste->setEnabled(has_project);
}

void RacksPanel::add_rack()
{
    const QList<QUuid> selected = selected_racks();
    const int row = selected.isEmpty() ? -1 : m_view_model->row_of(selected.last()) + 1;
    m_search->clear();
    const QUuid id = m_view_model->add_rack(row);
    if (id.isNull())
        return;
    m_view_model->set_selected_rack(id);
    rename_selected();
}

void RacksPanel::rename_selected()
{
    const QModelIndex index = m_list->currentIndex();
    if (index.isValid())
        m_list->edit(index);
}

void RacksPanel::copy()
{
    if (QMimeData *data = m_view_model->copy_racks(selected_racks()))
        QGuiApplication::clipboard()->setMimeData(data);
}

void RacksPanel::cut()
{
    const QList<QUuid> selected = selected_racks();
    if (QMimeData *data = m_view_model->copy_racks(selected)) {
        QGuiApplication::clipboard()->setMimeData(data);
        m_view_model->remove_racks(selected, CORV_TR_KEY("Edit.CutRack"));
    }
}

void RacksPanel::paste()
{
    const QList<QUuid> selected = selected_racks();
    const int row = selected.isEmpty() ? -1 : m_view_model->row_of(selected.last()) + 1;
    const QList<QUuid> pasted = m_view_model->paste_racks(QGuiApplication::clipboard()->mimeData(), row);
    if (!pasted.isEmpty())
        m_view_model->set_selected_rack(pasted.first());
}

void RacksPanel::remove_selected()
{
    m_view_model->remove_racks(selected_racks());
}

void RacksPanel::select_all()
{
    m_list->selectAll();
}

void RacksPanel::changeEvent(QEvent *event)
{
    if (event->type() == QEvent::LanguageChange) {
        setWindowTitle(locale::translate("RacksPanel.Title"));
        m_search->setPlaceholderText(locale::translate("RacksPanel.Search"));
        m_empty_label->setText(locale::translate("RacksPanel.EmptyHint"));
        m_empty_button->setText(locale::translate("Action.Add"));
        const std::pair<QAction *, const char *> actions[] = {
            {m_add, CORV_TR_KEY("Action.Add")},       {m_rename, CORV_TR_KEY("Action.Rename")},
            {m_enabled, CORV_TR_KEY("Action.Enabled")}, {m_cut, CORV_TR_KEY("Action.Cut")},
            {m_copy, CORV_TR_KEY("Action.Copy")},     {m_paste, CORV_TR_KEY("Action.Paste")},
            {m_delete, CORV_TR_KEY("Action.Delete")}};
        for (const auto &[action, key] : actions)
            action->setText(locale::translate(key));
        m_view_model->refresh_status();
    }
    QWidget::changeEvent(event);
}

} // namespace corv::widgets
