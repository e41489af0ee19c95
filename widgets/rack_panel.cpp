#include "widgets/rack_panel.h"

#include "engine/project_runtime.h"
#include "locale/translate.h"
#include "model/project.h"
#include "widgets/add_node_widget.h"
#include "widgets/add_node_widget_view_model.h"
#include "widgets/rack_panel_view_model.h"

#include <QEvent>
#include <QAction>
#include <QApplication>
#include <QClipboard>
#include <QFrame>
#include <QGuiApplication>
#include <QHeaderView>
#include <QLineEdit>
#include <QMenu>
#include <QMimeData>
#include <QPainter>
#include <QStyledItemDelegate>
#include <QTreeView>
#include <QVBoxLayout>

namespace corv::widgets {

namespace {

// Draws a row with the marks of its decoration at the right: where the node
// takes events from, and where it sends them.
class NodeRowDelegate : public QStyledItemDelegate
{
public:
    using QStyledItemDelegate::QStyledItemDelegate;

    void paint(QPainter *painter, const QStyleOptionViewItem &option, const QModelIndex &index) const override
    {
        QString marks = RackPanelViewModel::mark_glyphs(index.data(RackPanelViewModel::DecorationMaskRole).toUInt());
        if (!index.data(RackPanelViewModel::IdleRole).toString().isEmpty())
            marks.prepend(QChar(0x2298)); // stays idle on this desktop
        if (marks.isEmpty()) {
            QStyledItemDelegate::paint(painter, option, index);
            return;
        }
        const int width = option.fontMetrics.horizontalAdvance(marks) + 8;
        // The row's background (selection, flash) across the marks too.
        QStyleOptionViewItem full = option;
        initStyleOption(&full, index);
        const QWidget *widget = option.widget;
        QStyle *style = widget ? widget->style() : QApplication::style();
        style->drawPrimitive(QStyle::PE_PanelItemViewItem, &full, painter, widget);
        // The rest as the base class draws it, in the narrower rect and
        // without painting the (translucent) flash a second time.
        QStyleOptionViewItem text_option = full;
        text_option.rect.setRight(option.rect.right() - width);
        text_option.backgroundBrush = Qt::NoBrush;
        style->drawControl(QStyle::CE_ItemViewItem, &text_option, painter, widget);
        QRect marks_rect = option.rect;
        marks_rect.setLeft(option.rect.right() - width);
        painter->save();
        QColor pen = option.palette.color(option.state & QStyle::State_Selected ? QPalette::HighlightedText
                                                                                : QPalette::Text);
        pen.setAlphaF(0.6f);
        painter->setPen(pen);
        painter->drawText(marks_rect.adjusted(0, 0, -4, 0), Qt::AlignRight | Qt::AlignVCenter, marks);
        painter->restore();
    }
};

} // namespace

RackPanel::RackPanel(RackPanelViewModel *view_model, QWidget *parent)
    : QWidget(parent), m_view_model(view_model), m_tree(new QTreeView(this)),
      m_add_model(new AddNodeWidgetViewModel(this)), m_popup(new QFrame(this, Qt::Popup)),
      m_add_widget(new AddNodeWidget(m_add_model, m_popup))
{
    setWindowTitle(m_view_model->title());
    auto *layout = new QVBoxLayout(this);
    layout->setContentsMargins(0, 0, 0, 0);
    layout->addWidget(m_tree);
    m_tree->setModel(m_view_model);
    m_tree->setHeaderHidden(true);
    // Every row is one line: the view need not measure them.
    m_tree->setUniformRowHeights(true);
    m_tree->setItemDelegate(new NodeRowDelegate(m_tree));
    m_tree->setSelectionMode(QAbstractItemView::ExtendedSelection);
    m_tree->setEditTriggers(QAbstractItemView::NoEditTriggers);
    m_tree->setDragDropMode(QAbstractItemView::DragDrop);
    m_tree->setDefaultDropAction(Qt::MoveAction);
    m_tree->setDropIndicatorShown(true);
    m_tree->setContextMenuPolicy(Qt::CustomContextMenu);
    setFocusProxy(m_tree);

    m_popup->setFrameShape(QFrame::StyledPanel);
    auto *popup_layout = new QVBoxLayout(m_popup);
    popup_layout->setContentsMargins(0, 0, 0, 0);
    popup_layout->addWidget(m_add_widget);
    m_popup->resize(480, 360);
    connect(m_add_widget, &AddNodeWidget::node_chosen, this, &RackPanel::chosen);
    connect(m_add_widget, &AddNodeWidget::cancelled, m_popup, &QWidget::hide);

    m_edit = new QAction(locale::translate("Action.Edit"), this);
    m_add_inside = new QAction(locale::translate("Action.AddInside"), this);
    m_replace = new QAction(locale::translate("Action.Replace"), this);
    m_cut = new QAction(locale::translate("Action.Cut"), this);
    m_copy = new QAction(locale::translate("Action.Copy"), this);
    m_paste = new QAction(locale::translate("Action.Paste"), this);
    m_delete = new QAction(locale::translate("Action.Delete"), this);
    connect(m_edit, &QAction::triggered, this, [this] {
        if (!current_node().isNull())
            Q_EMIT edit_requested(current_node());
    });
    connect(m_add_inside, &QAction::triggered, this, &RackPanel::add_inside);
    connect(m_replace, &QAction::triggered, this, &RackPanel::replace_current);
    connect(m_cut, &QAction::triggered, this, &RackPanel::cut);
    connect(m_copy, &QAction::triggered, this, &RackPanel::copy);
    connect(m_paste, &QAction::triggered, this, &RackPanel::paste);
    connect(m_delete, &QAction::triggered, this, &RackPanel::remove_selected);

    connect(m_tree, &QWidget::customContextMenuRequested, this, [this](const QPoint &at) {
        if (!m_tree->indexAt(at).isValid())
            m_tree->selectionModel()->clear();
        update_actions();
        QMenu menu(this);
        menu.addActions({m_edit, m_add_inside, m_replace});
        menu.addSeparator();
        menu.addActions({m_cut, m_copy, m_paste, m_delete});
        menu.exec(m_tree->viewport()->mapToGlobal(at));
    });
    connect(m_tree, &QTreeView::expanded, this, [this](const QModelIndex &index) {
        if (!m_restoring)
            m_expanded[m_view_model->rack()].insert(m_view_model->node_id(index));
    });
    connect(m_tree, &QTreeView::collapsed, this, [this](const QModelIndex &index) {
        if (!m_restoring)
            m_expanded[m_view_model->rack()].remove(m_view_model->node_id(index));
    });
    connect(m_tree, &QTreeView::doubleClicked, this, [this](const QModelIndex &index) {
        Q_EMIT edit_requested(m_view_model->node_id(index));
    });
    connect(m_tree->selectionModel(), &QItemSelectionModel::currentChanged, this, [this](const QModelIndex &current) {
        update_actions();
        Q_EMIT selected_node_changed(m_view_model->node_id(current));
    });
    connect(m_tree->selectionModel(), &QItemSelectionModel::selectionChanged, this, &RackPanel::update_actions);
    connect(m_view_model, &RackPanelViewModel::title_changed, this, [this](const QString &title) {
        setWindowTitle(title);
        Q_EMIT title_changed(title);
    });
    connect(m_view_model, &RackPanelViewModel::nodes_dropped, this, &RackPanel::select_nodes);
    connect(m_view_model, &QAbstractItemModel::modelReset, this, [this] {
        update_actions();
        Q_EMIT selected_node_changed({});
    });
    update_actions();
}

RackPanel::~RackPanel() = default;

void RackPanel::set_rack(const QUuid &rack)
{
    m_view_model->set_rack(rack);
    const QUuid shown = m_view_model->rack();
    if (shown.isNull())
        return;
    m_restoring = true;
    auto it = m_expanded.find(shown);
    if (it != m_expanded.end()) {
        for (const QUuid &id : std::as_const(*it)) {
            const QModelIndex index = m_view_model->index_of(id);
            if (index.isValid())
                m_tree->expand(index);
        }
    } else {
        const PanelContext &context = m_view_model->context();
        const model::Rack *r = context.project->find_rack(shown);
        const QList<QUuid> nodes = context.runtime ? context.runtime->rack_nodes(*r) : QList<QUuid>();
        QSet<QUuid> &expanded = m_expanded[shown];
        if (!nodes.isEmpty() && nodes.size() <= kExpandLimit) {
            m_tree->expandAll();
            for (const QUuid &id : nodes) {
                const model::Node *node = context.project->find_node(id);
                if (node && node->children()->count())
                    expanded.insert(id);
            }
        }
    }
    m_restoring = false;
}

QList<QUuid> RackPanel::selected_nodes() const
{
    QList<QUuid> ids;
    for (const QModelIndex &index : m_tree->selectionModel()->selectedRows())
        ids.append(m_view_model->node_id(index));
    return m_view_model->top_nodes(ids);
}

QUuid RackPanel::current_node() const
{
    return m_view_model->node_id(m_tree->currentIndex());
}

void RackPanel::select_node(const QUuid &node)
{
    const QModelIndex index = m_view_model->index_of(node);
    if (!index.isValid())
        return;
    for (QModelIndex p = index.parent(); p.isValid(); p = p.parent())
        m_tree->expand(p);
    m_tree->setCurrentIndex(index);
    m_tree->scrollTo(index);
}

void RackPanel::update_actions()
{
    const bool has_rack = !m_view_model->rack().isNull();
    const bool has_selection = has_rack && m_tree->selectionModel()->hasSelection();
    const bool has_current = has_rack && m_tree->currentIndex().isValid();
    m_edit->setEnabled(has_current);
    m_add_inside->setEnabled(has_rack);
    m_replace->setEnabled(has_current);
    m_cut->setEnabled(has_selection);
    m_copy->setEnabled(has_selection);
    m_paste->setEnabled(has_rack);
    m_delete->setEnabled(has_selection);
}

void RackPanel::open_chooser(bool replace)
{
    if (m_view_model->rack().isNull() || (replace && current_node().isNull()))
        return;
    m_replacing = replace;
    m_add_model->set_registry(m_view_model->context().registry);
    m_add_widget->reset();
    const QRect row = m_tree->visualRect(m_tree->currentIndex());
    const QPoint at = row.isValid() ? row.bottomLeft() : QPoint(0, 0);
    m_popup->move(m_tree->viewport()->mapToGlobal(at));
    m_popup->show();
    m_add_widget->setFocus();
}

void RackPanel::add_inside()
{
    open_chooser(false);
}

void RackPanel::replace_current()
{
    open_chooser(true);
}

void RackPanel::chosen(const QString &impl_id)
{
    m_popup->hide();
    const QUuid current = current_node();
    const QUuid id = m_replacing ? m_view_model->replace_node(current, impl_id)
                                 : m_view_model->add_node(impl_id, current);
    if (!id.isNull())
        select_node(id);
}

void RackPanel::copy()
{
    if (QMimeData *data = m_view_model->copy_nodes(selected_nodes()))
        QGuiApplication::clipboard()->setMimeData(data);
}

void RackPanel::cut()
{
    const QList<QUuid> selected = selected_nodes();
    if (QMimeData *data = m_view_model->copy_nodes(selected)) {
        QGuiApplication::clipboard()->setMimeData(data);
        m_view_model->remove_nodes(selected, CORV_TR_KEY("Edit.CutNode"));
    }
}

void RackPanel::paste()
{
    // After the current node, in its parent; at the end of the rack with none.
    const QModelIndex current = m_tree->currentIndex();
    const QUuid parent = current.isValid() ? m_view_model->parent_id(current) : QUuid();
    const int row = current.isValid() ? current.row() + 1 : -1;
    select_nodes(m_view_model->paste_nodes(QGuiApplication::clipboard()->mimeData(), parent, row));
}

void RackPanel::select_nodes(const QList<QUuid> &nodes)
{
    if (nodes.isEmpty())
        return;
    select_node(nodes.first());
    for (const QUuid &id : nodes) {
        const QModelIndex index = m_view_model->index_of(id);
        for (QModelIndex p = index.parent(); p.isValid(); p = p.parent())
            m_tree->expand(p);
        m_tree->selectionModel()->select(index, QItemSelectionModel::Select | QItemSelectionModel::Rows);
    }
}

void RackPanel::remove_selected()
{
    m_view_model->remove_nodes(selected_nodes());
}

void RackPanel::select_all()
{
    m_tree->selectAll();
}

void RackPanel::changeEvent(QEvent *event)
{
    if (event->type() == QEvent::LanguageChange) {
        const std::pair<QAction *, const char *> actions[] = {
            {m_edit, CORV_TR_KEY("Action.Edit")},       {m_add_inside, CORV_TR_KEY("Action.AddInside")},
            {m_replace, CORV_TR_KEY("Action.Replace")}, {m_cut, CORV_TR_KEY("Action.Cut")},
            {m_copy, CORV_TR_KEY("Action.Copy")},       {m_paste, CORV_TR_KEY("Action.Paste")},
            {m_delete, CORV_TR_KEY("Action.Delete")}};
        for (const auto &[action, key] : actions)
            action->setText(locale::translate(key));
        m_view_model->retranslate();
    }
    QWidget::changeEvent(event);
}

} // namespace corv::widgets
