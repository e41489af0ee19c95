#include "widgets/node_panel.h"

#include "cui/surface.h"
#include "widgets/node_panel_view_model.h"

#include <QEvent>
#include <QLabel>
#include <QScrollArea>
#include <QVBoxLayout>

namespace corv::widgets {

NodePanel::NodePanel(NodePanelViewModel *view_model, QWidget *parent)
    : QWidget(parent), m_view_model(view_model), m_scroll(new QScrollArea(this)), m_message(new QLabel(this))
{
    auto *layout = new QVBoxLayout(this);
    layout->setContentsMargins(0, 0, 0, 0);
    m_message->setWordWrap(true);
    m_message->setAlignment(Qt::AlignCenter);
    m_message->setMargin(12);
    m_scroll->setWidgetResizable(true);
    m_scroll->setFrameShape(QFrame::NoFrame);
    layout->addWidget(m_message, 1);
    layout->addWidget(m_scroll, 1);

    connect(m_view_model, &NodePanelViewModel::title_changed, this, [this](const QString &title) {
        setWindowTitle(title);
        Q_EMIT title_changed(title);
    });
    connect(m_view_model, &NodePanelViewModel::surface_changed, this, &NodePanel::show_surface);
    setWindowTitle(m_view_model->title());
    show_surface();
}

NodePanel::~NodePanel() = default;

void NodePanel::show_surface()
{
    // A new page each time: setting it deletes the previous page with the
    // surface's old view.
    auto *page = new QWidget;
    auto *page_layout = new QVBoxLayout(page);
    page_layout->setContentsMargins(8, 8, 8, 8);
    m_view = nullptr;
    if (cui::Surface *surface = m_view_model->surface()) {
        m_view = surface->create_view(page);
        page_layout->addWidget(m_view);
    }
    page_layout->addStretch(1);
    m_scroll->setWidget(page);

    const bool not_loaded = !m_view_model->node().isNull() && !m_view_model->is_loaded();
    m_message->setText(not_loaded ? m_view_model->title() + u'\n' + m_view_model->not_loaded_text() : QString());
    m_message->setVisible(not_loaded);
    m_scroll->setVisible(!not_loaded);
}

void NodePanel::changeEvent(QEvent *event)
{
    if (event->type() == QEvent::LanguageChange) {
        m_view_model->retranslate();
        if (m_message->isVisible())
            m_message->setText(m_view_model->title() + u'\n' + m_view_model->not_loaded_text());
    }
    QWidget::changeEvent(event);
}

} // namespace corv::widgets
