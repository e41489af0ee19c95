#include "widgets/add_node_widget.h"

#include "engine/node_registry.h"
#include "locale/translate.h"
#include "widgets/add_node_widget_view_model.h"

#include <QHeaderView>
#include <QKeyEvent>
#include <QLineEdit>
#include <QPixmap>
#include <QTreeWidget>
#include <QVBoxLayout>

namespace corv::widgets {

namespace {
constexpr int kIdRole = Qt::UserRole + 1;
}

AddNodeWidget::AddNodeWidget(AddNodeWidgetViewModel *view_model, QWidget *parent)
    : QWidget(parent), m_view_model(view_model), m_search(new QLineEdit(this)), m_list(new QTreeWidget(this))
{
    auto *layout = new QVBoxLayout(this);
    layout->setContentsMargins(4, 4, 4, 4);
    m_search->setPlaceholderText(locale::translate("AddNodeWidget.Search"));
    m_search->setClearButtonEnabled(true);
    m_search->installEventFilter(this);
    // The name, and a line on what the type does (built-in types have one).
    m_list->setColumnCount(2);
    m_list->setHeaderHidden(true);
    m_list->header()->setSectionResizeMode(0, QHeaderView::ResizeToContents);
    m_list->header()->setStretchLastSection(true);
    m_list->setTextElideMode(Qt::ElideRight);
    m_list->setRootIsDecorated(false);
    m_list->setUniformRowHeights(true);
    layout->addWidget(m_search);
    layout->addWidget(m_list);
    setFocusProxy(m_search);

    connect(m_search, &QLineEdit::textChanged, m_view_model, &AddNodeWidgetViewModel::set_search);
    connect(m_view_model, &AddNodeWidgetViewModel::categories_changed, this, &AddNodeWidget::rebuild);
    connect(m_search, &QLineEdit::returnPressed, this, [this] { choose(m_list->currentItem()); });
    connect(m_list, &QTreeWidget::itemActivated, this, [this](QTreeWidgetItem *item) { choose(item); });
    rebuild();
}

AddNodeWidget::~AddNodeWidget() = default;

void AddNodeWidget::reset()
{
    m_search->clear();
    m_search->setFocus();
}

void AddNodeWidget::rebuild()
{
    m_list->clear();
    QTreeWidgetItem *first = nullptr;
    for (const AddNodeWidgetViewModel::Category &category : m_view_model->categories()) {
        auto *header = new QTreeWidgetItem(m_list, {category.name});
        header->setFlags(Qt::ItemIsEnabled);
        header->setFirstColumnSpanned(true);
        QFont font = header->font(0);
        font.setBold(true);
        header->setFont(0, font);
        for (const engine::NodeDefinition *d : category.types) {
            const QString description = AddNodeWidgetViewModel::description_of(d);
            auto *item = new QTreeWidgetItem(header, {AddNodeWidgetViewModel::name_of(d), description});
            item->setData(0, kIdRole, d->id);
            item->setToolTip(0, description.isEmpty() ? d->id : description + u'\n' + d->id);
            item->setToolTip(1, description);
            item->setForeground(1, palette().brush(QPalette::Disabled, QPalette::Text));
            if (!d->icon.isNull())
                item->setIcon(0, QPixmap::fromImage(d->icon.scaled(16, 16, Qt::KeepAspectRatio, Qt::SmoothTransformation)));
            if (!first)
                first = item;
        }
    }
    if (!first && !m_view_model->search().isEmpty()) {
        auto *none = new QTreeWidgetItem(m_list, {locale::translate("AddNodeWidget.NoMatch")});
        none->setFlags(Qt::NoItemFlags);
    }
    m_list->expandAll();
    m_list->setCurrentItem(first);
}

void AddNodeWidget::choose(QTreeWidgetItem *item)
{
    const QString id = item ? item->data(0, kIdRole).toString() : QString();
    if (!id.isEmpty())
        Q_EMIT node_chosen(id);
}

void AddNodeWidget::changeEvent(QEvent *event)
{
    if (event->type() == QEvent::LanguageChange) {
        m_search->setPlaceholderText(locale::translate("AddNodeWidget.Search"));
        m_view_model->retranslate();
    }
    QWidget::changeEvent(event);
}

bool AddNodeWidget::eventFilter(QObject *watched, QEvent *event)
{
    // Up and Down in the search field walk the list.
    if (watched == m_search && event->type() == QEvent::KeyPress) {
        const int key = static_cast<QKeyEvent *>(event)->key();
        if (key == Qt::Key_Escape) {
            Q_EMIT cancelled();
            return true;
        }
        if (key == Qt::Key_Up || key == Qt::Key_Down) {
            QTreeWidgetItem *item = m_list->currentItem();
            do {
                item = item ? (key == Qt::Key_Down ? m_list->itemBelow(item) : m_list->itemAbove(item)) : nullptr;
            } while (item && item->data(0, kIdRole).toString().isEmpty());
            if (item)
                m_list->setCurrentItem(item);
            return true;
        }
    }
    return QWidget::eventFilter(watched, event);
}

} // namespace corv::widgets
